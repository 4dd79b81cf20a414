#include "record/tree_scan.hpp"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

using Entries = std::vector<ManifestEntry>;

Entries sorted(Entries entries, size_t tail) {
    std::sort(entries.begin(), entries.end() - static_cast<long>(tail),
              [](const ManifestEntry& a, const ManifestEntry& b) { return a.path < b.path; });
    return entries;
}

TEST_F(LoggedTest, InstalledTreeNotesTheCopies) {
    const std::string cwd = fs::current_path();
    dir.write("pkg/firmware/vantoria/fw.bin", "hello\n");
    dir.write("pkg/firmware/vantoria/not-copied.bin", "x");
    dir.write("root/firmware/vantoria/fw.bin", "changed\n");
    ASSERT_EQ(chdir((dir / "pkg").c_str()), 0);
    const Entries entries = sorted(scan_installed_tree("firmware", dir / "root"), 2);
    ASSERT_EQ(chdir(cwd.c_str()), 0);
    EXPECT_EQ(entries, (Entries{{"FILE", dir / "root/firmware/vantoria/fw.bin", "ec1bebaea2c042beb68f7679ddd106a4"},
                                {"FILE", dir / "root/firmware/vantoria/not-copied.bin", ""},
                                {"DIR", dir / "root/firmware/vantoria", ""},
                                {"DIR", dir / "root/firmware", ""}}));
}

}  // namespace
