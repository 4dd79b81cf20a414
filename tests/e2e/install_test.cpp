// The install phase: the firmware copied, the modules built by plain make or
// through the real dkms, signed where the host demands it, loaded, the cards'
// firmware checked and the user-space tree copied; and what each failure says
// and leaves behind.
#include <algorithm>
#include <cerrno>

#include "scenario.hpp"

namespace {

using namespace scenario;

const std::vector<std::string> plain = {"--disable-dkms"};
const std::string installed_module = module_dir + "vantoria.ko";
const std::string dkms_module = "/var/lib/dkms/quorl/3.2.1/" + release + "/x86_64/module/vantoria.ko";
const std::string dkms_conf = package_dir + "/./kernel/dkms.conf";
const std::string other = "6.1.0-other-amd64";
const std::vector<std::string> signing_config = {"CONFIG_MODULE_SIG_FORCE=y", "CONFIG_MODULE_SIG_HASH=\"sha512\""};
const std::string temporary_key = "Module is signed by:\n\tPrivate Key:/tmp/vantoriatmp-";
const std::string already_loaded = "Module load failed. error: Module already in kernel\n";
const std::string key_rejected = "Module load failed. error: Key was rejected by service\n";
const std::string modprobe_fails = "Error: Failed to insert kernel module:\nmodprobe: FATAL: Module vantoria not found.\n\n";
const std::string old_firmware = "Warning: For 0000:65:00.0 Please upgrade your firmware to be >= 1.0.9";
const std::string no_good_card = "No card with suitable firmware found. Driver's install might wrong\n";
const std::string ib_core = "ib_core 450560 0 - Live 0xffffffffc0b00000\n";
const std::string unreadable = "0000:66:00.0";
// The package's dkms.conf with a version of its own; the installer's 3.2.1 is only the fallback.
const std::string dkms_conf_322 =
    "PACKAGE_NAME=\"quorl\"\nPACKAGE_VERSION=\"3.2.2\"\nBUILT_MODULE_NAME[0]=\"vantoria\"\n"
    "DEST_MODULE_LOCATION[0]=\"/kernel/drivers/misc\"\nMAKE[0]=\"make KERNELDIR=${kernel_source_dir} QUORLPLACEHOLDER all\"\n";

auto card = [](uint32_t firmware, std::string address = "0000:65:00.0", uint32_t vendor = 0x1F5D) {
    return [=](lab::Host& h) { h.card({.address = address, .vendor = vendor, .firmware = firmware}); };
};
auto failing = [](std::string tool, int status, std::string out) {
    return [=](lab::Host& h) { h.tool_fails(tool, status, out); };
};
auto refusing = [](int error) { return [=](lab::Host& h) { h.module_result("vantoria", error); }; };
auto dkms_says = [](std::string args, int status, std::string out) {
    return [=](lab::Host& h) { h.stub("dkms").answer("dkms", args, status, out); };
};
void nothing_beyond_the_build(lab::Host& host, const lab::RunResult&) { EXPECT_EQ(host.list(prefix), Calls{}); }
void loaded(lab::Host& host, const lab::RunResult&) { EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u); }
auto recorded = [](std::string piece) {
    return [piece](lab::Host& host, const lab::RunResult&) { EXPECT_TRUE(in_order(host.record(), {piece})); };
};

std::vector<std::string> temporary_keys(lab::Host& host) {
    std::vector<std::string> keys;
    for (const std::string& name : host.list("/tmp"))
        if (name.rfind("vantoriatmp-", 0) == 0) keys.push_back(name);
    return keys;
}

// A host with a journal, which answers for the kernel with `text`.
auto journal_says = [](std::string text) {
    return [text](lab::Host& h) {
        h.file("/run/systemd/journal/socket", "").file("/lib/systemd/system/systemd-journald.service", "[Unit]\n")
            .directory("/var/log/journal").answer("journalctl", "-kS *", 0, text);
    };
};

const Row rows[] = {
    // --- the plain build ------------------------------------------------------
    {"the plain build loads the module and passes the firmware check", nullptr, plain, 0,
     {"Start to install firmwares.\n", "Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n",
      "Building vantoria\n", "Start to install driver: vantoria\n",
      "Debug: fetch " + installed_module + " 's ver: version:        3.2.1\n", "modprobe vantoria succeed.\n",
      "Install vantoria succeed.\nKernel messages:\n", "Debug: get info for /sys/bus/pci/devices/0000:65:00.0 succeed\n",
      "Debug: For 0000:65:00.0 check firmware passed.\n", "Debug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n",
      "Debug: Skip vnt_peer_mem_drv install\n", "Debug: cp -r ./quorl/* " + prefix + "\n",
      "Create symlink " + prefix + "/lib -> lib64\n"},
     {}, {"do sign module", "package-id", "DIR /lib/firmware\n"},
     [](lab::Host& host, const lab::RunResult& r) {
         // Loaded by the raw system call on the file's image, then named to modprobe.
         EXPECT_TRUE(in_order(host.kernel_log(), {"vantoria: loaded by init_module"}));
         loaded(host, r);
         EXPECT_EQ(host.read(installed_module), host.read(package_dir + "/kernel/vantoria.ko"));
         const std::string build = host.read(package_dir + "/.build_driver").value_or("");
         EXPECT_TRUE(in_order(build, {"make -C " + build_tree + " M=/root/quorl-driver/kernel modules"}));
         EXPECT_TRUE(in_order(host.log(), {"Start to build driver: vantoria\n" + build + "\n"}));
         EXPECT_EQ(host.read("/lib/firmware/vantoria/tr/tr_pcie.bin"), host.read(package_dir + "/firmware/vantoria/tr/tr_pcie.bin"));
         EXPECT_EQ(host.link_target(prefix + "lib"), "lib64");
         // The system's firmware directory is no part of the driver; the files
         // that the toolkit shares are reserved, the lib link among them.
         EXPECT_TRUE(in_order(host.record(), {"\nFILE " + prefix + "bin/qxinfo ", "\nRFILE " + prefix + "bin/qxsmi ",
                                              "\nRLINK " + prefix + "lib64/libcuda.so ", "\nRLINK " + prefix + "/lib ",
                                              "\nDIR /lib/firmware/vantoria/tr\nDIR /lib/firmware/vantoria\n"}));
     }},
    {"make fails", failing("make", 2, "make: *** No rule to make target 'modules'.  Stop.\n"), plain, 34,
     {"Start to build driver: vantoria\nmake: *** No rule to make target 'modules'.  Stop.\n\nError: Failed to build driver.\n"},
     {}, {"Start to install driver"}, nothing_beyond_the_build},
    {"the module tree cannot take the copy",
     [](lab::Host& h) { h.file("/lib/modules/" + release + "/kernel/drivers/misc", "not a directory\n"); }, plain, 35,
     {"Start to install driver: vantoria\n", "Error: Failed to install driver in " + module_dir + ".\n"}, {}, {installed_module}},
    // The copy is recorded before depmod: what got that far stays listed for removal.
    {"depmod fails", failing("depmod", 1, "depmod: ERROR: could not open directory\n"), plain, 53,
     {"Error: Failed to depmod, modprobe/modinfo might cant find vantoria:\ndepmod: ERROR: could not open directory\n\n"}, {},
     {"modprobe vantoria"}},
    {"the module is already in the kernel", refusing(EEXIST), plain, 49,
     {"Warning: Try insmod vantoria 17 Module already in kernel\nKernel messages:\n"}, {already_loaded}, {"modprobe vantoria"}},
    // Unsigned, a refused key ends the build: no peer-memory module follows, even where OFED and ib_core are.
    {"a key refused without signing",
     [](lab::Host& h) { with_ofed(h).module_result("vantoria", EKEYREJECTED).proc_modules(ib_core); }, plain, 50,
     {"Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by service\n"}, {key_rejected},
     {"Kernel messages:", "Load signed kernel module", "vnt_peer_mem_drv"}},
    {"modprobe fails after the direct load", failing("modprobe", 1, "modprobe: FATAL: Module vantoria not found.\n"), plain, 51,
     {modprobe_fails, "Error: Failed to insert kernel module:\n\nKernel messages:\n"}, {}, {"Install vantoria succeed"}},
    {"sign-file refuses keys that are no keys",
     [](lab::Host& h) { h.file("/root/keys/admin.key", "not a key\n", 0600).file("/root/keys/admin.der", "not a cert\n"); },
     {"--module-signing-secret-key", "/root/keys/admin.key", "--module-signing-public-key", "/root/keys/admin.der"}, 5,
     {"Debug: do sign module\n", "Debug: output is sign-file: /root/keys/admin.der: not a DER certificate"},
     {"Failed to sign module file: Operation not permitted\n", "sign module failed\n"}, {installed_module, "vnt_peer_mem_drv"}},
    {"the journal tells the kernel messages", journal_says("lab kernel: vantoria: from the journal\n"), plain, 0,
     {"Install vantoria succeed.\nKernel messages:\nlab kernel: vantoria: from the journal\n\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         const Calls calls = host.calls("journalctl");
         ASSERT_EQ(calls.size(), 1u);
         EXPECT_TRUE(calls[0].starts_with("journalctl -kS '20") && calls[0].ends_with("' --no-pager -q")) << calls[0];
     }},
    {"an empty journal leaves the kernel messages to dmesg", journal_says("-- No entries --\n"), plain, 0,
     {"Install vantoria succeed.\nKernel messages:\n", "vantoria: loaded by init_module"}, {}, {"No entries"}},
    // --- the firmware check after the load: it undoes nothing ---------------
    {"the only card has firmware 1.0.8", card(0x01000008), plain, 54,
     {"/sys/bus/pci/devices/0000:65:00.0:1.0.8 1000008 2 0 0 0000:65:00.0 vantoria\n", old_firmware + " (current: drv: "},
     {no_good_card}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         // The version shown is modinfo's last word: the source version line follows the version line.
         EXPECT_TRUE(in_order(host.log(), {"(current: drv: " + modinfo_field(host, "srcversion", installed_module) + " fw:1.0.8)\n"}));
         loaded(host, r);
     }},
    {"no card of the vendor", card(0x01000009, "0000:65:00.0", 0x8086), plain, 0, {"Warning: No Vantoria Quorl GPU found.\n"}},
    // Its resource2 hidden, the card's registers are a node with no device behind it; its old
    // firmware would be warned about if they were read.
    {"a card whose registers cannot be read is skipped",
     [](lab::Host& h) {
         card(0x01000008, unreadable)(h);
         h.remove("/sys/bus/pci/devices/" + unreadable + "/resource2");
     },
     plain, 0,
     {"Debug: For 0000:65:00.0 check firmware passed.\n"}, {}, {unreadable + " check firmware", "For " + unreadable + " Please"},
     [](lab::Host& host, const lab::RunResult&) {
         const std::string device = "/sys/bus/pci/devices/" + unreadable;
         EXPECT_TRUE(in_order(host.log(), {"Warning: open reg for " + device + " failed. No such device or address\n"
                                           "Warning: get info for " + device + " failed. 255\n"}));
     }},
    // --- signing ---------------------------------------------------------------
    {"a generated pair is saved when the kernel refuses its key",
     [](lab::Host& h) { h.kernel_tree(release, signing_config).module_result("vantoria", EKEYREJECTED); }, plain, 50,
     {"Debug: do sign module\n", "Debug: private key:/tmp/vantoriatmp-", "Debug: using secret: /tmp/vantoriatmp-",
      "Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by service\n",
      "Debug: Load signed kernel module vantoria failed, possibly because the kernel does not trust the key.\n",
      "Debug: Skip vnt_peer_mem_drv install\n", "The generated key's fingerprint is ",
      "Module sign key:/usr/share/vantoria/vantoria-cert-"},
     {key_rejected, "The key pair is generated. In order to load driver module. Please enroll public key first.\n"},
     {"Kernel messages:"},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_EQ(temporary_keys(host), Calls{});
         const Calls saved = host.list("/usr/share/vantoria");
         ASSERT_EQ(saved.size(), 2u);
         // Named after the first three bytes of the certificate's fingerprint.
         const std::string der = "/usr/share/vantoria/" + saved[0], key = "/usr/share/vantoria/" + saved[1];
         const std::string out = host.run({"openssl", "x509", "-noout", "-fingerprint", "-inform", "DER", "-in", der}).out;
         std::string stem = out.substr(out.find('=') + 1, 8);
         std::erase(stem, ':');
         EXPECT_EQ(saved, (Calls{"vantoria-cert-" + stem + ".der", "vantoria-cert-" + stem + ".key"}));
         EXPECT_EQ(host.mode("/usr/share/vantoria"), 0755u);
         EXPECT_EQ(host.mode(der), 0640u);
         EXPECT_EQ(host.mode(key), 0600u);
         EXPECT_TRUE(in_order(r.err, {"Module is signed by:\n\tPrivate Key:" + key + "\n\tPublic Key: " + der + "\n\n"}));
         EXPECT_TRUE(in_order(host.log(), {"Module sign key:" + der + "\nModule sign key:" + key + "\n"}));
         EXPECT_EQ(host.proc_modules(), "");
         EXPECT_EQ(modinfo_field(host, "signer", installed_module), "quorl-installer generated signing key");
         EXPECT_EQ(modinfo_field(host, "sig_hashalgo", installed_module), "sha512");
         EXPECT_TRUE(in_order(host.record(), {"\nDIR /usr/share/vantoria\n"}));
     }},
    // The second signature clears the generated flag, so the pair stays in
    // /tmp, unsaved, and the run goes on with the peer module's 0.
    {"with ofed a refused key still builds the peer module without loading it",
     [](lab::Host& h) { with_ofed(h.kernel_tree(release, signing_config)).module_result("vantoria", EKEYREJECTED).proc_modules(ib_core); },
     plain, 0,
     {"Warning: Try insmod vantoria failed due to module sign. 129 Key was rejected by service\n",
      "Building vnt_peer_mem_drv\nStart to build driver: vnt_peer_mem_drv\n", "Debug: do sign module\n",
      "Start to install driver: vnt_peer_mem_drv\n", "Skip load module vnt_peer_mem_drv\n", temporary_key},
     {temporary_key}, {"The key pair is generated"},
     [](lab::Host& host, const lab::RunResult&) {
         // Made from the template, the public key readable by all and the secret one by root alone.
         std::vector<mode_t> modes;
         for (const std::string& key : temporary_keys(host)) modes.push_back(key.size() == 18 ? host.mode("/tmp/" + key) : 0);
         std::sort(modes.begin(), modes.end());
         EXPECT_EQ(modes, (std::vector<mode_t>{0600, 0644}));
         EXPECT_FALSE(host.exists("/usr/share/vantoria"));
         EXPECT_EQ(host.proc_modules(), ib_core);
         EXPECT_EQ(modinfo_field(host, "signer", module_dir + "vnt_peer_mem_drv.ko"), "quorl-installer generated signing key");
     }},
    // Once loaded the main module is listed first itself, so the peer module
    // is skipped even where OFED and ib_core are there.
    {"after a good load the peer module is skipped even with ofed", [](lab::Host& h) { with_ofed(h).proc_modules(ib_core); },
     plain, 0, {"Install vantoria succeed.\n", "Debug: Skip vnt_peer_mem_drv install\n"}, {}, {"OFED dir", "vnt_peer_mem_drv.ko"}},
    {"user keys are used where they lie and never copied",
     [](lab::Host& h) {
         h.kernel_tree(release, {"CONFIG_MODULE_SIG_HASH="});
         h.shell("mkdir -p /tmp/keys && openssl req -new -x509 -newkey rsa:2048 -days 30 -nodes -subj '/CN=Lab Admin Key/'"
                 " -keyout /tmp/keys/admin.key -outform DER -out /tmp/keys/admin.der 2>/dev/null");
     },
     {"--module-signing-secret-key", "/tmp/keys/admin.key", "--module-signing-public-key", "/tmp/keys/admin.der"}, 0,
     {"Debug: dkms not installed or in side docker. manually build driver. disable_dkms:1\n", "Debug: do sign module\n",
      "Warning: Unable to guess the module signing hash\nGuessing sha256\n",
      "Debug: using secret: /tmp/keys/admin.key\nusing public der: /tmp/keys/admin.der\n", "Install vantoria succeed.\n"},
     {"Module is signed by:\n\tPrivate Key:/tmp/keys/admin.key\n\tPublic Key: /tmp/keys/admin.der\n\n"},
     {"Debug: private key:", "The key pair is generated", "FILE /tmp"},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_EQ(modinfo_field(host, "signer", installed_module), "Lab Admin Key");
         EXPECT_EQ(modinfo_field(host, "sig_hashalgo", installed_module), "sha256");
         EXPECT_FALSE(host.exists("/usr/share/vantoria"));
         EXPECT_EQ(temporary_keys(host), Calls{});
     }},
    {"the plain build for a kernel that is not running", [](lab::Host& h) { h.kernel_tree(other); },
     {"--disable-dkms", "--kernel-source-path", "/usr/src/linux-headers-" + other}, 38,
     {"Start to install driver: vantoria\n", "Configured kernel source " + other + " is not the running one. skip module install.\n"},
     {}, {"Skip vnt_peer_mem_drv", "Try insmod"},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_TRUE(host.exists("/lib/modules/" + other + "/kernel/drivers/misc/vantoria.ko"));
         EXPECT_EQ(host.kernel_log(), "");
         nothing_beyond_the_build(host, r);
     }},
    // --- the install phase around the build ------------------------------------
    // Without dkms on the host the build is plain.
    {"a firmware directory made by the run is recorded last",
     [](lab::Host& h) { h.remove("/lib/firmware").tool_missing("dkms"); }, {}, 0, {"manually build driver. disable_dkms:0\n"},
     {}, {}, recorded("DIR /lib/firmware/vantoria/tr\nDIR /lib/firmware/vantoria\nDIR /lib/firmware\n")},
    // The firmware step fails only when no shell starts.
    // Both vgpu flags together cancel out, without a word.
    {"a package without firmware goes on", [](lab::Host& h) { h.remove(package_dir + "/firmware"); },
     {"--disable-dkms", "--with-vgpu", "--without-vgpu"}, 0, {}, {}, {"/lib/firmware", "Failed to install firmware.", "VGPU"}},
    {"vgpu dependencies are tried in order and never stop the run",
     [](lab::Host& h) { h.stub("modprobe").answer("modprobe", "vfio", 1, "modprobe: FATAL: Module vfio not found.\n"); },
     {"--disable-dkms", "--with-vgpu"}, 0,
     {"Start to install firmwares.\nDebug: Vantoria with VGPU depend on module :vfio kvm mdev\n"
      "Error: Failed to insert kernel module:\nmodprobe: FATAL: Module vfio not found.\n\nmodprobe kvm succeed.\n"
      "modprobe mdev succeed.\n", "Building vantoria\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult&) { EXPECT_EQ(modinfo_field(host, "vgpu", installed_module), "1"); }},
    {"a taken lib name is left alone and recorded all the same", [](lab::Host& h) { h.directory(prefix + "lib"); }, plain, 0,
     {"symlink " + prefix + "/lib already be taken, skip symlink generate\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_FALSE(host.is_symlink(prefix + "lib"));
         recorded("RLINK " + prefix + "/lib \n")(host, r);
     },
     false},
    // cp's complaint reaches the terminal: the command has no redirection.
    {"a failed copy of the user space tree ends with 39", [](lab::Host& h) { h.remove(package_dir + "/quorl"); }, plain, 39,
     {"Install vantoria succeed.\n", "Warning: Executing cp -r ./quorl/* " + prefix + " failed with 1\n\n"},
     {"cp: cannot stat './quorl/*': No such file or directory\n"}, {"/lib \n"}},
    // --- the DKMS path -----------------------------------------------------------
    {"dkms registers builds and installs then the module is loaded", nullptr, {}, 0,
     {"Debug: dkms installed and not in docker. use dkms to build driver. disable_dkms:0\n",
      "parsing dkms config /etc/dkms/framework.conf\n", "Debug: Using module version is 3.2.1\n",
      "Start to install driver source.\n", "dkms build success.\n",
      "dkms install quorl/3.2.1 -k " + release + " --force 2>&1 success.\n",
      "Debug: fetch " + dkms_module + " 's ver: version:        3.2.1\n", "modprobe vantoria succeed.\n",
      "Debug: Skip vnt_peer_mem_drvinstall\n", "Kernel messages:\n", "Debug: For 0000:65:00.0 check firmware passed.\n"},
     {}, {"Building vantoria\n", "/kernel/drivers/misc/vantoria.ko"},
     [](lab::Host& host, const lab::RunResult& r) {
         // The package's own dkms.conf lost its marker before the copy.
         const std::string conf = host.read(dkms_conf).value_or("");
         EXPECT_TRUE(in_order(conf, {"MAKE[0]=\"make KERNELDIR=${kernel_source_dir}  all peer_mem\"\n"}));
         EXPECT_EQ(host.read("/usr/src/quorl-3.2.1/dkms.conf"), conf);
         EXPECT_EQ(host.run({"dkms", "status"}).out, "quorl/3.2.1, " + release + ", x86_64: installed\n");
         EXPECT_TRUE(in_order(host.kernel_log(), {"vantoria: loaded by init_module"}));
         EXPECT_TRUE(lacks(r.out + r.err, "Building module"));  // the build's words were captured, not shown
         recorded("\nDKMS 3.2.1 \n")(host, r);
     }},
    {"the package has no dkms conf", [](lab::Host& h) { h.remove(dkms_conf); }, {}, 5,
     {"Error: replace dkms params failed. cmd :sed -i 's/QUORLPLACEHOLDER//' " + dkms_conf + " \n"},
     {"sed: can't read " + dkms_conf + ": No such file or directory\n"}, {"DKMS 3.2.1"}},
    {"the source destination is a file", [](lab::Host& h) { h.file("/usr/src/quorl-3.2.1", "in the way\n"); }, {}, 8,
     {"Debug: Using module version is 3.2.1\nStart to install driver source.\nError: copy driver source failed.\ncp: "}, {},
     {"DKMS 3.2.1"}},
    {"dkms add fails", dkms_says("add *", 3, "Error! DKMS tree already contains: quorl-3.2.1\n"), {}, 45,
     {"Error: dkms add failed.\nError! DKMS tree already contains: quorl-3.2.1\n\n"}, {}, {"DKMS 3.2.1"}},
    {"the version is the one dkms conf declares",
     [](lab::Host& h) { h.file(package_dir + "/kernel/dkms.conf", dkms_conf_322); }, {}, 0,
     {"Debug: Using module version is 3.2.2\n", "dkms install quorl/3.2.2 -k " + release + " --force 2>&1 success.\n",
      "Debug: fetch /var/lib/dkms/quorl/3.2.2/" + release + "/x86_64/module/vantoria.ko 's ver: version:        3.2.1\n"},
     {}, {"DKMS 3.2.1"}, recorded("\nDKMS 3.2.2 \n")},
    // The registration is recorded before the build, so that a failed build can still be taken away.
    {"the build fails and leaves no log", dkms_says("build *", 10, "Error! Bad return status for module build\n"), {}, 45,
     {"Error: module vantoria compile failed.\nError: dkms compile file /var/lib/dkms/quorl/3.2.1/build/make.log not found.\n"},
     {}, {}, recorded("\nDKMS 3.2.1 \n"), false},
    {"the sources do not compile and nothing follows",
     [](lab::Host& h) { h.file(package_dir + "/kernel/vantoria_chip.c", "#error broken on purpose\n"); }, {}, 34,
     {"Error: module vantoria compile failed.\n", "Debug: DKMS make.log for quorl-3.2.1", "#error broken on purpose"}, {},
     {"cp -r ./quorl/*", "Building vantoria\n", installed_module},
     [](lab::Host& host, const lab::RunResult& r) {
         nothing_beyond_the_build(host, r);
         recorded("FILE /lib/firmware/vantoria/tr_fw.bin ")(host, r);
         recorded("\nDKMS 3.2.1 \n")(host, r);
     },
     false},
    {"dkms install fails", dkms_says("install *", 6, "Error! install failed\n"), {}, 52,
     {"dkms build success.\n", "Warning: dkms compile file /var/lib/dkms/quorl/3.2.1/" + release + "/x86_64/log/make.log not found.\n",
      "Error: dkms install driver failed.\nError! install failed\n\n"}, {}, {}, nullptr, false},
    {"the dkms module is already in the kernel", refusing(EEXIST), {}, 49,
     {"Warning: Try insmod " + dkms_module + " 17 Module already in kernel\nKernel messages:\n"}, {already_loaded},
     {"modprobe vantoria"}},
    {"a key refused on the dkms path ends with 50", refusing(EKEYREJECTED), {}, 50,
     {"Warning: Try insmod " + dkms_module + " failed due to module sign. 129 Key was rejected by service\n"
      "Kernel messages:\n"},
     {key_rejected}, {"modprobe vantoria", "check firmware"}},
    {"modprobe fails on the dkms path", failing("modprobe", 1, "modprobe: FATAL: Module vantoria not found.\n"), {}, 51,
     {modprobe_fails, "Debug: Skip vnt_peer_mem_drvinstall\n", "Kernel messages:\n", "check firmware passed"}},
    {"the only card has firmware 1.0.8 on the dkms path", card(0x01000008), {}, 54,
     {"modprobe vantoria succeed.\n", "Kernel messages:\n", old_firmware + " (current: drv: "}, {no_good_card}},
    {"an older registration goes first",
     [](lab::Host& h) {
         h.shell("set -e; mkdir -p /usr/src/quorl-3.1.0; cp -r /root/quorl-driver/kernel/* /usr/src/quorl-3.1.0/\n"
                 "sed -i 's/^PACKAGE_VERSION=.*/PACKAGE_VERSION=\"3.1.0\"/; s/QUORLPLACEHOLDER//' /usr/src/quorl-3.1.0/dkms.conf\n"
                 "dkms add -m quorl -v 3.1.0; dkms build -m quorl -v 3.1.0 -k " + release);
     },
     {}, 0,
     {"checking /var/lib/dkms/quorl/3.1.0\nDebug: CMD: dkms remove quorl/3.1.0 --all 2>&1Debug: CMD: /usr/src/quorl-3.1.0",
      "Debug: Using module version is 3.2.1\nStart to install driver source.\n", "dkms build success.\n"},
     {}, {"3.1.0 \n"},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_FALSE(host.exists("/usr/src/quorl-3.1.0"));
         EXPECT_EQ(host.run({"dkms", "status"}).out, "quorl/3.2.1, " + release + ", x86_64: installed\n");
     }},
    {"dkms builds for a kernel that is not running", [](lab::Host& h) { h.kernel_tree(other); },
     {"--kernel-source-path", "/usr/src/linux-headers-" + other}, 38,
     {"dkms install quorl/3.2.1 -k " + other + " --force 2>&1 success.\n",
      "Configured kernel source " + other + " is not the running one. skip module install.\n"}, {}, {"Try insmod"},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_TRUE(host.exists("/lib/modules/" + other + "/updates/dkms/vantoria.ko"));
         EXPECT_EQ(host.kernel_log(), "");
         nothing_beyond_the_build(host, r);
     }},
    // Under signing dkms may need the terminal, so the build runs as a child
    // that shares the installer's streams; dkms signs by itself on this path.
    // A fork or execl of that child that fails cannot be brought about here.
    {"a signed dkms build runs on the terminal", [](lab::Host& h) { h.kernel_tree(release, {"CONFIG_MODULE_SIG_FORCE=y"}); },
     {}, 0, {"Debug: wait for pid ", "dkms build success.\n"}, {"Building vantoria driver...\n\n"},
     {"dkms build is not exit normally", "do sign module", "/usr/share/vantoria"},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_TRUE(in_order(r.out, {"Building module"}));
         EXPECT_TRUE(lacks(host.log(), "Building module"));
         loaded(host, r);
     }},
    // The child that builds on the terminal hands its failure back: the build's own code, as without signing.
    {"a signed dkms build that fails ends with 34",
     [](lab::Host& h) {
         h.kernel_tree(release, {"CONFIG_MODULE_SIG_FORCE=y"})
             .file(package_dir + "/kernel/vantoria_chip.c", "#error broken on purpose\n");
     },
     {}, 34,
     {"Debug: wait for pid ", "Error: module vantoria compile failed.\n", "Debug: DKMS make.log for quorl-3.2.1",
      "#error broken on purpose"},
     {"Building vantoria driver...\n\n"}, {"dkms build success", "dkms install quorl"},
     [](lab::Host& host, const lab::RunResult& r) {
         nothing_beyond_the_build(host, r);
         recorded("\nDKMS 3.2.1 \n")(host, r);
     },
     false},
    // The marker of the package's dkms.conf carries the choice to dkms's make, and so into the module.
    {"vgpu reaches the dkms build", nullptr, {"--with-vgpu"}, 0,
     {"Debug: Vantoria with VGPU depend on module :vfio kvm mdev\n", "dkms build success.\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_TRUE(in_order(host.read("/usr/src/quorl-3.2.1/dkms.conf").value_or(""),
                              {"MAKE[0]=\"make KERNELDIR=${kernel_source_dir} VGPU_ENABLE=1 all peer_mem\"\n"}));
         EXPECT_EQ(modinfo_field(host, "vgpu", dkms_module), "1");
     }},
    // With dkms answering but building nothing there is no module file to try:
    // modprobe loads by name, and with OFED and ib_core listed first the
    // peer-memory module is asked for too.
    {"no module file skips the direct load",
     [](lab::Host& h) { with_ofed(h.stub("dkms").stub("modprobe")).proc_modules("ib_core 450560 1 ib_uverbs, Live 0xffffffffc0b00000\n"); },
     {}, 0,
     {"Warning: module file not in " + dkms_module + " skip insmod check\n", "modprobe vantoria succeed.\n",
      "modprobe vnt_peer_mem_drv succeed.\n", "Kernel messages:\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_EQ(host.calls("modprobe"), (Calls{"modprobe vantoria", "modprobe vnt_peer_mem_drv"}));
         EXPECT_EQ(host.calls("dkms"), (Calls{"dkms status", "dkms add -m quorl -v 3.2.1 --force", "dkms build quorl/3.2.1 -k " +
                                              release, "dkms install quorl/3.2.1 -k " + release + " --force"}));
     },
     false},
};

SCENARIO_TABLE(Install, rows);

}  // namespace
