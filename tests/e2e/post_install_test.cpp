// The end of an installation on simulated hosts: the driver loaded at boot,
// the prefix in the service files, the initramfs left without the driver,
// and a first installation whose record names exactly what it put there.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "lab_host.hpp"
#include "scenario_support.hpp"

namespace {

using namespace scenario;

const std::string package_unit = package_dir + "/conf/vantoriaquorl-init@.service";
const std::string success =
    "Quorl Driver installation succeed.\nFor the Quorl Driver uninstallation, please run command:\n"
    "    sudo /usr/local/quorl-3.2.1/bin/quorl-driver-uninstaller\n";
const std::string dracut_line = "omit_drivers+=\"vantoria\"\n";

bool starts_with(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }

// A recorded path as the host's change list shows it: single slashes, no
// slash at the end, and /lib seen through the merged-usr link.
std::string as_changed(std::string path) {
    std::string single;
    for (char c : path)
        if (c != '/' || single.empty() || single.back() != '/') single += c;
    if (single.size() > 1 && single.back() == '/') single.pop_back();
    if (single == "/lib" || starts_with(single, "/lib/")) single = "/usr" + single;
    return single;
}

// Paths a run creates that belong to others than the record: the log and the
// record, systemd's links, the package's own build products, the kernel's
// module index and tree, and what the DKMS registration stands for.
bool outside_the_record(const std::string& path) {
    const std::string modules = "/usr/lib/modules/" + release + "/";
    for (const std::string& prefix : {std::string("/var/log/vantoriaquorl"), std::string("/etc/systemd/system/"),
                                      package_dir + "/", modules + "modules.", modules + "kernel/drivers"}) {
        if (starts_with(path, prefix) && !(prefix == modules + "kernel/drivers" && path.ends_with(".ko")))
            return true;
    }
    return false;
}

bool owned_by_dkms(const std::string& path) {
    return starts_with(path, "/usr/src/quorl-3.2.1") || starts_with(path, "/var/lib/dkms/quorl") ||
           starts_with(path, "/usr/lib/modules/" + release + "/updates");
}

// Every line of the record names something the host now holds, with its true
// digest, and everything the run created is named by a line.
void expect_record_matches_host(lab::Host& host, bool with_dkms) {
    std::set<std::string> recorded;
    for (const std::string& line : lines_of(host.record())) {
        const size_t blank = line.find(' ');
        const std::string type = line.substr(0, blank);
        std::string path = line.substr(blank + 1);
        std::string digest;
        if (type == "FILE" || type == "RFILE" || type == "SERVICE") {
            digest = path.substr(path.find(' ') + 1);
            path = path.substr(0, path.find(' '));
        }
        if (type == "RLINK" || type == "DKMS") path.pop_back();  // the blank these lines end in
        if (type == "QUORL") {
            EXPECT_EQ(path, "/usr/local/quorl-3.2.1/");
        } else if (type == "FILE" || type == "RFILE") {
            EXPECT_TRUE(host.read(path).has_value()) << line;
            EXPECT_EQ(md5_of(host, path), digest) << line;
        } else if (type == "SERVICE") {
            EXPECT_EQ(path, "vantoriaquorl-init@vantoria");
            EXPECT_EQ(md5_of(host, "/lib/systemd/system/vantoriaquorl-init@.service"), digest) << line;
        } else if (type == "SYMLINK" || type == "RLINK") {
            EXPECT_TRUE(host.is_symlink(path)) << line;
        } else if (type == "DIR") {
            EXPECT_TRUE(host.exists(path)) << line;
        } else if (type == "DKMS") {
            EXPECT_TRUE(with_dkms) << line;
            EXPECT_EQ(path, "3.2.1");
            EXPECT_TRUE(holds(host.run({"dkms", "status"}).out, "quorl/3.2.1, " + release + ", x86_64: installed"));
        } else {
            ADD_FAILURE() << "unknown line " << line;
        }
        if (type != "QUORL" && type != "SERVICE" && type != "DKMS") recorded.insert(as_changed(path));
    }
    bool dkms_seen = false;
    for (const lab::Change& change : host.changes()) {
        EXPECT_NE(change.kind, 'D') << change;
        if (outside_the_record(change.path)) continue;
        if (owned_by_dkms(change.path)) {
            dkms_seen = true;
            continue;
        }
        EXPECT_EQ(change.kind, 'C') << change;
        EXPECT_EQ(recorded.count(change.path), 1u) << change << " is not in the record";
    }
    EXPECT_EQ(dkms_seen, with_dkms);
}

TEST(PostInstall, FirstInstallationOnTheDkmsPath) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult r = host.install();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, success);
    EXPECT_TRUE(holds(host.record(), "\nDKMS 3.2.1 \n"));
    expect_record_matches_host(host, true);
}

TEST(PostInstall, FirstInstallationOnTheManualPath) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult r = host.install({"--disable-dkms"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, success);
    EXPECT_TRUE(lacks(host.record(), "DKMS"));
    EXPECT_TRUE(holds(host.record(), "\nFILE /lib/modules/" + release + "/kernel/drivers/misc/vantoria.ko "));
    expect_record_matches_host(host, false);
}

TEST(PostInstall, TheDriverIsLoadedAtBootWithoutParameters) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install().status, 0);
    EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "vantoria\n");
    EXPECT_TRUE(holds(host.record(), "\nFILE /etc/modules-load.d/vantoria.conf " +
                                         md5_of(host, "/etc/modules-load.d/vantoria.conf") + "\n"));
    // No parameter is enabled, so there is nothing for modprobe.d.
    EXPECT_FALSE(host.exists("/etc/modprobe.d/vantoria.conf"));
    EXPECT_TRUE(lacks(host.record(), "modprobe.d"));
}

TEST(PostInstall, ThePeerMemoryModuleIsLoadedAtBootWhenListed) {
    LAB_REQUIRE();
    lab::Host host;
    // Loads the peer-memory module right behind the driver, as udev does on an OFED host.
    ready(host).file("/usr/local/sbin/modprobe", R"(#!/bin/bash
(exec -a modprobe /usr/bin/kmod "$@") || exit
if [ "$1" = vantoria ]; then insmod /lib/modules/$(uname -r)/updates/dkms/vnt_peer_mem_drv.ko; fi
)",
                     0755);
    ASSERT_EQ(host.install().status, 0);
    EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "vantoria\nvnt_peer_mem_drv\n");
    EXPECT_TRUE(holds(host.record(), "\nFILE /etc/modules-load.d/vantoria.conf " +
                                         md5_of(host, "/etc/modules-load.d/vantoria.conf") + "\n"));
}

TEST(PostInstall, ThePrefixOfTheFirstRunStaysInThePackagesServiceFile) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install().status, 0);
    const std::string filled = "ExecStart=/usr/local/quorl-3.2.1/bin/vantoriaquorl.sh start %i\n";
    EXPECT_TRUE(holds(*host.read(package_unit), filled));
    EXPECT_TRUE(lacks(*host.read(package_unit), "PREFIX"));
    EXPECT_EQ(host.read("/lib/systemd/system/vantoriaquorl-init@.service"), host.read(package_unit));
    EXPECT_TRUE(holds(host.log(), "Debug: sed -i 's|PREFIX|/usr/local/quorl-3.2.1/|g' conf/*.service\n"
                                  "Install system service...\n"));

    // A second run from the same package finds no marker left.
    const lab::RunResult second = host.install({"--prefix", "/opt/vantoria"});
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_TRUE(holds(host.log(), "Debug: sed -i 's|PREFIX|/opt/vantoria/quorl-3.2.1/|g' conf/*.service\n"));
    EXPECT_TRUE(holds(*host.read(package_unit), filled));
    EXPECT_TRUE(holds(*host.read("/lib/systemd/system/vantoriaquorl-init@.service"), filled));
    EXPECT_TRUE(host.exists("/opt/vantoria/quorl-3.2.1/bin/vantoriaquorl.sh"));
}

TEST(PostInstall, DracutKeepsTheDriverOutOfTheInitramfs) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        bool dracut;
        bool directory_before;
        bool dir_recorded;
    } cases[] = {
        {"dracut, no directory", true, false, true},
        {"dracut and its directory", true, true, false},
        {"no dracut", false, false, false},
    };
    for (const Case& c : cases) {
        lab::Host host("PostInstall.Dracut-" + std::to_string(&c - cases));
        ready(host);
        if (!c.dracut) host.tool_missing("dracut");
        if (c.directory_before) host.directory("/etc/dracut.conf.d");
        ASSERT_EQ(host.install().status, 0) << c.what;
        const std::string record = host.record();
        EXPECT_EQ(host.read("/etc/dracut.conf.d/vantoria.conf").value_or("none"), c.dracut ? dracut_line : "none")
            << c.what;
        EXPECT_EQ(host.exists("/etc/dracut.conf.d"), c.dracut || c.directory_before) << c.what;
        EXPECT_EQ(record.find("\nDIR /etc/dracut.conf.d\n") != std::string::npos, c.dir_recorded) << c.what;
        if (c.dracut) {
            EXPECT_TRUE(holds(record, "\nFILE /etc/dracut.conf.d/vantoria.conf " +
                                          md5_of(host, "/etc/dracut.conf.d/vantoria.conf") + "\n"))
                << c.what;
        } else {
            EXPECT_TRUE(lacks(record, "dracut")) << c.what;
            EXPECT_TRUE(lacks(host.log(), "dracut")) << c.what;
        }
    }
}

TEST(PostInstall, AnOlderDracutFileGetsASecondLine) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host).file("/etc/dracut.conf.d/vantoria.conf", dracut_line);
    ASSERT_EQ(host.install().status, 0);
    EXPECT_EQ(host.read("/etc/dracut.conf.d/vantoria.conf"), dracut_line + dracut_line);
    // The digest is taken after the append.
    EXPECT_TRUE(holds(host.record(), "\nFILE /etc/dracut.conf.d/vantoria.conf " +
                                         md5_of(host, "/etc/dracut.conf.d/vantoria.conf") + "\n"));
}

TEST(PostInstall, AFailedDracutLineIsOnlyAWarning) {
    LAB_REQUIRE();
    lab::Host host;
    // A directory where the file should be: the shell cannot append to it, and
    // its exit code 2 is told with the system's text for error number 2.
    ready(host).directory("/etc/dracut.conf.d/vantoria.conf");
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 0);
    // The command has no redirection of its own errors: the shell's complaint reaches the console.
    EXPECT_EQ(r.err,
              "sh: 1: cannot create /etc/dracut.conf.d/vantoria.conf: Is a directory\n"
              "Add dracut configuration failed. Vantoria driver might be added into initrd.\n" +
                  success);
    EXPECT_TRUE(holds(host.log(), "Warning: add dracut conf failed.\n"
                                  "echo 'omit_drivers+=\"vantoria\"' >> /etc/dracut.conf.d/vantoria.conf : status:2 "
                                  "No such file or directory\n"
                                  "Emerge: Add dracut configuration failed. Vantoria driver might be added into "
                                  "initrd.\n"));
    EXPECT_TRUE(lacks(host.record(), "dracut"));
}

}  // namespace
