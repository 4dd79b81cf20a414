#include "record/tree_scan.hpp"

#include <filesystem>
#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

namespace {

class TreeScanTest : public ::testing::Test {
protected:
    void SetUp() override { reset_run_state(); }
    void TearDown() override { reset_run_state(); }
    TempDir dir;
};

TEST_F(TreeScanTest, ChildrenBeforeTheirDirectory) {
    dir.write("a/b/file", "hello\n");
    const std::vector<ManifestEntry> expected = {
        {"FILE", dir / "a/b/file", "b1946ac92492d2347c6235b4d2611184"},
        {"DIR", dir / "a/b", ""},
        {"DIR", dir / "a", ""},
    };
    EXPECT_EQ(scan_tree(dir / "a"), expected);
    EXPECT_EQ(md5_cache.count(dir / "a/b/file"), 1u);
}

TEST_F(TreeScanTest, HiddenNamesSkippedAndLinksNotFollowed) {
    dir.write("t/.hidden", "x");
    dir.write("t/.hidden-dir/inner", "x");
    dir.write("t/sub/inner", "x");
    fs::create_symlink("sub", dir / "t/link-to-dir");
    fs::create_symlink("nowhere", dir / "t/dangling");
    std::vector<ManifestEntry> entries = scan_tree(dir / "t");
    std::sort(entries.begin(), entries.end() - 1,
              [](const ManifestEntry& a, const ManifestEntry& b) { return a.path < b.path; });
    const std::vector<ManifestEntry> expected = {
        {"SYMLINK", dir / "t/dangling", ""},
        {"SYMLINK", dir / "t/link-to-dir", ""},
        {"DIR", dir / "t/sub", ""},
        {"FILE", dir / "t/sub/inner", "9dd4e461268c8034f5c8564e155c67a6"},
        {"DIR", dir / "t", ""},
    };
    EXPECT_EQ(entries, expected);
    EXPECT_EQ(md5_cache.count(dir / "t/.hidden"), 0u);
}

TEST_F(TreeScanTest, MissingAndEmptyDirectoriesAndIndependentCalls) {
    EXPECT_TRUE(scan_tree(dir / "missing").empty());
    fs::create_directory(dir / "empty");
    EXPECT_EQ(scan_tree(dir / "empty"), (std::vector<ManifestEntry>{{"DIR", dir / "empty", ""}}));
    EXPECT_EQ(scan_tree(dir / "empty").size(), 1u);
}

TEST_F(TreeScanTest, InstalledTreeNotesTheCopies) {
    const std::string cwd = fs::current_path();
    dir.write("pkg/firmware/vantoria/fw.bin", "hello\n");
    dir.write("pkg/firmware/vantoria/not-copied.bin", "x");
    dir.write("root/firmware/vantoria/fw.bin", "changed\n");
    fs::create_directories(dir / "root/firmware/vantoria");
    ASSERT_EQ(chdir((dir / "pkg").c_str()), 0);
    std::vector<ManifestEntry> entries = scan_installed_tree("firmware", dir / "root");
    ASSERT_EQ(chdir(cwd.c_str()), 0);
    std::sort(entries.begin(), entries.end() - 2,
              [](const ManifestEntry& a, const ManifestEntry& b) { return a.path < b.path; });
    const std::vector<ManifestEntry> expected = {
        {"FILE", dir / "root/firmware/vantoria/fw.bin", "ec1bebaea2c042beb68f7679ddd106a4"},  // the copy's digest, not the package's,
        {"FILE", dir / "root/firmware/vantoria/not-copied.bin", ""},
        {"DIR", dir / "root/firmware/vantoria", ""},
        {"DIR", dir / "root/firmware", ""},
    };
    EXPECT_EQ(entries, expected);
}

}  // namespace
