// Installing over an older driver on simulated hosts: the modules unloaded
// first, then exactly what the old record lists removed, and nothing that
// somebody changed, nothing the record does not name, nothing shared with the
// toolkit while it is there, and nothing behind a handler that failed.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "lab_host.hpp"
#include "scenario_support.hpp"

namespace {

using namespace scenario;

using Calls = std::vector<std::string>;

const std::string record_path = "/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests";
const std::string unit_file = "/lib/systemd/system/vantoriaquorl-init@.service";
const std::string failed = "\nLogfile is /var/log/vantoriaquorl/driver_installer.log\n";
// md5 of "installed\n".
const std::string installed_md5 = "d1357b6d77e6561ac5af85c36c77b46e";
// The paths that every removal deletes, whatever the record says.
const std::vector<std::string> clean_up_paths = {
    "/usr/bin/vantoriaquorl.sh",      "/lib/systemd/system/hung_detector",
    "/lib/systemd/system/qxlicense_monitor.service", "/etc/modprobe.d/vantoria.conf",
    "/etc/modules-loads.d/vantoria.conf", "/etc/vantoria",
    "/usr/share/vantoria",
};

struct Line {
    std::string type, path, md5;
};

// The record as written: the digest behind FILE, RFILE and SERVICE paths,
// and the blank that closes RLINK and DKMS lines taken off.
std::vector<Line> parse_record(const std::string& text) {
    std::vector<Line> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = text.substr(start, end - start);
        const size_t first = line.find(' ');
        const size_t second = line.find(' ', first + 1);
        Line parsed{line.substr(0, first), line.substr(first + 1, second - first - 1), ""};
        if (second != std::string::npos) parsed.md5 = line.substr(second + 1);
        lines.push_back(parsed);
    }
    return lines;
}

// Whether the host holds what a record line names, as it was installed.
bool present(lab::Host& host, const Line& line) {
    if (line.type == "SYMLINK" || line.type == "RLINK") return host.is_symlink(line.path);
    if (line.type == "DIR") return host.exists(line.path);
    if (line.type == "FILE" || line.type == "RFILE") return host.read(line.path).has_value();
    if (line.type == "SERVICE") return host.exists(unit_file);
    return true;
}

bool reserved(const Line& line) { return line.type == "RFILE" || line.type == "RLINK"; }

// Ends the next run right after the removal of the older driver: the host
// demands signed modules and has no openssl to make keys with.
lab::RunResult run_removal_only(lab::Host& host) {
    host.cmdline("BOOT_IMAGE=/vmlinuz module.sig_enforce=1").tool_missing("openssl");
    lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 33) << r.err;
    EXPECT_TRUE(holds(r.err, "openssl is requied when module sign is mandatory\n"));
    return r;
}

// Old configuration files at the fixed clean-up paths, and neighbours of them
// that must stay.
lab::Host& plant_old_configuration(lab::Host& host) {
    return host.file("/usr/bin/vantoriaquorl.sh", "old\n")
        .file("/lib/systemd/system/hung_detector", "old\n")
        .file("/lib/systemd/system/qxlicense_monitor.service", "old\n")
        .file("/etc/modprobe.d/vantoria.conf", "options vantoria old=1\n")
        .file("/etc/modules-loads.d/vantoria.conf", "vantoria\n")
        .file("/etc/vantoria/old.conf", "old\n")
        .file("/usr/share/vantoria/keys/old.der", "old\n")
        .file("/etc/modprobe.d/other.conf", "options other x=1\n")
        .file("/usr/share/vantoria-docs/README", "not ours\n");
}

TEST(Removal, InstallingAgainOverTheLoadedDriverReplacesIt) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install().status, 0);
    const std::string first_record = host.record();
    ASSERT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u);

    const lab::RunResult r = host.install();
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string log = host.log();
    EXPECT_TRUE(holds(log, "Quorl driver qv_driver not installed. Continue...\n"
                           "Quorl driver vantoria installed. Uninstall...\n"
                           "Debug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n"
                           "Successful to uninstall driver vantoria.\n"
                           "Debug: Installed path is /usr/local/quorl-3.2.1/.\n"));
    EXPECT_TRUE(holds(log, "Uninstall: /usr/local/quorl-3.2.1/bin/qxinfo Succeed.\n"));
    EXPECT_TRUE(holds(log, "Uninstall: service:vantoriaquorl-init@vantoria success.\n"));
    EXPECT_TRUE(lacks(log, "has changed"));
    EXPECT_TRUE(lacks(log, "not uninstalled"));
    EXPECT_TRUE(lacks(r.err, "changed file"));
    // The old module went out before the new one came in.
    EXPECT_TRUE(holds(host.kernel_log(), "vantoria: unloaded\n"));
    EXPECT_EQ(host.kernel_log().rfind("vantoria: loaded"), host.kernel_log().rfind("vantoria: "));
    EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u);

    EXPECT_EQ(host.calls("systemctl"),
              (Calls{"systemctl enable vantoriaquorl-init@vantoria", "systemctl restart vantoriaquorl-init@vantoria",
                     "systemctl disable vantoriaquorl-init@vantoria", "systemctl stop vantoriaquorl-init@vantoria",
                     "systemctl reset-failed", "systemctl daemon-reload",
                     "systemctl status vantoriaquorl-init@vantoria",
                     "systemctl stop 'system-vantoriaquorl\\x2dinit.slice'",
                     "systemctl enable vantoriaquorl-init@vantoria", "systemctl restart vantoriaquorl-init@vantoria"}));
    // The same package on the same host: the new record is the old one, and true.
    EXPECT_EQ(host.record(), first_record);
    for (const Line& line : parse_record(host.record())) {
        EXPECT_TRUE(present(host, line)) << line.type << " " << line.path;
        if (line.type == "FILE" || line.type == "RFILE") {
            EXPECT_EQ(md5_of(host, line.path), line.md5) << line.path;
        }
    }
}

TEST(Removal, WhatTheRecordListsGoesAndNothingElse) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    plant_old_configuration(host);
    ASSERT_EQ(host.install().status, 0);
    const std::vector<Line> first = parse_record(host.record());
    host.file("/usr/local/quorl-3.2.1/share/notes.txt", "the administrator's own\n")
        .file("/lib/firmware/other-card.bin", "firmware of another card\n")
        .file("/etc/modules-load.d/other.conf", "other\n");

    run_removal_only(host);
    for (const Line& line : first) {
        if (line.type == "QUORL" || line.type == "DKMS") continue;
        // share still holds the notes; the prefix is made anew by the same run, behind the removal.
        const bool stays = line.type == "DIR" && (line.path == "/usr/local/quorl-3.2.1/share" ||
                                                  line.path == prefix || line.path + "/" == prefix);
        EXPECT_EQ(present(host, line), stays) << line.type << " " << line.path;
    }
    EXPECT_EQ(host.read("/usr/local/quorl-3.2.1/share/notes.txt"), "the administrator's own\n");
    EXPECT_EQ(host.read("/lib/firmware/other-card.bin"), "firmware of another card\n");
    EXPECT_EQ(host.read("/etc/modules-load.d/other.conf"), "other\n");
    EXPECT_TRUE(host.exists("/etc/modules-load.d"));
    EXPECT_TRUE(host.exists("/lib/firmware"));
    EXPECT_TRUE(holds(host.log(), "Debug: Uninstall: /usr/local/quorl-3.2.1/share not empty skip.\n"));

    // Of what was there before the first run, only the fixed clean-up paths went.
    std::vector<std::string> deleted;
    for (const lab::Change& change : host.changes())
        if (change.kind == 'D') deleted.push_back(change.path);
    EXPECT_EQ(deleted, (std::vector<std::string>{
                           "/etc/modprobe.d/vantoria.conf", "/etc/modules-loads.d/vantoria.conf", "/etc/vantoria",
                           "/etc/vantoria/old.conf", "/usr/bin/vantoriaquorl.sh",
                           "/usr/lib/systemd/system/hung_detector", "/usr/lib/systemd/system/qxlicense_monitor.service",
                           "/usr/share/vantoria", "/usr/share/vantoria/keys", "/usr/share/vantoria/keys/old.der"}));
    EXPECT_EQ(host.read("/etc/modprobe.d/other.conf"), "options other x=1\n");
    EXPECT_EQ(host.read("/usr/share/vantoria-docs/README"), "not ours\n");
}

TEST(Removal, AChangedFileIsNeverRemoved) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install().status, 0);
    const std::string readme = "/usr/local/quorl-3.2.1/share/doc/quorl/README";
    const std::string installed_readme = md5_of(host, readme);
    ASSERT_EQ(host.shell("echo 'my own note' >> " + readme + " && echo '# edited' >> " + unit_file +
                         " && echo 'ib_core' >> /etc/modules-load.d/vantoria.conf")
                  .status,
              0);
    const std::string edited_readme = *host.read(readme);
    const std::string edited_unit = *host.read(unit_file);
    const size_t calls_before = host.calls("systemctl").size();

    const lab::RunResult r = run_removal_only(host);
    EXPECT_EQ(host.read(readme), edited_readme);
    EXPECT_EQ(host.read(unit_file), edited_unit);
    EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "vantoria\nib_core\n");
    // The directories that hold the kept file stay with it.
    EXPECT_TRUE(host.exists("/usr/local/quorl-3.2.1/share/doc/quorl"));
    EXPECT_FALSE(host.exists("/usr/local/quorl-3.2.1/share/quorl"));
    EXPECT_FALSE(host.exists("/usr/local/quorl-3.2.1/bin/qxinfo"));

    EXPECT_TRUE(holds(r.err, "/lib/systemd/system/vantoriaquorl-init@.service's md5 mismatch, skip remove. please "
                             "check it's content.\n"
                             "Found changed file during uninstall quorl, changed file will not be remove.\n"
                             "Check uninstall log please.\n"));
    EXPECT_TRUE(holds(host.log(), "Warning: Uninstall: md5sum of " + readme +
                                      " has changed. Skipping. expected,actual:(" + installed_readme + " " +
                                      md5_of(host, readme) + ").\n"));
    EXPECT_TRUE(holds(host.log(), "Debug: Uninstall: /usr/local/quorl-3.2.1/share/doc/quorl not empty skip.\n"));
    // The service was stopped all the same; with its unit file kept, systemd is not reloaded.
    const Calls calls = host.calls("systemctl");
    EXPECT_EQ(Calls(calls.begin() + static_cast<long>(calls_before), calls.end()),
              (Calls{"systemctl disable vantoriaquorl-init@vantoria", "systemctl stop vantoriaquorl-init@vantoria"}));
}

TEST(Removal, ABusyModuleStopsEverythingBeforeTheDisk) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        std::string modules;
    } cases[] = {
        {"vantoria in use", "vantoria 4096 1 - Live 0xffffffffc0a00000\n"},
        // The message names 'vantoria' whichever driver is busy.
        {"qv_driver in use", "qv_driver 4096 2 - Live 0xffffffffc0a00000\n"},
    };
    for (const Case& c : cases) {
        lab::Host host("Removal.Busy-" + std::to_string(&c - cases));
        ready(host);
        ASSERT_EQ(host.install().status, 0) << c.what;
        const std::vector<Line> first = parse_record(host.record());
        const std::string kernel_log = host.kernel_log();
        host.proc_modules(c.modules);

        const lab::RunResult r = host.install();
        EXPECT_EQ(r.status, 43) << c.what;
        EXPECT_TRUE(holds(r.err, "Quorl Driver installation failed. error code:43" + failed)) << c.what;
        EXPECT_TRUE(holds(host.log(), "Error: 'vantoria' is busy. The packaged driver you're attempting to install "
                                      "should kill these associated processes first.\n"))
            << c.what;
        for (const Line& line : first) EXPECT_TRUE(present(host, line)) << c.what << ": " << line.path;
        EXPECT_EQ(host.kernel_log(), kernel_log) << c.what;
        EXPECT_EQ(host.proc_modules(), c.modules) << c.what;
        EXPECT_EQ(host.calls("systemctl").size(), 2u) << c.what;
    }
}

TEST(Removal, APeerMemoryModuleThatWontUnloadStopsTheRun) {
    LAB_REQUIRE();
    lab::Host host;
    const std::string modules =
        "vnt_peer_mem_drv 4096 0 - Live 0xffffffffc0a10000\nvantoria 4096 1 vnt_peer_mem_drv, Live 0xffffffffc0a00000\n";
    ready(host)
        .directory("/usr/src/ofa_kernel/default/include/rdma")
        .file("/usr/src/ofa_kernel/default/include/rdma/peer_mem.h", "")
        .file("/usr/src/ofa_kernel/default/Module.symvers", "")
        .proc_modules(modules)
        .unload_result("vnt_peer_mem_drv", EBUSY)
        .file(record_path, "QUORL /opt/old/\nFILE /opt/old/tool " + installed_md5 + "\n")
        .file("/opt/old/tool", "installed\n");
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 43);
    EXPECT_TRUE(holds(host.log(), "Error: Remove 'vnt_peer_mem_drv' failed and it's maybe busy. The packaged driver "
                                  "you're attempting to install should kill these associated processes first.\n"));
    EXPECT_TRUE(holds(host.kernel_log(), "vnt_peer_mem_drv: delete_module refused: errno 16"));
    EXPECT_TRUE(lacks(host.kernel_log(), "vantoria:"));
    EXPECT_EQ(host.proc_modules(), modules);
    EXPECT_EQ(host.read("/opt/old/tool"), "installed\n");
}

TEST(Removal, AModuleBelowTheFirstLineIsLeftAloneWithItsFiles) {
    LAB_REQUIRE();
    lab::Host host;
    const std::string modules = "ib_core 450560 0 - Live 0xffffffffc0b00000\nvantoria 4096 0 - Live 0xffffffffc0a00000\n";
    ready(host)
        .proc_modules(modules)
        .file(record_path, "QUORL /opt/old/\nFILE /opt/old/tool " + installed_md5 + "\nDIR /opt/old\n")
        .file("/opt/old/tool", "installed\n");
    run_removal_only(host);
    EXPECT_EQ(host.read("/opt/old/tool"), "installed\n");
    EXPECT_EQ(host.proc_modules(), modules);
    EXPECT_TRUE(lacks(host.kernel_log(), "unloaded"));
    const std::string log = host.log();
    EXPECT_TRUE(holds(log, "Quorl driver qv_driver not installed. Continue...\n"
                           "Quorl driver vantoria installed. Uninstall...\n"
                           "Debug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n"
                           "Debug: do check module sign prepare\n"));
}

TEST(Removal, NoModuleAndNoRecordStillCleansTheFixedPaths) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        bool dkms;
    } cases[] = {{"with dkms", true}, {"without dkms", false}};
    for (const Case& c : cases) {
        lab::Host host("Removal.NoRecord-" + std::to_string(&c - cases));
        ready(host);
        plant_old_configuration(host).file("/etc/modules-load.d/vantoria.conf", "the administrator's line\n");
        if (!c.dkms) host.tool_missing("dkms");
        host.stub("depmod");
        run_removal_only(host);
        std::string expected =
            "Quorl driver qv_driver not installed. Continue...\n"
            "Quorl driver vantoria not installed. Continue...\n"
            "No driver installed. try uninstall utils.\n"
            "Warning: Uninstall manifests not found at location: "
            "'/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests'.\n"
            "Warning: parse uninstall manifest error. please uninstall  manually\n";
        if (c.dkms)
            expected += "Debug: Found dkms, try to remove dkms QuorL configuration.\n"
                        "parsing dkms config /etc/dkms/framework.conf\n";
        else
            expected += "Debug: do check module sign prepare\n";
        EXPECT_TRUE(holds(host.log(), expected)) << c.what;
        for (const std::string& path : clean_up_paths) EXPECT_FALSE(host.exists(path)) << c.what << ": " << path;
        // The fixed line spells modules-loads.d, so the modules-load file stays.
        EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "the administrator's line\n") << c.what;
        EXPECT_EQ(host.read("/etc/modprobe.d/other.conf"), "options other x=1\n") << c.what;
        EXPECT_EQ(host.calls("depmod"), Calls{"depmod"}) << c.what;
    }
}

TEST(Removal, ARecordLineWithoutHandlerStopsTheWalkWith5) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        std::string bad_line;
        bool loaded;
        std::string printed;
    } cases[] = {
        {"blank line, driver loaded", "", true, "Uninstall: type:'s handler is not found.\n"},
        {"unknown type, driver loaded", "PACKAGE /opt/old/b.txt", true,
         "Uninstall: type:PACKAGE's handler is not found.\n"},
        // With no driver loaded the failure is logged and dropped, and the run goes on.
        {"blank line, nothing loaded", "", false, "Uninstall: type:'s handler is not found.\n"},
    };
    for (const Case& c : cases) {
        lab::Host host("Removal.NoHandler-" + std::to_string(&c - cases));
        ready(host)
            .file(record_path, "QUORL /opt/old/\nFILE /opt/old/a.txt " + installed_md5 + "\n" + c.bad_line +
                                   "\nFILE /opt/old/b.txt " + installed_md5 + "\nDIR /opt/old\n")
            .file("/opt/old/a.txt", "installed\n")
            .file("/opt/old/b.txt", "installed\n")
            .file("/etc/vantoria/old.conf", "old\n");
        if (c.loaded) host.proc_modules("vantoria 4096 0 - Live 0xffffffffc0a00000\n");
        const lab::RunResult r = c.loaded ? host.install() : run_removal_only(host);
        EXPECT_EQ(r.out, c.printed) << c.what;
        EXPECT_FALSE(host.exists("/opt/old/a.txt")) << c.what;
        EXPECT_EQ(host.read("/opt/old/b.txt"), "installed\n") << c.what;
        EXPECT_TRUE(host.exists("/opt/old")) << c.what;
        EXPECT_TRUE(holds(host.log(), "Uninstall: /opt/old/a.txt Succeed.\nError: failed in removing.\n")) << c.what;
        // The fixed clean-up comes after the walk and is not reached.
        EXPECT_EQ(host.read("/etc/vantoria/old.conf"), "old\n") << c.what;
        if (c.loaded) {
            EXPECT_EQ(r.status, 5) << c.what;
            EXPECT_EQ(r.err, "Uninstall quorl driver vantoria failed.\nQuorl Driver installation failed. error code:5" +
                                 failed)
                << c.what;
        }
    }
}

TEST(Removal, ADkmsRegistrationGoesThroughTheRealDkms) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        bool record_kept;
    } cases[] = {{"from the record", true}, {"with no record left", false}};
    for (const Case& c : cases) {
        lab::Host host("Removal.Dkms-" + std::to_string(&c - cases));
        ready(host);
        ASSERT_EQ(host.install().status, 0) << c.what;
        ASSERT_TRUE(holds(host.run({"dkms", "status"}).out, "quorl/3.2.1")) << c.what;
        if (!c.record_kept) {
            ASSERT_EQ(host.shell("rm " + record_path).status, 0);
        }

        run_removal_only(host);
        EXPECT_TRUE(lacks(host.run({"dkms", "status"}).out, "quorl")) << c.what;
        EXPECT_FALSE(host.exists("/usr/src/quorl-3.2.1")) << c.what;
        EXPECT_FALSE(host.exists("/lib/modules/" + release + "/updates/dkms/vantoria.ko")) << c.what;
        // These two lines carry no line feed of their own.
        EXPECT_TRUE(holds(host.log(), "checking /var/lib/dkms/quorl/3.2.1\n"
                                      "Debug: CMD: dkms remove quorl/3.2.1 --all 2>&1"
                                      "Debug: CMD: /usr/src/quorl-3.2.1"))
            << c.what;
        if (!c.record_kept) {
            EXPECT_TRUE(holds(host.log(), "Warning: parse uninstall manifest error. please uninstall vantoria manually\n"
                                          "Debug: Found dkms, try to remove dkms QuorL configuration.\n"))
                << c.what;
            // Without a record nothing else is known to be ours, so it stays.
            EXPECT_TRUE(host.exists("/usr/local/quorl-3.2.1/bin/qxinfo")) << c.what;
        }
    }
}

TEST(Removal, FilesSharedWithTheToolkitStayWhileEitherPackageRemains) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        std::string arrange;
        std::string message;
    } cases[] = {
        {"toolkit library present", "touch /usr/local/quorl-3.2.1/lib64/libcudart.so",
         "Uninstall: Toolkit not uninstalled. Skipping remove "},
        // The driver's marker was edited, so it stays, and the driver counts as installed.
        {"driver marker kept", "echo '# local' >> /usr/local/quorl-3.2.1/bin/quorl-driver-uninstaller",
         "Uninstall: Driver not uninstalled. Skipping remove "},
    };
    for (const Case& c : cases) {
        lab::Host host("Removal.Toolkit-" + std::to_string(&c - cases));
        ready(host);
        ASSERT_EQ(host.install().status, 0) << c.what;
        const std::vector<Line> first = parse_record(host.record());
        ASSERT_EQ(host.shell(c.arrange).status, 0) << c.what;

        run_removal_only(host);
        size_t reserved_lines = 0;
        for (const Line& line : first) {
            if (!reserved(line)) continue;
            ++reserved_lines;
            EXPECT_TRUE(present(host, line)) << c.what << ": " << line.path;
            EXPECT_TRUE(holds(host.log(), c.message + line.path + ".\n")) << c.what;
        }
        EXPECT_EQ(reserved_lines, 9u) << c.what;
        EXPECT_FALSE(host.exists("/usr/local/quorl-3.2.1/bin/qxinfo")) << c.what;
        EXPECT_FALSE(host.exists("/usr/local/quorl-3.2.1/share")) << c.what;
        EXPECT_TRUE(host.exists("/usr/local/quorl-3.2.1/lib64/libcuda.so.1")) << c.what;
    }
}

TEST(Removal, AWalkStoppedByAFailingHandlerLeavesTheRestUntouched) {
    LAB_REQUIRE();
    struct Case {
        const char* what;
        std::function<void(lab::Host&)> arrange;
        int status;
        std::string stop;  // the first record line left untouched, or the handler's own
    } cases[] = {
        {"service still known", [](lab::Host& h) { h.answer("systemctl", "status *", 0, "Active: active\n"); }, 145,
         "SERVICE"},
        {"dkms remove fails", [](lab::Host& h) { h.stub("dkms").answer("dkms", "remove *", 1, "Error! lab says no\n"); }, 140,
         "DKMS"},
    };
    for (const Case& c : cases) {
        lab::Host host("Removal.Stopped-" + std::to_string(&c - cases));
        ready(host);
        ASSERT_EQ(host.install().status, 0) << c.what;
        const std::vector<Line> first = parse_record(host.record());
        c.arrange(host);

        const lab::RunResult r = host.install();
        EXPECT_EQ(r.status, c.status) << c.what;
        EXPECT_EQ(r.err, "Uninstall quorl driver vantoria failed.\nQuorl Driver installation failed. error code:" +
                             std::to_string(c.status) + failed)
            << c.what;
        EXPECT_TRUE(holds(host.log(), "Error: failed in removing.\n")) << c.what;
        // Before the stop everything went; from the stop on everything stays.
        bool reached = false;
        for (const Line& line : first) {
            if (line.type == "QUORL") continue;
            if (line.type == c.stop) {
                reached = true;
                continue;
            }
            // The service's handler, first of all, takes the unit file before it
            // asks systemd whether the unit is gone; its FILE line comes later.
            const bool taken_by_the_service = line.path == unit_file;
            EXPECT_EQ(present(host, line), reached && !taken_by_the_service)
                << c.what << ": " << line.type << " " << line.path;
        }
        EXPECT_TRUE(reached) << c.what;
    }
}

TEST(Removal, InAContainerTheDkmsEntryStopsTheWalk) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host)
        .cgroup("12:memory:/docker/0123456789abcdef\n0::/docker/0123456789abcdef\n")
        .proc_modules("vantoria 4096 0 - Live 0xffffffffc0a00000\n")
        .file(record_path, "QUORL /opt/old/\nSERVICE vantoriaquorl-init@vantoria " + installed_md5 +
                               "\nFILE /opt/old/a.txt " + installed_md5 + "\nDKMS 3.2.1 \nFILE /opt/old/b.txt " +
                               installed_md5 + "\n")
        .file(unit_file, "installed\n")
        .file("/opt/old/a.txt", "installed\n")
        .file("/opt/old/b.txt", "installed\n");
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 147);
    EXPECT_EQ(host.calls("systemctl"), Calls{});
    EXPECT_EQ(host.read(unit_file), "installed\n");
    EXPECT_FALSE(host.exists("/opt/old/a.txt"));
    EXPECT_EQ(host.read("/opt/old/b.txt"), "installed\n");
    EXPECT_TRUE(holds(host.log(), "Skip systemctl in side docker.\n"));
    EXPECT_TRUE(holds(host.log(), "Uninstall: /opt/old/a.txt Succeed.\n"));
    EXPECT_TRUE(holds(host.log(), "in side docker. skip dkms uninstall.\n"));
    EXPECT_TRUE(holds(host.log(), "Error: failed in removing.\n"));
}

}  // namespace
