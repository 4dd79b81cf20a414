// The installer of this build on the host's Debian kernel: the module built
// by real kbuild and by the real dkms, loaded by the real init_module, listed
// in the real /proc/modules, refused by a kernel that enforces signatures, and
// taken out by the real rmmod when the installer runs again. Each suite reads
// one boot; the installer runs from the unpacked sample package, and the
// guest has no card.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "boot_suite.hpp"
#include "scenario_checks.hpp"

namespace realkernel {
namespace {

using namespace std::chrono_literals;

const std::string success =
    "Quorl Driver installation succeed.\nFor the Quorl Driver uninstallation, please run command:\n"
    "    sudo /usr/local/quorl-3.2.1/bin/quorl-driver-uninstaller\n";

std::string failure(int code)
{
    return "Quorl Driver installation failed. error code:" + std::to_string(code) +
           "\nLogfile is /var/log/vantoriaquorl/driver_installer.log\n";
}

// A fact as the scenario wrote it, final line feed and all: a log, a record,
// what a run printed.
std::string text(const GuestBoot& boot, const char* scenario, const std::string& fact)
{
    return boot.file(scenario, "facts/" + fact).value_or("(no fact " + fact + ")");
}

std::string installed_module(const GuestBoot& boot)
{
    return "/lib/modules/" + boot.release() + "/kernel/drivers/misc/vantoria.ko";
}

// What a scenario's run may change on the host without its record naming it:
// the scenario's own files and the harness's, the installer's log and record,
// the module tree's indexes, and the kernel headers the scenario joined.
std::vector<std::string> owned_elsewhere(const GuestBoot& boot, const char* scenario)
{
    const std::string modules = boot.guest_env("RK_MODULES_MOUNT").value_or("");
    return {"/root/", "/rk/", "/var/log/vantoriaquorl/", "/var/lib/dkms/mok.", modules + "/modules.",
            boot.fact(scenario, "joined_headers").value_or("(no fact joined_headers)")};
}

// What the real dkms keeps of a registration; the record names it by one
// DKMS line, and dkms takes it away.
std::vector<std::string> owned_by_dkms(const GuestBoot& boot)
{
    const std::string modules = boot.guest_env("RK_MODULES_MOUNT").value_or("");
    return {"/usr/src/quorl-3.2.1/", "/var/lib/dkms/quorl/", modules + "/updates/dkms/"};
}

// The record that the run left, line by line, is what the host holds: each
// file with its true MD5, each link, directory, unit and registration there;
// and everything the run changed on the host is named by a line.
void expect_true_and_complete_record(const GuestBoot& boot, const char* scenario, const std::string& record,
                                     const std::string& changes, std::vector<std::string> owned)
{
    const std::string written = text(boot, scenario, record);
    ASSERT_TRUE(written.starts_with("QUORL /usr/local/quorl-3.2.1/\n")) << written << "\n" << boot.where(scenario);
    EXPECT_EQ(text(boot, scenario, record + ".held"), written) << boot.where(scenario);
    const std::string changed = text(boot, scenario, changes);
    // The list cannot pass for want of content: the run's own files are in it.
    EXPECT_NE(changed.find("f /usr/lib/firmware/vantoria/tr_fw.bin\n"), std::string::npos) << changed;
    auto fixed = owned_elsewhere(boot, scenario);
    owned.insert(owned.end(), fixed.begin(), fixed.end());
    EXPECT_EQ(unrecorded(changed, text(boot, scenario, record + ".paths"), owned),
              std::vector<std::string>{})
        << "changed on the host, and not in the record; " << boot.where(scenario);
}

// The record's lines without their digests, sorted: the digest of a built
// module is the build's, and files within a group come in directory order.
std::vector<std::string> record_entries(const std::string& record)
{
    std::vector<std::string> entries;
    for (const std::string& line : lines(record)) {
        const bool has_digest = line.starts_with("FILE ") || line.starts_with("RFILE ") || line.starts_with("SERVICE ");
        entries.push_back(has_digest ? line.substr(0, line.rfind(' ')) : line);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

// The plain build path on a host with no driver, then again over the loaded
// driver; and, in a fresh root, a driver that another module has pushed off
// the first line of /proc/modules.
class ManualInstallBoot : public BootSuite<ManualInstallBoot> {
protected:
    static void SetUpTestSuite()
    {
        start(std::move(GuestBoot("manual").scenario("install_manual.sh").scenario("loaded_below.sh").timeout(420s)));
    }
};

TEST_F(ManualInstallBoot, FirstInstallationBuildsLoadsAndSaysSo)
{
    ASSERT_EQ(boot().exit_status("install_manual"), 0) << boot().where("install_manual");
    expect_facts(boot(), "install_manual",
                 {
                     {"install.status", "0"},
                     {"install.out", ""},
                     {"first_module", "vantoria"},
                     {"version", "3.2.1"},
                     {"vermagic", boot().release()},
                     {"found_by_modprobe", installed_module(boot())},
                     {"tmp_entries", "0"},
                 });
    EXPECT_EQ(text(boot(), "install_manual", "install.err"), success);
}

TEST_F(ManualInstallBoot, FirstInstallationLogTellsEachStep)
{
    const std::string log = text(boot(), "install_manual", "install.log");
    EXPECT_TRUE(in_order(log, {
                                  "Quorl driver qv_driver not installed. Continue...\n",
                                  "Quorl driver vantoria not installed. Continue...\n",
                                  "No driver installed. try uninstall utils.\n",
                                  "Debug: do check module sign prepare\n",
                                  "Start to install firmwares.\n",
                                  "Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n",
                                  "Start to build driver: vantoria\n",
                                  "  LD [M]  /root/quorl-driver/kernel/vantoria.ko\n",
                                  "Start to install driver: vantoria\n",
                                  "Debug: fetch " + installed_module(boot()) + " 's ver: version:        3.2.1\n",
                                  "modprobe vantoria succeed.\n",
                                  "Install vantoria succeed.\n",
                                  // No journal in this guest: the kernel's own log, by dmesg.
                                  "Kernel messages:\n",
                                  "] vantoria: TR chip line\n",
                                  "Warning: No Vantoria Quorl GPU found.\n",
                                  "Debug: Skip vnt_peer_mem_drv install\n",
                                  "Install system service succeed.\n",
                                  success,
                              }));
    EXPECT_TRUE(lacks(log, "Debug: do sign module\n"));
    EXPECT_EQ(boot().file("install_manual", "journalctl.calls"), std::nullopt) << "the journal was asked";
}

TEST_F(ManualInstallBoot, FirstInstallationRecordNamesExactlyWhatItPutOnTheHost)
{
    expect_true_and_complete_record(boot(), "install_manual", "record", "changes", {});
    EXPECT_TRUE(in_order(text(boot(), "install_manual", "record"),
                         {"\nSERVICE vantoriaquorl-init@vantoria ", "\nFILE " + installed_module(boot()) + " ",
                          "\nRLINK /usr/local/quorl-3.2.1//lib \n", "\nDIR /usr/local/quorl-3.2.1/\n"}));
}

TEST_F(ManualInstallBoot, SecondInstallationUnloadsWalksTheRecordAndLoadsAgain)
{
    expect_facts(boot(), "install_manual",
                 {
                     {"again.status", "0"},
                     {"first_module_again", "vantoria"},
                     {"version_again", "3.2.1"},
                     // The kernel saw the module come, go with rmmod, and come back.
                     {"loads", "2"},
                     {"unloads", "1"},
                 });
    EXPECT_EQ(text(boot(), "install_manual", "again.err"), success);
    // Every file and link of the first run's record taken away in the
    // record's order, the unit by its service, before the build.
    std::vector<std::string> walk = {"Quorl driver vantoria installed. Uninstall...\n",
                                     "Successful to uninstall driver vantoria.\n",
                                     "Uninstall: service:vantoriaquorl-init@vantoria success.\n"};
    for (const std::string& line : lines(text(boot(), "install_manual", "record"))) {
        const std::string type = line.substr(0, line.find(' '));
        const std::string path = line.substr(type.size() + 1, line.find(' ', type.size() + 1) - type.size() - 1);
        if (type == "FILE" && path == "/lib/systemd/system/vantoriaquorl-init@.service")
            walk.push_back("Uninstall: " + path + " not exist. Skipping.\n");
        else if (type == "FILE" || type == "RFILE" || type == "SYMLINK" || type == "RLINK")
            walk.push_back("Uninstall: " + path + " Succeed.\n");
    }
    walk.push_back("Uninstall: /usr/local/quorl-3.2.1/ Succeed.\n");
    walk.push_back("Start to build driver: vantoria\n");
    walk.push_back("Install vantoria succeed.\n");
    EXPECT_TRUE(in_order(text(boot(), "install_manual", "again.log"), walk));
    EXPECT_EQ(boot().file("install_manual", "systemctl.calls"),
              "enable vantoriaquorl-init@vantoria\n"
              "restart vantoriaquorl-init@vantoria\n"
              "disable vantoriaquorl-init@vantoria\n"
              "stop vantoriaquorl-init@vantoria\n"
              "reset-failed\n"
              "daemon-reload\n"
              "status vantoriaquorl-init@vantoria\n"
              "stop system-vantoriaquorl\\x2dinit.slice\n"
              "enable vantoriaquorl-init@vantoria\n"
              "restart vantoriaquorl-init@vantoria\n");
}

TEST_F(ManualInstallBoot, SecondInstallationLeavesExactlyItsOwnRecord)
{
    expect_true_and_complete_record(boot(), "install_manual", "record_again", "changes_again", {});
    EXPECT_EQ(record_entries(text(boot(), "install_manual", "record_again")),
              record_entries(text(boot(), "install_manual", "record")));
}

TEST_F(ManualInstallBoot, DriverBelowTheFirstLineIsNeitherUnloadedNorRemoved)
{
    ASSERT_EQ(boot().exit_status("loaded_below"), 0) << boot().where("loaded_below");
    expect_facts(boot(), "loaded_below",
                 {
                     {"install.status", "0"},
                     {"modprobe_other.status", "0"},
                     {"first_module", "crc8"},
                     {"vantoria_line", "2"},
                     {"first_module_again", "crc8"},
                     {"vantoria_line_again", "2"},
                     {"loads", "1"},
                     {"unloads", "0"},
                 });
    const std::string log = text(boot(), "loaded_below", "again.log");
    // Found in /proc/modules, but not on the first line: nothing to unload,
    // and, a driver having been found, no walk of the record either.
    EXPECT_TRUE(in_order(log, {"Quorl driver vantoria installed. Uninstall...\n",
                               "Debug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n",
                               "Debug: do check module sign prepare\n"}));
    for (const char* absent : {"Successful to uninstall driver", "Uninstall: ", "No driver installed."})
        EXPECT_TRUE(lacks(log, absent));
    EXPECT_EQ(text(boot(), "loaded_below", "changes_again"), text(boot(), "loaded_below", "changes"))
        << "the second run deleted or added files";
}

TEST_F(ManualInstallBoot, LoadOverTheLoadedDriverEndsInEEXIST)
{
    expect_facts(boot(), "loaded_below", {{"again.status", "49"}});
    EXPECT_EQ(text(boot(), "loaded_below", "again.err"),
              "Module load failed. error: Module already in kernel\n" + failure(49));
    EXPECT_TRUE(in_order(text(boot(), "loaded_below", "again.log"),
                         {"Start to install driver: vantoria\n",
                          "Module load failed. error: Module already in kernel\n",
                          "Warning: Try insmod vantoria 17 Module already in kernel\n", "Kernel messages:\n",
                          failure(49)}));
    EXPECT_TRUE(lacks(text(boot(), "loaded_below", "again.log"), "modprobe vantoria succeed."));
}

TEST_F(ManualInstallBoot, FailedRunOverTheDriverRecordsOnlyWhatItInstalled)
{
    const std::string release = boot().release();
    // The user-space tree of the first run stays on the disk, but a run that
    // failed in the build names only what it got to.
    EXPECT_EQ(record_entries(text(boot(), "loaded_below", "record_again")),
              (std::vector<std::string>{
                  "DIR /lib/firmware/vantoria",
                  "DIR /lib/firmware/vantoria/tr",
                  "DIR /usr/local/quorl-3.2.1/",
                  "FILE /lib/firmware/vantoria/tr/tr_pcie.bin",
                  "FILE /lib/firmware/vantoria/tr_boot.bin",
                  "FILE /lib/firmware/vantoria/tr_fw.bin",
                  "FILE /lib/modules/" + release + "/kernel/drivers/misc/vantoria.ko",
                  "QUORL /usr/local/quorl-3.2.1/",
              }));
    EXPECT_EQ(text(boot(), "loaded_below", "record_again.held"), text(boot(), "loaded_below", "record_again"));
}

// A kernel that enforces module signatures, and no key given.
class SignedInstallBoot : public BootSuite<SignedInstallBoot> {
protected:
    static void SetUpTestSuite()
    {
        start(std::move(
            GuestBoot("sig_enforce").kernel_args("module.sig_enforce=1").scenario("install_signed.sh").timeout(300s)));
    }

    // The first three bytes of the saved certificate's fingerprint, as
    // openssl printed it in the guest: "86:A6:7C".
    static std::string fingerprint_start()
    {
        const std::string fingerprint = text(boot(), "install_signed", "fingerprint");
        return fingerprint.substr(fingerprint.find('=') + 1, 8);
    }

    // The stem of the saved keys' names: those bytes without their colons.
    static std::string key_stem()
    {
        std::string bytes = fingerprint_start();
        std::erase(bytes, ':');
        return "vantoria-cert-" + bytes;
    }
};

TEST_F(SignedInstallBoot, SigningDecisionComesFromTheKernelCommandLine)
{
    ASSERT_EQ(boot().exit_status("install_signed"), 0) << boot().where("install_signed");
    auto cmdline = boot().file("install_signed", "cmdline.txt").value_or("");
    EXPECT_TRUE(cmdline.ends_with(" module.sig_enforce=1\n")) << cmdline;
    expect_facts(boot(), "install_signed", {{"enforced", "Y"}});
    EXPECT_TRUE(in_order(text(boot(), "install_signed", "install.log"),
                         {"Debug: do check module sign prepare\n",
                          // Debian's kernel does not force signatures in its configuration.
                          "  test_configuration_option CONFIG_MODULE_SIG_FORCE 2>&1 output 1\n",
                          "Debug: module.sig_enforce set, do module sign.\n",
                          "Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n",
                          "  LD [M]  /root/quorl-driver/kernel/vantoria.ko\n", "Debug: do sign module\n",
                          "Debug: private key:/tmp/vantoriatmp-", "guess_module_signing_hash 2>&1 outputsha256\n",
                          "Start to install driver: vantoria\n"}));
}

TEST_F(SignedInstallBoot, GeneratedPairSignsTheModuleAndIsSavedForEnrolment)
{
    const std::string stem = key_stem();
    ASSERT_EQ(stem.size(), 20u) << text(boot(), "install_signed", "fingerprint");
    expect_facts(boot(), "install_signed",
                 {
                     {"keys", "640 " + stem + ".der 600 " + stem + ".key "},
                     {"subject", "subject=CN = quorl-installer generated signing key"},
                     {"pair_matches", "yes"},
                     {"signer", "quorl-installer generated signing key"},
                     {"temporary_keys", "0"},
                 });
    EXPECT_TRUE(in_order(text(boot(), "install_signed", "install.log"),
                         {"The generated key's fingerprint is " + fingerprint_start() + "\n",
                          "Module sign key:/usr/share/vantoria/" + stem + ".der\n",
                          "Module sign key:/usr/share/vantoria/" + stem + ".key\n"}));
}

TEST_F(SignedInstallBoot, KernelRejectsTheKeyAndTheRunEndsIn50)
{
    const std::string stem = key_stem();
    expect_facts(boot(), "install_signed", {{"install.status", "50"}, {"loaded", "0"}, {"rejected_for_key", "2"}});
    EXPECT_EQ(text(boot(), "install_signed", "install.err"),
              "Module load failed. error: Key was rejected by service\n"
              "The key pair is generated. In order to load driver module. Please enroll public key first.\n"
              "Module is signed by:\n"
              "\tPrivate Key:/usr/share/vantoria/" + stem + ".key\n"
              "\tPublic Key: /usr/share/vantoria/" + stem + ".der\n\n" + failure(50));
    const std::string log = text(boot(), "install_signed", "install.log");
    // Without OFED the peer-memory step is skipped and the 50 stands.
    EXPECT_TRUE(in_order(log, {"Module load failed. error: Key was rejected by service\n",
                               "Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by "
                               "service\n",
                               "Debug: Load signed kernel module vantoria failed, possibly because the kernel does "
                               "not trust the key.\n",
                               "Debug: Skip vnt_peer_mem_drv install\n",
                               "The key pair is generated. In order to load driver module. Please enroll public key "
                               "first.\n",
                               "Module is signed by:\n", failure(50)}));
    // A key error shows no kernel messages.
    EXPECT_TRUE(lacks(log, "Kernel messages:"));
}

TEST_F(SignedInstallBoot, ModprobeIsRefusedAlikeWhileDebianModulesLoad)
{
    expect_facts(boot(), "install_signed",
                 {
                     {"modprobe.status", "1"},
                     {"modprobe.err", "modprobe: ERROR: could not insert 'vantoria': Key was rejected by service"},
                     {"modprobe_signed_by_debian.status", "0"},
                     {"first_module", "crc7"},
                 });
}

TEST_F(SignedInstallBoot, RecordNamesTheModuleAndTheSavedKeys)
{
    const std::string stem = key_stem();
    expect_true_and_complete_record(boot(), "install_signed", "record", "changes", {});
    EXPECT_EQ(record_entries(text(boot(), "install_signed", "record")),
              (std::vector<std::string>{
                  "DIR /lib/firmware/vantoria",
                  "DIR /lib/firmware/vantoria/tr",
                  "DIR /usr/local/quorl-3.2.1",
                  "DIR /usr/local/quorl-3.2.1/",
                  "DIR /usr/share/vantoria",
                  "FILE /lib/firmware/vantoria/tr/tr_pcie.bin",
                  "FILE /lib/firmware/vantoria/tr_boot.bin",
                  "FILE /lib/firmware/vantoria/tr_fw.bin",
                  "FILE " + installed_module(boot()),
                  "FILE /usr/share/vantoria/" + stem + ".der",
                  "FILE /usr/share/vantoria/" + stem + ".key",
                  "QUORL /usr/local/quorl-3.2.1/",
              }));
}

// The real dkms, building for the running kernel.
class DkmsInstallBoot : public BootSuite<DkmsInstallBoot> {
protected:
    static void SetUpTestSuite()
    {
        start(std::move(GuestBoot("dkms").scenario("install_dkms.sh").timeout(360s)));
    }
};

TEST_F(DkmsInstallBoot, DkmsBuildsInstallsAndTheModuleLoads)
{
    ASSERT_EQ(boot().exit_status("install_dkms"), 0) << boot().where("install_dkms");
    const std::string release = boot().release();
    expect_facts(boot(), "install_dkms",
                 {
                     {"install.status", "0"},
                     {"first_module", "vantoria"},
                     {"status.status", "0"},
                     {"status.out", "quorl/3.2.1, " + release + ", x86_64: installed"},
                     {"status.err", ""},
                     {"found_by_modprobe", "/lib/modules/" + release + "/updates/dkms/vantoria.ko"},
                     {"version", "3.2.1"},
                     // dkms signs with the pair it finds in /var/lib/dkms.
                     {"signer", "realkernel dkms signing key"},
                     {"built", "vantoria.ko vnt_peer_mem_drv.ko "},
                 });
    EXPECT_EQ(text(boot(), "install_dkms", "install.err"), success);
}

TEST_F(DkmsInstallBoot, LogTellsTheDkmsStepsAndTheLoadCheck)
{
    const std::string release = boot().release();
    EXPECT_TRUE(in_order(text(boot(), "install_dkms", "install.log"),
                         {
                             "Debug: dkms installed and not in docker. use dkms to build driver. disable_dkms:0\n",
                             "Debug: Using module version is 3.2.1\n",
                             "Start to install driver source.\n",
                             "dkms build success.\n",
                             "  LD [M]  /var/lib/dkms/quorl/3.2.1/build/vantoria.ko\n",
                             "dkms install quorl/3.2.1 -k " + release + " --force 2>&1 success.\n",
                             "Debug: fetch /var/lib/dkms/quorl/3.2.1/" + release +
                                 "/x86_64/module/vantoria.ko 's ver: version:        3.2.1\n",
                             "modprobe vantoria succeed.\n",
                             "Debug: Skip vnt_peer_mem_drvinstall\n",
                             "Kernel messages:\n",
                             "] vantoria: TR chip line\n",
                             "Warning: No Vantoria Quorl GPU found.\n",
                             "Install system service succeed.\n",
                         }));
}

TEST_F(DkmsInstallBoot, RecordHoldsTheRegistrationAndWhatTheRunInstalled)
{
    EXPECT_TRUE(in_order(text(boot(), "install_dkms", "record"), {"\nDKMS 3.2.1 \n"}));
    EXPECT_TRUE(lacks(text(boot(), "install_dkms", "record"), "/kernel/drivers/misc/vantoria.ko"));
    expect_true_and_complete_record(boot(), "install_dkms", "record", "changes", owned_by_dkms(boot()));
}

} // namespace
} // namespace realkernel
