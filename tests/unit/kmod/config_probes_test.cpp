#include "kmod/config_probes.hpp"

#include <filesystem>
#include <gtest/gtest.h>

#include "test_support.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

namespace {

// The package's script answers with its output, less one line feed; it lies
// where a package's kernel_path puts it, relative to the program.
TEST_F(LoggedTest, TheSigningHashIsTheScriptsOutputLessOneLineFeed) {
    DriverInstaller installer{InstallOptions{}};
    installer.package.kernel_path = std::filesystem::relative(dir.path(), exe_directory()).string() + "/";
    struct Case {
        std::string body;
        bool answered;
        std::string hash;
    } cases[] = {
        {"printf 'sha256\\n\\n'", true, "sha256\n"},
        {"echo sha384; exit 1", false, ""},
    };
    for (const Case& c : cases) {
        dir.write("vnt/kernel_test.sh", "[ \"$5\" = guess_module_signing_hash ] || exit 9\n" + c.body + "\n");
        std::string hash = "stale";
        EXPECT_EQ(installer.query_signing_hash(hash), c.answered) << c.body;
        EXPECT_EQ(hash, c.hash) << c.body;
    }
    EXPECT_TRUE(log_text().ends_with("Debug: running conftest:guess_module_signing_hash failed"));
}

}  // namespace
