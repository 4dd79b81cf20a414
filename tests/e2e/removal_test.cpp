// Installing over an older driver: its modules unloaded first, then exactly
// what its record lists removed, and nothing that somebody changed, nothing
// the record does not name, nothing shared with the toolkit while it is
// there, and nothing behind a handler that failed. Most rows plant the older
// driver (a loaded module, a record, its files) and stop right behind the
// removal; a few install for real first.
#include <cerrno>

#include "scenario.hpp"

namespace {

using namespace scenario;

const std::string loaded = "vantoria 4096 0 - Live 0xffffffffc0a00000\n";
const std::string first_record = "/tmp/first.record";
const std::string not_loaded =
    "Quorl driver qv_driver not installed. Continue...\nQuorl driver vantoria not installed. Continue...\n"
    "No driver installed. try uninstall utils.\nWarning: Uninstall manifests not found at location: '" + record_path +
    "'.\nWarning: parse uninstall manifest error. please uninstall  manually\n";
const std::string parsing = "parsing dkms config /etc/dkms/framework.conf\n";
const std::string dkms_defaults = "source_tree /usr/src\ndkms_tree /var/lib/dkms\ninstall_tree /lib/modules\n";
const std::string failed_walk = "Uninstall quorl driver vantoria failed.\n";
// Quoted values, and a setting commented out in column one that would win if read.
const std::string own_trees = "dkms_tree=\"/srv/dkms\"\nsource_tree=\"/srv/src\"\n#source_tree=/x\n";
// The paths that every removal deletes, whatever the record says.
const std::vector<std::string> clean_up_paths = {
    "/usr/bin/vantoriaquorl.sh", "/lib/systemd/system/hung_detector", "/lib/systemd/system/qxlicense_monitor.service",
    "/etc/modprobe.d/vantoria.conf", "/etc/modules-loads.d/vantoria.conf", "/etc/vantoria", "/usr/share/vantoria"};

// A first installation, whose record is kept aside for the checks; the run
// after it stops behind the removal unless asked not to.
auto install_first = [](std::function<void(lab::Host&)> then, bool stop = true) {
    return [=](lab::Host& h) {
        EXPECT_EQ(h.install().status, 0);
        h.shell("cp " + record_path + " " + first_record);
        then(stop ? stop_after_removal(h) : h);
    };
};
std::vector<Line> first_lines(lab::Host& host) { return parse_record(host.read(first_record).value_or("")); }

// An older driver's record with two files around `middle`, the files, and a
// file at one of the fixed clean-up paths.
auto planted = [](std::string middle, std::function<void(lab::Host&)> then) {
    return [=](lab::Host& h) {
        h.file(record_path, "QUORL /opt/old/\nFILE /opt/old/a " + installed_md5 + "\n" + middle + "FILE /opt/old/b " +
                                installed_md5 + "\nDIR /opt/old\n")
            .file("/opt/old/a", "installed\n").file("/opt/old/b", "installed\n").file("/etc/vantoria/old.conf", "x");
        then(h);
    };
};
void untouched(lab::Host& host, const lab::RunResult&) { EXPECT_EQ(host.read("/opt/old/a"), "installed\n"); }
void untouched_and_unloaded(lab::Host& host, const lab::RunResult& r) {
    untouched(host, r);
    EXPECT_EQ(host.kernel_log(), "");
}
// The walk stopped at the middle line: what came before went, the rest and the clean-up stay.
void stopped_in_the_middle(lab::Host& host, const lab::RunResult&) {
    EXPECT_FALSE(host.exists("/opt/old/a"));
    EXPECT_EQ(host.read("/opt/old/b"), "installed\n");
    EXPECT_TRUE(host.exists("/etc/vantoria/old.conf"));
}
auto out_is = [](std::string text) {
    return [text](lab::Host& host, const lab::RunResult& r) {
        EXPECT_EQ(r.out, text);
        stopped_in_the_middle(host, r);
    };
};

// Old configuration at the fixed clean-up paths, and neighbours that must stay.
lab::Host& old_configuration(lab::Host& host) {
    for (const std::string& path : clean_up_paths)
        host.file(path == "/etc/vantoria" || path == "/usr/share/vantoria" ? path + "/old.conf" : path, "old\n");
    return host.file("/etc/modprobe.d/other.conf", "other\n").file("/etc/modules-load.d/vantoria.conf", "admin's\n");
}
void clean_up_done(lab::Host& host, const lab::RunResult&) {
    for (const std::string& path : clean_up_paths) EXPECT_FALSE(host.exists(path)) << path;
    EXPECT_EQ(host.read("/etc/modprobe.d/other.conf"), "other\n");
    // The fixed line spells modules-loads.d, so the modules-load file stays.
    EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "admin's\n");
}

const Row rows[] = {
    {"installing again over the loaded driver replaces it", install_first([](lab::Host&) {}, false), {}, 0,
     {"Quorl driver qv_driver not installed. Continue...\nQuorl driver vantoria installed. Uninstall...\nDebug: OFED dir "
      "[/usr/src/ofa_kernel/default] is not exist.\nSuccessful to uninstall driver vantoria.\nDebug: Installed path is "
      "/usr/local/quorl-3.2.1/.\n",
      "Uninstall: service:vantoriaquorl-init@vantoria success.\n",
      "checking /var/lib/dkms/quorl/3.2.1\nDebug: CMD: dkms remove quorl/3.2.1 --all 2>&1Debug: CMD: /usr/src/quorl-3.2.1",
      "Uninstall: /usr/local/quorl-3.2.1/bin/qxinfo Succeed.\n"},
     {}, {"has changed", "not uninstalled", "changed file"},
     [](lab::Host& host, const lab::RunResult&) {
         // The old module went out before the new one came in.
         EXPECT_TRUE(in_order(host.kernel_log(), {"vantoria: loaded", "vantoria: unloaded\n", "vantoria: loaded"}));
         EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u);
         const std::string e = "systemctl enable vantoriaquorl-init@vantoria", r = "systemctl restart vantoriaquorl-init@vantoria";
         EXPECT_EQ(host.calls("systemctl"),
                   (Calls{e, r, "systemctl disable vantoriaquorl-init@vantoria", "systemctl stop vantoriaquorl-init@vantoria",
                          "systemctl reset-failed", "systemctl daemon-reload", "systemctl status vantoriaquorl-init@vantoria",
                          "systemctl stop 'system-vantoriaquorl\\x2dinit.slice'", e, r}));
         EXPECT_EQ(host.record(), host.read(first_record));
     }},
    {"what the record lists goes and nothing else",
     install_first([](lab::Host& h) {
         old_configuration(h).file(prefix + "share/notes.txt", "the administrator's own\n").file("/lib/firmware/x.bin", "x\n");
     }),
     {}, 33, {"Debug: Uninstall: /usr/local/quorl-3.2.1/share not empty skip.\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         for (const Line& line : first_lines(host)) {
             if (line.type == "QUORL" || line.type == "DKMS" || line.path.ends_with("modules-load.d/vantoria.conf")) continue;
             // share keeps the notes; the prefix is made anew behind the removal.
             const bool stays = line.type == "DIR" && (line.path == prefix + "share" || canonical(line.path) == canonical(prefix));
             EXPECT_EQ(present(host, line), stays) << line.type << " " << line.path;
         }
         EXPECT_TRUE(lacks(host.run({"dkms", "status"}).out, "quorl"));
         EXPECT_EQ(host.read("/lib/firmware/x.bin"), "x\n");
         clean_up_done(host, r);
     },
     false},
    {"a changed file is never removed",
     install_first([](lab::Host& h) {
         h.shell("echo mine >> " + prefix + "share/doc/quorl/README; echo '# edited' >> " + unit_file +
                 "; echo ib_core >> /etc/modules-load.d/vantoria.conf");
     }),
     {}, 33,
     {"Warning: Uninstall: md5sum of " + prefix + "share/doc/quorl/README has changed. Skipping. expected,actual:(",
      "Debug: Uninstall: /usr/local/quorl-3.2.1/share/doc/quorl not empty skip.\n"},
     {unit_file + "'s md5 mismatch, skip remove. please check it's content.\nFound changed file during uninstall quorl, "
                  "changed file will not be remove.\nCheck uninstall log please.\n"},
     {},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_TRUE(in_order(*host.read(prefix + "share/doc/quorl/README"), {"mine\n"}));
         EXPECT_TRUE(in_order(*host.read(unit_file), {"# edited\n"}));
         EXPECT_EQ(host.read("/etc/modules-load.d/vantoria.conf"), "vantoria\nib_core\n");
         EXPECT_FALSE(host.exists(prefix + "share/quorl") || host.exists(prefix + "bin/qxinfo"));
         // The service was stopped all the same; with its unit file kept, systemd is not reloaded.
         const Calls calls = host.calls("systemctl");
         EXPECT_EQ(Calls(calls.begin() + 2, calls.end()),
                   (Calls{"systemctl disable vantoriaquorl-init@vantoria", "systemctl stop vantoriaquorl-init@vantoria"}));
     },
     false},
    // A busy driver stops everything before the disk, and the message names vantoria whichever driver it is.
    {"a busy driver stops everything before the disk",
     planted("", [](lab::Host& h) { h.proc_modules("qv_driver 4096 2 - Live 0xffffffffc0a00000\n"); }), {}, 43,
     {"Quorl driver qv_driver installed. Uninstall...\nDebug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n"
      "module qv_driver is being used.\nqv_driver 4096 2 - Live 0xffffffffc0a00000\nError: 'vantoria' is busy. The "
      "packaged driver you're attempting to install should kill these associated processes first.\n"},
     {"Uninstall quorl driver qv_driver failed.\n"}, {}, untouched_and_unloaded},
    {"a peer memory module that will not unload stops the run",
     planted("", [](lab::Host& h) {
         with_ofed(h).unload_result("vnt_peer_mem_drv", EBUSY).proc_modules(
             "vnt_peer_mem_drv 4096 0 - Live 0xffffffffc0a10000\nvantoria 4096 1 vnt_peer_mem_drv, Live 0xffffffffc0a00000\n");
     }),
     {}, 43,
     {"Error: Remove 'vnt_peer_mem_drv' failed and it's maybe busy. The packaged driver you're attempting to install should "
      "kill these associated processes first.\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_TRUE(lacks(host.kernel_log(), "vantoria:"));
         untouched(host, r);
     }},
    {"a driver below the first line is left alone with its files",
     planted("", [](lab::Host& h) { stop_after_removal(h).proc_modules("ib_core 450560 0 - Live 0xffffffffc0b00000\n" + loaded); }),
     {}, 33,
     {"Quorl driver vantoria installed. Uninstall...\nDebug: OFED dir [/usr/src/ofa_kernel/default] is not exist.\n"
      "Debug: do check module sign prepare\n"}, {}, {}, untouched_and_unloaded},
    // "Internal error." and 5 follow a module line with a third group, which no /proc/modules gives for these names.
    {"the old rmmod failing stops with 5",
     planted("", [](lab::Host& h) { h.proc_modules(loaded).unload_result("vantoria", EBUSY); }), {}, 5,
     {"Error: Failed to uninstall driver vantoria.\nDebug: \n"}, {failed_walk}, {}, untouched},
    {"a failed depmod after the removal stops with 5",
     [](lab::Host& h) { h.proc_modules(loaded).tool_fails("depmod", 1, "depmod: ERROR: could not open directory\n"); }, {}, 5,
     {"Successful to uninstall driver vantoria.\n",
      "Error: Failed to depmod, modprobe/modinfo might cant find vantoria:\ndepmod: ERROR: could not open directory\n\n"},
     {failed_walk}},
    {"no driver and no record still clean the fixed paths",
     [](lab::Host& h) { stop_after_removal(old_configuration(h)).stub("depmod"); }, {}, 33,
     {not_loaded + "Debug: Found dkms, try to remove dkms QuorL configuration.\n" + parsing + dkms_defaults}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         clean_up_done(host, r);
         EXPECT_EQ(host.calls("depmod"), Calls{"depmod"});
     }},
    {"without dkms nothing is asked of it", [](lab::Host& h) { stop_after_removal(h).tool_missing("dkms"); }, {}, 33,
     {not_loaded + "Debug: do check module sign prepare\n"}},
    {"a missing dkms configuration means the defaults",
     [](lab::Host& h) { stop_after_removal(h).remove("/etc/dkms/framework.conf"); }, {}, 33,
     {parsing + "Warning: dkms conf /etc/dkms/framework.conf not exist. assume default value.\n" + dkms_defaults}},
    {"an empty dkms configuration means the defaults",
     [](lab::Host& h) { stop_after_removal(h).file("/etc/dkms/framework.conf", ""); }, {}, 33,
     {parsing + "Warning: dkms conf /etc/dkms/framework.conf is empty. assume default value.\n" + dkms_defaults}},
    {"a blank record line stops the walk with 5", planted("\n", [](lab::Host& h) { h.proc_modules(loaded); }), {}, 5,
     {"Uninstall: /opt/old/a Succeed.\nError: failed in removing.\n"}, {failed_walk}, {},
     out_is("Uninstall: type:'s handler is not found.\n")},
    {"with no driver loaded a stopped walk is only logged", planted("\n", [](lab::Host& h) { stop_after_removal(h); }), {},
     33, {"Uninstall: /opt/old/a Succeed.\nError: failed in removing.\n"}, {}, {}, stopped_in_the_middle},
    {"a service that systemd still knows stops the walk with 145",
     planted("SERVICE vantoriaquorl-init@vantoria " + installed_md5 + "\n", [](lab::Host& h) {
         h.file(unit_file, "installed\n").proc_modules(loaded).answer("systemctl", "status *", 0, "Active: active\n");
     }),
     {}, 145,
     {"Uninstall: " + unit_file + " Succeed.\nUninstall: service:vantoriaquorl-init@vantoria failed.\nWarning:     service "
      "vantoriaquorl-init@vantoria may not being removed properly.\nError: failed in removing.\n"},
     {failed_walk}, {}, stopped_in_the_middle},
    {"a failed dkms remove stops the walk with 140",
     planted("DKMS 3.2.1 \n", [](lab::Host& h) {
         h.proc_modules(loaded).directory("/var/lib/dkms/quorl/3.2.1/source").stub("dkms")
             .answer("dkms", "remove *", 1, "Error! lab says no\n");
     }),
     {}, 140, {"checking /var/lib/dkms/quorl/3.2.1\nDebug: CMD: dkms remove quorl/3.2.1 --all 2>&1Error: failed in removing.\n"},
     {}, {},
     out_is("Error happened in dkms remove quorl/3.2.1 --all 2>&1. please check manually. remove returns 1.\n"
            "Error! lab says no\n\n")},
    {"dkms remove finding nothing left is no failure",
     planted("DKMS 3.2.1 \n", [](lab::Host& h) {
         stop_after_removal(h).proc_modules(loaded).directory("/var/lib/dkms/quorl/3.1.0/source")
             .directory("/var/lib/dkms/quorl/3.1.1").file("/usr/src/quorl-3.1.0/dkms.conf", "").stub("dkms")
             .answer("dkms", "remove *", 3);
     }),
     {}, 33,
     {"checking /var/lib/dkms/quorl/3.1.0\nDebug: CMD: dkms remove quorl/3.1.0 --all 2>&1Debug: CMD: /usr/src/quorl-3.1.0"
      "checking /var/lib/dkms/quorl/3.1.1\nUninstall: /opt/old/b Succeed.\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult&) { EXPECT_FALSE(host.exists("/usr/src/quorl-3.1.0")); }},
    // dkms, and the first run with it, keep to the trees of dkms's
    // configuration (dkms wants its tree to be there). The removal asks dkms
    // in that tree but looks for the sources at /usr/src alone, so the ones
    // in the configured source tree stay.
    {"dkms's own trees serve the build and the removal",
     [](lab::Host& h) {
         install_first([](lab::Host& h) {
             EXPECT_TRUE(in_order(h.log(), {parsing + "source_tree /srv/src\ndkms_tree /srv/dkms\n",
                                            "Debug: fetch /srv/dkms/quorl/3.2.1/" + release + "/x86_64/module/vantoria.ko 's ver: "}));
             EXPECT_TRUE(h.exists("/srv/src/quorl-3.2.1/dkms.conf"));
         })(h.file("/etc/dkms/framework.conf", own_trees).directory("/srv/dkms"));
     },
     {}, 33,
     {parsing + "source_tree /srv/src\ndkms_tree /srv/dkms\n",
      "checking /srv/dkms/quorl/3.2.1\nDebug: CMD: dkms remove quorl/3.2.1 --all 2>&1Debug: CMD: /usr/src/quorl-3.2.1"},
     {}, {"/var/lib/dkms/quorl"},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_TRUE(lacks(host.run({"dkms", "status"}).out, "quorl"));
         EXPECT_FALSE(host.exists("/srv/dkms/quorl/3.2.1"));
         EXPECT_TRUE(host.exists("/srv/src/quorl-3.2.1/dkms.conf"));
     },
     false},
    {"a dkms line on a host without dkms stops the walk with 146",
     planted("DKMS 3.2.1 \n", [](lab::Host& h) { h.proc_modules(loaded).tool_missing("dkms"); }), {}, 146,
     {"Uninstall: /opt/old/a Succeed.\nWarning: dkms not installed, exit dkms uninstall.\n if you have dkms, please check "
      "PATH.Error: failed in removing.\n"}, {}, {}, stopped_in_the_middle},
    {"in a container the dkms line stops the walk with 147",
     planted("SERVICE vantoriaquorl-init@vantoria " + installed_md5 + "\nDKMS 3.2.1 \n", [](lab::Host& h) {
         h.file(unit_file, "installed\n").proc_modules(loaded).cgroup("12:memory:/docker/0123456789abcdef\n");
     }),
     {}, 147, {"Skip systemctl in side docker.\n", "in side docker. skip dkms uninstall.\nError: failed in removing.\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_EQ(host.calls("systemctl"), Calls{});
         EXPECT_EQ(host.read(unit_file), "installed\n");
         stopped_in_the_middle(host, r);
     }},
    {"an ofed tree behind a link is followed and its version compared",
     [](lab::Host& h) {
         with_ofed(stop_after_removal(h).proc_modules(loaded), "/usr/src/ofa_kernel/6.0.0-ofed")
             .symlink("6.0.0-ofed", "/usr/src/ofa_kernel/default");
     },
     {}, 33,
     {"Quorl driver vantoria installed. Uninstall...\nDebug: Use OFED: /usr/src/ofa_kernel/6.0.0-ofed, version: 6.0.0-ofed\n"
      "Warning: Version of OFED is 6.0.0-ofed, not the same as running kernel " + release + ".\n"
      "Successful to uninstall driver vantoria.\n"}},
    {"a dkms registration goes through the real dkms even without a record",
     install_first([](lab::Host& h) { h.shell("rm " + record_path); }), {}, 33,
     {"Warning: parse uninstall manifest error. please uninstall vantoria manually\nDebug: Found dkms, try to remove dkms "
      "QuorL configuration.\n",
      "checking /var/lib/dkms/quorl/3.2.1\nDebug: CMD: dkms remove quorl/3.2.1 --all 2>&1Debug: CMD: /usr/src/quorl-3.2.1"},
     {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_TRUE(lacks(host.run({"dkms", "status"}).out, "quorl"));
         EXPECT_FALSE(host.exists("/usr/src/quorl-3.2.1") || host.exists("/lib/modules/" + release + "/updates/dkms/vantoria.ko"));
         // Without a record nothing else is known to be ours, so it stays.
         EXPECT_TRUE(host.exists(prefix + "bin/qxinfo"));
     },
     false},
    {"files shared with the toolkit stay while it is there",
     install_first([](lab::Host& h) { h.shell("touch " + prefix + "lib64/libcudart.so"); }), {}, 33, {}, {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         size_t reserved = 0;
         for (const Line& line : first_lines(host)) {
             if (line.type != "RFILE" && line.type != "RLINK") continue;
             ++reserved;
             EXPECT_TRUE(present(host, line)) << line.path;
             EXPECT_TRUE(in_order(host.log(), {"Uninstall: Toolkit not uninstalled. Skipping remove " + line.path + ".\n"}));
         }
         EXPECT_EQ(reserved, 9u);
         EXPECT_FALSE(host.exists(prefix + "bin/qxinfo") || host.exists(prefix + "share"));
     },
     false},
    {"files shared with the toolkit stay while the driver marker is kept",
     install_first([](lab::Host& h) { h.shell("echo '# local' >> " + prefix + "bin/quorl-driver-uninstaller"); }), {}, 33,
     {"Uninstall: Driver not uninstalled. Skipping remove " + prefix + "/lib.\n"}, {}, {},
     [](lab::Host& host, const lab::RunResult&) {
         EXPECT_TRUE(host.exists(prefix + "lib64/libcuda.so.1") && host.is_symlink(prefix + "lib"));
         EXPECT_FALSE(host.exists(prefix + "bin/qxinfo"));
     },
     false},
};

SCENARIO_TABLE(Removal, rows);

}  // namespace
