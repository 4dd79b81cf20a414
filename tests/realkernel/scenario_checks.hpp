#pragma once
// Checks that the suites of several boots make on what a scenario brought
// back: its facts against a table.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "guest_boot.hpp"

namespace realkernel {

struct Fact {
    const char* name;
    std::string expected;
};

// Each fact of the table as the scenario recorded it.
void expect_facts(const GuestBoot& boot, const char* scenario, const std::vector<Fact>& table);

} // namespace realkernel
