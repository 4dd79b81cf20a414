#include "installer/kernel_source.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "installer/installer.hpp"

namespace fs = std::filesystem;

namespace {

class KernelSourceTest : public ::testing::Test {
protected:
    void SetUp() override {
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
    }
    void TearDown() override { log_reset_for_tests(); }
    std::string log_text() { return slurp(dir / "installer.log"); }
    // A tree with the two headers a build needs.
    std::string tree(const std::string& name) {
        dir.write(name + "/include/linux/kernel.h", "");
        dir.write(name + "/include/generated/utsrelease.h", "#define UTS_RELEASE \"6.1.0-18-amd64\"\n");
        return dir / name;
    }
    TempDir dir;
};

TEST(KernelSource, CandidatesInTheirFixedOrder) {
    const std::vector<std::string> expected = {
        "/lib/modules/6.1.0-18-amd64/build", "/lib/modules/6.1.0-18-amd64/source",
        "/usr/src/kernels/6.1.0-18-amd64",   "/usr/src/linux-headers-6.1.0-18-amd64",
        "/usr/src/linux",
    };
    EXPECT_EQ(kernel_source_candidates("6.1.0-18-amd64"), expected);
}

TEST_F(KernelSourceTest, FirstDirectoryWinsAndDanglingLinksDoNotCount) {
    fs::create_directories(dir / "real");
    fs::create_directories(dir / "source");
    dir.write("plain-file", "");
    fs::create_symlink(dir / "real", dir / "link-to-dir");
    fs::create_symlink(dir / "gone", dir / "dangling");
    struct Case {
        std::vector<std::string> candidates;
        std::string found;
    } cases[] = {
        {{dir / "build", dir / "source"}, dir / "source"},
        {{dir / "real", dir / "source"}, dir / "real"},
        {{dir / "dangling", dir / "source"}, dir / "source"},
        {{dir / "link-to-dir", dir / "source"}, dir / "link-to-dir"},
        {{dir / "plain-file", dir / "none"}, ""},
        {{}, ""},
    };
    for (const Case& c : cases) EXPECT_EQ(first_directory(c.candidates), c.found);
}

TEST_F(KernelSourceTest, ValidationSaysWhatIsWrongWithoutALineEnd) {
    const std::string good = tree("good");
    dir.write("no-uts/include/linux/kernel.h", "");
    fs::create_directories(dir / "empty");
    const std::string advice =
        "Please make sure you have installed the kernel source files for your kernel and that they are properly "
        "configured; on Red Hat Linux systems, for example, be sure you have the 'kernel-source' or "
        "'kernel-devel' RPM installed.  If you know the correct kernel source files are installed, you may "
        "specify the kernel source path with the '--kernel-source-path' command line option.";
    struct Case {
        std::string path;
        bool valid;
        std::string log;
    } cases[] = {
        {good, true, ""},
        {good + "/", true, ""},
        {"", false, ""},
        {"/usr", false, "Error: The kernel source path /usr is invalid.\nThis should not be /usr"},
        {dir / "empty", false,
         "Error: The kernel header file '" + dir / "empty/include/linux/kernel.h" +
             "' does not exist.  The most likely reason for this is that the kernel source path '" + dir / "empty" +
             "' is incorrect. " + advice},
        {dir / "no-uts/", false,
         "Error: The kernel header file '" + dir / "no-uts//include/generated/utsrelease.h" +
             "' does not exist.  The most likely reason for this is that the kernel source path '" +
             dir / "no-uts/" + "' is incorrect. " + advice},
    };
    for (const Case& c : cases) {
        const size_t before = log_text().size();
        EXPECT_EQ(validate_kernel_source(c.path), c.valid) << c.path;
        EXPECT_EQ(log_text().substr(before), c.log) << c.path;
    }
}

TEST(KernelSource, ReleaseIsCutByCountingCharacters) {
    struct Case {
        std::string text;
        bool found;
        std::string release;
    } cases[] = {
        {"#define UTS_RELEASE \"5.15.0-91-generic\"\n", true, "5.15.0-91-generic"},
        {"/* generated */\n#define UTS_RELEASE \"6.1.0\"\n#define UTS_RELEASE \"9.9.9\"\n", true, "6.1.0"},
        {"anything UTS_RELEASE \"6.1.0\"\n", true, "6.1.0"},
        {"#define UTS_RELEASE \"6.1.0\"\r\n", true, "6.1.0\r"},
        {"#define UTS_RELEASE  \"6.1.0\"", true, "6.1.0"},     // the second blank took the quote's place
        {"#define UTS_RELEASE 6.1.0-x\n", true, ".1.0-x"},     // no quote: its place is taken all the same
        {"#define UTS_RELEASE \"\"\n", true, ""},
        {"#define UTS_RELEASE \"", true, ""},                  // exactly two characters behind the word
        {"#define UTS_VERSION \"#1 SMP\"\n", false, ""},
        {"", false, ""},
    };
    for (const Case& c : cases) {
        std::string release;
        EXPECT_EQ(parse_uts_release(c.text, release), c.found) << c.text;
        EXPECT_EQ(release, c.release) << c.text;
    }
    for (const std::string text : {"#define UTS_RELEASE\n", "#define UTS_RELEASE", "#define UTS_RELEASE \n"}) {
        std::string release;
        EXPECT_THROW(parse_uts_release(text, release), std::out_of_range) << text;
    }
}

TEST_F(KernelSourceTest, FetchKernelVersionFromTheChosenTree) {
    DriverInstaller installer{InstallOptions{}};
    installer.options.kernel_source_path = tree("good") + "/";
    EXPECT_EQ(installer.fetch_kernel_version(), 0);
    EXPECT_EQ(installer.package.kernel_version, "6.1.0-18-amd64");

    const size_t before = log_text().size();
    dir.write("undefined/include/generated/utsrelease.h", "/* nothing */\n");
    dir.write("empty/include/generated/utsrelease.h", "");
    for (const std::string name : {"undefined", "empty", "missing"}) {
        installer.options.kernel_source_path = dir / name;
        EXPECT_EQ(installer.fetch_kernel_version(), 32) << name;
        EXPECT_EQ(installer.package.kernel_version, "6.1.0-18-amd64") << name;
    }
    const std::string uts = "/include/generated/utsrelease.h";
    EXPECT_EQ(log_text().substr(before),
              "Warning: Fetch kernel version from " + dir / "undefined" + uts + " failed.\n" +
                  "Warning: Fetch kernel version from " + dir / "empty" + uts + " failed.\n" +
                  "Debug: Failed to open " + dir / "missing" + uts + "\n" +
                  "Warning: Fetch kernel version from " + dir / "missing" + uts + " failed.\n");
}

}  // namespace
