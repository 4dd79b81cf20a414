// The preview in simulated hosts: it leaves the host exactly as it was, and
// what it reports is what the real installation run right after it does.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <functional>
#include <string>
#include <vector>

#include "lab_host.hpp"

namespace {

using Lines = std::vector<std::string>;
using Json = nlohmann::json;

// The lab does not play the kernel in a preview's run, so uname tells this
// machine's release: the host runs that one.
lab::Host& ready(lab::Host& host, lab::Card card = {}, std::string package = lab::default_package_dir) {
    const std::string release = lab::machine_release();
    return host.kernel(release).kernel_tree(release).card(card).package(package);
}

lab::RunOptions preview_options(const std::string& cwd) {
    lab::RunOptions options;
    options.cwd = cwd;
    options.lab_kernel = false;
    options.env = {"PATH=/tmp/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"};
    return options;
}

Lines tail_after(const Lines& all, size_t from) { return Lines(all.begin() + static_cast<long>(from), all.end()); }

// Runs the preview and checks that it left nothing behind in the host: no
// file, no module, no stub call, and, within the same run, no mount and no
// process.
Json preview(lab::Host& host, const Lines& args) {
    const auto changes = host.changes();
    const auto modules = host.proc_modules();
    auto stub_calls = [&] {
        Lines all;
        for (const char* tool : {"systemctl", "dracut", "journalctl", "dmesg"})
            for (const auto& call : host.calls(tool)) all.push_back(call);
        return all;
    };
    const auto calls = stub_calls();
    std::string script = R"sh(mounts=$(cat /proc/self/mountinfo); before=(/run/realproc/[0-9]*)
./quorl-driver-preview --json "$@"; status=$?
after=(/run/realproc/[0-9]*)
[ "$mounts" = "$(cat /proc/self/mountinfo)" ] || echo "LEFT BEHIND: mounts" >&2
[ ${#before[@]} = ${#after[@]} ] || echo "LEFT BEHIND: processes" >&2
exit $status)sh";
    Lines argv = {"bash", "-c", script, "preview"};
    argv.insert(argv.end(), args.begin(), args.end());
    const lab::RunResult r = host.run(argv, preview_options(host.package_dir()));
    EXPECT_EQ(r.err.find("LEFT BEHIND"), std::string::npos) << r.err;
    EXPECT_EQ(host.changes(), changes);
    EXPECT_EQ(host.proc_modules(), modules);
    EXPECT_EQ(stub_calls(), calls);
    auto report = Json::parse(r.out, nullptr, false);
    if (report.is_discarded()) {
        ADD_FAILURE() << "no JSON report:\n" << r.out << r.err;
        return {};
    }
    EXPECT_EQ(report["status"].get<int>(), r.status);
    EXPECT_EQ(report["log"].get<std::string>().empty(), r.status == 109) << "the installer's log";
    report.erase("log");
    return report;
}

// The real run of `program` (the installer, or the uninstaller), and what it
// did, as the preview reports it.
Json run_for_real(lab::Host& host, const std::string& program, Lines argv) {
    argv.insert(argv.begin(), program);
    const auto events = host.module_events();
    const size_t calls = host.calls("systemctl").size();
    lab::RunOptions options;
    options.cwd = host.package_dir();
    Json done = {{"status", host.run(argv, options).status}, {"created", Json::array()}, {"changed", Json::array()},
                 {"deleted", Json::array()}};
    for (const auto& c : host.changes()) done[c.kind == 'C' ? "created" : c.kind == 'M' ? "changed" : "deleted"].push_back(c.path);
    done["modules_unloaded"] = tail_after(host.module_events().unloaded, events.unloaded.size());
    done["modules_loaded"] = tail_after(host.module_events().loaded, events.loaded.size());
    done["systemctl"] = tail_after(host.calls("systemctl"), calls);
    return done;
}

TEST(Preview, TellsWhatTheInstallationRightAfterItDoes) {
    LAB_REQUIRE();
    struct Case {
        std::string name;
        std::function<void(lab::Host&)> host;
        Lines args;
        int status;
        Lines unloaded;
    };
    const Case cases[] = {
        {"DKMS", [](lab::Host& h) { ready(h); }, {}, 0, {}},
        {"plain build in /tmp", [](lab::Host& h) { ready(h, {}, "/tmp/quorl-driver"); }, {"--disable-dkms"}, 0, {}},
        {"reinstall over the loaded driver",
         [](lab::Host& h) {
             ready(h);
             ASSERT_EQ(h.install({"--disable-dkms"}).status, 0);
             h.settle();
         },
         {"--disable-dkms"}, 0, {"vantoria"}},
        {"firmware too old", [](lab::Host& h) { ready(h, lab::Card{.firmware = 0x01000008}); }, {"--disable-dkms"}, 54, {}},
    };
    // The sequences are the scenarios' to pin; here they must not be missing.
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        lab::Host host;
        c.host(host);
        const Json previewed = preview(host, c.args);
        EXPECT_EQ(previewed["status"], c.status);
        EXPECT_EQ(previewed["modules_unloaded"], Json(c.unloaded));
        EXPECT_EQ(previewed["modules_loaded"], Json::array({"vantoria"}));
        EXPECT_EQ(previewed["systemctl"].empty(), c.status != 0);
        EXPECT_EQ(previewed, run_for_real(host, "./quorl-driver-installer", c.args));
    }
}

TEST(Preview, TellsWhatTheUninstallationRightAfterItDoes) {
    LAB_REQUIRE();
    for (const Lines& args : {Lines{"--disable-dkms"}, Lines{}}) {
        SCOPED_TRACE(args.empty() ? "DKMS" : "plain build");
        lab::Host host;
        ready(host);
        ASSERT_EQ(host.install(args).status, 0);
        host.settle();
        const Json previewed = preview(host, {"--uninstall"});
        EXPECT_EQ(previewed["status"], 0);
        EXPECT_EQ(previewed["modules_unloaded"], Json::array({"vantoria"}));
        EXPECT_GT(previewed["deleted"].size(), 20u);
        EXPECT_EQ(previewed, run_for_real(host, "/usr/local/quorl-3.2.1/bin/quorl-driver-uninstaller", {}));
    }
}

// A stand-in for the installer tells what it sees in the view.
TEST(Preview, TheInstallerSeesThisMachineAndNoWayOut) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host, {}, "/srv/probe");
    host.proc_modules("nvme 57344 0 - Live 0xffffffffc0a00000\n")
        .file("/tmp/machine-file", "x\n")
        .file("/run/machine-socket", "")
        .file("/tmp/bin/systemctl", "#!/bin/sh\necho this machine\'s own\n", 0755)  // first in PATH, and not in the view
        .file("/srv/probe/quorl-driver-installer", R"sh(#!/bin/bash
try() { if (eval "$2") >/dev/null 2>&1; then echo "$1: yes"; else echo "$1: no"; fi; }
try "write /sys" "touch /sys/probe"
try "write /proc/sys" "echo 1 > /proc/sys/kernel/sysrq"
try "write /etc" "echo probe > /etc/probe"
rm /etc/debian_version
echo "tmp: $(ls -A /tmp | tr '\n' ' ')"
echo "run: $(ls /run | tr '\n' ' ')"
echo "network: $(tail -n +3 /proc/net/dev | cut -d: -f1 | tr -d ' ' | tr '\n' ' ')"
echo "modules: $(cut -d' ' -f1 /proc/modules | tr '\n' ' ')"
echo "hostname: $(hostname)"
systemctl status nothing-here; echo "status of an unknown unit: $?"
exit 7
)sh", 0755);
    const lab::RunResult r = host.run({"./quorl-driver-preview", "--json"}, preview_options("/srv/probe"));
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(r.err, "write /sys: no\nwrite /proc/sys: no\nwrite /etc: yes\ntmp: \nrun: lock quorl-preview realproc \n"
                     "network: lo \nmodules: nvme \nhostname: lab\nUnit nothing-here.service could not be found.\n"
                     "status of an unknown unit: 4\n");
    const auto report = nlohmann::json::parse(r.out, nullptr, false);
    EXPECT_EQ(report["created"], nlohmann::json::array({"/etc/probe"}));
    EXPECT_EQ(report["deleted"], nlohmann::json::array({"/etc/debian_version"}));
    EXPECT_EQ(report["systemctl"], nlohmann::json::array({"systemctl status nothing-here"}));
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
}

TEST(Preview, PassesOnTheInstallersAnswerKeepsWhereAskedOrSaysInOneLineWhyItCannotRun) {
    LAB_REQUIRE();
    lab::Host host;
    const std::string package = "/srv/quorl-driver", preview = package + "/quorl-driver-preview";
    ready(host, {}, package).file("/tmp/full/x", "").file("/tmp/file", "");
    const std::string cannot = "quorl-driver-preview: cannot preview: ";
    struct Case {
        Lines argv;
        std::string cwd;
        uid_t uid;
        bool lab_kernel;
        int status;
        std::string out, err;  // fragments of the console, or the whole line of a preview that cannot run
    };
    const Case cases[] = {
        {{preview, "--json", "--image-name", "x"}, package, 0, false, 109, "\"status\": 109", "--image-name"},
        {{preview, "--", "--help"}, package, 0, false, 0, "Quorl Driver Installation Tool.", ""},
        {{preview}, "/srv", 0, false, 125, "",
         cannot + "no ./quorl-driver-installer here; run the preview from the unpacked driver package\n"},
        {{preview}, package, 1000, false, 125, "", cannot + "it must run as root, as the installer does\n"},
        {{preview}, package, 0, true, 125, "",
         cannot + "cannot make mount, pid, uts, ipc and network namespaces\n"},
        {{preview, "--keep"}, package, 0, false, 125, "", cannot + "--keep: 1 required DIR missing\n"},
        {{preview, "--uninstall"}, package, 0, false, 125, "",
         cannot + "no install record at /var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests: no driver is "
                  "installed to remove\n"},
        {{preview, "--keep", "/srv/kept"}, package, 0, false, 125, "",
         cannot + "--keep /srv/kept lies on overlayfs, which cannot hold the upper layer of another\n"},
        {{preview, "--keep", "/run/kept"}, package, 0, false, 125, "",
         cannot + "--keep /run/kept lies in /run, which the preview does not show\n"},
        {{preview, "--keep", "/tmp/full"}, package, 0, false, 125, "", cannot + "--keep /tmp/full is not empty\n"},
        {{preview, "--keep", "/tmp/file"}, package, 0, false, 125, "", cannot + "--keep /tmp/file: Not a directory\n"},
        {{"bash", "-c", "cp -a " + package + " /run/p && cd /run/p && ./quorl-driver-preview"}, package, 0, false, 125,
         "", cannot + "the package directory lies in /run, which the preview does not show\n"},
        {{"bash", "-c", "cp -a " + package + " /dev/shm/p && cd /dev/shm/p && ./quorl-driver-preview"}, package, 0,
         false, 125, "", cannot + "the package directory lies in /dev, which the preview does not show\n"},
        {{preview, "--keep", "/tmp/kept", "--disable-dkms"}, package, 0, false, 0,
         "Kept in /tmp/kept: the upper layer (/tmp/kept/upper) and the installer's log "
         "(/tmp/kept/driver_installer.log)\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.argv.back());
        lab::RunOptions options = preview_options(c.cwd);
        options.uid = c.uid;
        options.lab_kernel = c.lab_kernel;
        const lab::RunResult r = host.run(c.argv, options);
        EXPECT_EQ(r.status, c.status);
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        if (c.status == 125)
            EXPECT_EQ(r.err, c.err);
        else
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
    // What --keep kept; setuid programs of the installation are for root alone.
    EXPECT_NE(host.read("/tmp/kept/driver_installer.log").value_or("").find("Quorl Driver installation succeed.\n"),
              std::string::npos);
    EXPECT_TRUE(host.exists("/tmp/kept/upper/usr/local/quorl-3.2.1/bin/qxsmi"));
    EXPECT_EQ(host.mode("/tmp/kept"), 0700u);
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
}

}  // namespace
