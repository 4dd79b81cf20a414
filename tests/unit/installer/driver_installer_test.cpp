#include "installer/installer.hpp"

#include <fstream>
#include <gtest/gtest.h>

namespace {

TEST(DriverInstaller, DriverPrefixForEachKindOfPrefix) {
    struct Case {
        std::string given, prefix, driver_prefix;
    } cases[] = {
        {"/usr/local/quorl-3.2.1/", "/usr/local/quorl-3.2.1/", "/usr/local/quorl-3.2.1/"},
        {"/opt/quorl-3.2.10", "/opt/quorl-3.2.10/", "/opt/quorl-3.2.10/quorl-3.2.1/"},
        {"", "/", "/quorl-3.2.1/"},
    };
    for (const Case& c : cases) {
        InstallOptions options;
        options.prefix = c.given;
        const DriverInstaller installer(options);
        EXPECT_EQ(installer.options.prefix, c.prefix) << c.given;
        EXPECT_EQ(installer.driver_prefix, c.driver_prefix) << c.given;
    }
}

}  // namespace
