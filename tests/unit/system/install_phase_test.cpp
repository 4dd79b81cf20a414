#include "system/install_phase.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "installer/installer.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

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

// install_user_files against a package and a prefix in a scratch directory.
class UserFiles : public ::testing::Test {
protected:
    void SetUp() override {
        reset_run_state();
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
        dir.write("pkg/quorl/bin/quorl-driver-uninstaller", "#!/bin/sh\n");
        dir.write("pkg/quorl/lib64/libquorl.so.3", "library");
        fs::create_symlink("libquorl.so.3", dir / "pkg/quorl/lib64/libquorl.so");
        fs::create_symlink("nowhere", dir / "pkg/quorl/lib64/dangling");
        fs::create_directories(dir / "prefix/quorl-3.2.1");
        previous_dir = fs::current_path();
        fs::current_path(dir / "pkg");
    }
    void TearDown() override {
        fs::current_path(previous_dir);
        log_reset_for_tests();
        reset_run_state();
    }
    std::string prefix() const { return dir / "prefix/quorl-3.2.1/"; }
    TempDir dir;
    fs::path previous_dir;
};

TEST_F(UserFiles, CopiedRecordedAndTheLibLinkMade) {
    InstallOptions options;
    options.prefix = dir / "prefix";
    DriverInstaller installer(options);
    ASSERT_EQ(installer.driver_prefix, prefix());
    ASSERT_EQ(installer.install_user_files(), 0);

    EXPECT_EQ(fs::read_symlink(prefix() + "lib"), "lib64");
    EXPECT_TRUE(fs::is_symlink(prefix() + "lib64/dangling"));  // copied, but not the driver's to remove
    // The link comes last; before it the order within a directory is readdir's.
    ASSERT_FALSE(install_entries.empty());
    EXPECT_EQ(install_entries.back(), (ManifestEntry{"SYMLINK", prefix() + "/lib", ""}));  // doubled slash kept
    Entries tree(install_entries.begin(), install_entries.end() - 1);
    std::sort(tree.begin(), tree.end(), [](const ManifestEntry& a, const ManifestEntry& b) { return a.path < b.path; });
    const Entries expected = {
        {"DIR", prefix() + "bin", ""},
        {"FILE", prefix() + "bin/quorl-driver-uninstaller", "3e2b31c72181b87149ff995e7202c0e3"},
        {"DIR", prefix() + "lib64", ""},
        {"SYMLINK", prefix() + "lib64/libquorl.so", ""},
        {"FILE", prefix() + "lib64/libquorl.so.3", "d521f765a49c72507257a2620612ee96"},
    };
    EXPECT_EQ(tree, expected);
}

TEST_F(UserFiles, ATakenLibNameIsLeftAloneAndRecordedAllTheSame) {
    InstallOptions options;
    options.prefix = dir / "prefix";
    DriverInstaller installer(options);
    fs::create_directories(prefix() + "lib");
    ASSERT_EQ(installer.install_user_files(), 0);
    EXPECT_TRUE(fs::is_directory(prefix() + "lib"));
    EXPECT_FALSE(fs::is_symlink(prefix() + "lib"));
    EXPECT_EQ(install_entries.back(), (ManifestEntry{"SYMLINK", prefix() + "/lib", ""}));
    EXPECT_NE(slurp(dir / "installer.log").find("symlink " + prefix() + "/lib already be taken, skip symlink generate\n"),
              std::string::npos);
}

TEST_F(UserFiles, AFailedCopyRecordsNothing) {
    fs::remove_all(dir / "pkg/quorl");
    InstallOptions options;
    options.prefix = dir / "prefix";
    DriverInstaller installer(options);
    EXPECT_EQ(installer.install_user_files(), 39);
    EXPECT_TRUE(install_entries.empty());
    EXPECT_FALSE(fs::exists(prefix() + "lib"));
    EXPECT_NE(slurp(dir / "installer.log")
                  .find("Warning: Executing cp -r ./quorl/* " + prefix() + " failed with 1\n\n"),
              std::string::npos);
}

}  // namespace
