// The preview's stand-ins, in the simulated host that shares them: the
// kernel's answers to the module calls, the list of what a run changed, and
// the systemctl that keeps systemd's links as systemd would.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>

#include "../support/child_process.hpp"
#include "lab_host.hpp"
#include "preview/systemctl_stand_in.hpp"

namespace {

using Changes = std::vector<lab::Change>;

TEST(KernelStandIn, ModuleCallsAnswerAsAKernelWould) {
    LAB_REQUIRE();
    lab::Host host;
    host.copy(LAB_MODCALL, "/usr/bin/lab-modcall")
        .copy(std::string(LAB_TEST_MODULES) + "/labmod.ko", "/root/labmod.ko", 0644)
        .copy(std::string(LAB_TEST_MODULES) + "/labother.ko", "/root/labother.ko", 0644);
    struct Step {
        std::string call;
        std::function<void(lab::Host&)> before;
        std::string errno_out;
        std::string first_line;  // of /proc/modules afterwards
    };
    const std::string labmod = "labmod 4096 0 - Live 0xffffffffc0a00000";
    const std::string labother = "labother 4096 0 - Live 0xffffffffc0a10000";
    // A load or unload refused with the errno the test chose is the scenarios' to pin.
    const Step steps[] = {
        {"init /root/labmod.ko", nullptr, "0", labmod},
        {"init /root/labmod.ko", nullptr, "17", labmod},
        {"finit /root/labother.ko", nullptr, "0", labother},
        {"finit /root/labmod.ko", nullptr, "17", labother},
        {"delete labmod", nullptr, "0", labother},
        {"delete labmod", nullptr, "2", labother},
        {"delete labother", [](lab::Host& h) { h.proc_modules("labother 4096 2 - Live 0xffffffffc0a10000\n"); },
         "16", "labother 4096 2 - Live 0xffffffffc0a10000"},
        {"init /root/not-a-module", [](lab::Host& h) { h.file("/root/not-a-module", "text\n"); }, "8", "labother 4096 2 - Live 0xffffffffc0a10000"},
        {"reboot -", nullptr, "1", "labother 4096 2 - Live 0xffffffffc0a10000"},
        {"kexec -", nullptr, "1", "labother 4096 2 - Live 0xffffffffc0a10000"},
    };
    for (const auto& s : steps) {
        if (s.before)
            s.before(host);
        auto r = host.shell("lab-modcall " + s.call + "; head -n 1 /proc/modules");
        std::string expected = s.errno_out + "\n" + (s.first_line.empty() ? "" : s.first_line + "\n");
        EXPECT_EQ(r.out, expected) << s.call;
    }
    EXPECT_EQ(host.kernel_log(),
              "[    1.000000] labmod: loaded by init_module\n"
              "[    2.000000] labmod: init_module refused: errno 17 (File exists)\n"
              "[    3.000000] labother: loaded by finit_module\n"
              "[    4.000000] labmod: finit_module refused: errno 17 (File exists)\n"
              "[    5.000000] labmod: unloaded\n"
              "[    6.000000] labmod: delete_module refused: errno 2 (No such file or directory)\n"
              "[    7.000000] labother: delete_module refused: errno 16 (Device or resource busy)\n"
              "[    8.000000] init_module: not a module image (5 bytes)\n");
}

TEST(ViewChanges, ListCreatedModifiedAndDeletedPaths) {
    LAB_REQUIRE();
    lab::Host host;
    host.file("/etc/lab/keep", "keep\n")
        .file("/etc/lab/edit", "before\n")
        .file("/etc/lab/gone", "gone\n")
        .file("/etc/lab/mode", "mode\n", 0644)
        .file("/opt/labdir/f", "f\n")
        .file("/srv/labdir/a", "old\n")
        .file("/srv/labdir/b", "b\n")
        .symlink("keep", "/etc/lab/relink")
        .directory("/lib/firmware");
    auto r = host.shell(R"(set -e
touch /etc/lab/keep; cat /etc/lab/keep > /dev/null
echo after > /etc/lab/edit
rm /etc/lab/gone
chmod 600 /etc/lab/mode
ln -sfn edit /etc/lab/relink
rm -rf /opt/labdir
rm -rf /srv/labdir && mkdir /srv/labdir && echo new > /srv/labdir/a
mkdir -p /lib/firmware/labfw && echo fw > /lib/firmware/labfw/a.bin
rm /etc/debian_version
echo scratch > /tmp/not-a-change
)");
    ASSERT_EQ(r.status, 0) << r.err;
    r = host.shell("echo second > /etc/lab/second; rm /lib/firmware/labfw/a.bin");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(host.changes(), (Changes{{'D', "/etc/debian_version"},
                                       {'M', "/etc/lab/edit"},
                                       {'D', "/etc/lab/gone"},
                                       {'M', "/etc/lab/mode"},
                                       {'M', "/etc/lab/relink"},
                                       {'C', "/etc/lab/second"},
                                       {'D', "/opt/labdir"},
                                       {'D', "/opt/labdir/f"},
                                       {'M', "/srv/labdir/a"},
                                       {'D', "/srv/labdir/b"},
                                       {'C', "/usr/lib/firmware/labfw"}}));
}

TEST(SystemctlStandIn, KeepsTheLinksAsSystemdWould) {
    LAB_REQUIRE();
    lab::Host host;
    host.file("/lib/systemd/system/lab-demo@.service",
              "[Unit]\nDescription=Lab demo %i\n[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n");
    const std::string wants = "/etc/systemd/system/multi-user.target.wants/";
    host.directory(wants);
    struct Case {
        std::string command, out;
        int status;
    };
    // An unknown unit's status, and how the calls are recorded, are the preview's and the scenarios' to pin.
    const Case cases[] = {
        {"systemctl enable lab-demo@a && readlink " + wants + "lab-demo@a.service", "/lib/systemd/system/lab-demo@.service\n", 0},
        {"systemctl is-enabled lab-demo@a", "enabled\n", 0},
        {"systemctl restart lab-demo@a && systemctl status lab-demo@a",
         "\u25cf lab-demo@a.service\n     Loaded: loaded (/lib/systemd/system/lab-demo@.service)\n     Active: inactive (dead)\n", 0},
        {"systemctl disable lab-demo@a && systemctl is-enabled lab-demo@a", "disabled\n", 1},
    };
    for (const auto& c : cases) {
        auto r = host.shell(c.command);
        EXPECT_EQ(r.out, c.out) << c.command << "\n" << r.err;
        EXPECT_EQ(r.status, c.status) << c.command;
    }
    EXPECT_EQ(host.changes(), Changes{});
}

// Started where no view is set up (no /run/quorl-preview), it says why and
// touches nothing. Run in a mount namespace of its own with /etc and /run on
// scratch tmpfs, so that even a stand-in that forgot to refuse writes no
// link on this machine.
TEST(SystemctlStandIn, RefusesOutsideAView) {
    LAB_REQUIRE();
    const auto apart = [] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("scratch", "/etc", "tmpfs", 0, nullptr) != 0 || mount("scratch", "/run", "tmpfs", 0, nullptr) != 0)
            return std::string("cannot put /etc and /run apart: ") + strerror(errno);
        return std::string();
    };
    in_child(apart, [] {
        std::filesystem::create_directories("/etc/systemd/system");
        std::ofstream("/etc/systemd/system/lab-demo@.service") << "[Install]\nWantedBy=multi-user.target\n";
        testing::internal::CaptureStderr();
        EXPECT_EQ(preview::systemctl_stand_in("systemctl", {"enable", "lab-demo@b"}), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "systemctl: this is quorl-driver-preview's stand-in for systemctl, which only works inside a preview\n");
        EXPECT_FALSE(std::filesystem::exists("/etc/systemd/system/multi-user.target.wants"));
    });
}

}  // namespace
