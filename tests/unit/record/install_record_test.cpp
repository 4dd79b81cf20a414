#include "record/install_record.hpp"

#include <gtest/gtest.h>
#include <stdexcept>

#include "test_support.hpp"

namespace {

using Lines = std::vector<std::string>;
const std::string prefix = "/usr/local/quorl-3.2.1/";

TEST(InstallRecord, ReservedPathsAreTakenRelativeToThePrefix) {
    for (const char* path : {"bin/qxsmi", "/lib", "lib", "lib64/libcuda.so.1", "EULA.txt", "copyright"})
        EXPECT_TRUE(is_reserved_path(prefix + path, prefix)) << path;
    for (const char* path : {"lib64/libcuda.so.2", "bin/qxsmi2", "bin/quorl-driver-uninstaller", ""})
        EXPECT_FALSE(is_reserved_path(prefix + path, prefix)) << path;
    EXPECT_FALSE(is_reserved_path("/opt/bin/qxsmi", prefix));
    // Nothing in the program catches this, so the process ends abnormally.
    EXPECT_THROW(is_reserved_path(prefix + "//", prefix), std::out_of_range);
}

TEST(InstallRecord, FormatGroupsInTheOrderOfRemoval) {
    const std::vector<ManifestEntry> entries = {
        {"DIR", prefix + "bin", ""},           {"FILE", prefix + "bin/z", "d1"},
        {"DKMS", "3.2.1", ""},                 {"SYMLINK", prefix + "bin/y", ""},
        {"FILE", prefix + "bin/qxsmi", "d2"},  {"SYMLINK", prefix + "/lib", ""},
        {"SERVICE", "vantoriaquorl-init@vantoria", "d3"}, {"FILE", "/opt/bin/qxsmi", "d4"},
    };
    EXPECT_EQ(format_install_record(entries, prefix),
              (Lines{"QUORL " + prefix, "SERVICE vantoriaquorl-init@vantoria d3", "SYMLINK " + prefix + "bin/y",
                     "FILE " + prefix + "bin/z d1", "DKMS 3.2.1 ", "FILE /opt/bin/qxsmi d4",
                     "RFILE " + prefix + "bin/qxsmi d2", "RLINK " + prefix + "/lib ", "DIR " + prefix + "bin"}));
}

// Each field overwrites what the earlier ones left: a line of two fields
// gives an entry whose md5 equals its path.
TEST(InstallRecord, ParseOverwritesFieldsByIndex) {
    EXPECT_EQ(parse_install_record("QUORL /p/\nFILE /p/z d1\nDKMS 3.2.1 \n\nFILE /opt/with blank d9\nONE\nFILE  x"),
              (std::vector<ManifestEntry>{{"QUORL", "/p/", "/p/"},
                                          {"FILE", "/p/z", "d1"},
                                          {"DKMS", "3.2.1", "3.2.1"},
                                          {"", "", ""},
                                          {"FILE", "/opt/with", "blank"},
                                          {"ONE", "ONE", "ONE"},
                                          {"FILE", "", "x"}}));
}

TEST_F(LoggedTest, AnEmptyRecordReadsAsNothingWithoutAWarning) {
    EXPECT_TRUE(read_install_record(dir.write("empty", "")).empty());
    EXPECT_EQ(log_text(), "");
}

}  // namespace
