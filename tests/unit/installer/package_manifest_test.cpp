#include "installer/package_manifest.hpp"

#include <gtest/gtest.h>
#include <stdexcept>

#include "../test_support.hpp"
#include "app/log.hpp"

namespace {

TEST(PackageManifest, LinesByTheirPlace) {
    struct Case {
        std::string text;
        std::string title, version, name, kernel_path;
    } cases[] = {
        {"Quorl Driver for Linux-x86_64\n3.2.1\nvantoria\n./kernel/\n", "Quorl Driver for Linux-x86_64", "3.2.1",
         "vantoria", "./kernel/"},
        {"T\n9.9\nqv_driver\nsrc", "T", "9.9", "qv_driver", "src"},           // no line feed behind the last line
        {"T\n1\nm\nk\nfifth line\nsixth\n", "T", "1", "m", "k"},               // later lines are ignored
        {"T\r\n1.0\r\nmod\r\n./k/\r\n", "T\r", "1.0\r", "mod\r", "./k/\r"},    // a carriage return stays
        {"\n\n\n\n", "", "", "", ""},                                          // empty lines count as lines
        {"  T \n 2 \n# m\n k\n", "  T ", " 2 ", "# m", " k"},                  // no trimming, no comments
    };
    for (const Case& c : cases) {
        const PackageManifest package = parse_package_manifest(c.text);
        EXPECT_EQ(package.title, c.title) << c.text;
        EXPECT_EQ(package.version, c.version) << c.text;
        EXPECT_EQ(package.name, c.name) << c.text;
        EXPECT_EQ(package.kernel_path, c.kernel_path) << c.text;
        EXPECT_EQ(package.kernel_version, "");
        EXPECT_EQ(package.arch, "");
    }
}

TEST(PackageManifest, FewerThanFourLinesThrowTheBoundsError) {
    for (const std::string text : {"", "T\n", "T\n1\nm\n", "T\n1\nm", "\n\n\n"}) {
        EXPECT_THROW(parse_package_manifest(text), std::out_of_range) << '"' << text << '"';
    }
}

class PackageManifestFile : public ::testing::Test {
protected:
    void SetUp() override {
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
    }
    void TearDown() override { log_reset_for_tests(); }
    TempDir dir;
};

TEST_F(PackageManifestFile, MissingFileGivesTheDefaultsAndAWarning) {
    testing::internal::CaptureStderr();
    const PackageManifest package = read_package_manifest(dir / ".manifest");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Initializing driverConfig using default values. This driver installation package maybe incomplete.\n");
    EXPECT_EQ(package.name, "vantoria");
    EXPECT_EQ(package.version, "3.2.1");
    EXPECT_EQ(package.title, "Quorl Driver for Linux-x86_64");
    EXPECT_EQ(package.kernel_path, "./kernel/");
    EXPECT_EQ(package.kernel_version, "");
    EXPECT_EQ(slurp(dir / "installer.log"),
              "Debug: Failed to open " + dir / ".manifest" +
                  "\nInitializing driverConfig using default values. This driver installation package maybe "
                  "incomplete.\n");
}

TEST_F(PackageManifestFile, FileIsReadAsItStandsAndAnEmptyOneThrows) {
    const PackageManifest package = read_package_manifest(dir.write(".manifest", "Title\n\nvnt\n./kernel/\n"));
    EXPECT_EQ(package.version, "");
    EXPECT_EQ(package.name, "vnt");
    EXPECT_THROW(read_package_manifest(dir.write("empty", "")), std::out_of_range);
    EXPECT_EQ(slurp(dir / "installer.log"), "");
}

}  // namespace
