#include "host/system_utilities.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "child_process.hpp"
#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

// The search widens PATH once, without duplicates, and leaves it so for the
// run; it passes over a file that is not executable, and an empty element
// stands for the root, which only the root of a chroot can hold for the test.
TEST(SystemUtilities, SearchWidensThePathOnceAndFindsOnlyAnExecutable) {
    TempDir dir;
    for (const char* tool : {"vtool", "first/vtool", "second/vtool"}) dir.write(tool, "#!/bin/sh\n");
    fs::permissions(dir / "vtool", fs::perms::owner_all);
    fs::permissions(dir / "second/vtool", fs::perms::owner_all);
    in_child([&] { return own_root(dir.path()); }, [] {
        struct Case {
            const char* path;  // nullptr: unset
            bool found;
            std::string widened;
        } cases[] = {
            {nullptr, false, "/bin:/usr/bin:/sbin:/usr/sbin"},
            {"", true, ":/bin:/usr/bin:/sbin:/usr/sbin"},
            {"/opt/a:/opt/a:/sbin:/opt/b", false, "/opt/a:/sbin:/opt/b:/bin:/usr/bin:/usr/sbin"},
            {"/opt/a::/opt/b:", true, "/opt/a::/opt/b:/bin:/usr/bin:/sbin:/usr/sbin"},
            {"/usr/bin/", false, "/usr/bin/:/bin:/usr/bin:/sbin:/usr/sbin"},  // compared as text
            {"/first", false, "/first:/bin:/usr/bin:/sbin:/usr/sbin"},
            {"/first:/second", true, "/first:/second:/bin:/usr/bin:/sbin:/usr/sbin"},
            {"/nowhere:/bin:/usr/bin:/sbin:/usr/sbin:", true, "/nowhere:/bin:/usr/bin:/sbin:/usr/sbin:"},
        };
        for (const Case& c : cases) {
            c.path ? setenv("PATH", c.path, 1) : unsetenv("PATH");
            for (int call : {1, 2}) {
                EXPECT_EQ(find_system_utility("vtool"), c.found) << (c.path ? c.path : "(unset)") << " call " << call;
                EXPECT_EQ(std::string(getenv("PATH")), c.widened) << (c.path ? c.path : "(unset)") << " call " << call;
            }
        }
        EXPECT_FALSE(check_system_utilities(nullptr, 17));
    });
}

}  // namespace
