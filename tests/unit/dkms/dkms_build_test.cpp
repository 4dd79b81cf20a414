#include "dkms/dkms_build.hpp"

#include <csignal>
#include <gtest/gtest.h>

namespace {

TEST(DkmsBuild, WaitStatusOfTheBuildChild) {
    struct Case {
        const char* story;
        int wait_status;
        bool ended_abnormally;
        bool failed;
    } cases[] = {
        {"exit 0", 0x0000, false, false},
        {"exit 1", 0x0100, false, true},
        {"exit 5, as after a failed execl", 0x0500, false, true},
        {"killed by SIGKILL: passes, with the message", SIGKILL, true, false},
        {"SIGSEGV with a core", 0x80 | SIGSEGV, true, false},
        {"stopped by SIGTSTP", 0x7f | (SIGTSTP << 8), true, true},
    };
    for (const Case& c : cases) {
        const BuildChildOutcome outcome = judge_build_wait_status(c.wait_status);
        EXPECT_EQ(outcome.ended_abnormally, c.ended_abnormally) << c.story;
        EXPECT_EQ(outcome.failed, c.failed) << c.story;
    }
}

}  // namespace
