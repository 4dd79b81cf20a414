#include "installer/installer.hpp"

#include <fstream>
#include <gtest/gtest.h>

#include "../child_process.hpp"
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

TEST(DriverInstaller, DistributionFromOsRelease) {
    // The constructor reads the machine's /etc/os-release: the child has an /etc of its own.
    in_child(
        [] {
            const std::string why = own_mount_namespace();
            return why.empty() ? own_directory("/etc") : why;
        },
        [] {
            struct Case {
                const char* text;
                std::string os_id;
            } cases[] = {
                {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\nID=debian\n", "debian"},
                {"NAME=\"Kylin\"\nID=\"kylin\"\nVERSION_ID=\"V10\"\n", "kylin"},
                {"ID=ubuntu\nVARIANT_ID=server\n", "server"},
                {"", ""},
                {nullptr, ""},  // no file at all
            };
            for (const Case& c : cases) {
                std::filesystem::remove("/etc/os-release");
                if (c.text != nullptr) std::ofstream("/etc/os-release") << c.text;
                DriverInstaller installer{InstallOptions{}};
                EXPECT_EQ(installer.os_id, c.os_id) << (c.text ? c.text : "(no file)");
            }
        });
}

}  // namespace
