#include "host/system_utilities.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "../child_process.hpp"
#include "../test_support.hpp"

namespace fs = std::filesystem;

namespace {

TEST(SystemUtilities, SearchPathIsWidenedOnceWithoutDuplicates) {
    struct Case {
        const char* current;
        std::string widened;
    } cases[] = {
        {nullptr, "/bin:/usr/bin:/sbin:/usr/sbin"},
        {"", ":/bin:/usr/bin:/sbin:/usr/sbin"},
        {"/opt/a:/opt/a:/sbin:/opt/b", "/opt/a:/sbin:/opt/b:/bin:/usr/bin:/usr/sbin"},
        {"/opt/a::/opt/b:", "/opt/a::/opt/b:/bin:/usr/bin:/sbin:/usr/sbin"},
        {"/usr/bin/", "/usr/bin/:/bin:/usr/bin:/sbin:/usr/sbin"},  // compared as text
    };
    for (const Case& c : cases) {
        const std::string once = widened_search_path(c.current);
        EXPECT_EQ(once, c.widened) << (c.current ? c.current : "(unset)");
        EXPECT_EQ(widened_search_path(once.c_str()), once);
    }
}

TEST(SystemUtilities, SearchGoesPastAFileThatIsNotExecutableAndLeavesThePathWidened) {
    TempDir dir;
    const std::string saved = getenv("PATH");
    dir.write("first/vtool", "#!/bin/sh\n");
    dir.write("second/vtool", "#!/bin/sh\n");
    fs::permissions(dir / "second/vtool", fs::perms::owner_all);
    setenv("PATH", (dir / "first").c_str(), 1);
    EXPECT_FALSE(find_system_utility("vtool"));
    const std::string path = dir / "first" + ":" + dir / "second";
    setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(find_system_utility("vtool"));
    EXPECT_EQ(std::string(getenv("PATH")), path + ":/bin:/usr/bin:/sbin:/usr/sbin");
    EXPECT_FALSE(check_system_utilities(nullptr, 17));
    setenv("PATH", saved.c_str(), 1);
}

TEST(SystemUtilities, AnEmptyElementStandsForTheRoot) {
    // Only the root of a chroot can hold "/" + name for the test.
    TempDir dir;
    dir.write("vtool", "#!/bin/sh\n");
    fs::permissions(dir / "vtool", fs::perms::owner_all);
    in_child([&] { return own_root(dir.path()); }, [] {
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

}  // namespace
