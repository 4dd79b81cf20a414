// The simulated host: a throwaway copy-on-write view of this machine, in its
// own namespaces, whose kernel-facing parts (module calls, uname, /proc,
// /sys, systemctl and friends) are files and stubs that the test controls.
//
// A test describes the host in a few lines, runs commands in it as root, and
// reads back what a run left: files as the host now sees them, the paths
// created, changed and deleted, the calls each stub received, the kernel log.
//
//   lab::Host host;
//   host.kernel("6.1.0-lab-amd64").kernel_tree("6.1.0-lab-amd64").card({}).package();
//   lab::RunResult r = host.install();
//   EXPECT_EQ(r.status, 0);
//   EXPECT_EQ(host.read("/etc/modprobe.d/vantoria.conf"), "...");
#pragma once

#include <sys/types.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "preview/kernel_stand_in.hpp"

namespace lab {

// The release a host runs when the test does not choose one.
inline constexpr const char* default_release = "6.1.0-lab-amd64";
// Where package() puts the sample package, and install() runs from.
inline constexpr const char* default_package_dir = "/root/quorl-driver";

struct Card {
    std::string address = "0000:65:00.0";
    uint32_t vendor = 0x1F5D;
    uint32_t device = 0x0002;
    std::string driver = "vantoria";  // "" leaves the device without a driver link
    uint32_t firmware = 0x01000009;   // register 0x78A8
    uint32_t identity = 0;            // register 0x78C0
};

struct RunResult {
    int status = -1;  // exit status, or 128+signal; 125 when the lab itself failed (and the test with it)
    std::string out, err;
};

struct RunOptions {
    std::vector<std::string> env;  // "NAME=value", added to or replacing the lab's base environment
    std::string cwd = "/root";
    bool network = false;          // false: an empty network namespace of its own
    uid_t uid = 0;
    gid_t gid = 0;
    std::string input;             // standard input; empty gives /dev/null
    bool capture = true;           // false: the command shares this process's terminal
    unsigned timeout = 600;        // seconds before the run is killed and the test fails; 0 never
    // false: the lab does not play the kernel, so that the command can
    // (the preview does); uname then reports this machine's release.
    bool lab_kernel = true;
};

struct Change {
    char kind;  // 'C'reated, 'M'odified, 'D'eleted
    std::string path;
    bool operator==(const Change&) const = default;
};
std::ostream& operator<<(std::ostream&, const Change&);

class Host {
public:
    // The scratch directory is named after the running test (or `name` when
    // given, as lab-run does).  It is removed when the host goes away, unless
    // the test failed or keep() was asked; then its path is printed.
    explicit Host(std::string name = "");
    // The host that an earlier Host of this name kept, as the runs left it,
    // to run more commands in: nothing is reset, and it stays, silently,
    // when this object goes away.
    struct Kept {};
    Host(Kept, std::string name);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // --- describing the host ------------------------------------------
    // The running kernel: what uname reports, /proc/version and the
    // /usr/lib/modules/RELEASE skeleton that depmod needs.
    Host& kernel(std::string release);
    // A fake kernel source tree for RELEASE at /usr/src/linux-headers-RELEASE,
    // with /usr/lib/modules/RELEASE/build pointing at it.  Lines such as
    // "CONFIG_MODULE_SIG_FORCE=y" are added to its .config.
    Host& kernel_tree(std::string release, std::vector<std::string> config = {});
    Host& card(Card);
    // Raw content of the SecureBoot variable (4 attribute bytes then the
    // value byte for efivars, e.g. std::string("\x06\0\0\0\x01", 5)); nullopt
    // removes it.  efivars=false uses the older efi/vars/.../data layout.
    Host& secure_boot(std::optional<std::string> bytes, bool efivars = true);
    Host& cmdline(std::string);
    // The module list; /sys/module follows it before each run.
    Host& proc_modules(std::string);
    // What /proc/self/cgroup shows to the command's own process (not to the
    // commands it starts); nullopt shows the real one.  A new host shows a
    // plain host's "0::/user.slice/user-0.slice/session-1.scope", whatever
    // this machine runs in.
    Host& cgroup(std::optional<std::string>);
    Host& file(std::string path, std::string content, mode_t mode = 0644);
    Host& directory(std::string path, mode_t mode = 0755);
    Host& symlink(std::string target, std::string path);
    // A file of this machine (say a helper program of the tests) put into the host.
    Host& copy(std::string from, std::string path, mode_t mode = 0755);
    Host& remove(std::string path);  // hides a path of this machine
    Host& tool_missing(std::string name);
    // Replaces a tool by a recording stub; with no answer it exits 0 silently.
    Host& stub(std::string name);
    Host& tool_fails(std::string name, int status, std::string output = "");
    // How a stub answers calls whose arguments (joined by blanks) match the
    // shell glob `args`.  Answers are tried in the order given; one with
    // times > 0 answers that many calls and then gives way to the next.
    Host& answer(std::string tool, std::string args, int status, std::string out = "",
                 int times = 0, std::string err = "");
    // The errno that init_module/finit_module (and delete_module) give for a
    // module name; 0 restores the default behaviour.
    Host& module_result(std::string module, int err);
    Host& unload_result(std::string module, int err);
    // The sample package, with the installer and the preview in it, at `dir`.
    Host& package(std::string dir = default_package_dir);
    Host& keep(bool = true);  // keep the scratch directory even on success
    // Makes the host as the runs left it the host's description: later
    // change lists tell only what later runs do.
    Host& settle();

    // --- running --------------------------------------------------------
    RunResult run(std::vector<std::string> argv, RunOptions = {});
    RunResult shell(std::string script, RunOptions = {});  // bash -c script
    // The installer from the package directory, as the administrator runs it.
    RunResult install(std::vector<std::string> args = {}, RunOptions = {});

    // --- reading back, without starting a run ---------------------------
    std::optional<std::string> read(std::string path) const;  // follows symlinks
    bool exists(std::string path) const;                      // follows symlinks
    bool is_symlink(std::string path) const;
    std::optional<std::string> link_target(std::string path) const;
    mode_t mode(std::string path) const;  // permission bits, 0 when missing
    std::vector<std::string> list(std::string dir) const;  // sorted names
    // Paths created, modified and deleted by the runs, sorted by path.
    // /tmp, /proc, /sys, /dev and /run are not part of it.  /run is a fresh
    // tmpfs at each run, filled with what the test put there with file().
    std::vector<Change> changes() const;
    std::vector<std::string> calls(std::string tool) const;
    std::string kernel_log() const;
    // The modules that the lab's kernel loaded and unloaded, in order.
    preview::ModuleJournal module_events() const;
    std::string proc_modules() const;
    std::string log() const;     // /var/log/vantoriaquorl/driver_installer.log
    std::string record() const;  // /var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests
    std::string dir() const;     // the scratch directory
    std::string release() const;
    std::string package_dir() const;
    // Where a path of the host lies on this machine right now (the topmost
    // layer holding it), for inspection; nullopt when it does not exist.
    std::optional<std::string> locate(std::string path) const;

private:
    struct Impl;
    Impl* impl_;
};

// Root, CAP_SYS_ADMIN, overlayfs, seccomp user notification.  Tests that
// need the lab skip with the reason otherwise.
bool lab_available(std::string* why);
// The release this machine runs: what uname reports in a run without the lab's kernel.
std::string machine_release();

// Whether a test may skip for what this machine lacks: on a developer's
// machine, yes; under CI (CI=true), never, so that a suite that cannot run
// fails loudly instead of passing green.
inline bool skips_allowed() {
    const char* ci = std::getenv("CI");
    return !(ci && std::string(ci) == "true");
}

}  // namespace lab

// Skips the current test, saying why, when this machine cannot host a lab;
// fails it under CI.
#define LAB_REQUIRE()                                                                     \
    do {                                                                                  \
        std::string lab_why_;                                                             \
        if (!::lab::lab_available(&lab_why_)) {                                           \
            if (!::lab::skips_allowed())                                                  \
                FAIL() << "the simulated host cannot start under CI: " << lab_why_;       \
            GTEST_SKIP() << "needs the simulated host: " << lab_why_;                     \
        }                                                                                 \
    } while (0)
