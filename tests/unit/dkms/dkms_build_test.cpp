#include "dkms/dkms_build.hpp"

#include <csignal>
#include <gtest/gtest.h>

namespace {

// The exit statuses are the signed dkms scenarios' to pin; no scenario can kill or stop the build.
TEST(DkmsBuild, WaitStatusOfAKilledOrStoppedBuildChild) {
    struct Case {
        int wait_status;
        bool ended_abnormally, failed;
    } cases[] = {
        {SIGKILL, true, false},  // killed: passes, with the message
        {0x80 | SIGSEGV, true, false}, {0x7f | (SIGTSTP << 8), true, true},
    };
    for (const Case& c : cases) {
        const BuildChildOutcome outcome = judge_build_wait_status(c.wait_status);
        EXPECT_EQ(outcome.ended_abnormally, c.ended_abnormally) << std::hex << c.wait_status;
        EXPECT_EQ(outcome.failed, c.failed) << std::hex << c.wait_status;
    }
}

}  // namespace
