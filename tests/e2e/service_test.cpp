// The boot service on simulated hosts: its instance name, its three files
// and their record, enabling it, and what a container or a broken package
// does to it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lab_host.hpp"
#include "scenario_support.hpp"

namespace {

using namespace scenario;

using Calls = std::vector<std::string>;

const std::string unit_file = "/lib/systemd/system/vantoriaquorl-init@.service";
const std::string scripts = "/usr/local/quorl-3.2.1//bin";
const std::string success =
    "Quorl Driver installation succeed.\nFor the Quorl Driver uninstallation, please run command:\n"
    "    sudo /usr/local/quorl-3.2.1/bin/quorl-driver-uninstaller\n";

// The record's lines about the service and its files, in the record's order.
std::vector<std::string> service_lines(const std::string& record) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = record.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = record.substr(start, end - start);
        if (line.rfind("SERVICE ", 0) == 0 || line.find("vantoriaquorl") != std::string::npos ||
            line.find("pci_timeout") != std::string::npos)
            lines.push_back(line);
    }
    return lines;
}

// Loads the peer-memory module right behind the driver, as udev does on an
// OFED host, so that it is the module listed first when the service is named.
const char* const modprobe_with_peer_memory = R"(#!/bin/bash
(exec -a modprobe /usr/bin/kmod "$@") || exit
if [ "$1" = vantoria ]; then insmod /lib/modules/$(uname -r)/updates/dkms/vnt_peer_mem_drv.ko; fi
)";

TEST(Service, EnabledRestartedAndRecordedWithThePackagesDigest) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult r = host.install();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, success);

    EXPECT_EQ(host.calls("systemctl"), (Calls{"systemctl enable vantoriaquorl-init@vantoria",
                                              "systemctl restart vantoriaquorl-init@vantoria"}));
    // The unit's digest is the package's own file, which the installed copy equals.
    const std::string digest = md5_of(host, package_dir + "/conf/vantoriaquorl-init@.service");
    EXPECT_EQ(md5_of(host, unit_file), digest);
    EXPECT_EQ(service_lines(host.record()),
              (std::vector<std::string>{
                  "SERVICE vantoriaquorl-init@vantoria " + digest,
                  "FILE " + unit_file + " " + digest,
                  "FILE " + scripts + "/pci_timeout.sh " + md5_of(host, scripts + "/pci_timeout.sh"),
                  "FILE " + scripts + "/vantoriaquorl.sh " + md5_of(host, scripts + "/vantoriaquorl.sh"),
              }));
    EXPECT_EQ(host.read(scripts + "/vantoriaquorl.sh"), host.read(package_dir + "/bin/vantoriaquorl.sh"));
    // Group and other may neither write nor run what the service installs.
    EXPECT_EQ(host.mode(unit_file), 0644u);
    EXPECT_EQ(host.mode(scripts + "/pci_timeout.sh"), 0744u);
    EXPECT_EQ(host.mode(scripts + "/vantoriaquorl.sh"), 0744u);

    const std::string log = host.log();
    EXPECT_TRUE(holds(log, "Install system service...\n"
                           "Installing service: vantoriaquorl-init@vantoria\n"
                           "Debug: cmd is cp -f ./conf/vantoriaquorl-init@.service /lib/systemd/system 2>&1\n"
                           "Debug: cmd is cp -f ./bin/pci_timeout.sh /usr/local/quorl-3.2.1//bin 2>&1\n"
                           "Debug: cmd is cp -f ./bin/vantoriaquorl.sh /usr/local/quorl-3.2.1//bin 2>&1\n"
                           "Install system service succeed.\n"));
    // On a host the timeout script is never run, and the service's state is not looked at.
    EXPECT_TRUE(lacks(log, "pci_timeout set"));
    EXPECT_TRUE(lacks(log, "running /usr/local/quorl-3.2.1/bin/pci_timeout.sh"));
    EXPECT_TRUE(lacks(log, "Checking service"));
}

TEST(Service, PeerMemoryModuleListedFirstJoinsTheInstance) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host).file("/usr/local/sbin/modprobe", modprobe_with_peer_memory, 0755);
    const lab::RunResult r = host.install();
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(host.proc_modules().rfind("vnt_peer_mem_drv ", 0), 0u) << host.proc_modules();
    EXPECT_EQ(host.calls("systemctl"), (Calls{"systemctl enable vantoriaquorl-init@vantoria,vnt_peer_mem_drv",
                                              "systemctl restart vantoriaquorl-init@vantoria,vnt_peer_mem_drv"}));
    const std::string digest = md5_of(host, unit_file);
    EXPECT_TRUE(holds(host.record(), "\nSERVICE vantoriaquorl-init@vantoria,vnt_peer_mem_drv " + digest + "\n"));
    // Every instance shares the template's one unit file.
    std::vector<std::string> wanted;
    for (const std::string& name : host.list("/etc/systemd/system/multi-user.target.wants"))
        if (name.find("vantoria") != std::string::npos) wanted.push_back(name);
    EXPECT_EQ(wanted, (std::vector<std::string>{"vantoriaquorl-init@vantoria,vnt_peer_mem_drv.service"}));
    EXPECT_EQ(host.link_target("/etc/systemd/system/multi-user.target.wants/"
                               "vantoriaquorl-init@vantoria,vnt_peer_mem_drv.service"),
              "/lib/systemd/system/vantoriaquorl-init@.service");
}

TEST(Service, AFailedEnableKeepsTheFilesButRecordsNoService) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host).answer("systemctl", "enable *", 1,
                       "Failed to enable unit: Unit vantoriaquorl-init@vantoria.service is masked.\n");
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 5);
    EXPECT_EQ(r.err,
              "Quorl Driver installation failed. error code:5\nLogfile is "
              "/var/log/vantoriaquorl/driver_installer.log\n");
    // The restart is not tried once the enable failed.
    EXPECT_EQ(host.calls("systemctl"), (Calls{"systemctl enable vantoriaquorl-init@vantoria"}));
    const std::string digest = md5_of(host, unit_file);
    EXPECT_EQ(service_lines(host.record()),
              (std::vector<std::string>{
                  "FILE " + unit_file + " " + digest,
                  "FILE " + scripts + "/pci_timeout.sh " + md5_of(host, scripts + "/pci_timeout.sh"),
                  "FILE " + scripts + "/vantoriaquorl.sh " + md5_of(host, scripts + "/vantoriaquorl.sh"),
              }));
    EXPECT_TRUE(holds(host.log(), "Warning: Install service vantoriaquorl-init@vantoria failed.\n"
                                  "Failed to enable unit: Unit vantoriaquorl-init@vantoria.service is masked.\n\n"
                                  "Warning: Install vantoriaquorl-init@vantoria failed.\n"
                                  "Warning: Install system service with fail.\n"));
    // The phase goes on to keep the driver out of the initramfs all the same.
    EXPECT_EQ(host.read("/etc/dracut.conf.d/vantoria.conf"), "omit_drivers+=\"vantoria\"\n");
    EXPECT_TRUE(holds(host.record(), "\nFILE /etc/dracut.conf.d/vantoria.conf "));
}

TEST(Service, AMissingPackageScriptEndsTheServiceAfterTwoFiles) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.shell("rm " + package_dir + "/bin/vantoriaquorl.sh").status, 0);
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 8);
    EXPECT_EQ(host.calls("systemctl"), Calls{});
    EXPECT_EQ(service_lines(host.record()),
              (std::vector<std::string>{
                  "FILE " + unit_file + " " + md5_of(host, unit_file),
                  "FILE " + scripts + "/pci_timeout.sh " + md5_of(host, scripts + "/pci_timeout.sh"),
              }));
    EXPECT_FALSE(host.exists(scripts + "/vantoriaquorl.sh"));
    EXPECT_TRUE(holds(host.log(), "Error: service or bin not existed ./bin/vantoriaquorl.sh\n"
                                  "Warning: Install vantoriaquorl-init@vantoria failed.\n"
                                  "Warning: Install system service with fail.\n"));
}

TEST(Service, AFailedCopyLeavesThatFileUnrecordedAndTheServiceEnabled) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    // A directory in place of the script: cp refuses it without -r.
    ASSERT_EQ(host.shell("cd " + package_dir + "/bin && rm pci_timeout.sh && mkdir pci_timeout.sh").status, 0);
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(host.calls("systemctl"), (Calls{"systemctl enable vantoriaquorl-init@vantoria",
                                              "systemctl restart vantoriaquorl-init@vantoria"}));
    const std::string digest = md5_of(host, unit_file);
    EXPECT_EQ(service_lines(host.record()),
              (std::vector<std::string>{
                  "SERVICE vantoriaquorl-init@vantoria " + digest,
                  "FILE " + unit_file + " " + digest,
                  "FILE " + scripts + "/vantoriaquorl.sh " + md5_of(host, scripts + "/vantoriaquorl.sh"),
              }));
    EXPECT_TRUE(holds(host.log(), "Warning: Install ./bin/pci_timeout.sh failed.\ncp: -r not specified; omitting "
                                  "directory './bin/pci_timeout.sh'\n"));
}

TEST(Service, InAContainerTheFilesAreCopiedAndNothingIsEnabled) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host).cgroup("12:memory:/docker/0123456789abcdef\n0::/docker/0123456789abcdef\n");
    const lab::RunResult r = host.install();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, success);
    EXPECT_EQ(host.calls("systemctl"), Calls{});
    EXPECT_EQ(service_lines(host.record()),
              (std::vector<std::string>{
                  "FILE " + unit_file + " " + md5_of(host, unit_file),
                  "FILE " + scripts + "/pci_timeout.sh " + md5_of(host, scripts + "/pci_timeout.sh"),
                  "FILE " + scripts + "/vantoriaquorl.sh " + md5_of(host, scripts + "/vantoriaquorl.sh"),
              }));
    // The words speak of DKMS even though the modules were built by make here;
    // and this x86_64 machine is no aarch64 Kylin, so the script stays unrun.
    EXPECT_TRUE(holds(host.log(), "Debug: cmd is cp -f ./bin/vantoriaquorl.sh /usr/local/quorl-3.2.1//bin 2>&1\n"
                                  "Debug: seeking docker found line is #12:memory:/docker/0123456789abcdef#\n"
                                  "Warning: DKMS won't work inside docker. skip it.\n"
                                  "Skip pci_timeout set.\n"
                                  "Install system service succeed.\n"));
}

}  // namespace
