#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "Kivctl.h"

int main(int argc, char** argv) {
    // A state file that outgrows the size limit is a failed save to report.
    signal(SIGXFSZ, SIG_IGN);
    const int status = kivctl::run(std::vector<std::string>(argv + 1, argv + argc), std::cin,
                                   std::cout, std::cerr);
    // The library's shutdown at exit writes a trace line to standard output;
    // the tool's own output is complete here and must stay machine-readable.
    std::cout.flush();
    fflush(stdout);
    android::base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null.get() >= 0) dup2(null.get(), STDOUT_FILENO);
    return status;
}
