#include "kmod/config_probes.hpp"

#include <filesystem>
#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

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

// The package's script, reached from the program's directory as a real
// package's kernel_path is.
class ConftestScriptTest : public ::testing::Test {
protected:
    void SetUp() override {
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
        installer.package.kernel_path = std::filesystem::relative(dir.path(), exe_directory()).string() + "/";
        installer.package.arch = "x86_64";
        installer.options.kernel_source_path = "/usr/src/linux-headers-6.1.0";
        script_dir = exe_directory() + "/" + installer.package.kernel_path;
    }
    void TearDown() override { log_reset_for_tests(); }
    void script(const std::string& body) { dir.write("vnt/kernel_test.sh", body); }
    std::string log_text() { return slurp(dir / "installer.log"); }

    TempDir dir;
    DriverInstaller installer{InstallOptions{}};
    std::string script_dir;
};

TEST_F(ConftestScriptTest, ConfigurationOptionIsTheScriptsExitStatus) {
    script("[ \"$1 $2 $3 $4\" = \"gcc x86_64 /usr/src/linux-headers-6.1.0 /usr/src/linux-headers-6.1.0\" ] || exit 9\n"
           "[ \"$5\" = test_configuration_option ] || exit 8\n"
           "echo checked $6\n"
           "[ \"$6\" = CONFIG_MODULE_SIG_FORCE ]\n");
    EXPECT_EQ(installer.check_configuration_option("CONFIG_MODULE_SIG_FORCE"), 1);
    EXPECT_EQ(installer.check_configuration_option("CONFIG_OTHER"), 0);
    const std::string command = "sh \"" + script_dir +
                                "/vnt/kernel_test.sh\" \"gcc\" \"x86_64\" \"/usr/src/linux-headers-6.1.0\" "
                                "\"/usr/src/linux-headers-6.1.0\"  test_configuration_option ";
    EXPECT_EQ(log_text(), "Debug: running cmd:" + command + "CONFIG_MODULE_SIG_FORCE 2>&1 outputchecked CONFIG_MODULE_SIG_FORCE\n 0\n" +
                              "Debug: running cmd:" + command + "CONFIG_OTHER 2>&1 outputchecked CONFIG_OTHER\n 1\n");

    // Without a kernel tree nothing is run.
    installer.options.kernel_source_path.clear();
    EXPECT_EQ(installer.check_configuration_option("CONFIG_MODULE_SIG_FORCE"), 2);
    std::filesystem::remove(dir / "vnt/kernel_test.sh");
    installer.options.kernel_source_path = "/usr/src/linux-headers-6.1.0";
    EXPECT_EQ(installer.check_configuration_option("CONFIG_MODULE_SIG_FORCE"), 0);  // the shell can't open the script
}

TEST_F(ConftestScriptTest, SigningHashIsTheWholeOutputLessOneLineFeed) {
    struct Case {
        std::string body;
        bool answered;
        std::string hash;
    } cases[] = {
        {"printf 'sha512\\n'\n", true, "sha512"},
        {"printf 'sha256\\n\\n'\n", true, "sha256\n"},
        {"echo 'warning: odd config'; echo sha1\n", true, "warning: odd config\nsha1"},
        {"echo sha384; exit 1\n", false, ""},
    };
    for (const Case& c : cases) {
        script("[ \"$5\" = guess_module_signing_hash ] || exit 9\n" + c.body);
        std::string hash = "stale";
        const size_t before = log_text().size();
        EXPECT_EQ(installer.query_signing_hash(hash), c.answered) << c.body;
        EXPECT_EQ(hash, c.hash) << c.body;
        const std::string tail = log_text().substr(before);
        EXPECT_EQ(tail.ends_with("guess_module_signing_hash failed"), !c.answered) << tail;
    }
}

}  // namespace
