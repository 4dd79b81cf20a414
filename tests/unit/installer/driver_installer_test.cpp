#include "installer/installer.hpp"

#include <gtest/gtest.h>

#include "app/log.hpp"

namespace {

TEST(DriverInstaller, DriverPrefixForEachKindOfPrefix) {
    struct Case {
        std::string given;
        std::string prefix;
        std::string driver_prefix;
    } cases[] = {
        {"/usr/local/quorl-3.2.1", "/usr/local/quorl-3.2.1/", "/usr/local/quorl-3.2.1/"},
        {"/usr/local/quorl-3.2.1/", "/usr/local/quorl-3.2.1/", "/usr/local/quorl-3.2.1/"},
        {"/opt/x", "/opt/x/", "/opt/x/quorl-3.2.1/"},
        {"/opt/quorl-1.0", "/opt/quorl-1.0/", "/opt/quorl-1.0/quorl-3.2.1/"},
        {"/opt/quorl-3.2.10", "/opt/quorl-3.2.10/", "/opt/quorl-3.2.10/quorl-3.2.1/"},
        {"/", "/", "/quorl-3.2.1/"},
        {"", "/", "/quorl-3.2.1/"},
        {"relative/quorl-3.2.1", "relative/quorl-3.2.1/", "relative/quorl-3.2.1/"},
        {"relative", "relative/", "relative/quorl-3.2.1/"},
    };
    for (const Case& c : cases) {
        InstallOptions options;
        options.prefix = c.given;
        DriverInstaller installer(options);
        EXPECT_EQ(installer.options.prefix, c.prefix) << c.given;
        EXPECT_EQ(installer.driver_prefix, c.driver_prefix) << c.given;
    }
}

TEST(DriverInstaller, CopiesTheOptionsAndHasNoModuleParameters) {
    InstallOptions options;
    options.disable_dkms = true;
    options.enable_vgpu = true;
    options.kernel_source_path = "/usr/src/linux";
    options.module_signing_secret_key = "/k/a.key";
    options.module_signing_public_key = "/k/a.der";
    DriverInstaller installer(options);
    EXPECT_TRUE(installer.options.disable_dkms);
    EXPECT_TRUE(installer.options.enable_vgpu);
    EXPECT_FALSE(installer.options.generated_key);
    EXPECT_EQ(installer.options.kernel_source_path, "/usr/src/linux");
    EXPECT_EQ(installer.options.module_signing_secret_key, "/k/a.key");
    EXPECT_EQ(installer.options.module_signing_public_key, "/k/a.der");
    EXPECT_EQ(installer.module_params, "");
}

}  // namespace
