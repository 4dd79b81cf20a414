// The lab's own checks: a run is contained, and the kernel-facing parts of
// a host answer as the test describes them.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <fstream>
#include <sstream>

#include "lab_host.hpp"

namespace fs = std::filesystem;
using Calls = std::vector<std::string>;
using Changes = std::vector<lab::Change>;

namespace {

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Processes of this machine whose command line is exactly `argv`.
int processes_running(const std::vector<std::string>& argv)
{
    std::string wanted;
    for (const auto& a : argv)
        wanted += a + '\0';
    int n = 0;
    for (const auto& e : fs::directory_iterator("/proc")) {
        std::string name = e.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos && slurp(e.path() / "cmdline") == wanted)
            ++n;
    }
    return n;
}

// A host with the self-test helpers in /root.
lab::Host& with_helpers(lab::Host& host)
{
    host.copy(LAB_MODCALL, "/usr/bin/lab-modcall")
        .copy(LAB_MAPREG, "/usr/bin/lab-mapreg")
        .copy(std::string(LAB_TEST_MODULES) + "/labmod.ko", "/root/labmod.ko", 0644)
        .copy(std::string(LAB_TEST_MODULES) + "/labother.ko", "/root/labother.ko", 0644);
    return host;
}

TEST(LabRun, CommandsGetTheirStatusStreamsAndOptions)
{
    LAB_REQUIRE();
    lab::Host host;
    struct Case {
        std::vector<std::string> argv;
        lab::RunOptions options;
        int status;
        std::string out, err;
    };
    lab::RunOptions as_user;
    as_user.uid = 1000;
    as_user.gid = 1000;
    lab::RunOptions in_etc;
    in_etc.cwd = "/etc";
    lab::RunOptions with_env;
    with_env.env = {"LAB_WORD=hello", "PATH=/usr/bin:/bin"};
    lab::RunOptions with_input;
    with_input.input = "line one\nline two\n";
    const Case cases[] = {
        {{"bash", "-c", "echo out; echo err >&2; exit 3"}, {}, 3, "out\n", "err\n"},
        {{"bash", "-c", "kill -TERM $$"}, {}, 128 + 15, "", ""},
        {{"id", "-u"}, {}, 0, "0\n", ""},
        {{"id", "-u"}, as_user, 0, "1000\n", ""},
        {{"pwd"}, in_etc, 0, "/etc\n", ""},
        {{"pwd"}, {}, 0, "/root\n", ""},
        {{"bash", "-c", "echo $LAB_WORD $PATH $HOME"}, with_env, 0, "hello /usr/bin:/bin /root\n", ""},
        {{"wc", "-l"}, with_input, 0, "2\n", ""},
        {{"hostname"}, {}, 0, "lab\n", ""},
        {{"no-such-program"}, {}, 127, "", "quorl-driver-preview: cannot run no-such-program: No such file or directory\n"},
        // The machine's kernel tunables and device nodes stay out of reach (the
        // hostname is the host's own, so a failing guard harms nothing here).
        {{"bash", "-c", "echo other > /proc/sys/kernel/hostname"}, {}, 1, "",
         "bash: line 1: /proc/sys/kernel/hostname: Read-only file system\n"},
        {{"mknod", "/tmp/disk", "b", "254", "0"}, {}, 1, "", "mknod: /tmp/disk: Operation not permitted\n"},
        // Without network the host has its loopback and nothing else.
        {{"bash", "-c", "tail -n +3 /proc/net/dev | cut -d: -f1 | tr -d ' '"}, {}, 0, "lo\n", ""},
    };
    for (const auto& c : cases) {
        auto r = host.run(c.argv, c.options);
        EXPECT_EQ(r.status, c.status) << c.argv.back();
        EXPECT_EQ(r.out, c.out) << c.argv.back();
        EXPECT_EQ(r.err, c.err) << c.argv.back();
    }
    // Building and tearing down the host leaves nothing in it.
    EXPECT_EQ(host.changes(), Changes{});
}

TEST(LabRun, WritesStayInTheHostAndNothingOutlivesTheRun)
{
    LAB_REQUIRE();
    const std::vector<std::string> written = {"/lib/firmware/lab-probe", "/etc/lab-probe", "/usr/local/lab-probe",
                                              "/var/log/lab-probe", "/tmp/lab-probe"};
    for (const auto& p : written)
        ASSERT_FALSE(fs::exists(p)) << p << " exists on this machine before the test";
    ASSERT_TRUE(fs::exists("/etc/debian_version"));
    const std::string debian_version = slurp("/etc/debian_version");
    const std::string mounts = slurp("/proc/self/mountinfo");
    const std::vector<std::string> sleeper = {"sleep", "4242"};

    lab::Host host;
    host.directory("/lib/firmware");
    std::string script = "set -e\n";
    for (const auto& p : written)
        script += "echo lab > " + p + "\n";
    script += "rm /etc/debian_version\n(sleep 4242 &)\n";
    auto r = host.shell(script);
    ASSERT_EQ(r.status, 0) << r.err;

    for (const auto& p : written) {
        EXPECT_FALSE(fs::exists(p)) << p << " reached this machine";
        EXPECT_EQ(host.read(p), "lab\n") << p;
    }
    EXPECT_EQ(slurp("/etc/debian_version"), debian_version);
    EXPECT_FALSE(host.exists("/etc/debian_version"));
    EXPECT_EQ(slurp("/proc/self/mountinfo"), mounts);
    EXPECT_EQ(processes_running(sleeper), 0);
    // A later run sees what the earlier one left.
    r = host.shell("cat /etc/lab-probe /usr/local/lab-probe; test -e /etc/debian_version || echo gone");
    EXPECT_EQ(r.out, "lab\nlab\ngone\n");
}

TEST(LabHost, KernelFacingFilesShowWhatTheTestDescribed)
{
    LAB_REQUIRE();
    lab::Host host;
    host.kernel("6.1.0-77-amd64")
        .kernel_tree("6.1.0-77-amd64", {"CONFIG_MODULE_SIG_FORCE=y"})
        .remove("/etc/debian_version")
        .cmdline("BOOT_IMAGE=/boot/vmlinuz-6.1.0-77-amd64 root=/dev/vda1 ro module.sig_enforce=1\n")
        .proc_modules("ib_core 450560 2 ib_uverbs,rdma_ucm, Live 0xffffffffc0b00000\n"
                      "nvme 57344 0 - Live 0xffffffffc0a00000\n")
        .secure_boot(std::string("\x06\0\0\0\x01", 5))
        .file("/run/systemd/journal/socket", "")
        .os_release("ID=debian\nVERSION_ID=\"12\"\n");
    struct Case {
        std::string command, out;
    };
    const Case cases[] = {
        {"uname -r", "6.1.0-77-amd64\n"},
        {"uname -m", "x86_64\n"},
        {"cat /proc/modules",
         "ib_core 450560 2 ib_uverbs,rdma_ucm, Live 0xffffffffc0b00000\nnvme 57344 0 - Live 0xffffffffc0a00000\n"},
        {"cat /proc/cmdline", "BOOT_IMAGE=/boot/vmlinuz-6.1.0-77-amd64 root=/dev/vda1 ro module.sig_enforce=1\n"},
        {"cut -d' ' -f3 /proc/version", "6.1.0-77-amd64\n"},
        {"cat /sys/module/ib_core/refcnt /sys/module/ib_core/initstate", "2\nlive\n"},
        {"ls /sys/module/ib_core/holders", "ib_uverbs\nrdma_ucm\n"},
        {"cat /sys/module/nvme/refcnt", "0\n"},
        {"od -An -tx1 /sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c",
         " 06 00 00 00 01\n"},
        {"cat /etc/os-release", "ID=debian\nVERSION_ID=\"12\"\n"},
        {"ls /run/systemd/journal; touch /run/gone-at-next-boot", "socket\n"},
        {"ls /run", "lock\nquorl-preview\nrealproc\nsystemd\n"},
        {"readlink /proc/self/exe", "/usr/bin/readlink\n"},
        {"ls -d /lib/modules/*", "/lib/modules/6.1.0-77-amd64\n"},
        {"ls /lib/modules/6.1.0-77-amd64", "build\nkernel\nmodules.builtin\nmodules.builtin.modinfo\nmodules.order\n"},
        {"readlink /lib/modules/6.1.0-77-amd64/build", "/usr/src/linux-headers-6.1.0-77-amd64\n"},
        {"grep SIG_FORCE /lib/modules/6.1.0-77-amd64/build/.config", "CONFIG_MODULE_SIG_FORCE=y\n"},
        {"cat /lib/modules/6.1.0-77-amd64/build/include/generated/utsrelease.h",
         "#define UTS_RELEASE \"6.1.0-77-amd64\"\n"},
        {"ls /usr/src /usr/local /var/lib/dkms",
         "/usr/local:\n\n/usr/src:\nlinux-headers-6.1.0-77-amd64\n\n/var/lib/dkms:\nmok.key\nmok.pub\n"},
        {"test -e /etc/debian_version || echo hidden", "hidden\n"},
        {"ls /usr/lib | grep -c linux-kbuild", "0\n"},
    };
    for (const auto& c : cases) {
        auto r = host.shell(c.command);
        EXPECT_EQ(r.out, c.out) << c.command << "\n" << r.err;
    }
}

TEST(LabHost, TheCommandsOwnProcessSeesTheChosenCgroup)
{
    LAB_REQUIRE();
    lab::Host host;
    host.cgroup("12:memory:/docker/0123456789abcdef\n0::/docker/0123456789abcdef\n");
    EXPECT_EQ(host.run({"cat", "/proc/self/cgroup"}).out, "12:memory:/docker/0123456789abcdef\n0::/docker/0123456789abcdef\n");
    // The commands it starts see their own, real cgroup.
    EXPECT_EQ(host.shell("cat /proc/self/cgroup | grep -c docker").out, "0\n");
    host.cgroup(std::nullopt);
    EXPECT_EQ(host.run({"grep", "-c", "docker", "/proc/self/cgroup"}).out, "0\n");
    lab::Host plain;
    EXPECT_EQ(plain.run({"cat", "/proc/self/cgroup"}).out, "0::/user.slice/user-0.slice/session-1.scope\n");
}

TEST(LabKernel, ModuleCallsAnswerAsChosen)
{
    LAB_REQUIRE();
    lab::Host host;
    with_helpers(host);
    struct Step {
        std::string call;
        std::function<void(lab::Host&)> before;
        std::string errno_out;
        std::string first_line;  // of /proc/modules afterwards
    };
    const std::string labmod = "labmod 4096 0 - Live 0xffffffffc0a00000";
    const std::string labother = "labother 4096 0 - Live 0xffffffffc0a10000";
    const Step steps[] = {
        {"init /root/labmod.ko", [](lab::Host& h) { h.module_result("labmod", EKEYREJECTED); }, "129", ""},
        {"init /root/labmod.ko", [](lab::Host& h) { h.module_result("labmod", ENOENT); }, "2", ""},
        {"init /root/labmod.ko", [](lab::Host& h) { h.module_result("labmod", 0); }, "0", labmod},
        {"init /root/labmod.ko", nullptr, "17", labmod},
        {"finit /root/labother.ko", nullptr, "0", labother},
        {"finit /root/labmod.ko", nullptr, "17", labother},
        {"delete labmod", [](lab::Host& h) { h.unload_result("labmod", EAGAIN); }, "11", labother},
        {"delete labmod", [](lab::Host& h) { h.unload_result("labmod", 0); }, "0", labother},
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
              "[    1.000000] labmod: init_module refused: errno 129 (Key was rejected by service)\n"
              "[    2.000000] labmod: init_module refused: errno 2 (No such file or directory)\n"
              "[    3.000000] labmod: loaded by init_module\n"
              "[    4.000000] labmod: init_module refused: errno 17 (File exists)\n"
              "[    5.000000] labother: loaded by finit_module\n"
              "[    6.000000] labmod: finit_module refused: errno 17 (File exists)\n"
              "[    7.000000] labmod: delete_module refused: errno 11 (Resource temporarily unavailable)\n"
              "[    8.000000] labmod: unloaded\n"
              "[    9.000000] labmod: delete_module refused: errno 2 (No such file or directory)\n"
              "[   10.000000] labother: delete_module refused: errno 16 (Device or resource busy)\n"
              "[   11.000000] init_module: not a module image (5 bytes)\n");
}

TEST(LabKernel, KmodToolsLoadAndUnloadThroughTheLab)
{
    LAB_REQUIRE();
    lab::Host host;
    with_helpers(host);
    host.kernel("6.1.0-lab-amd64").kernel_message("Linux version 6.1.0-lab-amd64");
    const std::string script = R"(set -e
mkdir -p /lib/modules/6.1.0-lab-amd64/updates
cp /root/labmod.ko /root/labother.ko /lib/modules/6.1.0-lab-amd64/updates/
depmod
modprobe labmod
head -n 1 /proc/modules
cat /sys/module/labmod/initstate
modprobe labmod && echo loaded-again-is-fine
insmod /root/labother.ko
lsmod
rmmod labmod
cat /proc/modules
test ! -e /sys/module/labmod && echo sysfs-gone
modinfo -F version labother
dmesg
)";
    auto r = host.shell(script);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "labmod 4096 0 - Live 0xffffffffc0a00000\n"
              "live\n"
              "loaded-again-is-fine\n"
              "Module                  Size  Used by\n"
              "labother                4096  0\n"
              "labmod                  4096  0\n"
              "labother 4096 0 - Live 0xffffffffc0a10000\n"
              "sysfs-gone\n"
              "1.0\n"
              "[    1.000000] Linux version 6.1.0-lab-amd64\n"
              "[    2.000000] labmod: loaded by finit_module\n"
              "[    3.000000] labother: loaded by finit_module\n"
              "[    4.000000] labmod: unloaded\n");
}

TEST(LabHost, CardsShowOnThePciBusWithTheirRegisters)
{
    LAB_REQUIRE();
    lab::Host host;
    with_helpers(host);
    struct Case {
        lab::Card card;
        std::string expected;  // vendor, device, driver, then the two registers
    };
    const Case cases[] = {
        {{}, "0x1f5d 0x0002 vantoria 01000009 00000000"},
        {{"0000:66:00.0", 0x1F5D, 0x0002, "qv_driver", 0x01000005, 0x04000002},
         "0x1f5d 0x0002 qv_driver 01000005 04000002"},
        {{"0000:67:00.0", 0x1F5D, 0x0003, "", 0x02010003, 0x3E000007}, "0x1f5d 0x0003 - 02010003 3e000007"},
        {{"0000:68:00.0", 0x10DE, 0x2330, "nvidia", 0, 0}, "0x10de 0x2330 nvidia 00000000 00000000"},
    };
    for (const auto& c : cases)
        host.card(c.card);
    std::string expected;
    for (const auto& c : cases)
        expected += c.expected + "\n";
    auto r = host.shell(R"(cd /sys/bus/pci/devices
for d in *; do
  drv=-; [ -e $d/driver ] && drv=$(basename $(readlink $d/driver))
  echo $(cat $d/vendor) $(cat $d/device) $drv $(lab-mapreg $d/resource2)
done)");
    EXPECT_EQ(r.out, expected) << r.err;
}

TEST(LabStubs, RecordCallsAndAnswerAsTold)
{
    LAB_REQUIRE();
    lab::Host host;
    host.file("/lib/systemd/system/lab-demo@.service",
              "[Unit]\nDescription=Lab demo %i\n[Service]\nExecStart=/bin/true\n[Install]\nWantedBy=multi-user.target\n")
        .answer("systemctl", "status lab-demo@b", 3, "   Main PID: 1234 (code=exited, status=1/FAILURE)\n", 2)
        .answer("systemctl", "status lab-demo@b", 0, "   Main PID: 1234 (code=exited, status=0/SUCCESS)\n")
        .tool_fails("depmod", 1, "depmod: ERROR: lab says no\n")
        .tool_missing("modprobe")
        .stub("setcap")
        .kernel_message("a kernel line");
    struct Case {
        std::string command, out;
        int status;
    };
    const Case cases[] = {
        {"systemctl status nothing-here", "", 4},
        {"systemctl enable lab-demo@a && readlink /etc/systemd/system/multi-user.target.wants/lab-demo@a.service",
         "/lib/systemd/system/lab-demo@.service\n", 0},
        {"systemctl restart lab-demo@a && systemctl status lab-demo@a",
         "● lab-demo@a.service\n"
         "     Loaded: loaded (/lib/systemd/system/lab-demo@.service)\n"
         "     Active: inactive (dead)\n",
         0},
        {"systemctl status lab-demo@b", "   Main PID: 1234 (code=exited, status=1/FAILURE)\n", 3},
        {"systemctl status lab-demo@b", "   Main PID: 1234 (code=exited, status=1/FAILURE)\n", 3},
        {"systemctl status lab-demo@b", "   Main PID: 1234 (code=exited, status=0/SUCCESS)\n", 0},
        {"systemctl disable lab-demo@a && ls /etc/systemd/system/multi-user.target.wants | grep -c lab-demo", "0\n", 1},
        {"systemctl stop 'with blank' \"it's\"; systemctl daemon-reload; systemctl reset-failed", "", 0},
        {"depmod -a", "depmod: ERROR: lab says no\n", 1},
        {"command -v modprobe || ls /sbin/modprobe /usr/sbin/modprobe 2>&1 | wc -l", "2\n", 0},
        {"setcap 'cap_sys_module=+ep' /root/x", "", 0},
        {"journalctl -kS '2024-01-01 00:00:00' --no-pager -q", "-- No entries --\n", 0},
        {"dracut --force", "", 0},
        {"dmesg | tail -n 25", "[    1.000000] a kernel line\n", 0},
    };
    for (const auto& c : cases) {
        auto r = host.shell(c.command);
        EXPECT_EQ(r.out, c.out) << c.command << "\n" << r.err;
        EXPECT_EQ(r.status, c.status) << c.command;
    }
    EXPECT_EQ(host.calls("systemctl"),
              (Calls{"systemctl status nothing-here", "systemctl enable lab-demo@a", "systemctl restart lab-demo@a",
                     "systemctl status lab-demo@a", "systemctl status lab-demo@b", "systemctl status lab-demo@b",
                     "systemctl status lab-demo@b", "systemctl disable lab-demo@a", "systemctl stop 'with blank' 'it'\\''s'",
                     "systemctl daemon-reload", "systemctl reset-failed"}));
    EXPECT_EQ(host.calls("depmod"), Calls{"depmod -a"});
    EXPECT_EQ(host.calls("setcap"), Calls{"setcap cap_sys_module=+ep /root/x"});
    EXPECT_EQ(host.calls("journalctl"), Calls{"journalctl -kS '2024-01-01 00:00:00' --no-pager -q"});
    EXPECT_EQ(host.calls("dracut"), Calls{"dracut --force"});
    EXPECT_EQ(host.calls("modprobe"), Calls{});
}

TEST(LabHost, ChangesListCreatedModifiedAndDeletedPaths)
{
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

TEST(LabHost, ReadingBackFollowsTheHostsView)
{
    LAB_REQUIRE();
    lab::Host host;
    host.kernel("6.1.0-lab-amd64").file("/lib/firmware/lab/a", "A\n", 0600).symlink("a", "/lib/firmware/lab/link");
    ASSERT_EQ(host.shell("echo B > /etc/lab-b; chmod 750 /etc/lab-b; rm /etc/debian_version").status, 0);
    EXPECT_EQ(host.read("/lib/firmware/lab/a"), "A\n");
    EXPECT_EQ(host.read("/usr/lib/firmware/lab/link"), "A\n");
    EXPECT_EQ(host.read("/etc/lab-b"), "B\n");
    EXPECT_EQ(host.read("/etc/debian_version"), std::nullopt);
    EXPECT_EQ(host.read("/etc/os-release"), slurp("/etc/os-release"));
    EXPECT_EQ(host.read("/proc/cmdline"), "BOOT_IMAGE=/boot/vmlinuz root=/dev/vda1 ro quiet\n");
    EXPECT_TRUE(host.is_symlink("/lib"));
    EXPECT_TRUE(host.is_symlink("/lib/firmware/lab/link"));
    EXPECT_FALSE(host.is_symlink("/lib/firmware/lab/a"));
    EXPECT_EQ(host.link_target("/lib/firmware/lab/link"), "a");
    EXPECT_EQ(host.mode("/lib/firmware/lab/a"), 0600u);
    EXPECT_EQ(host.mode("/etc/lab-b"), 0750u);
    EXPECT_EQ(host.mode("/tmp"), 01777u);
    EXPECT_EQ(host.mode("/nonexistent"), 0u);
    EXPECT_TRUE(host.exists("/lib/modules/6.1.0-lab-amd64/modules.order"));
    EXPECT_FALSE(host.exists("/usr/local/bin"));
    EXPECT_EQ(host.list("/lib/firmware/lab"), (std::vector<std::string>{"a", "link"}));
    EXPECT_EQ(host.list("/usr/src"), std::vector<std::string>{});
}

TEST(LabHost, ScratchDirectoryIsRemovedUnlessKept)
{
    LAB_REQUIRE();
    std::string removed, kept;
    {
        lab::Host host("LabHost.scratch-removed");
        removed = host.dir();
        EXPECT_TRUE(fs::is_directory(removed + "/fixture"));
    }
    {
        lab::Host host("LabHost.scratch-kept");
        host.keep();
        kept = host.dir();
    }
    EXPECT_FALSE(fs::exists(removed));
    EXPECT_TRUE(fs::is_directory(kept + "/changes"));
    fs::remove_all(kept);
}

TEST(LabPackage, PackageBringsTheSampleAndTheInstaller)
{
    LAB_REQUIRE();
    std::string why;
    if (!lab::sample_package_available(&why))
        GTEST_SKIP() << why;
    lab::Host host;
    host.package();
    EXPECT_EQ(host.package_dir(), "/root/quorl-driver");
    EXPECT_EQ(host.read("/root/quorl-driver/.manifest"), slurp(std::string(LAB_SOURCE_DIR) + "/package/.manifest"));
    EXPECT_EQ(host.read("/root/quorl-driver/quorl-driver-installer"), slurp(LAB_INSTALLER));
    EXPECT_EQ(host.mode("/root/quorl-driver/quorl-driver-installer"), 0755u);
    auto r = host.shell("cd /root/quorl-driver && test -x ./quorl-driver-installer && ls kernel/dkms.conf conf");
    EXPECT_EQ(r.out, "kernel/dkms.conf\n\nconf:\nvantoriaquorl-init@.service\n");
}

// The real dkms of this machine over the sample sources and a fake tree:
// what the installer's DKMS path relies on.
TEST(LabDkms, AddBuildInstallStatusRemoveCycleOfTheSampleSources)
{
    LAB_REQUIRE();
    std::string why;
    if (!lab::sample_package_available(&why))
        GTEST_SKIP() << why;
    lab::Host host;
    host.kernel("6.1.0-lab-amd64").kernel_tree("6.1.0-lab-amd64").package();
    auto r = host.shell(R"(set -e
exec 3>&1 >/tmp/dkms.log 2>&1
cp -r /root/quorl-driver/kernel /usr/src/quorl-3.2.1
sed -i 's/QUORLPLACEHOLDER//' /usr/src/quorl-3.2.1/dkms.conf
dkms add -m quorl -v 3.2.1
dkms build quorl/3.2.1 -k 6.1.0-lab-amd64
dkms install quorl/3.2.1 -k 6.1.0-lab-amd64 --force
dkms status >&3
ls /lib/modules/6.1.0-lab-amd64/updates/dkms >&3
modinfo -F version /lib/modules/6.1.0-lab-amd64/updates/dkms/vantoria.ko >&3
modinfo -F signer /lib/modules/6.1.0-lab-amd64/updates/dkms/vantoria.ko >&3
modprobe vantoria
head -n 1 /proc/modules >&3
rmmod vantoria
dkms remove quorl/3.2.1 --all
dkms status >&3
test ! -e /lib/modules/6.1.0-lab-amd64/updates/dkms/vantoria.ko && echo removed >&3
)");
    EXPECT_EQ(r.status, 0) << host.read("/tmp/dkms.log").value_or("");
    EXPECT_EQ(r.out,
              "quorl/3.2.1, 6.1.0-lab-amd64, x86_64: installed\n"
              "vantoria.ko\n"
              "vnt_peer_mem_drv.ko\n"
              "3.2.1\n"
              "DKMS module signing key\n"
              "vantoria 4096 0 - Live 0xffffffffc0a00000\n"
              "removed\n");
}

}  // namespace
