#pragma once
// Checks that the suites of several boots make on what a scenario brought
// back: facts against a table, lines of a log in their order, and the
// comparison of a run's install record with what the guest's root holds.

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

// Each piece appears in `text` after the one before it.
inline ::testing::AssertionResult in_order(const std::string& text, const std::vector<std::string>& pieces)
{
    size_t at = 0;
    for (const std::string& piece : pieces) {
        size_t found = text.find(piece, at);
        if (found == std::string::npos)
            return ::testing::AssertionFailure() << "missing, or out of order: \"" << piece << "\"\nin:\n" << text;
        at = found + piece.size();
    }
    return ::testing::AssertionSuccess();
}

inline ::testing::AssertionResult lacks(const std::string& text, const std::string& piece)
{
    if (text.find(piece) == std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "unexpected \"" << piece << "\" in:\n" << text;
}

// The lines of a changes fact (rk_changes) whose path starts with none of
// `owned_elsewhere`: what a run changed on the host that its record must name.
std::vector<std::string> changes_outside(const std::string& changes, const std::vector<std::string>& owned_elsewhere);

// The changed paths that the record does not name: `changes` and `paths`
// are the facts of rk_changes and rk_record (NAME.paths).
std::vector<std::string> unrecorded(const std::string& changes, const std::string& paths,
                                    const std::vector<std::string>& owned_elsewhere);

} // namespace realkernel
