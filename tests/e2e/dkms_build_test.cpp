// The DKMS path as an administrator meets it: the real dkms adds, builds and
// installs the package's sources, then the installer loads the module itself
// and checks the cards; and what each failure says and leaves behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "scenario_support.hpp"
#include "lab_host.hpp"

using namespace scenario;

namespace {

const std::string dkms_module = "/var/lib/dkms/quorl/3.2.1/" + release + "/x86_64/module/vantoria.ko";
const std::string conf = package_dir + "/./kernel/dkms.conf";

// Outside the module trees the DKMS path installs nothing of its own: dkms
// keeps its files, and removes them through the DKMS record.
const std::vector<std::string> dkms_roots = {"/usr/lib/firmware", "/usr/local", "/usr/share/vantoria"};

TEST(DkmsBuildOnHost, InstallRegistersBuildsAndLoadsTheModule) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult r = host.install();
    ASSERT_EQ(r.status, 0) << r.err << host.log();

    EXPECT_TRUE(in_order(host.log(),
                         {"Debug: dkms installed and not in docker. use dkms to build driver. disable_dkms:0\n",
                          "parsing dkms config /etc/dkms/framework.conf\n", "Debug: Using module version is 3.2.1\n",
                          "Start to install driver source.\n", "dkms build success.\n",
                          "dkms install quorl/3.2.1 -k " + release + " --force 2>&1 success.\n",
                          "Debug: fetch " + dkms_module + " 's ver: version:        3.2.1\n",
                          "modprobe vantoria succeed.\n", "Debug: Skip vnt_peer_mem_drvinstall\n",
                          "Kernel messages:\n", "Debug: For 0000:65:00.0 check firmware passed.\n"}));
    EXPECT_TRUE(lacks(host.log(), "Building vantoria\n"));
    // The build's text was captured, not shown.
    EXPECT_TRUE(lacks(r.out + r.err, "Building module"));

    // The package's own dkms.conf lost its marker before the copy.
    const std::string package_conf = host.read(conf).value_or("");
    EXPECT_TRUE(in_order(package_conf, {"MAKE[0]=\"make KERNELDIR=${kernel_source_dir}  all peer_mem\"\n"}));
    EXPECT_EQ(host.read("/usr/src/quorl-3.2.1/dkms.conf"), package_conf);
    EXPECT_TRUE(in_order(host.run({"dkms", "status"}).out, {"quorl/3.2.1, " + release + ", x86_64: installed"}));

    EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u) << host.proc_modules();
    EXPECT_NE(host.kernel_log().find("vantoria: loaded by init_module"), std::string::npos) << host.kernel_log();
    // One DKMS line and no module files: dkms takes them away again.
    EXPECT_TRUE(in_order(host.record(), {"DKMS 3.2.1 \n"}));
    EXPECT_TRUE(lacks(host.record(), "vantoria.ko"));
    EXPECT_EQ(unrecorded(host, dkms_roots), std::vector<std::string>{});
}

// dkms stands in by a recording stub where the real one cannot be made to
// fail at the wanted step.
TEST(DkmsBuildOnHost, EachFailureCodeWithItsMessage) {
    LAB_REQUIRE();
    struct Case {
        const char* story;
        std::function<void(lab::Host&)> setup;
        int status;
        std::vector<std::string> console;  // in order, on standard error
        std::vector<std::string> log;      // in order
        bool registered;                   // the record holds the DKMS line
    } cases[] = {
        {"the package has no dkms.conf",
         [](lab::Host& h) { h.remove(conf); },
         5,
         {"sed: can't read " + conf + ": No such file or directory\n"},
         {"Error: replace dkms params failed. cmd :sed -i 's/QUORLPLACEHOLDER//' " + conf + " \n"},
         false},
        {"the source destination is a file",
         [](lab::Host& h) { h.file("/usr/src/quorl-3.2.1", "in the way\n"); },
         8,
         {},
         {"Start to install driver source.\n", "Error: copy driver source failed.\ncp: "},
         false},
        {"dkms add fails",
         [](lab::Host& h) {
             h.stub("dkms").answer("dkms", "add *", 3, "Error! DKMS tree already contains: quorl-3.2.1\n");
         },
         45,
         {},
         {"Error: dkms add failed.\nError! DKMS tree already contains: quorl-3.2.1\n\n"},
         false},
        {"the build fails and leaves no log",
         [](lab::Host& h) {
             h.stub("dkms").answer("dkms", "build *", 10, "Error! Bad return status for module build\n");
         },
         45,
         {},
         {"Error: module vantoria compile failed.\n",
          "Error: dkms compile file /var/lib/dkms/quorl/3.2.1/build/make.log not found.\n"},
         true},
        {"the sources do not compile",
         [](lab::Host& h) { h.file(package_dir + "/kernel/vantoria_chip.c", "#error broken on purpose\n"); },
         34,
         {},
         {"Error: module vantoria compile failed.\n", "Debug: DKMS make.log for quorl-3.2.1",
          "#error broken on purpose"},
         true},
        {"dkms install fails",
         [](lab::Host& h) { h.stub("dkms").answer("dkms", "install *", 6, "Error! install failed\n"); },
         52,
         {},
         {"dkms build success.\n",
          "Warning: dkms compile file /var/lib/dkms/quorl/3.2.1/" + release + "/x86_64/log/make.log not found.\n",
          "Error: dkms install driver failed.\nError! install failed\n\n"},
         true},
        {"the module is already in the kernel",
         [](lab::Host& h) { h.module_result("vantoria", EEXIST); },
         49,
         {"Module load failed. error: Module already in kernel\n"},
         {"Warning: Try insmod " + dkms_module + " 17 Module already in kernel\n", "Kernel messages:\n"},
         true},
        {"a key refused",
         [](lab::Host& h) { h.module_result("vantoria", EKEYREJECTED); },
         50,
         {"Module load failed. error: Key was rejected by service\n"},
         {"Warning: Try insmod " + dkms_module + " failed due to module sign. 129 Key was rejected by service\n",
          "Kernel messages:\n"},
         true},
        {"modprobe fails after the direct load",
         [](lab::Host& h) { h.tool_fails("modprobe", 1, "modprobe: FATAL: Module vantoria not found.\n"); },
         51,
         {},
         {"Error: Failed to insert kernel module:\nmodprobe: FATAL: Module vantoria not found.\n\n",
          "Debug: Skip vnt_peer_mem_drvinstall\n", "Kernel messages:\n"},
         true},
        {"the only card has firmware 1.0.8",
         [](lab::Host& h) {
             lab::Card old;
             old.firmware = 0x01000008;
             h.card(old);
         },
         54,
         {"No card with suitable firmware found. Driver's install might wrong\n"},
         {"modprobe vantoria succeed.\n", "Kernel messages:\n",
          "Warning: For 0000:65:00.0 Please upgrade your firmware to be >= 1.0.9 (current: drv: "},
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.story);
        lab::Host host;
        ready(host);
        c.setup(host);
        const lab::RunResult r = host.install();
        EXPECT_EQ(r.status, c.status) << r.err;
        std::vector<std::string> console = c.console;
        console.push_back(failure_console(c.status));
        EXPECT_TRUE(in_order(r.err, console));
        EXPECT_TRUE(in_order(host.log(), c.log));
        // The registration is recorded before the build, so a failed build can still be taken away.
        EXPECT_EQ(host.record().find("DKMS 3.2.1 \n") != std::string::npos, c.registered) << host.record();
        EXPECT_FALSE(host.exists(prefix + "bin"));
        EXPECT_EQ(unrecorded(host, dkms_roots), std::vector<std::string>{});
    }
}

TEST(DkmsBuildOnHost, ReinstallOverAnOlderRegistration) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    const lab::RunResult older = host.shell(
        "set -e\n"
        "mkdir -p /usr/src/quorl-3.1.0\n"
        "cp -r /root/quorl-driver/kernel/* /usr/src/quorl-3.1.0/\n"
        "sed -i 's/^PACKAGE_VERSION=.*/PACKAGE_VERSION=\"3.1.0\"/; s/QUORLPLACEHOLDER//' /usr/src/quorl-3.1.0/dkms.conf\n"
        "dkms add -m quorl -v 3.1.0\n"
        "dkms build -m quorl -v 3.1.0 -k " + release + "\n");
    ASSERT_EQ(older.status, 0) << older.out << older.err;
    ASSERT_TRUE(in_order(host.run({"dkms", "status"}).out, {"quorl/3.1.0, " + release + ", x86_64: built"}));

    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 0) << r.err;
    // The older version goes before anything of the new one is touched.
    EXPECT_TRUE(in_order(host.log(), {"checking /var/lib/dkms/quorl/3.1.0\n",
                                      "Debug: CMD: dkms remove quorl/3.1.0 --all 2>&1",
                                      "Debug: CMD: /usr/src/quorl-3.1.0", "Debug: Using module version is 3.2.1\n",
                                      "Start to install driver source.\n", "dkms build success.\n"}));
    // dkms's own link names the version installed for the kernel.
    EXPECT_EQ(host.list("/var/lib/dkms/quorl"), (std::vector<std::string>{"3.2.1", "kernel-" + release + "-x86_64"}));
    EXPECT_FALSE(host.exists("/usr/src/quorl-3.1.0"));
    EXPECT_EQ(host.run({"dkms", "status"}).out, "quorl/3.2.1, " + release + ", x86_64: installed\n");
    EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u);
    EXPECT_TRUE(in_order(host.record(), {"DKMS 3.2.1 \n"}));
    EXPECT_TRUE(lacks(host.record(), "3.1.0"));
}

TEST(DkmsBuildOnHost, ABuildForAKernelThatIsNotRunning) {
    LAB_REQUIRE();
    const std::string other = "6.1.0-other-amd64";
    lab::Host host;
    host.kernel(release).kernel_tree(other).card({}).package();
    const lab::RunResult r = host.install({"--kernel-source-path", "/usr/src/linux-headers-" + other});
    EXPECT_EQ(r.status, 38) << r.err;
    EXPECT_TRUE(in_order(host.log(), {"dkms install quorl/3.2.1 -k " + other + " --force 2>&1 success.\n",
                                      "Configured kernel source " + other +
                                          " is not the running one. skip module install.\n"}));
    EXPECT_TRUE(in_order(r.err, {failure_console(38)}));
    EXPECT_TRUE(host.exists("/lib/modules/" + other + "/updates/dkms/vantoria.ko"));
    EXPECT_TRUE(lacks(host.log(), "Try insmod"));
    EXPECT_EQ(host.proc_modules(), "");
    EXPECT_EQ(host.kernel_log(), "");
    EXPECT_TRUE(in_order(host.record(), {"DKMS 3.2.1 \n"}));
    EXPECT_FALSE(host.exists(prefix + "bin"));
}

// Under signing dkms may need the terminal, so the build runs as a child
// that shares the installer's streams instead of a pipe.
TEST(DkmsBuildOnHost, SignedBuildRunsOnTheTerminal) {
    LAB_REQUIRE();
    lab::Host host;
    host.kernel(release).kernel_tree(release, {"CONFIG_MODULE_SIG_FORCE=y"}).card({}).package();
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(in_order(r.err, {"Building vantoria driver...\n\n"}));
    EXPECT_TRUE(in_order(host.log(), {"Debug: wait for pid ", "dkms build success.\n"}));
    EXPECT_TRUE(lacks(host.log(), "dkms build is not exit normally"));
    // The build's words went to the terminal, not into the log.
    EXPECT_TRUE(in_order(r.out, {"Building module"}));
    EXPECT_TRUE(lacks(host.log(), "Building module"));
    // dkms signs by itself on this path; the installer makes no keys.
    EXPECT_FALSE(host.exists("/usr/share/vantoria"));
    EXPECT_TRUE(lacks(host.log(), "do sign module"));
    EXPECT_EQ(host.proc_modules().rfind("vantoria ", 0), 0u);
}

// With dkms answering but building nothing, there is no module file to try:
// modprobe loads by name, and with OFED and ib_core listed first the
// peer-memory module is asked for too.
TEST(DkmsBuildOnHost, NoModuleFileSkipsTheDirectLoad) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    host.stub("dkms").stub("modprobe");
    host.file("/usr/src/ofa_kernel/default/include/rdma/peer_mem.h", "")
        .file("/usr/src/ofa_kernel/default/Module.symvers", "")
        .proc_modules("ib_core 450560 1 ib_uverbs, Live 0xffffffffc0b00000\n");
    const lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(in_order(host.log(), {"Warning: module file not in " + dkms_module + " skip insmod check\n",
                                      "modprobe vantoria succeed.\n", "modprobe vnt_peer_mem_drv succeed.\n",
                                      "Kernel messages:\n"}));
    EXPECT_EQ(host.calls("modprobe"),
              (std::vector<std::string>{"modprobe vantoria", "modprobe vnt_peer_mem_drv"}));
    EXPECT_EQ(host.calls("dkms"), (std::vector<std::string>{"dkms status", "dkms add -m quorl -v 3.2.1 --force",
                                                            "dkms build quorl/3.2.1 -k " + release,
                                                            "dkms install quorl/3.2.1 -k " + release + " --force"}));
}

}  // namespace
