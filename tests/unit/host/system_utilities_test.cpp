#include "host/system_utilities.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "../child_process.hpp"
#include "../test_support.hpp"
#include "app/log.hpp"

namespace fs = std::filesystem;

namespace {

class SystemUtilitiesTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* path = getenv("PATH");
        saved_path = path != nullptr ? path : "";
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
    }
    void TearDown() override {
        setenv("PATH", saved_path.c_str(), 1);
        log_reset_for_tests();
    }
    std::string tool(const std::string& name, fs::perms mode) {
        const std::string path = dir.write(name, "#!/bin/sh\n");
        fs::permissions(path, mode);
        return path;
    }
    std::string log_text() { return slurp(dir / "installer.log"); }

    TempDir dir;
    std::string saved_path;
};

TEST(SystemUtilities, SearchPathIsWidenedOnceWithoutDuplicates) {
    struct Case {
        const char* current;
        std::string widened;
    } cases[] = {
        {nullptr, "/bin:/usr/bin:/sbin:/usr/sbin"},
        {"", ":/bin:/usr/bin:/sbin:/usr/sbin"},
        {"/usr/local/bin:/usr/bin", "/usr/local/bin:/usr/bin:/bin:/sbin:/usr/sbin"},
        {"/opt/a:/opt/a:/sbin:/opt/b", "/opt/a:/sbin:/opt/b:/bin:/usr/bin:/usr/sbin"},
        {"/opt/a::/opt/b:", "/opt/a::/opt/b:/bin:/usr/bin:/sbin:/usr/sbin"},
        {"/usr/bin/", "/usr/bin/:/bin:/usr/bin:/sbin:/usr/sbin"},  // compared as text
    };
    for (const Case& c : cases) {
        const std::string once = widened_search_path(c.current);
        EXPECT_EQ(once, c.widened) << (c.current ? c.current : "(unset)");
        EXPECT_EQ(widened_search_path(once.c_str()), once) << "a second call adds nothing";
    }
}

TEST_F(SystemUtilitiesTest, SearchGoesPastAFileThatIsNotExecutable) {
    fs::create_directories(dir / "first");
    fs::create_directories(dir / "second");
    tool("first/vtool", fs::perms::owner_read | fs::perms::owner_write);
    setenv("PATH", (dir / "first").c_str(), 1);
    EXPECT_FALSE(find_system_utility("vtool"));

    tool("second/vtool", fs::perms::owner_all);
    const std::string path = dir / "first" + ":" + dir / "second";
    setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(find_system_utility("vtool"));
    EXPECT_EQ(std::string(getenv("PATH")), path + ":/bin:/usr/bin:/sbin:/usr/sbin");
    EXPECT_FALSE(find_system_utility("no-such-vtool"));
    EXPECT_EQ(std::string(getenv("PATH")), path + ":/bin:/usr/bin:/sbin:/usr/sbin");
}

TEST_F(SystemUtilitiesTest, AnEmptyElementStandsForTheRoot) {
    // Only the root of a chroot can hold "/" + name for the test.
    tool("vtool", fs::perms::owner_all);
    in_child([this] { return own_root(dir.path()); }, [] {
        struct Case {
            const char* path;
            bool found;
            std::string widened;
        } cases[] = {
            {"/nowhere:/bin:/usr/bin:/sbin:/usr/sbin:", true, "/nowhere:/bin:/usr/bin:/sbin:/usr/sbin:"},
            {":/nowhere", true, ":/nowhere:/bin:/usr/bin:/sbin:/usr/sbin"},
            {"/nowhere", false, "/nowhere:/bin:/usr/bin:/sbin:/usr/sbin"},
        };
        for (const Case& c : cases) {
            setenv("PATH", c.path, 1);
            EXPECT_EQ(find_system_utility("vtool"), c.found) << c.path;
            EXPECT_EQ(std::string(getenv("PATH")), c.widened) << c.path;
        }
    });
}

TEST_F(SystemUtilitiesTest, UnsetPathGetsTheDefaultDirectories) {
    unsetenv("PATH");
    EXPECT_TRUE(find_system_utility("sh"));
    EXPECT_EQ(std::string(getenv("PATH")), "/bin:/usr/bin:/sbin:/usr/sbin");
}

TEST_F(SystemUtilitiesTest, EveryRowIsWalkedAndEachMissingToolNamesItsPackage) {
    fs::create_directories(dir / "bin");
    tool("bin/vt-one", fs::perms::owner_all);
    tool("bin/vt-three", fs::perms::owner_all);
    setenv("PATH", (dir / "bin").c_str(), 1);
    SystemUtility table[] = {
        {"vt-one", "pkg-one", 0},
        {"vt-two", "module-init-tools' or 'kmod", 1},
        {"vt-three", "pkg-three", 0},
        {"vt-four", "pkg-four", 1},
    };
    EXPECT_FALSE(check_system_utilities(table, 4));
    EXPECT_EQ(table[0].found, 1);
    EXPECT_EQ(table[1].found, 0);
    EXPECT_EQ(table[2].found, 1);
    EXPECT_EQ(table[3].found, 0);
    EXPECT_EQ(log_text(),
              "Debug: found system utility 'vt-one'\n"
              "Error: Unable to find the system utility 'vt-two'; please make sure you have the package "
              "'module-init-tools' or 'kmod' installed.  If you do have 'module-init-tools' or 'kmod' installed, "
              "then please check that 'vt-two' is in your PATH.\n"
              "Debug: found system utility 'vt-three'\n"
              "Error: Unable to find the system utility 'vt-four'; please make sure you have the package "
              "'pkg-four' installed.  If you do have 'pkg-four' installed, then please check that 'vt-four' is in "
              "your PATH.\n");

    EXPECT_TRUE(check_system_utilities(table, 1));
    EXPECT_FALSE(check_system_utilities(nullptr, 17));
}

TEST(SystemUtilities, TableHoldsTheSeventeenToolsInOrder) {
    std::string names;
    for (const SystemUtility& utility : system_utilities) names += std::string(utility.name) + " ";
    EXPECT_EQ(names, "ldconfig ldd grep dmesg tail cut tr sed objcopy insmod modprobe rmmod lsmod depmod gcc make ld ");
}

}  // namespace
