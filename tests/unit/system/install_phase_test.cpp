#include "system/install_phase.hpp"

#include <gtest/gtest.h>
#include <set>

namespace {

using Entries = std::vector<ManifestEntry>;

TEST(InstallPhase, TheSystemsFirmwareDirectoryStaysOutOfTheRecord) {
    const Entries scanned = {{"DIR", "/lib/firmware", ""}, {"FILE", "/lib/firmware/a", "x"}, {"DIR", "/lib/firmware", ""},
                             {"SYMLINK", "/lib/firmware", ""}};
    // Only the first such entry goes, and only a DIR.
    EXPECT_EQ(firmware_entries_to_record(scanned, false), Entries(scanned.begin() + 1, scanned.end()));
}

TEST(InstallPhase, ChoiceOfTheBuildPath) {
    struct Case {
        bool disable_dkms, dkms_found;
        int32_t environment;
        bool dkms;
        int searches;
    } cases[] = {
        {false, true, 1, true, 1}, {true, true, 1, false, 0},  // disabled: dkms is not even looked for
        {false, false, 1, false, 1}, {false, true, 2, false, 1},  // inside Docker
    };
    for (const Case& c : cases) {
        int searches = 0;
        EXPECT_EQ(dkms_path_chosen(c.disable_dkms, [&] { return ++searches, c.dkms_found; }, c.environment), c.dkms);
        EXPECT_EQ(searches, c.searches);
    }
}

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
