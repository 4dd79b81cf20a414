#include "preview/cgroup_limits.hpp"

#include <gtest/gtest.h>

namespace {

TEST(CgroupLimits, WhatACgroupLacksAndWhereThisProcessIs) {
    EXPECT_EQ(preview::controllers_missing("cpuset cpu io memory hugetlb pids rdma misc\n"), "");
    EXPECT_EQ(preview::controllers_missing("cpu memory\n"), "+pids");
    EXPECT_EQ(preview::controllers_missing("memoryx pid"), "+memory +pids");  // whole words only
    EXPECT_EQ(preview::controllers_missing(""), "+memory +pids");

    EXPECT_EQ(preview::unified_path("0::/\n"), "/");
    EXPECT_EQ(preview::unified_path("12:pids:/a\n1:name=systemd:/b\n0::/user.slice/x.scope\n"), "/user.slice/x.scope");
    EXPECT_EQ(preview::unified_path("12:pids:/a\n1:name=systemd:/b\n"), "");  // v1 alone
}

}  // namespace
