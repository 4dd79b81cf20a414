#include "system/install_phase.hpp"

#include <gtest/gtest.h>
#include <set>

namespace {

using Entries = std::vector<ManifestEntry>;

TEST(InstallPhase, FirmwareDirectoryOfTheSystemStaysOutOfTheRecord) {
    const Entries scanned = {
        {"FILE", "/lib/firmware/vantoria/fw.bin", "d41d8cd98f00b204e9800998ecf8427e"},
        {"DIR", "/lib/firmware/vantoria", ""},
        {"DIR", "/lib/firmware", ""},
    };
    struct Case {
        const char* story;
        Entries scanned;
        bool created_here;
        Entries recorded;
    } cases[] = {
        {"existed before", scanned, false, Entries(scanned.begin(), scanned.end() - 1)},
        {"made by this run", scanned, true, scanned},
        {"only the first such entry goes",
         {{"DIR", "/lib/firmware", ""}, {"FILE", "/lib/firmware/a", "x"}, {"DIR", "/lib/firmware", ""}},
         false,
         {{"FILE", "/lib/firmware/a", "x"}, {"DIR", "/lib/firmware", ""}}},
        {"the type must be DIR too",
         {{"SYMLINK", "/lib/firmware", ""}, {"DIR", "/lib/firmware/", ""}},
         false,
         {{"SYMLINK", "/lib/firmware", ""}, {"DIR", "/lib/firmware/", ""}}},
        {"nothing scanned", {}, false, {}},
    };
    for (const Case& c : cases) EXPECT_EQ(firmware_entries_to_record(c.scanned, c.created_here), c.recorded) << c.story;
}

TEST(InstallPhase, ChoiceOfTheBuildPath) {
    struct Case {
        bool disable_dkms;
        bool dkms_found;
        int32_t environment;
        bool dkms;
        int searches;
    } cases[] = {
        {false, true, 1, true, 1},
        {true, true, 1, false, 0},  // disabled: dkms is not even looked for
        {false, false, 1, false, 1},
        {false, true, 2, false, 1},  // inside Docker
        {true, false, 2, false, 0},
        {false, true, 0, true, 1},
    };
    for (const Case& c : cases) {
        int searches = 0;
        const bool chosen = dkms_path_chosen(
            c.disable_dkms,
            [&] {
                ++searches;
                return c.dkms_found;
            },
            c.environment);
        EXPECT_EQ(chosen, c.dkms) << c.disable_dkms << c.dkms_found << c.environment;
        EXPECT_EQ(searches, c.searches) << c.disable_dkms << c.dkms_found << c.environment;
    }
}

TEST(InstallPhase, UserEntriesRebasedOntoThePrefix) {
    const std::set<std::string> present = {"/usr/local/quorl-3.2.1/bin/tool", "/usr/local/quorl-3.2.1/bin",
                                            "/usr/local/quorl-3.2.1/lib64/libq.so", "/usr/local/quorl-3.2.1/lib64",
                                            "/usr/local/quorl-3.2.1/x"};
    const auto exists = [&](const std::string& path) { return present.count(path) == 1; };
    const Entries scanned = {
        {"FILE", "quorl/bin/tool", "aa"},
        {"DIR", "quorl/bin", ""},
        {"SYMLINK", "quorl/lib64/libq.so", ""},
        {"FILE", "quorl/lib64/missing.so", "bb"},  // did not arrive
        {"DIR", "quorl/lib64", ""},
        {"FILE", "quorl/x", "cc"},
        {"DIR", "quorl", ""},
        {"FILE", "q/abc", "dd"},  // five characters: dropped like "quorl" itself
    };
    const Entries expected = {
        {"FILE", "/usr/local/quorl-3.2.1/bin/tool", "aa"},
        {"DIR", "/usr/local/quorl-3.2.1/bin", ""},
        {"SYMLINK", "/usr/local/quorl-3.2.1/lib64/libq.so", ""},
        {"DIR", "/usr/local/quorl-3.2.1/lib64", ""},
        {"FILE", "/usr/local/quorl-3.2.1/x", "cc"},
    };
    EXPECT_EQ(rebase_user_entries(scanned, "/usr/local/quorl-3.2.1/", exists), expected);
}

}  // namespace
