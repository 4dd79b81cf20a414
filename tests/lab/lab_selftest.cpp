// The lab's own checks: a run is contained, and the kernel-facing parts of
// a host answer as the test describes them.
#include <gtest/gtest.h>

#include "lab_host.hpp"

namespace {

TEST(LabRun, RunsACommandAndReportsItsStatus)
{
    LAB_REQUIRE();
    lab::Host host;
    auto r = host.shell("echo out; echo err >&2; exit 3");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "out\n");
    EXPECT_EQ(r.err, "err\n");
}

}  // namespace
