#include "system/install_phase.hpp"

#include <gtest/gtest.h>
#include <set>

namespace {

using Entries = std::vector<ManifestEntry>;

TEST(InstallPhase, UserEntriesRebasedOntoThePrefix) {
    const std::set<std::string> present = {"/p/bin/tool", "/p/bin", "/p/lib64/libq.so", "/p/x"};
    const auto exists = [&](const std::string& path) { return present.count(path) == 1; };
    const Entries scanned = {
        {"FILE", "quorl/bin/tool", "aa"}, {"DIR", "quorl/bin", ""},  {"SYMLINK", "quorl/lib64/libq.so", ""},
        {"FILE", "quorl/lib64/missing.so", "bb"},  // did not arrive
        {"FILE", "quorl/x", "cc"},        {"DIR", "quorl", ""},
        {"FILE", "q/abc", "dd"},  // five characters: dropped like "quorl" itself
    };
    EXPECT_EQ(rebase_user_entries(scanned, "/p/", exists),
              (Entries{{"FILE", "/p/bin/tool", "aa"}, {"DIR", "/p/bin", ""}, {"SYMLINK", "/p/lib64/libq.so", ""},
                       {"FILE", "/p/x", "cc"}}));
}

}  // namespace
