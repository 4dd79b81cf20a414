// The harness's own boot: the guest is what the installer's scenarios take it
// for (the guest's kernel, the stubs, a pruned module tree, a fresh root for
// each scenario, a true list of what a scenario changed), and nothing that a
// scenario writes reaches this machine, wherever the checkout lies.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "boot_suite.hpp"
#include "scenario_checks.hpp"

namespace realkernel {
namespace {

using namespace std::chrono_literals;

// Two scenarios in one boot: the first writes all over the guest and leaves a
// module loaded; the second must find none of it.
class HarnessBoot : public BootSuite<HarnessBoot> {
protected:
    static void SetUpTestSuite()
    {
        start(std::move(GuestBoot("harness")
                            .kernel_args("realkernel.probe=7")
                            .scenario("harness_writes.sh")
                            .scenario("harness_fresh_root.sh")
                            .timeout(240s)));
    }
};

TEST_F(HarnessBoot, ScenarioSeesTheGuestKernelItsStubsAndAPrunedModuleTree)
{
    ASSERT_EQ(boot().exit_status("harness_writes"), 0) << boot().where("harness_writes");
    const std::string release = boot().release(), stubs = std::string(RK_SOURCE_DIR) + "/harness/stubs";
    const auto order = lines(read_text(boot().guest_env("RK_MODULES_TREE").value_or("") + "/modules.order").value_or(""));
    EXPECT_GT(order.size(), 10u);
    EXPECT_LT(order.size(), 50u) << "depmod in the guest is only fast on a pruned tree";
    expect_facts(boot(), "harness_writes",
                 {{"release", release},
                  {"cmdline_arg", "realkernel.probe=7"},
                  {"systemctl_path", stubs + "/systemctl"},
                  {"journalctl_path", stubs + "/journalctl"},
                  {"tmp_entries", "0"},
                  {"module_count", std::to_string(order.size())},
                  {"dep_index", "present"},
                  {"build_link", "/usr/src/linux-headers-" + release},
                  {"status_unknown.status", "4"},
                  {"status_known.status", "0"},
                  {"journal.out", ""},
                  {"installer_help.status", "0"},
                  {"unpacked", ".manifest bin conf firmware kernel quorl quorl-driver-installer "}});
    EXPECT_EQ(boot().file("harness_writes", "systemctl.calls"),
              "enable rkunit.service\nstatus rkunit.service\nstatus rkunit.service\n");
    EXPECT_EQ(boot().file("harness_writes", "var-log-vantoriaquorl/driver_installer.log"), "installer log line\n");
}

TEST_F(HarnessBoot, NextScenarioStartsFromTheUntouchedHostWithItsModulesUnloaded)
{
    expect_facts(boot(), "harness_writes", {{"first_module", "crc7"}});
    ASSERT_EQ(boot().exit_status("harness_fresh_root"), 0) << boot().where("harness_fresh_root");
    expect_facts(boot(), "harness_fresh_root",
                 {{"etc_probe", "absent"}, {"usr_local_probe", "absent"}, {"modules_probe", "absent"},
                  {"unit_file", "absent"}, {"crc7_loaded", "0"}});
}

// The installer scenarios judge a record complete by this list; it must hold
// every write and every deletion, in the root and in the module tree, the
// sample package's own wherever the checkout lies.
TEST_F(HarnessBoot, ChangesListWhatTheScenarioWroteAndDeleted)
{
    const std::string modules = boot().guest_env("RK_MODULES_MOUNT").value_or("");
    const std::string package = boot().guest_env("RK_PACKAGE").value_or("");
    ASSERT_NE(modules, "");
    std::vector<std::string> expected = {"c " + package + "/.manifest", "f /etc/realkernel-probe",
                                         "f /usr/lib/systemd/system/rkunit.service", "f " + modules + "/realkernel-probe"};
    std::sort(expected.begin(), expected.end());  // the list comes sorted bytewise
    // The rest is the harness's own, the unpacked package and the installer's log.
    EXPECT_EQ(changes_outside(boot().fact("harness_writes", "changes").value_or(""),
                              {"/rk/", "/root/work/", "/root/quorl-driver/", "/var/log/vantoriaquorl/", "/var/lib/dkms/"}),
              expected);
    expect_facts(boot(), "harness_writes", {{"upper_write.status", "1"}});
}

TEST_F(HarnessBoot, GuestWritesNeverReachThisMachine)
{
    for (const std::string& path : std::vector<std::string>{"/etc/realkernel-probe", "/usr/local/realkernel-probe",
                                   "/lib/modules/" + boot().release() + "/realkernel-probe",
                                   "/lib/systemd/system/rkunit.service", "/root/quorl-driver/realkernel-probe"})
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    EXPECT_TRUE(std::filesystem::exists(boot().guest_env("RK_PACKAGE").value_or("") + "/.manifest"))
        << "deleted in the guest only";
}

} // namespace
} // namespace realkernel
