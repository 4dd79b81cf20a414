#include "dkms/dkms_build.hpp"

#include <csignal>
#include <gtest/gtest.h>

namespace {

TEST(DkmsBuild, WaitStatusOfTheBuildChild) {
    struct Case {
        int wait_status;
        bool ended_abnormally, failed;
    } cases[] = {
        {0x0000, false, false}, {0x0100, false, true}, {0x0500, false, true},
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
