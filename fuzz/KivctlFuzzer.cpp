// Any bytes as a kivctl command line (words separated by NUL bytes) or, when
// the first byte is 's', as a shell script: never a crash, an exit status of
// 0, 1 or 2, a message for every failure, and JSON output that parses.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "kivctl/Kivctl.h"

namespace {

const std::string& statePath() {
    static const std::string path = [] {
        char folder[] = "/tmp/kivctl-fuzz-XXXXXX";
        if (mkdtemp(folder) == nullptr) abort();
        return std::string(folder) + "/modem.state";
    }();
    return path;
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> all;
    size_t start = 0;
    for (size_t end; (end = text.find('\0', start)) != std::string::npos; start = end + 1) {
        all.push_back(text.substr(start, end - start));
    }
    all.push_back(text.substr(start));
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    // Waiting out a request the modem is told never to answer, or a watch
    // with nothing to watch, only makes the fuzzer slow.
    if (text.find("timeout") != std::string::npos || text.find("watch") != std::string::npos) {
        return 0;
    }
    const bool shell = !text.empty() && text[0] == 's';
    std::vector<std::string> args = {"--modem-state=" + statePath(), "--timeout=200", "--json"};
    std::istringstream in(shell ? text.substr(1) : std::string());
    if (shell) {
        args.push_back("shell");
    } else {
        for (auto& word : words(text)) args.push_back(std::move(word));
    }
    // Every input starts from the factory table.
    unlink(statePath().c_str());
    std::ostringstream out, err;
    const int status = kivctl::run(args, in, out, err);
    if (status < 0 || status > 2) abort();
    if (status != 0 && err.str().empty()) abort();
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
        if (!nlohmann::json::accept(line)) abort();
    }
    return 0;
}
