// The main of every test program: GoogleTest with the watchdog. Each test
// has KIVR_TEST_DEADLINE seconds (default 60) to finish.
#include <android-base/parseint.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "Watchdog.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    int seconds = 60;
    const char* deadline = getenv("KIVR_TEST_DEADLINE");
    if (deadline != nullptr && !android::base::ParseInt(deadline, &seconds, 1, 86400)) {
        fprintf(stderr, "KIVR_TEST_DEADLINE: '%s' is not a number of seconds (1 to 86400)\n",
                deadline);
        return 2;
    }
    kiv::test::installWatchdog(std::chrono::seconds(seconds));
    return RUN_ALL_TESTS();
}
