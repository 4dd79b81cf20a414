#include "kmod/config_probes.hpp"

#include <gtest/gtest.h>

namespace {

TEST(ConfigProbes, CommandLineOfTheScript) {
    PackageManifest package;
    package.arch = "x86_64";
    InstallOptions options;
    options.kernel_source_path = "/usr/src/linux-headers-6.1.0";
    EXPECT_EQ(conftest_command("/opt/pkg/./kernel/", package, options, "test_configuration_option CONFIG_X"),
              "sh \"/opt/pkg/./kernel//vnt/kernel_test.sh\" \"gcc\" \"x86_64\" \"/usr/src/linux-headers-6.1.0\" "
              "\"/usr/src/linux-headers-6.1.0\"  test_configuration_option CONFIG_X 2>&1");
    options.kernel_source_path.clear();
    EXPECT_EQ(conftest_command("/p/k", package, options, "guess_module_signing_hash"),
              "sh \"/p/k/vnt/kernel_test.sh\" \"gcc\" \"x86_64\" \"\" \"\"  guess_module_signing_hash 2>&1");
}

}  // namespace
