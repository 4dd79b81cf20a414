// Smoke boots of the real-kernel tier: they prove, with a tiny module of our
// own, that the guest is a faithful host for the installer: real kbuild,
// init_module, /proc/modules, depmod, modprobe, signature enforcement and
// dkms, and a harness that keeps this machine untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "boot_suite.hpp"

namespace realkernel {
namespace {

using namespace std::chrono_literals;

struct Fact {
    const char* name;
    std::string expected;
};

// Each fact of the table as the scenario recorded it.
void expect_facts(const GuestBoot& boot, const char* scenario, const std::vector<Fact>& table)
{
    for (const auto& [name, expected] : table)
        EXPECT_EQ(boot.fact(scenario, name), expected) << "fact " << name << "; " << boot.where(scenario);
}

// How many lines of the kernel log end in `text`.
long log_lines_ending_in(const std::string& log, const std::string& text)
{
    auto all = lines(log);
    return std::count_if(all.begin(), all.end(), [&](const std::string& line) { return line.ends_with(text); });
}

const std::string stubs = std::string(RK_SOURCE_DIR) + "/harness/stubs";

// Two scenarios in one boot: the first writes all over the guest and leaves a
// module loaded; the second must find none of it.
class HarnessBoot : public BootSuite<HarnessBoot> {
protected:
    static void SetUpTestSuite()
    {
        start(std::move(GuestBoot("harness")
                            .kernel_args("realkernel.probe=7")
                            // Any directory stands in for the driver package here.
                            .env("RK_PACKAGE", std::string(RK_SOURCE_DIR) + "/module")
                            .scenario("harness_writes.sh")
                            .scenario("harness_fresh_root.sh")
                            .timeout(120s)));
    }
};

TEST_F(HarnessBoot, ScenarioSeesTheGuestKernelItsStubsAndAPrunedModuleTree)
{
    ASSERT_EQ(boot().exit_status("harness_writes"), 0) << boot().where("harness_writes");
    const std::string release = boot().release();
    ASSERT_NE(release, "");
    auto order = lines(read_text(boot().guest_env("RK_MODULES_TREE").value_or("") + "/modules.order").value_or(""));
    EXPECT_GT(order.size(), 10u);
    EXPECT_LT(order.size(), 50u) << "depmod in the guest is only fast on a pruned tree";
    expect_facts(boot(), "harness_writes",
                 {
                     {"release", release},
                     {"cmdline_arg", "realkernel.probe=7"},
                     {"systemctl_path", stubs + "/systemctl"},
                     {"journalctl_path", stubs + "/journalctl"},
                     {"tmp_entries", "0"},
                     {"module_count", std::to_string(order.size())},
                     {"dep_index", "present"},
                     {"build_link", "/usr/src/linux-headers-" + release},
                 });
}

TEST_F(HarnessBoot, SystemctlStubRecordsCallsAndJournalIsEmpty)
{
    expect_facts(boot(), "harness_writes",
                 {
                     {"enable.status", "0"},
                     {"status_unknown.status", "4"},
                     {"status_unknown.out", "Unit rkunit.service could not be found."},
                     {"status_known.status", "0"},
                     {"journal.status", "0"},
                     {"journal.out", ""},
                 });
    EXPECT_EQ(boot().file("harness_writes", "systemctl.calls"),
              "enable rkunit.service\nstatus rkunit.service\nstatus rkunit.service\n");
}

TEST_F(HarnessBoot, InstallerOfThisBuildRunsFromAnUnpackedPackage)
{
    expect_facts(boot(), "harness_writes",
                 {
                     {"installer_help.status", "0"},
                     {"unpacked", "Kbuild Makefile dkms.conf quorl-driver-installer rktiny.c "},
                 });
}

TEST_F(HarnessBoot, InstallerLogComesBackWithTheScenario)
{
    EXPECT_EQ(boot().file("harness_writes", "var-log-vantoriaquorl/driver_installer.log"), "installer log line\n");
}

TEST_F(HarnessBoot, NextScenarioStartsFromTheUntouchedHostWithItsModulesUnloaded)
{
    expect_facts(boot(), "harness_writes", {{"modprobe_crc7.status", "0"}, {"first_module", "crc7"}});
    ASSERT_EQ(boot().exit_status("harness_fresh_root"), 0) << boot().where("harness_fresh_root");
    expect_facts(boot(), "harness_fresh_root",
                 {
                     {"etc_probe", "absent"},
                     {"usr_local_probe", "absent"},
                     {"modules_probe", "absent"},
                     {"unit_file", "absent"},
                     {"crc7_loaded", "0"},
                 });
}

TEST_F(HarnessBoot, GuestWritesNeverReachThisMachine)
{
    const std::vector<std::string> written_in_the_guest = {
        "/etc/realkernel-probe", "/usr/local/realkernel-probe",
        "/lib/modules/" + boot().release() + "/realkernel-probe", "/lib/systemd/system/rkunit.service",
        "/root/quorl-driver"};
    for (const auto& path : written_in_the_guest)
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
}

// The module through kbuild, init_module, /proc/modules, depmod and modprobe.
class KbuildBoot : public BootSuite<KbuildBoot> {
protected:
    static void SetUpTestSuite() { start(std::move(GuestBoot("kbuild").scenario("kbuild_load.sh").timeout(240s))); }
};

TEST_F(KbuildBoot, BuiltByKbuildAndLoadedByTheRawSystemCall)
{
    ASSERT_EQ(boot().exit_status("kbuild_load"), 0) << boot().where("kbuild_load");
    expect_facts(boot(), "kbuild_load",
                 {
                     {"build.status", "0"},
                     {"version", "1.4.2"},
                     {"vermagic", boot().release()},
                     {"load.status", "0"},
                     {"load.out", "0"},
                     {"first_after_load", "rktiny"},
                 });
}

TEST_F(KbuildBoot, SecondLoadIsRefusedWithEEXIST)
{
    expect_facts(boot(), "kbuild_load",
                 {
                     {"load_again.status", "1"},
                     {"load_again.out", "17"},
                     {"load_again.err", "init_module: File exists"},
                 });
}

TEST_F(KbuildBoot, ModuleLoadedLaterTakesTheFirstLineOfProcModules)
{
    expect_facts(boot(), "kbuild_load",
                 {
                     {"modprobe_other.status", "0"},
                     {"first_after_other", "crc8"},
                     {"rktiny_line", "2"},
                     {"rmmod.status", "0"},
                     {"loaded_after_rmmod", "0"},
                 });
}

TEST_F(KbuildBoot, DepmodAndModprobeFindTheModuleInTheTree)
{
    const std::string release = boot().release();
    expect_facts(boot(), "kbuild_load",
                 {
                     {"depmod.status", "0"},
                     {"depends", "insmod /lib/modules/" + release + "/updates/rktiny.ko "},
                     {"modprobe.status", "0"},
                     {"first_after_modprobe", "rktiny"},
                     {"installed_version", "1.4.2"},
                     {"modprobe_remove.status", "0"},
                     {"loaded_at_end", "0"},
                 });
}

// A kernel that enforces module signatures, and keys it does not know.
class SignatureBoot : public BootSuite<SignatureBoot> {
protected:
    static void SetUpTestSuite()
    {
        start(std::move(
            GuestBoot("sig_enforce").kernel_args("module.sig_enforce=1").scenario("sig_enforce.sh").timeout(240s)));
    }
};

TEST_F(SignatureBoot, KernelArgumentReachesTheGuest)
{
    ASSERT_EQ(boot().exit_status("sig_enforce"), 0) << boot().where("sig_enforce");
    auto cmdline = boot().file("sig_enforce", "cmdline.txt").value_or("");
    EXPECT_TRUE(cmdline.ends_with(" module.sig_enforce=1\n")) << cmdline;
    expect_facts(boot(), "sig_enforce", {{"enforced", "Y"}});
}

TEST_F(SignatureBoot, UnsignedAndUntrustedModulesAreRejectedWithEKEYREJECTED)
{
    expect_facts(boot(), "sig_enforce",
                 {
                     {"build.status", "0"},
                     {"load_unsigned.status", "1"},
                     {"load_unsigned.out", "129"},
                     {"load_unsigned.err", "init_module: Key was rejected by service"},
                     {"keygen.status", "0"},
                     {"sign.status", "0"},
                     {"signer", "realkernel untrusted key"},
                     {"load_signed.status", "1"},
                     {"load_signed.out", "129"},
                 });
}

TEST_F(SignatureBoot, ModprobeSaysKeyWasRejectedByService)
{
    expect_facts(boot(), "sig_enforce",
                 {
                     {"depmod.status", "0"},
                     {"modprobe.status", "1"},
                     {"modprobe.err", "modprobe: ERROR: could not insert 'rktiny': Key was rejected by service"},
                     {"loaded", "0"},
                 });
}

TEST_F(SignatureBoot, KernelLogTellsUnsignedFromUntrusted)
{
    auto log = boot().file("sig_enforce", "dmesg.txt").value_or("");
    EXPECT_EQ(log_lines_ending_in(log, "Loading of unsigned module is rejected"), 1) << log;
    EXPECT_EQ(log_lines_ending_in(log, "Loading of module with unavailable key is rejected"), 2) << log;
}

TEST_F(SignatureBoot, DistributionSignedModulesStillLoad)
{
    expect_facts(boot(), "sig_enforce", {{"modprobe_signed_by_debian.status", "0"}, {"first_module", "crc7"}});
}

// The real dkms, building for the running kernel.
class DkmsBoot : public BootSuite<DkmsBoot> {
protected:
    static void SetUpTestSuite() { start(std::move(GuestBoot("dkms").scenario("dkms_build.sh").timeout(240s))); }
};

TEST_F(DkmsBoot, DkmsBuildsSignsAndInstallsForTheRunningKernel)
{
    ASSERT_EQ(boot().exit_status("dkms_build"), 0) << boot().where("dkms_build");
    const std::string release = boot().release();
    expect_facts(boot(), "dkms_build",
                 {
                     {"add.status", "0"},
                     {"build.status", "0"},
                     {"install.status", "0"},
                     {"status.out", "rktiny/1.4.2, " + release + ", x86_64: installed"},
                     {"installed", "/lib/modules/" + release + "/updates/dkms/rktiny.ko"},
                     {"signer", "realkernel dkms signing key"},
                 });
}

TEST_F(DkmsBoot, ModuleThatDkmsBuiltLoads)
{
    expect_facts(boot(), "dkms_build",
                 {
                     {"load.status", "0"},
                     {"load.out", "0"},
                     {"modprobe.status", "0"},
                     {"first_module", "rktiny"},
                 });
}

} // namespace
} // namespace realkernel
