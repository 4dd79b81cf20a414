// The view holds against a package that tries to leave it, and nothing of it
// outlives a preview that is killed.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "lab_host.hpp"
#include "preview/machine_mounts.hpp"
#include "preview/sandbox.hpp"
#include "preview/text_files.hpp"

namespace {

// The sample package whose kernel build runs `recipe` first, from the
// preview in the package directory, with this machine's release.
lab::Host& package_building(lab::Host& host, const std::string& recipe) {
    const std::string release = lab::machine_release();
    host.kernel(release).kernel_tree(release).card({}).package();
    const std::string kernel = host.package_dir() + "/kernel/";
    return host.copy(ESCAPE_ATTEMPTS, kernel + "escape_attempts.sh")
        .file(kernel + "Makefile", "KERNELDIR ?= /lib/modules/$(shell uname -r)/build\nall: modules\nmodules:\n\t" + recipe +
                                       "\n\t$(MAKE) -C $(KERNELDIR) M=$(CURDIR) modules\n");
}

lab::RunOptions in_package(lab::Host& host) {
    lab::RunOptions options;
    options.cwd = host.package_dir();
    options.lab_kernel = false;
    options.timeout = 300;
    return options;
}

TEST(Confinement, APackageThatTriesEveryWayOutStaysInTheView) {
    LAB_REQUIRE();
    lab::Host host;
    package_building(host, "bash $(CURDIR)/escape_attempts.sh");
    const lab::RunResult r = host.run({"./quorl-driver-preview", "--json", "--disable-dkms"}, in_package(host));
    // The honest part of the installation goes on as it would.
    EXPECT_EQ(r.status, 0) << r.err;
    const auto report = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_FALSE(report.is_discarded()) << r.out;
    for (const char* list : {"created", "changed", "deleted"}) {
        for (const auto& path : report[list]) EXPECT_EQ(path.get<std::string>().find("escaped"), std::string::npos) << path;
    }
    EXPECT_NE(report["created"].dump().find("/var/tmp/inside-the-view"), std::string::npos) << "the attempts ran";
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
}

TEST(Confinement, AKilledPreviewTakesEveryProcessOfTheViewWithIt) {
    LAB_REQUIRE();
    lab::Host host;
    package_building(host, "sleep 1000 & until grep -qx sleep /run/realproc/[0-9]*/comm; do :; done; "
                           "echo build-started > /dev/tty; wait");
    // The build says on the view's console that it has begun; the preview is
    // killed then, and within a second nothing of the view runs.  (/proc
    // lists no processes in the lab; /run/realproc does.)
    const lab::RunResult r = host.shell(R"sh(running() { cat /run/realproc/[0-9]*/comm 2> /dev/null | grep -E "^(sleep|make|quorl-driver-)"; }
mkfifo /tmp/console
./quorl-driver-preview --disable-dkms > /tmp/console 2>&1 &
preview=$!
exec 3< /tmp/console
while read -r line <&3; do [[ $line == build-started ]] && break; done
running > /dev/null || echo "the build did not start: $line"
kill -9 $preview
wait $preview
echo "preview: $?"
export -f running
timeout 1 bash -c 'while running > /dev/null; do :; done' || running)sh",
                                        in_package(host));
    EXPECT_EQ(r.out, "preview: 137\n") << r.err;
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
}

// The view's own mount table, read by a command in it, over a machine that
// has mounts with each flag and a debugging tree below /sys; the machine is
// this one's, in a mount namespace of the test's own.
TEST(Confinement, TheViewShowsEachMountWithItsFlagsAndNoneOfTheKernelsTrees) {
    LAB_REQUIRE();
    char name[] = "/var/tmp/quorl-view-XXXXXX";  // not below /tmp, which the view makes its own
    ASSERT_NE(mkdtemp(name), nullptr);
    const std::string scratch = name;
    struct Removed {
        std::string path;
        ~Removed() { std::filesystem::remove_all(path); }
    } removed{scratch};
    for (const char* dir : {"stage", "changes", "tmp", "state/run", "state/sys/module", "flags", "ro", "debug"})
        std::filesystem::create_directories(scratch + "/" + dir);
    for (const char* file : {"file", "machine"}) std::ofstream(scratch + "/" + file) << "";
    const pid_t child = fork();
    if (child == 0) {
        bool ready = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("t", (scratch + "/flags").c_str(), "tmpfs", MS_NOSUID | MS_NODEV, nullptr) == 0 &&
                     mount("t", (scratch + "/ro").c_str(), "tmpfs", MS_RDONLY | MS_NOEXEC, nullptr) == 0 &&
                     mount("d", (scratch + "/debug").c_str(), "debugfs", 0, nullptr) == 0 &&
                     // A file mounted on its own, as containers have /etc/hosts.
                     mount((scratch + "/machine").c_str(), (scratch + "/file").c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                     mount(nullptr, (scratch + "/file").c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOEXEC, nullptr) == 0;
        // A tracing tree below /sys, unless the machine has one there already.
        ready = ready && (mount("t", "/sys/kernel/tracing", "tracefs", 0, nullptr) == 0 || errno == EBUSY);
        if (!ready) _exit(3);
        preview::Sandbox box;
        box.stage = scratch + "/stage";
        box.content = preview::content_mounts();
        box.changes = scratch + "/changes";
        box.state = scratch + "/state";
        box.tmp = scratch + "/tmp";
        box.argv = {"/bin/sh", "-c", "cat /proc/self/mountinfo > /tmp/mountinfo"};
        box.env = {"PATH=/usr/bin:/bin"};
        std::string error;
        const int status = preview::run_sandboxed(box, &error);
        std::ofstream(scratch + "/machine") << preview::read_text("/proc/self/mountinfo");
        _exit(status == 0 ? 0 : 4);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const std::string machine = preview::read_text(scratch + "/machine");
    const std::string view = preview::read_text(scratch + "/tmp/mountinfo");
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "set-up or run failed: " << status;

    const auto view_mounts = preview::content_mounts(view);
    for (const preview::MachineMount& mount : preview::content_mounts(machine)) {
        auto shown = std::find_if(view_mounts.begin(), view_mounts.end(),
                                  [&](const preview::MachineMount& m) { return m.path == mount.path; });
        ASSERT_NE(shown, view_mounts.end()) << mount.path << " is not in the view:\n" << view;
        // A file is shown read-only, and otherwise as the machine has it.
        preview::MachineMount expected = mount;
        expected.read_only = expected.read_only || std::filesystem::is_regular_file(mount.path);
        EXPECT_EQ(*shown, expected) << "the flags of " << mount.path;
    }
    EXPECT_NE(machine.find(scratch + "/flags "), std::string::npos);  // the flags above were all tried
    EXPECT_EQ(view.find(scratch + "/debug "), std::string::npos) << "the machine's debugfs is in the view";
    const std::set<std::string> hidden = {"debugfs", "tracefs", "bpf", "securityfs", "pstore", "configfs", "fusectl",
                                          "binfmt_misc"};
    for (const preview::MountLine& line : preview::mount_lines(view)) {
        EXPECT_FALSE(hidden.count(line.type)) << line.type << " at " << line.point;
        if (preview::within(line.point, "/sys") || preview::within(line.point, "/run/realproc/sys")) {
            EXPECT_EQ(line.options.rfind("ro,", 0), 0u) << line.point << " " << line.options;
        }
    }
}

}  // namespace
