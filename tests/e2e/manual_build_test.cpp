// The plain build path as an administrator meets it: make, signing, the copy
// into the module tree, depmod, the direct load, modprobe and the firmware
// check, and what each failure says and leaves behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "scenario_support.hpp"
#include "lab_host.hpp"

using namespace scenario;

namespace {

const std::string installed_module = module_dir + "vantoria.ko";

TEST(ManualBuildOnHost, InstallLoadsTheModuleAndPassesTheFirmwareCheck) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult r = host.install({"--disable-dkms"});
    ASSERT_EQ(r.status, 0) << r.err << host.log();

    // Loaded by the raw system call on the file's image, then named to modprobe.
    EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u) << host.proc_modules();
    EXPECT_NE(host.kernel_log().find("vantoria: loaded by init_module"), std::string::npos) << host.kernel_log();
    EXPECT_EQ(host.read(installed_module), host.read(package_dir + "/kernel/vantoria.ko"));

    const std::string build_output = host.read(package_dir + "/.build_driver").value_or("");
    EXPECT_NE(build_output.find("make -C /lib/modules/" + release + "/build M=/root/quorl-driver/kernel modules"),
              std::string::npos)
        << build_output;
    EXPECT_TRUE(in_order(host.log(),
                         {"Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n",
                          "Building vantoria\n", "Start to build driver: vantoria\n" + build_output + "\n",
                          "Start to install driver: vantoria\n",
                          "Debug: fetch " + installed_module + " 's ver: version:        3.2.1\n",
                          "modprobe vantoria succeed.\n", "Install vantoria succeed.\n", "Kernel messages:\n",
                          "Debug: get info for /sys/bus/pci/devices/0000:65:00.0 succeed\n",
                          "Debug: For 0000:65:00.0 check firmware passed.\n",
                          "Debug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n",
                          "Debug: Skip vnt_peer_mem_drv install\n"}));
    EXPECT_TRUE(lacks(host.log(), "do sign module"));
    EXPECT_TRUE(in_order(host.record(), {"FILE " + installed_module + " " + md5_of(host, installed_module) + "\n"}));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

// One host per failure, set up in a line or two; the code, the words that
// tell it, and what the record keeps.
TEST(ManualBuildOnHost, EachFailureCodeWithItsMessage) {
    LAB_REQUIRE();
    struct Case {
        const char* story;
        std::function<void(lab::Host&)> setup;
        int status;
        std::vector<std::string> console;  // in order, on standard error
        std::vector<std::string> log;      // in order
        bool module_recorded;
        std::vector<std::string> args = {"--disable-dkms"};
    } cases[] = {
        {"make fails",
         [](lab::Host& h) { h.tool_fails("make", 2, "make: *** No rule to make target 'modules'.  Stop.\n"); },
         34,
         {},
         {"Start to build driver: vantoria\nmake: *** No rule to make target 'modules'.  Stop.\n\n",
          "Error: Failed to build driver.\n"},
         false},
        {"the module tree cannot take the copy",
         [](lab::Host& h) { h.file("/lib/modules/" + release + "/kernel/drivers/misc", "not a directory\n"); },
         35,
         {},
         {"Start to install driver: vantoria\n", "Error: Failed to install driver in " + module_dir + ".\n"},
         false},
        {"depmod fails",
         [](lab::Host& h) { h.tool_fails("depmod", 1, "depmod: ERROR: could not open directory\n"); },
         53,
         {},
         {"Error: Failed to depmod, modprobe/modinfo might cant find vantoria:\n"
          "depmod: ERROR: could not open directory\n\n"},
         true},
        {"the module is already in the kernel",
         [](lab::Host& h) { h.module_result("vantoria", EEXIST); },
         49,
         {"Module load failed. error: Module already in kernel\n"},
         {"Warning: Try insmod vantoria 17 Module already in kernel\n", "Kernel messages:\n"},
         true},
        {"an unknown symbol",
         [](lab::Host& h) { h.module_result("vantoria", ENOENT); },
         49,
         {"Module load failed. error: Unknown symbol in module or unknown parameter (see dmesg)\n"},
         {"Warning: Try insmod vantoria 2 Unknown symbol in module or unknown parameter (see dmesg)\n",
          "Kernel messages:\n"},
         true},
        {"any other refusal",
         [](lab::Host& h) { h.module_result("vantoria", ENOEXEC); },
         49,
         {"Module load failed. error: Exec format error\n"},
         {"Warning: Try insmod vantoria 8 Exec format error\n", "Kernel messages:\n"},
         true},
        {"a key refused without signing",
         [](lab::Host& h) { h.module_result("vantoria", EKEYREJECTED); },
         50,
         {"Module load failed. error: Key was rejected by service\n"},
         {"Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by service\n"},
         true},
        {"modprobe fails after the direct load",
         [](lab::Host& h) { h.tool_fails("modprobe", 1, "modprobe: FATAL: Module vantoria not found.\n"); },
         51,
         {},
         {"Error: Failed to insert kernel module:\nmodprobe: FATAL: Module vantoria not found.\n\n",
          "Error: Failed to insert kernel module:\n\n", "Kernel messages:\n"},
         true},
        {"sign-file refuses keys that are no keys",
         [](lab::Host& h) {
             h.file("/root/keys/admin.key", "not a key\n", 0600).file("/root/keys/admin.der", "not a cert\n");
         },
         5,
         {"Failed to sign module file: Operation not permitted\n", "sign module failed\n"},
         {"Debug: do sign module\n", "Debug: output is sign-file: /root/keys/admin.der: not a DER certificate"},
         false,
         {"--module-signing-secret-key", "/root/keys/admin.key", "--module-signing-public-key",
          "/root/keys/admin.der"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.story);
        lab::Host host;
        ready(host);
        c.setup(host);
        const lab::RunResult r = host.install(c.args);
        EXPECT_EQ(r.status, c.status) << r.err;
        std::vector<std::string> console = c.console;
        console.push_back(failure_console(c.status));
        EXPECT_TRUE(in_order(r.err, console));
        EXPECT_TRUE(in_order(host.log(), c.log));
        // The copy is recorded before depmod: what got that far stays listed for removal.
        const std::string module_line = "FILE " + installed_module + " ";
        EXPECT_EQ(host.record().find(module_line) != std::string::npos, c.module_recorded) << host.record();
        EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
        // A failed build path never reaches the user-space tree.
        EXPECT_FALSE(host.exists(prefix + "bin"));
    }
}

// The check reads each card's registers after the load; one good card is enough.
TEST(ManualBuildOnHost, FirmwareCheckAfterTheLoad) {
    LAB_REQUIRE();
    lab::Card old_card;
    old_card.firmware = 0x01000008;
    lab::Card older_card = old_card;
    older_card.address = "0000:17:00.0";
    older_card.firmware = 0x01000005;
    lab::Card good_card;
    good_card.address = "0000:b3:00.0";
    lab::Card foreign_card = old_card;
    foreign_card.driver = "vfio-pci";
    lab::Card other_chip = old_card;
    other_chip.device = 0x0003;
    lab::Card later_identity = old_card;
    later_identity.identity = 2u << 25;
    struct Case {
        const char* story;
        std::vector<lab::Card> cards;
        int status;
        std::vector<std::string> log;
    } cases[] = {
        {"the only card has firmware 1.0.8", {old_card}, 54,
         {"/sys/bus/pci/devices/0000:65:00.0:1.0.8 1000008 2 0 0 0000:65:00.0 vantoria\n",
          "Warning: For 0000:65:00.0 Please upgrade your firmware to be >= 1.0.9 (current: drv: "}},
        {"an old card beside a good one", {older_card, good_card}, 0,
         {"Warning: For 0000:17:00.0 Please upgrade your firmware to be >= 1.0.9",
          "Debug: For 0000:b3:00.0 check firmware passed.\n"}},
        {"a card held by another driver", {foreign_card}, 0,
         {"Debug: /sys/bus/pci/devices/0000:65:00.0 is hold by vfio-pci skip check then\n",
          "Debug: skip for 0000:65:00.0: chip.status -1\n"}},
        {"another chip of the vendor", {other_chip}, 0, {"Debug: skip non-TR 0000:65:00.0 chip check\n"}},
        {"a later identity is not judged", {later_identity}, 0,
         {"/sys/bus/pci/devices/0000:65:00.0:1.0.8 1000008 2 0 2 0000:65:00.0 vantoria\n"}},
        {"no card at all", {}, 0, {"Warning: No Vantoria Quorl GPU found.\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.story);
        lab::Host host;
        host.kernel(release).kernel_tree(release).package();
        for (const lab::Card& card : c.cards) host.card(card);
        const lab::RunResult r = host.install({"--disable-dkms"});
        EXPECT_EQ(r.status, c.status) << r.err;
        // Cards come in the order of the sysfs directory, which is not that of their addresses.
        for (const std::string& line : c.log) EXPECT_TRUE(in_order(host.log(), {line}));
        if (c.status == 54) {
            // The version shown is modinfo's last word: the source version line follows the version line.
            EXPECT_TRUE(in_order(host.log(), {"(current: drv: " + modinfo_field(host, "srcversion", installed_module) +
                                              " fw:1.0.8)\n"}));
            EXPECT_TRUE(in_order(r.err, {"No card with suitable firmware found. Driver's install might wrong\n",
                                         failure_console(54)}));
        }
        // Loaded in every case: the check comes after the load and undoes nothing.
        EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u);
    }
}

// The openssl fingerprint of a certificate, cut the way the saved names are.
std::string key_stem(lab::Host& host, const std::string& der) {
    const std::string out =
        host.run({"openssl", "x509", "-noout", "-fingerprint", "-inform", "DER", "-in", der}).out;
    std::string digits;
    for (char c : out.substr(out.find('=') + 1, 8))
        if (c != ':') digits += c;
    return "vantoria-cert-" + digits;
}

std::vector<std::string> temporary_keys(lab::Host& host) {
    std::vector<std::string> keys;
    for (const std::string& name : host.list("/tmp"))
        if (name.rfind("vantoriatmp-", 0) == 0) keys.push_back("/tmp/" + name);
    return keys;
}

const std::vector<std::string> signing_tree = {"CONFIG_MODULE_SIG_FORCE=y", "CONFIG_MODULE_SIG_HASH=\"sha512\""};

TEST(ManualBuildOnHost, KeyRefusedUnderSigningWithGeneratedKeys) {
    LAB_REQUIRE();
    lab::Host host;
    host.kernel(release).kernel_tree(release, signing_tree).card({}).package();
    host.module_result("vantoria", EKEYREJECTED);
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 50) << r.err;

    // The pair left /tmp for /usr/share/vantoria, named after its fingerprint.
    EXPECT_EQ(temporary_keys(host), std::vector<std::string>{});
    const std::vector<std::string> saved = host.list("/usr/share/vantoria");
    ASSERT_EQ(saved.size(), 2u);
    const std::string der = "/usr/share/vantoria/" + saved[0];
    const std::string stem = key_stem(host, der);
    EXPECT_EQ(saved, (std::vector<std::string>{stem + ".der", stem + ".key"}));
    const std::string key = "/usr/share/vantoria/" + stem + ".key";
    EXPECT_EQ(host.mode("/usr/share/vantoria"), 0755u);
    EXPECT_EQ(host.mode(der), 0640u);
    EXPECT_EQ(host.mode(key), 0600u);

    EXPECT_TRUE(in_order(r.err, {"Module load failed. error: Key was rejected by service\n",
                                 "The key pair is generated. In order to load driver module. Please enroll public key "
                                 "first.\n",
                                 "Module is signed by:\n\tPrivate Key:" + key + "\n\tPublic Key: " + der + "\n\n",
                                 failure_console(50)}));
    EXPECT_TRUE(in_order(host.log(),
                         {"Debug: do sign module\n", "Debug: private key:/tmp/vantoriatmp-",
                          "Debug: using secret: /tmp/vantoriatmp-",
                          "Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by service\n",
                          "Debug: Load signed kernel module vantoria failed, possibly because the kernel does not "
                          "trust the key.\n",
                          "Debug: Skip vnt_peer_mem_drv install\n", "Module sign key:" + der + "\n",
                          "Module sign key:" + key + "\n"}));
    // A refused signature shows no kernel messages, and nothing is loaded.
    EXPECT_TRUE(lacks(host.log(), "Kernel messages:"));
    EXPECT_EQ(host.proc_modules(), "");

    // The module carries a signature that modinfo can read back.
    EXPECT_EQ(modinfo_field(host, "signer", installed_module), "quorl-installer generated signing key");
    EXPECT_EQ(modinfo_field(host, "sig_hashalgo", installed_module), "sha512");

    EXPECT_TRUE(in_order(host.record(), {"FILE " + installed_module + " " + md5_of(host, installed_module) + "\n",
                                         "FILE " + der + " " + md5_of(host, der) + "\n",
                                         "FILE " + key + " " + md5_of(host, key) + "\n",
                                         "DIR /usr/share/vantoria\n"}));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

// With OFED and ib_core listed first, a refused key still lets the
// peer-memory module be built, signed with the same pair and copied, but not
// loaded. The second signature clears the generated flag, so the pair stays
// in /tmp, unsaved, and the run goes on.
TEST(ManualBuildOnHost, KeyRefusedWithOfedBuildsThePeerModuleWithoutLoadingIt) {
    LAB_REQUIRE();
    lab::Host host;
    host.kernel(release).kernel_tree(release, signing_tree).card({}).package();
    host.file("/usr/src/ofa_kernel/default/include/rdma/peer_mem.h", "")
        .file("/usr/src/ofa_kernel/default/Module.symvers", "")
        .proc_modules("ib_core 450560 0 - Live 0xffffffffc0b00000\n")
        .module_result("vantoria", EKEYREJECTED);
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;

    const std::vector<std::string> pair = temporary_keys(host);
    ASSERT_EQ(pair.size(), 2u);
    EXPECT_FALSE(host.exists("/usr/share/vantoria"));
    const std::string peer_module = module_dir + "vnt_peer_mem_drv.ko";
    EXPECT_TRUE(in_order(host.log(),
                         {"Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by service\n",
                          "Building vnt_peer_mem_drv\n", "Start to build driver: vnt_peer_mem_drv\n",
                          "Debug: do sign module\n", "Start to install driver: vnt_peer_mem_drv\n",
                          "Skip load module vnt_peer_mem_drv\n", "Module is signed by:\n\tPrivate Key:/tmp/vantoriatmp-"}));
    EXPECT_TRUE(lacks(r.err, "The key pair is generated"));
    EXPECT_TRUE(in_order(r.err, {"Module is signed by:\n\tPrivate Key:/tmp/vantoriatmp-"}));
    EXPECT_EQ(host.proc_modules(), "ib_core 450560 0 - Live 0xffffffffc0b00000\n");
    EXPECT_EQ(modinfo_field(host, "signer", peer_module), "quorl-installer generated signing key");
    EXPECT_TRUE(in_order(host.record(), {"FILE " + installed_module + " ", "FILE " + peer_module + " " +
                                                                               md5_of(host, peer_module) + "\n"}));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

// The peer-memory step asks whether ib_core is the first module listed; once
// the main module is loaded it is listed first itself, so a good load skips
// the peer-memory module even where OFED and ib_core are present.
TEST(ManualBuildOnHost, AfterAGoodLoadThePeerModuleIsSkippedEvenWithOfed) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.file("/usr/src/ofa_kernel/default/include/rdma/peer_mem.h", "")
        .file("/usr/src/ofa_kernel/default/Module.symvers", "")
        .proc_modules("ib_core 450560 0 - Live 0xffffffffc0b00000\n");
    const lab::RunResult r = host.install({"--disable-dkms"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(in_order(host.log(), {"Install vantoria succeed.\n", "Debug: Skip vnt_peer_mem_drv install\n"}));
    EXPECT_TRUE(lacks(host.log(), "OFED dir"));
    EXPECT_FALSE(host.exists(module_dir + "vnt_peer_mem_drv.ko"));
}

TEST(ManualBuildOnHost, UserKeysAreUsedWhereTheyLieAndNeverCopied) {
    LAB_REQUIRE();
    lab::Host host;
    // A tree that does not say its hash: sha256 is guessed.
    host.kernel(release).kernel_tree(release, {"CONFIG_MODULE_SIG_HASH="}).card({}).package();
    ASSERT_EQ(host.shell("mkdir -p /root/keys && openssl req -new -x509 -newkey rsa:2048 -days 30 -nodes"
                         " -subj '/CN=Lab Admin Key/' -keyout /root/keys/admin.key -outform DER"
                         " -out /root/keys/admin.der 2>/dev/null")
                  .status,
              0);
    const std::string key_digest = md5_of(host, "/root/keys/admin.key");
    const std::string der_digest = md5_of(host, "/root/keys/admin.der");
    const lab::RunResult r = host.install(
        {"--module-signing-secret-key", "/root/keys/admin.key", "--module-signing-public-key", "/root/keys/admin.der"});
    EXPECT_EQ(r.status, 0) << r.err;

    EXPECT_TRUE(in_order(host.log(),
                         {"Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n",
                          "Debug: do sign module\n", "Warning: Unable to guess the module signing hash\nGuessing sha256\n",
                          "Debug: using secret: /root/keys/admin.key\nusing public der: /root/keys/admin.der\n",
                          "Install vantoria succeed.\n"}));
    EXPECT_TRUE(lacks(host.log(), "Debug: private key:"));  // no pair generated
    EXPECT_TRUE(in_order(r.err, {"Module is signed by:\n\tPrivate Key:/root/keys/admin.key\n\tPublic Key: "
                                 "/root/keys/admin.der\n\n"}));
    EXPECT_TRUE(lacks(r.err, "The key pair is generated"));
    EXPECT_EQ(modinfo_field(host, "signer", installed_module), "Lab Admin Key");
    EXPECT_EQ(modinfo_field(host, "sig_hashalgo", installed_module), "sha256");

    EXPECT_EQ(md5_of(host, "/root/keys/admin.key"), key_digest);
    EXPECT_EQ(md5_of(host, "/root/keys/admin.der"), der_digest);
    EXPECT_FALSE(host.exists("/usr/share/vantoria"));
    EXPECT_EQ(temporary_keys(host), std::vector<std::string>{});
    EXPECT_TRUE(lacks(host.record(), "/root/keys"));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

// A kernel tree for another release: built, copied and recorded, depmod run,
// and no load tried.
TEST(ManualBuildOnHost, ABuildForAKernelThatIsNotRunning) {
    LAB_REQUIRE();
    const std::string other = "6.1.0-other-amd64";
    lab::Host host;
    host.kernel(release).kernel_tree(other).card({}).package();
    const lab::RunResult r = host.install({"--disable-dkms", "--kernel-source-path", "/usr/src/linux-headers-" + other});
    EXPECT_EQ(r.status, 38) << r.err;
    const std::string other_module = "/lib/modules/" + other + "/kernel/drivers/misc/vantoria.ko";
    EXPECT_TRUE(in_order(host.log(), {"Start to install driver: vantoria\n",
                                      "Configured kernel source " + other +
                                          " is not the running one. skip module install.\n"}));
    EXPECT_TRUE(lacks(host.log(), "Skip vnt_peer_mem_drv"));
    EXPECT_EQ(host.proc_modules(), "");
    EXPECT_EQ(host.kernel_log(), "");
    EXPECT_TRUE(in_order(host.record(), {"FILE " + other_module + " " + md5_of(host, other_module) + "\n"}));
    EXPECT_FALSE(host.exists(prefix + "bin"));
    EXPECT_EQ(unrecorded(host, installed_roots), std::vector<std::string>{});
}

}  // namespace
