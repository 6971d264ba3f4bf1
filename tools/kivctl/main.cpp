#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <iostream>

#include "FdOutput.h"
#include "Kivctl.h"

int main(int argc, char** argv) {
    // A state file that outgrows the size limit is a failed save to report.
    signal(SIGXFSZ, SIG_IGN);
    // kivctl keeps standard output for itself; the library's own line on it
    // (written when its worker stops) goes nowhere.
    android::base::unique_fd mine(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    android::base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (mine.get() < 0 || null.get() < 0 || dup2(null.get(), STDOUT_FILENO) < 0) {
        std::cerr << "kivctl: cannot set up standard output\n";
        return 1;
    }
    kivctl::FdOutput output(std::move(mine));
    std::ostream out(&output);
    return kivctl::run(std::vector<std::string>(argv + 1, argv + argc), std::cin, out, std::cerr);
}
