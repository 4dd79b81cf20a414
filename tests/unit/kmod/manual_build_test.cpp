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
}

}  // namespace
