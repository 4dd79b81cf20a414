// The end of an installation: the driver loaded at boot, the prefix in the
// service files, the boot service copied, enabled and recorded, and the
// initramfs left without the driver; and what a container or a broken
// package does to it.
#include "scenario.hpp"

namespace {

using namespace scenario;

const std::string package_unit = package_dir + "/conf/vantoriaquorl-init@.service";
const std::string scripts = "/usr/local/quorl-3.2.1//bin";
const std::string filled = "ExecStart=/usr/local/quorl-3.2.1/bin/vantoriaquorl.sh start %i\n";
const std::string dracut_file = "/etc/dracut.conf.d/vantoria.conf";
const std::string dracut_line = "omit_drivers+=\"vantoria\"\n";
const std::string enabled = "systemctl enable vantoriaquorl-init@vantoria";
const std::string restarted = "systemctl restart vantoriaquorl-init@vantoria";

// The record's lines about the service and its files, in the record's order.
std::vector<std::string> service_lines(lab::Host& host) {
    std::vector<std::string> lines;
    for (const Line& line : parse_record(host.record()))
        if (line.type == "SERVICE" || line.path.find("vantoriaquorl") != std::string::npos ||
            line.path.find("pci_timeout") != std::string::npos)
            lines.push_back(line.type + " " + line.path + " " + line.md5);
    return lines;
}

std::string file_line(lab::Host& host, const std::string& path) { return "FILE " + path + " " + md5_of(host, path); }

auto calls_are = [](Calls calls) {
    return [calls](lab::Host& host, const lab::RunResult&) { EXPECT_EQ(host.calls("systemctl"), calls); };
};

// Loads the peer-memory module right behind the driver, as udev does on an
// OFED host, so that it is the module listed first when the service is named.
const char* const modprobe_with_peer_memory = R"(#!/bin/bash
(exec -a modprobe /usr/bin/kmod "$@") || exit
if [ "$1" = vantoria ]; then insmod /lib/modules/$(uname -r)/updates/dkms/vnt_peer_mem_drv.ko; fi
)";

const Row rows[] = {
    {"a first installation is loaded at boot and its service enabled and recorded", nullptr, {}, 0,
     {"Debug: sed -i 's|PREFIX|/usr/local/quorl-3.2.1/|g' conf/*.service\nInstall system service...\n"
      "Installing service: vantoriaquorl-init@vantoria\n"
      "Debug: cmd is cp -f ./conf/vantoriaquorl-init@.service /lib/systemd/system 2>&1\n"
      "Debug: cmd is cp -f ./bin/pci_timeout.sh /usr/local/quorl-3.2.1//bin 2>&1\n"
      "Debug: cmd is cp -f ./bin/vantoriaquorl.sh /usr/local/quorl-3.2.1//bin 2>&1\nInstall system service succeed.\n"},
     {}, {"pci_timeout set", "running /usr/local/quorl-3.2.1/bin/pci_timeout.sh", "Checking service", "modprobe.d"},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_EQ(r.err, success);
         EXPECT_EQ(host.calls("systemctl"), (Calls{enabled, restarted}));
         // The unit's digest is the package's own file; the record check holds the installed copy to it.
         const std::string digest = md5_of(host, package_unit);
         EXPECT_EQ(service_lines(host), (Calls{"SERVICE vantoriaquorl-init@vantoria " + digest,
                                              file_line(host, unit_file), file_line(host, scripts + "/pci_timeout.sh"),
                                              file_line(host, scripts + "/vantoriaquorl.sh")}));
         // Group and other may neither write nor run what the service installs.
         EXPECT_EQ(host.mode(unit_file), 0644u);
         EXPECT_EQ(host.mode(scripts + "/pci_timeout.sh"), 0744u);
         EXPECT_EQ(host.mode(scripts + "/vantoriaquorl.sh"), 0744u);
         EXPECT_TRUE(in_order(*host.read(package_unit), {filled}));
         EXPECT_TRUE(lacks(*host.read(package_unit), "PREFIX"));
         EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "vantoria\n");
         EXPECT_FALSE(host.exists("/etc/modprobe.d/vantoria.conf"));
         EXPECT_EQ(host.read(dracut_file), dracut_line);
         EXPECT_TRUE(in_order(host.record(), {"\nDIR /etc/dracut.conf.d\n"}));
     }},
    {"a peer memory module listed first joins the instance and loads at boot",
     [](lab::Host& h) { h.file("/usr/local/sbin/modprobe", modprobe_with_peer_memory, 0755); }, {}, 0, {}, {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         ASSERT_EQ(host.proc_modules().rfind("vnt_peer_mem_drv ", 0), 0u) << host.proc_modules();
         EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "vantoria\nvnt_peer_mem_drv\n");
         EXPECT_EQ(host.calls("systemctl"), (Calls{enabled + ",vnt_peer_mem_drv", restarted + ",vnt_peer_mem_drv"}));
         EXPECT_TRUE(in_order(host.record(), {"\nSERVICE vantoriaquorl-init@vantoria,vnt_peer_mem_drv "}));
         // Every instance shares the template's one unit file.
         const std::string wants = "/etc/systemd/system/multi-user.target.wants/";
         EXPECT_EQ(host.link_target(wants + "vantoriaquorl-init@vantoria,vnt_peer_mem_drv.service"), unit_file);
     }},
    // A second run from the same package finds no marker left and keeps the first prefix.
    {"a second run keeps the first prefix in the service file", [](lab::Host& h) { h.install(); },
     {"--prefix", "/opt/vantoria"}, 0, {"Debug: sed -i 's|PREFIX|/opt/vantoria/quorl-3.2.1/|g' conf/*.service\n"}, {},
     {},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_TRUE(in_order(*host.read(package_unit), {filled}));
         EXPECT_TRUE(in_order(*host.read(unit_file), {filled}));
         EXPECT_TRUE(host.exists("/opt/vantoria/quorl-3.2.1/bin/vantoriaquorl.sh"));
     }},
    {"without dracut the initramfs is left alone", [](lab::Host& h) { h.tool_missing("dracut"); }, {}, 0, {}, {},
     {"dracut"}},
    {"a dracut directory that was there is not recorded", [](lab::Host& h) { h.directory("/etc/dracut.conf.d"); }, {},
     0, {}, {}, {"DIR /etc/dracut.conf.d"}},
    {"an older dracut file gets a second line", [](lab::Host& h) { h.file(dracut_file, dracut_line); }, {}, 0, {}, {},
     {},
     [](lab::Host& host, const lab::RunResult&) { EXPECT_EQ(host.read(dracut_file), dracut_line + dracut_line); }},
    // The shell cannot append to a directory, and its exit code 2 is told
    // with the system's text for error number 2.
    {"a failed dracut line is only a warning", [](lab::Host& h) { h.directory(dracut_file); }, {}, 0,
     {"Warning: add dracut conf failed.\necho 'omit_drivers+=\"vantoria\"' >> /etc/dracut.conf.d/vantoria.conf : "
      "status:2 No such file or directory\nEmerge: Add dracut configuration failed. Vantoria driver might be added "
      "into initrd.\n"},
     {}, {"FILE /etc/dracut"},
     [](lab::Host&, const lab::RunResult& r) {
         // The command has no redirection of its own errors: the shell's complaint reaches the console.
         EXPECT_EQ(r.err, "sh: 1: cannot create /etc/dracut.conf.d/vantoria.conf: Is a directory\nAdd dracut "
                          "configuration failed. Vantoria driver might be added into initrd.\n" + success);
     }},
    {"a failed enable keeps the files but records no service",
     [](lab::Host& h) {
         h.answer("systemctl", "enable *", 1, "Failed to enable unit: Unit vantoriaquorl-init@vantoria.service is masked.\n");
     },
     {}, 5,
     {"Warning: Install service vantoriaquorl-init@vantoria failed.\nFailed to enable unit: Unit "
      "vantoriaquorl-init@vantoria.service is masked.\n\nWarning: Install vantoriaquorl-init@vantoria failed.\n"
      "Warning: Install system service with fail.\n"},
     {}, {"SERVICE"},
     [](lab::Host& host, const lab::RunResult& r) {
         // The restart is not tried once the enable failed.
         calls_are({enabled})(host, r);
         EXPECT_EQ(service_lines(host), (Calls{file_line(host, unit_file), file_line(host, scripts + "/pci_timeout.sh"),
                                              file_line(host, scripts + "/vantoriaquorl.sh")}));
         // The phase goes on to keep the driver out of the initramfs all the same.
         EXPECT_EQ(host.read(dracut_file), dracut_line);
     }},
    {"a missing package script ends the service after two files",
     [](lab::Host& h) { h.remove(package_dir + "/bin/vantoriaquorl.sh"); }, {}, 8,
     {"Error: service or bin not existed ./bin/vantoriaquorl.sh\nWarning: Install vantoriaquorl-init@vantoria "
      "failed.\nWarning: Install system service with fail.\n"},
     {}, {"vantoriaquorl.sh "},
     [](lab::Host& host, const lab::RunResult& r) {
         calls_are({})(host, r);
         EXPECT_EQ(service_lines(host), (Calls{file_line(host, unit_file), file_line(host, scripts + "/pci_timeout.sh")}));
     }},
    // A directory in place of the script: cp refuses it without -r.
    {"a failed copy leaves that file unrecorded and the service enabled",
     [](lab::Host& h) { h.remove(package_dir + "/bin/pci_timeout.sh").directory(package_dir + "/bin/pci_timeout.sh"); },
     {}, 0,
     {"Warning: Install ./bin/pci_timeout.sh failed.\ncp: -r not specified; omitting directory './bin/pci_timeout.sh'\n"},
     {}, {"FILE /usr/local/quorl-3.2.1//bin/pci_timeout.sh"}, calls_are({enabled, restarted})},
    // The words speak of DKMS though make built the modules here; and this
    // x86_64 machine is no aarch64 Kylin, so the script stays unrun.
    {"in a container the files are copied and nothing is enabled",
     [](lab::Host& h) { h.cgroup("12:memory:/docker/0123456789abcdef\n0::/docker/0123456789abcdef\n"); }, {}, 0,
     {"Debug: dkms not installed or in side docker. manually build driver. disable_dkms:0\n",
      "Debug: cmd is cp -f ./bin/vantoriaquorl.sh /usr/local/quorl-3.2.1//bin 2>&1\n"
      "Debug: seeking docker found line is #12:memory:/docker/0123456789abcdef#\n"
      "Warning: DKMS won't work inside docker. skip it.\nSkip pci_timeout set.\nInstall system service succeed.\n"},
     {}, {"SERVICE"},
     [](lab::Host& host, const lab::RunResult& r) {
         calls_are({})(host, r);
         EXPECT_EQ(service_lines(host), (Calls{file_line(host, unit_file), file_line(host, scripts + "/pci_timeout.sh"),
                                              file_line(host, scripts + "/vantoriaquorl.sh")}));
     }},
};

SCENARIO_TABLE(PostInstall, rows);

}  // namespace
