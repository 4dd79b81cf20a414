#include "kmod/manual_build.hpp"

#include <gtest/gtest.h>

namespace {

TEST(ManualBuild, WhenThePeerMemoryStepFollowsTheMainModule) {
    struct Case {
        int result;
        bool do_module_sign;
        bool follows;
    } cases[] = {
        {0, false, true},    {0, true, true},
        {50, true, true},    // a key the kernel does not know yet: the user is told to enrol it
        {50, false, false},  {49, true, false}, {38, true, false}, {34, false, false},
        {54, false, false},  {0x100, false, true},  // only the low byte counts
        {0x132, true, true},
    };
    for (const Case& c : cases)
        EXPECT_EQ(main_module_result_lets_peer_memory_follow(c.result, c.do_module_sign), c.follows)
            << c.result << " sign " << c.do_module_sign;
}

TEST(ManualBuild, PeerMemoryModuleNeedsOfedAndALoadedIbCore) {
    struct Case {
        bool ofed;
        int32_t ib_core_state;
        bool wanted;
    } cases[] = {
        {true, -1, true}, {true, -2, true}, {true, 0, false}, {true, 1, false},
        {false, -1, false}, {false, 0, false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(peer_memory_module_wanted(c.ofed, c.ib_core_state), c.wanted) << c.ofed << " " << c.ib_core_state;
}

}  // namespace
