#pragma once
// Checks that the suites of several boots make on what a scenario brought
// back: facts against a table, and the comparison of a run's install record
// with what the guest's root holds.

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
inline void expect_facts(const GuestBoot& boot, const char* scenario, const std::vector<Fact>& table)
{
    for (const auto& [name, expected] : table)
        EXPECT_EQ(boot.fact(scenario, name), expected) << "fact " << name << "; " << boot.where(scenario);
}

// The lines of a changes fact (rk_changes) whose path starts with none of
// `owned_elsewhere`: what a run changed on the host that its record must name.
std::vector<std::string> changes_outside(const std::string& changes, const std::vector<std::string>& owned_elsewhere);

// The changed paths that the record does not name: `changes` and `paths`
// are the facts of rk_changes and rk_record (NAME.paths).
std::vector<std::string> unrecorded(const std::string& changes, const std::string& paths,
                                    const std::vector<std::string>& owned_elsewhere);

} // namespace realkernel
