#include "record/install_record.hpp"

#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "host/files.hpp"

namespace {

using Lines = std::vector<std::string>;
const std::string prefix = "/usr/local/quorl-3.2.1/";

TEST(InstallRecord, ReservedPaths) {
    struct Case {
        std::string path;
        bool reserved;
    } cases[] = {
        {prefix + "bin/qxsmi", true},
        {prefix + "/lib", true},  // the doubled slash of prefix + "/lib"
        {prefix + "lib", true},
        {prefix + "lib64/libcuda.so.1", true},
        {prefix + "EULA.txt", true},
        {prefix + "copyright", true},
        {prefix + "lib64/libcuda.so.2", false},
        {prefix + "bin/qxsmi2", false},
        {prefix + "bin/quorl-driver-uninstaller", false},
        {prefix, false},
        {"/usr/local/quorl-3.2.1", false},
        {"/opt/bin/qxsmi", false},
    };
    for (const Case& c : cases) EXPECT_EQ(is_reserved_path(c.path, prefix), c.reserved) << c.path;
}

// Nothing in the program catches this, so the process ends abnormally.
TEST(InstallRecord, PathOfSlashesOnlyRaisesOutOfRange) {
    EXPECT_THROW(is_reserved_path(prefix + "//", prefix), std::out_of_range);
}

TEST(InstallRecord, FormatGroupsInTheOrderOfRemoval) {
    const std::vector<ManifestEntry> entries = {
        {"DIR", prefix + "bin", ""},
        {"FILE", prefix + "bin/z", "d1"},
        {"DKMS", "3.2.1", ""},
        {"SYMLINK", prefix + "bin/y", ""},
        {"FILE", prefix + "bin/qxsmi", "d2"},
        {"SYMLINK", prefix + "/lib", ""},
        {"SERVICE", "vantoriaquorl-init@vantoria", "d3"},
        {"FILE", "/lib/firmware/vantoria/fw.bin", ""},
        {"FILE", "/opt/bin/qxsmi", "d4"},
        {"DIR", prefix, ""},
    };
    EXPECT_EQ(format_install_record(entries, prefix), (Lines{
                                                          "QUORL " + prefix,
                                                          "SERVICE vantoriaquorl-init@vantoria d3",
                                                          "SYMLINK " + prefix + "bin/y",
                                                          "FILE " + prefix + "bin/z d1",
                                                          "DKMS 3.2.1 ",
                                                          "FILE /lib/firmware/vantoria/fw.bin ",
                                                          "FILE /opt/bin/qxsmi d4",
                                                          "RFILE " + prefix + "bin/qxsmi d2",
                                                          "RLINK " + prefix + "/lib ",
                                                          "DIR " + prefix + "bin",
                                                          "DIR " + prefix,
                                                      }));
    EXPECT_EQ(format_install_record({}, prefix), Lines{"QUORL " + prefix});
}

TEST(InstallRecord, ParseOverwritesFieldsByIndex) {
    const std::vector<ManifestEntry> expected = {
        {"QUORL", prefix, prefix},
        {"SERVICE", "vantoriaquorl-init@vantoria", "d3"},
        {"FILE", prefix + "bin/z", "d1"},
        {"FILE", prefix + "no-digest", prefix + "no-digest"},
        {"DKMS", "3.2.1", "3.2.1"},
        {"RLINK", prefix + "/lib", prefix + "/lib"},
        {"DIR", prefix, prefix},
        {"", "", ""},
        {"FILE", "/opt/with", "blank"},
        {"ONE", "ONE", "ONE"},
        {"FILE", "", "x"},
    };
    const std::string text = "QUORL " + prefix + "\n" +
                             "SERVICE vantoriaquorl-init@vantoria d3\n"
                             "FILE " + prefix + "bin/z d1\n" +
                             "FILE " + prefix + "no-digest \n" +
                             "DKMS 3.2.1 \n"
                             "RLINK " + prefix + "/lib \n" +
                             "DIR " + prefix + "\n" +
                             "\n"
                             "FILE /opt/with blank in-path d9\n"
                             "ONE\n"
                             "FILE  x";
    EXPECT_EQ(parse_install_record(text), expected);
}

TEST(InstallRecord, WrittenLinesReadBack) {
    const std::vector<ManifestEntry> entries = {
        {"SERVICE", "vantoriaquorl-init@vantoria,vnt_peer_mem_drv", "0123456789abcdef0123456789abcdef"},
        {"SERVICE", "no-digest", ""},
        {"SYMLINK", prefix + "lib64/libx.so", ""},
        {"FILE", prefix + "bin/z", "fedcba9876543210fedcba9876543210"},
        {"FILE", prefix + "empty-digest", ""},
        {"DKMS", "3.2.1", ""},
        {"FILE", prefix + "EULA.txt", "00000000000000000000000000000000"},
        {"SYMLINK", prefix + "/lib", ""},
        {"DIR", prefix + "bin", ""},
    };
    TempDir dir;
    write_lines(format_install_record(entries, prefix), dir / "record");
    log_reset_for_tests();
    const std::vector<ManifestEntry> read = read_install_record(dir / "record");
    const std::vector<ManifestEntry> expected = {
        {"QUORL", prefix, prefix},
        {"SERVICE", "vantoriaquorl-init@vantoria,vnt_peer_mem_drv", "0123456789abcdef0123456789abcdef"},
        {"SERVICE", "no-digest", "no-digest"},
        {"SYMLINK", prefix + "lib64/libx.so", prefix + "lib64/libx.so"},
        {"FILE", prefix + "bin/z", "fedcba9876543210fedcba9876543210"},
        {"FILE", prefix + "empty-digest", prefix + "empty-digest"},
        {"DKMS", "3.2.1", "3.2.1"},
        {"RFILE", prefix + "EULA.txt", "00000000000000000000000000000000"},
        {"RLINK", prefix + "/lib", prefix + "/lib"},
        {"DIR", prefix + "bin", prefix + "bin"},
    };
    EXPECT_EQ(read, expected);
}

TEST(InstallRecord, MissingOrEmptyRecordReadsAsNothing) {
    TempDir dir;
    log_reset_for_tests();
    log_init((dir / "log").c_str());
    EXPECT_TRUE(read_install_record(dir / "missing").empty());
    EXPECT_TRUE(read_install_record(dir.write("empty", "")).empty());
    log_reset_for_tests();
    EXPECT_EQ(slurp(dir / "log"), "Warning: Uninstall manifests not found at location: '" + (dir / "missing") + "'.\n");
}

}  // namespace
