// What only a real kernel shows of the installer of this build: the module
// built by kbuild and by the real dkms, loaded by init_module and listed first
// in /proc/modules, taken out by the real rmmod when the installer runs again,
// and refused for its key by a kernel that enforces signatures; and the
// preview, run with the real dkms and depmod before the same installation.
// The words of the log and the lines of the record are the simulated host's
// to pin; the guest has no card.
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "boot_suite.hpp"
#include "scenario_checks.hpp"

namespace realkernel {
namespace {

using namespace std::chrono_literals;

std::string text(const GuestBoot& boot, const char* scenario, const std::string& fact) {
    return boot.file(scenario, "facts/" + fact).value_or("(no fact " + fact + ")");
}
std::string installed_module(const GuestBoot& boot) { return "/lib/modules/" + boot.release() + "/kernel/drivers/misc/vantoria.ko"; }

class ManualInstallBoot : public BootSuite<ManualInstallBoot> {
protected:
    static void SetUpTestSuite() {
        start(std::move(
            GuestBoot("manual")
                .scenario("install_manual.sh")
                .scenario("preview_hostile.sh")
                .env("RK_ESCAPE_ATTEMPTS",
                     (std::filesystem::path(RK_SOURCE_DIR).parent_path() / "preview/escape_attempts.sh").string())
                .timeout(660s)));
    }
};

TEST_F(ManualInstallBoot, KbuildBuildsTheModuleAndTheKernelLoadsIt) {
    ASSERT_EQ(boot().exit_status("install_manual"), 0) << boot().where("install_manual");
    expect_facts(boot(), "install_manual",
                 {{"install.status", "0"}, {"first_module", "vantoria"}, {"vermagic", boot().release()},
                  {"tmp_entries", "0"}});
    // The guest's root is this machine's, read-only below a layer in guest memory.
    for (const std::string& path : {installed_module(boot()), std::string("/usr/local/quorl-3.2.1")})
        EXPECT_FALSE(std::filesystem::exists(path)) << path << " reached this machine";
}

TEST_F(ManualInstallBoot, AgainTheRealRmmodTakesItOutBeforeItComesBack) {
    // The kernel saw the module come, go with rmmod, and come back.
    expect_facts(boot(), "install_manual",
                 {{"again.status", "0"}, {"first_module_again", "vantoria"}, {"loads", "2"}, {"unloads", "1"}});
}

// A package that tries every way out of the preview's view, and every way to
// change the kernel from it, leaves the guest as it was.
TEST_F(ManualInstallBoot, APreviewedPackageThatTriesToLeaveTheViewChangesNothing) {
    const char* scenario = "preview_hostile";
    ASSERT_EQ(boot().exit_status(scenario), 0) << boot().where(scenario);
    EXPECT_EQ(text(boot(), scenario, "preview.status"), "0\n") << text(boot(), scenario, "preview.err");
    expect_facts(boot(), scenario, {{"markers", ""}, {"left_running", ""}, {"limits", "4096\n0::/"}});
    EXPECT_EQ(text(boot(), scenario, "kernel_after"), text(boot(), scenario, "kernel_before"));
    EXPECT_EQ(text(boot(), scenario, "after"), text(boot(), scenario, "before"));
    // What the package wrote inside the view is reported, and nothing that an attempt left there.
    const auto report = nlohmann::json::parse(text(boot(), scenario, "preview.out"), nullptr, false);
    EXPECT_NE(report["created"].dump().find("/var/tmp/inside-the-view"), std::string::npos) << report.dump(2);
    for (const char* list : {"created", "changed", "deleted"})
        EXPECT_EQ(report[list].dump().find("escaped"), std::string::npos) << report[list].dump(2);
}

// A kernel booted with module.sig_enforce=1, and no key given.
class SignedInstallBoot : public BootSuite<SignedInstallBoot> {
protected:
    static void SetUpTestSuite() {
        start(std::move(
            GuestBoot("sig_enforce").kernel_args("module.sig_enforce=1").scenario("install_signed.sh").timeout(480s)));
    }
};

TEST_F(SignedInstallBoot, TheKernelRefusesTheGeneratedKeyAndTheRunEndsIn50) {
    ASSERT_EQ(boot().exit_status("install_signed"), 0) << boot().where("install_signed");
    expect_facts(boot(), "install_signed",
                 {{"enforced", "Y"}, {"install.status", "50"}, {"loaded", "0"}, {"rejected_for_key", "2"},
                  {"modprobe.err", "modprobe: ERROR: could not insert 'vantoria': Key was rejected by service"},
                  {"modprobe_signed_by_debian.status", "0"}});
}

class DkmsInstallBoot : public BootSuite<DkmsInstallBoot> {
protected:
    static void SetUpTestSuite() { start(std::move(GuestBoot("dkms").scenario("install_dkms.sh").timeout(1020s))); }
};

TEST_F(DkmsInstallBoot, TheRealDkmsBuildsInstallsAndTheModuleLoads) {
    ASSERT_EQ(boot().exit_status("install_dkms"), 0) << boot().where("install_dkms");
    expect_facts(boot(), "install_dkms",
                 {{"install.status", "0"}, {"first_module", "vantoria"}, {"built", "vantoria.ko vnt_peer_mem_drv.ko "}});
}

TEST_F(DkmsInstallBoot, TheStatusSeesTheLoadedModuleAndTheUninstallerTakesItOut) {
    const char* scenario = "install_dkms";
    const auto status = nlohmann::json::parse(text(boot(), scenario, "status_installed.out"), nullptr, false);
    EXPECT_EQ(status["status"], 0) << status.dump(2) << boot().where(scenario);
    EXPECT_EQ(status["modules_loaded"], nlohmann::json::array({"vantoria"}));
    EXPECT_EQ(status["loaded_version"], "3.2.1");
    const auto removal = nlohmann::json::parse(text(boot(), scenario, "uninstall.out"), nullptr, false);
    EXPECT_EQ(removal["status"], 0) << text(boot(), scenario, "uninstall.err");
    EXPECT_EQ(removal["modules_unloaded"], nlohmann::json::array({"vantoria"}));
    EXPECT_EQ(text(boot(), scenario, "modules_after_uninstall").find("vantoria "), std::string::npos);
}

// A snapshot fact (rk_snapshot): each path with its "TYPE CONTENT".
std::map<std::string, std::string> snapshot(const GuestBoot& boot, const std::string& fact) {
    std::map<std::string, std::string> entries;
    std::istringstream lines(text(boot, "install_dkms", fact));
    for (std::string line; std::getline(lines, line);) {
        const size_t second = line.find(' ', line.find(' ') + 1);
        if (second != std::string::npos) entries[line.substr(second + 1)] = line.substr(0, second);
    }
    return entries;
}

// The preview ran first in the same fresh root, the real dkms and depmod in it.
TEST_F(DkmsInstallBoot, ThePreviewLeftTheGuestAsItWasAndToldWhatTheInstallationThenDid) {
    const char* scenario = "install_dkms";
    EXPECT_EQ(text(boot(), scenario, "after_preview"), text(boot(), scenario, "before_preview"));
    EXPECT_EQ(text(boot(), scenario, "modules_after_preview"), text(boot(), scenario, "modules_before_preview"));
    const auto report = nlohmann::json::parse(text(boot(), scenario, "preview.out"), nullptr, false);
    ASSERT_FALSE(report.is_discarded()) << text(boot(), scenario, "preview.err") << boot().where(scenario);
    EXPECT_EQ(text(boot(), scenario, "preview.status"), "0\n");
    EXPECT_EQ(report["status"], 0);
    EXPECT_EQ(report["modules_unloaded"], nlohmann::json::array());
    EXPECT_EQ(report["modules_loaded"], nlohmann::json::array({"vantoria"}));
    std::vector<std::string> calls;
    std::istringstream recorded(text(boot(), scenario, "install.calls"));
    for (std::string line; std::getline(recorded, line);)
        if (!line.empty()) calls.push_back("systemctl " + line);
    EXPECT_EQ(report["systemctl"].get<std::vector<std::string>>(), calls);

    // What the installation wrote and deleted is what changed between the two
    // snapshots. The guest's systemctl is a stub that makes no links; the
    // preview's stand-in makes the ones systemd would.
    const auto before = snapshot(boot(), "after_preview"), after = snapshot(boot(), "after_install");
    auto compared = [&](const std::string& path) {
        return !path.starts_with("/etc/systemd/system/") && !(after.count(path) && after.at(path)[0] == 'd');
    };
    std::vector<std::string> installed, previewed;
    for (const auto& [path, entry] : after)
        if (compared(path) && (!before.count(path) || before.at(path) != entry))
            installed.push_back((entry[0] == 'c' ? "deleted " : "") + path);
    for (const std::string list : {"created", "changed", "deleted"})
        for (const std::string path : report[list])
            if (compared(path)) previewed.push_back((list == "deleted" ? "deleted " : "") + path);
    std::sort(previewed.begin(), previewed.end());
    EXPECT_NE(std::find(installed.begin(), installed.end(), "/var/lib/dkms/quorl/3.2.1/source"), installed.end());
    EXPECT_EQ(previewed, installed) << boot().where(scenario);
}

}  // namespace
}  // namespace realkernel
