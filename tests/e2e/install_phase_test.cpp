// The install phase as an administrator meets it: the firmware copied and
// recorded, the modules vGPU depends on, the choice between DKMS and the
// plain build, and the user-space tree with its lib link.
#include <gtest/gtest.h>

#include <functional>

#include "scenario_support.hpp"
#include "lab_host.hpp"

using namespace scenario;

namespace {

const std::vector<std::string> firmware_files = {"/lib/firmware/vantoria/tr/tr_pcie.bin",
                                                 "/lib/firmware/vantoria/tr_boot.bin",
                                                 "/lib/firmware/vantoria/tr_fw.bin"};

TEST(InstallPhaseOnHost, FirmwareIsCopiedAndTheSystemsDirectoryIsNotRecorded) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_TRUE(host.exists("/lib/firmware"));
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;
    for (const std::string& file : firmware_files) {
        EXPECT_EQ(host.read(file), host.read(package_dir + "/firmware" + file.substr(std::string("/lib/firmware").size())));
        EXPECT_TRUE(in_order(host.record(), {"FILE " + file + " " + md5_of(host, file) + "\n"}));
    }
    EXPECT_TRUE(in_order(host.record(), {"DIR /lib/firmware/vantoria/tr\nDIR /lib/firmware/vantoria\n"}));
    EXPECT_TRUE(lacks(host.record(), "DIR /lib/firmware\n"));
    EXPECT_TRUE(in_order(host.log(), {"Start to install firmwares.\n", "Building vantoria\n"}));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

TEST(InstallPhaseOnHost, AFirmwareDirectoryMadeByTheRunIsRecordedLast) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.remove("/lib/firmware");
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(in_order(host.record(), {"DIR /lib/firmware/vantoria/tr\nDIR /lib/firmware/vantoria\nDIR /lib/firmware\n"}));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

// The firmware step fails only when no shell starts; a package without
// firmware goes on unnoticed.
TEST(InstallPhaseOnHost, APackageWithoutFirmwareGoesOn) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.remove(package_dir + "/firmware");
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(lacks(host.record(), "/lib/firmware"));
    EXPECT_TRUE(lacks(host.log(), "Failed to install firmware."));
}

TEST(InstallPhaseOnHost, VgpuDependenciesAreTriedInOrderAndNeverStopTheRun) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.stub("modprobe").answer("modprobe", "vfio", 1, "modprobe: FATAL: Module vfio not found.\n");
    const lab::RunResult r = host.install({"--disable-dkms", "--with-vgpu"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(host.calls("modprobe"),
              (std::vector<std::string>{"modprobe vfio", "modprobe kvm", "modprobe mdev", "modprobe vantoria"}));
    EXPECT_TRUE(in_order(host.log(), {"Start to install firmwares.\n",
                                      "Debug: Vantoria with VGPU depend on module :vfio kvm mdev\n",
                                      "Error: Failed to insert kernel module:\nmodprobe: FATAL: Module vfio not found.\n\n",
                                      "modprobe kvm succeed.\n", "modprobe mdev succeed.\n", "Building vantoria\n"}));
    // The build itself was asked for vGPU.
    EXPECT_EQ(modinfo_field(host, "vgpu", module_dir + "vantoria.ko"), "1");
}

TEST(InstallPhaseOnHost, ChoiceOfTheBuildPath) {
    LAB_REQUIRE();
    struct Case {
        const char* story;
        std::function<void(lab::Host&)> setup;
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {"dkms on the PATH", [](lab::Host&) {}, {},
         "Debug: dkms installed and not in docker. use dkms to build driver. disable_dkms:0\n"},
        {"--disable-dkms", [](lab::Host&) {}, {"--disable-dkms"},
         "Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n"},
        {"no dkms", [](lab::Host& h) { h.tool_missing("dkms"); }, {},
         "Debug: dkms not installed or in side docker. manually build driver. disable_dkms:0\n"},
        {"inside Docker, with dkms", [](lab::Host& h) { h.cgroup("12:memory:/docker/0123456789abcdef\n"); }, {},
         "Debug: dkms not installed or in side docker. manually build driver. disable_dkms:0\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.story);
        lab::Host host;
        ready(host);
        c.setup(host);
        const lab::RunResult r = host.install(c.args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(in_order(host.log(), {"Start to install firmwares.\n", c.message}));
        const bool dkms = c.message.find("use dkms") != std::string::npos;
        EXPECT_EQ(host.exists("/var/lib/dkms/quorl/3.2.1"), dkms);
        EXPECT_EQ(host.exists(module_dir + "vantoria.ko"), !dkms);
        EXPECT_EQ(host.record().find("DKMS 3.2.1 \n") != std::string::npos, dkms);
    }
}

TEST(InstallPhaseOnHost, UserSpaceTreeIsCopiedRecordedAndLinked) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;

    EXPECT_EQ(host.link_target(prefix + "lib"), "lib64");
    EXPECT_TRUE(in_order(host.log(), {"Debug: cp -r ./quorl/* " + prefix + "\n",
                                      "Create symlink " + prefix + "/lib -> lib64\n"}));
    const std::string record = host.record();
    for (const char* file : {"bin/qxinfo", "bin/quorl-driver-uninstaller", "share/doc/quorl/README",
                             "share/quorl/samples/vector_add.qx"})
        EXPECT_TRUE(in_order(record, {"FILE " + prefix + file + " " + md5_of(host, prefix + file) + "\n"})) << file;
    // Files the toolkit shares are written as reserved, the lib link among them, doubled slash and all.
    for (const char* file : {"bin/qxsmi", "lib64/libqxml.so", "EULA.txt", "copyright"})
        EXPECT_TRUE(in_order(record, {"RFILE " + prefix + file + " " + md5_of(host, prefix + file) + "\n"})) << file;
    EXPECT_TRUE(in_order(record, {"RLINK " + prefix + "lib64/libcuda.so \n"}));
    EXPECT_TRUE(in_order(record, {"RLINK " + prefix + "/lib \n"}));
    for (const char* dir : {"share/quorl/samples", "share/doc/quorl", "lib64", "bin"})
        EXPECT_TRUE(in_order(record, {"DIR " + prefix + dir + "\n"})) << dir;
    // Hidden names are neither copied nor recorded.
    EXPECT_FALSE(host.exists(prefix + ".package-id"));
    EXPECT_TRUE(lacks(record, ".package-id"));
    EXPECT_TRUE(lacks(record, "DIR " + prefix + "quorl"));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

TEST(InstallPhaseOnHost, ATakenLibNameIsLeftAloneAndRecordedAllTheSame) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.directory(prefix + "lib");
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(host.is_symlink(prefix + "lib"));
    EXPECT_TRUE(in_order(host.log(), {"symlink " + prefix + "/lib already be taken, skip symlink generate\n"}));
    EXPECT_TRUE(in_order(host.record(), {"RLINK " + prefix + "/lib \n"}));
}

TEST(InstallPhaseOnHost, AFailedCopyOfTheUserSpaceTreeEndsWith39) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.remove(package_dir + "/quorl");
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 39) << r.err;
    // cp's complaint reaches the terminal: the command has no redirection.
    EXPECT_TRUE(in_order(r.err, {"cp: cannot stat './quorl/*': No such file or directory\n", failure_console(39)}));
    EXPECT_TRUE(in_order(host.log(), {"Install vantoria succeed.\n",
                                      "Warning: Executing cp -r ./quorl/* " + prefix + " failed with 1\n\n"}));
    EXPECT_TRUE(lacks(host.record(), "/lib \n"));
    // What came before stays installed and recorded.
    EXPECT_TRUE(in_order(host.record(), {"FILE " + module_dir + "vantoria.ko "}));
}

TEST(InstallPhaseOnHost, AFailedDkmsBuildLeavesThePrefixWithoutTheUserSpaceTree) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.file(package_dir + "/kernel/vantoria_chip.c", "#error broken on purpose\n");
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 34) << r.err;
    EXPECT_EQ(host.list(prefix), std::vector<std::string>{});
    EXPECT_TRUE(lacks(host.log(), "cp -r ./quorl/*"));
    // No fall-back to the plain build.
    EXPECT_TRUE(lacks(host.log(), "Building vantoria\n"));
    EXPECT_FALSE(host.exists(module_dir + "vantoria.ko"));
    // The firmware before it stays recorded.
    EXPECT_TRUE(in_order(host.record(), {"FILE /lib/firmware/vantoria/tr_fw.bin "}));
}

}  // namespace
