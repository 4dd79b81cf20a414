#include "kmod/manual_build.hpp"

#include <gtest/gtest.h>

namespace {

TEST(ManualBuild, WhenThePeerMemoryModuleFollowsTheMainOne) {
    struct Case {
        int result;
        bool do_module_sign, follows;
    } cases[] = {
        {0, false, true},
        {50, true, true},  // a key the kernel does not know yet: the user is told to enrol it
        {50, false, false}, {49, true, false}, {0x100, false, true}, {0x132, true, true},  // only the low byte counts
    };
    for (const Case& c : cases)
        EXPECT_EQ(main_module_result_lets_peer_memory_follow(c.result, c.do_module_sign), c.follows) << c.result;
    for (int32_t state : {-2, -1, 0, 1}) {
        EXPECT_EQ(peer_memory_module_wanted(true, state), state < 0) << state;
        EXPECT_FALSE(peer_memory_module_wanted(false, state));
    }
}

}  // namespace
