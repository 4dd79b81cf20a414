// Preparation on simulated hosts: what the administrator sees of the
// package description, the container, the kernel tree, the tools, the
// compiler, the target directory and the signing decision.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "lab_host.hpp"
#include "scenario_support.hpp"

namespace {

using namespace scenario;

const std::string manifest = package_dir + "/.manifest";
const std::string build_tree = "/lib/modules/" + release + "/build";
const std::string headers_tree = "/usr/src/linux-headers-" + release;
const std::string failed_run = "\nLogfile is /var/log/vantoriaquorl/driver_installer.log\n";

// A host with the kernel, its tree and the package, and no card: preparation passes on it.
lab::Host& tree_host(lab::Host& host, std::vector<std::string> config = {}) {
    return host.kernel(release).kernel_tree(release, config).package();
}

// The lines of `block` stand together, in this order, in `text`.
std::string tool_missing_line(const std::string& name, const std::string& package) {
    return "Error: Unable to find the system utility '" + name + "'; please make sure you have the package '" +
           package + "' installed.  If you do have '" + package + "' installed, then please check that '" + name +
           "' is in your PATH.\n";
}

// The seventeen tools as a run on a complete host notes them.
std::string all_tools_found() {
    std::string lines;
    for (const char* name : {"ldconfig", "ldd", "grep", "dmesg", "tail", "cut", "tr", "sed", "objcopy", "insmod",
                             "modprobe", "rmmod", "lsmod", "depmod", "gcc", "make", "ld"})
        lines += "Debug: found system utility '" + std::string(name) + "'\n";
    return lines;
}

TEST(Preparation, PackageDescriptionIsReadBesideTheProgram) {
    LAB_REQUIRE();
    lab::Host host;
    // A short file in the working directory would end the run if it were read.
    tree_host(host).remove(manifest).file("/root/.manifest", "Title\n3.2.1\n");
    lab::RunOptions from_home;
    from_home.cwd = "/root";
    lab::RunResult r = host.run({package_dir + "/quorl-driver-installer"}, from_home);
    EXPECT_TRUE(holds(r.err, "Initializing driverConfig using default values. This driver installation package "
                             "maybe incomplete.\n"));
    EXPECT_TRUE(holds(host.log(), "Debug: Failed to open " + manifest +
                                      "\nInitializing driverConfig using default values. This driver installation "
                                      "package maybe incomplete.\n"));
    // The defaults hold a version, so preparation goes on.
    EXPECT_TRUE(holds(host.log(), "Debug: Using kernel source: " + build_tree + "\n"));

    lab::Host quiet;
    tree_host(quiet).remove(manifest);
    r = quiet.install({"--qxquiet"});
    EXPECT_TRUE(lacks(r.err, "Initializing driverConfig"));
    EXPECT_TRUE(holds(quiet.log(), "\nInitializing driverConfig using default values."));
}

TEST(Preparation, ShortPackageDescriptionEndsTheProcessWithoutARecord) {
    LAB_REQUIRE();
    for (const std::string text : {"Quorl Driver for Linux-x86_64\n3.2.1\nvantoria\n", "", "\n\n\n"}) {
        lab::Host host;
        tree_host(host).file(manifest, text);
        lab::RunResult r = host.install();
        EXPECT_EQ(r.status, 128 + 6) << '"' << text << '"';
        EXPECT_TRUE(holds(r.err, "terminate called after throwing an instance of 'std::out_of_range'"));
        EXPECT_FALSE(host.exists("/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests"));
        EXPECT_TRUE(lacks(host.log(), "parse manifest failed"));
        EXPECT_TRUE(lacks(host.log(), "Using kernel source"));
    }
}

TEST(Preparation, EmptyVersionStopsWithCode37) {
    LAB_REQUIRE();
    lab::Host host;
    tree_host(host).file(manifest, "Quorl Driver for Linux-x86_64\n\nvantoria\n./kernel/\n");
    lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 37);
    EXPECT_TRUE(holds(host.log(), "Error: parse manifest failed " + manifest + "\n"));
    EXPECT_TRUE(lacks(host.log(), "seeking docker"));
    EXPECT_TRUE(lacks(host.log(), "Using kernel source"));
    EXPECT_TRUE(holds(r.err, "Quorl Driver installation failed. error code:37" + failed_run));
    // A failed run still writes its record.
    EXPECT_TRUE(host.exists("/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests"));
}

TEST(Preparation, AContainerIsOnlyWarnedAbout) {
    LAB_REQUIRE();
    struct Case {
        std::string cgroup;
        std::string log;
    } cases[] = {
        {"12:pids:/docker/4f2ab9\n11:memory:/docker/4f2ab9\n",
         "Debug: seeking docker found line is #12:pids:/docker/4f2ab9#\n"
         "Warning: You're install driver inside docker, the installation may be corrupt.\n"
         "Debug: Using kernel source: " + build_tree + "\n"},
        // The unified hierarchy names no docker, even inside one.
        {"0::/\n", "Debug: Using kernel source: " + build_tree + "\n"},
    };
    for (const Case& c : cases) {
        lab::Host host;
        tree_host(host).cgroup(c.cgroup);
        lab::RunResult r = host.install();
        EXPECT_TRUE(holds(host.log(), c.log)) << c.cgroup;
        EXPECT_TRUE(lacks(r.err, "docker")) << c.cgroup;
        if (c.cgroup == "0::/\n") {
            EXPECT_TRUE(lacks(host.log(), "seeking docker"));
            EXPECT_TRUE(lacks(host.log(), "You're install driver inside docker"));
        }
    }
}

TEST(Preparation, KernelTreeIsFoundInItsFixedOrder) {
    LAB_REQUIRE();
    struct Case {
        const char* name;
        std::function<void(lab::Host&)> setup;
        std::vector<std::string> args;
        std::string used;
    } cases[] = {
        {"build link", [](lab::Host&) {}, {}, build_tree},
        {"dangling build link, then the headers' own place",
         [](lab::Host& h) { h.symlink("/nowhere", "/usr/lib/modules/" + release + "/build"); }, {}, headers_tree},
        {"source beats the headers' place",
         [](lab::Host& h) {
             h.remove("/usr/lib/modules/" + release + "/build");
             h.symlink(headers_tree, "/usr/lib/modules/" + release + "/source");
         },
         {}, "/lib/modules/" + release + "/source"},
        {"a named tree with a trailing slash", [](lab::Host&) {}, {"--kernel-source-path", headers_tree + "/"},
         headers_tree + "/"},
    };
    for (const Case& c : cases) {
        lab::Host host;
        tree_host(host);
        c.setup(host);
        host.install(c.args);
        EXPECT_TRUE(holds(host.log(), "Debug: Using kernel source: " + c.used + "\n" + all_tools_found()))
            << c.name;
    }
}

TEST(Preparation, UnusableKernelTreeStopsWithCode32) {
    LAB_REQUIRE();
    const std::string advice =
        "Please make sure you have installed the kernel source files for your kernel and that they are properly "
        "configured; on Red Hat Linux systems, for example, be sure you have the 'kernel-source' or "
        "'kernel-devel' RPM installed.  If you know the correct kernel source files are installed, you may "
        "specify the kernel source path with the '--kernel-source-path' command line option.";
    const std::string not_ready = "Emerge: kernel source is not ready.\n";
    struct Case {
        const char* name;
        std::function<void(lab::Host&)> setup;
        std::vector<std::string> args;
        std::string log;
        bool emerge;
    } cases[] = {
        {"no tree at all", [](lab::Host& h) { h.remove(headers_tree); }, {},
         "Warning: Get kernel source of running kernel:" + release + " failed.\n" + not_ready, true},
        {"the user names /usr", [](lab::Host&) {}, {"--kernel-source-path", "/usr"},
         "Error: The kernel source path /usr is invalid.\nThis should not be /usr" + not_ready, true},
        {"no kernel.h", [](lab::Host& h) { h.remove(headers_tree + "/include/linux/kernel.h"); }, {},
         "Error: The kernel header file '" + build_tree + "/include/linux/kernel.h' does not exist.  The most "
         "likely reason for this is that the kernel source path '" + build_tree + "' is incorrect. " + advice +
             not_ready,
         true},
        {"no utsrelease.h in a named tree", [](lab::Host& h) {
             h.remove(headers_tree + "/include/generated/utsrelease.h");
         },
         {"--kernel-source-path", headers_tree + "/"},
         "Error: The kernel header file '" + headers_tree + "//include/generated/utsrelease.h' does not exist.  "
         "The most likely reason for this is that the kernel source path '" + headers_tree + "/' is incorrect. " +
             advice + not_ready,
         true},
        {"utsrelease.h without the define",
         [](lab::Host& h) { h.file(headers_tree + "/include/generated/utsrelease.h", "/* empty */\n"); }, {},
         "Debug: Using kernel source: " + build_tree + "\nWarning: Fetch kernel version from " + build_tree +
             "/include/generated/utsrelease.h failed.\n",
         false},
    };
    for (const Case& c : cases) {
        lab::Host host;
        tree_host(host);
        c.setup(host);
        lab::RunResult r = host.install(c.args);
        EXPECT_EQ(r.status, 32) << c.name;
        EXPECT_TRUE(holds(host.log(), c.log)) << c.name;
        EXPECT_TRUE(lacks(host.log(), "found system utility")) << c.name;
        const std::string console = c.emerge ? "kernel source is not ready.\n" : "";
        EXPECT_TRUE(holds(r.err, console + "Quorl Driver installation failed. error code:32" + failed_run))
            << c.name;
    }
}

TEST(Preparation, ReleaseLineEndingBehindTheWordEndsTheProcess) {
    LAB_REQUIRE();
    lab::Host host;
    tree_host(host).file(headers_tree + "/include/generated/utsrelease.h", "#define UTS_RELEASE\n");
    lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 128 + 6);
    EXPECT_TRUE(holds(r.err, "terminate called after throwing an instance of 'std::out_of_range'"));
    EXPECT_FALSE(host.exists("/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests"));
}

TEST(Preparation, MissingToolsAreAllNamedAndStopWithCode33) {
    LAB_REQUIRE();
    lab::Host host;
    tree_host(host).tool_missing("objcopy").tool_missing("lsmod");
    lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 33);
    EXPECT_TRUE(holds(host.log(), "Debug: found system utility 'sed'\n" +
                                      tool_missing_line("objcopy", "binutils") +
                                      "Debug: found system utility 'insmod'\n"
                                      "Debug: found system utility 'modprobe'\n"
                                      "Debug: found system utility 'rmmod'\n" +
                                      tool_missing_line("lsmod", "module-init-tools' or 'kmod") +
                                      "Debug: found system utility 'depmod'\n"
                                      "Debug: found system utility 'gcc'\n"
                                      "Debug: found system utility 'make'\n"
                                      "Debug: found system utility 'ld'\n"));
    EXPECT_TRUE(lacks(host.log(), "gcc version"));
    EXPECT_EQ(r.err, "Quorl Driver installation failed. error code:33" + failed_run);
}

TEST(Preparation, EmptyOrPoorPathIsWidenedForTheWholeRun) {
    LAB_REQUIRE();
    for (const std::string path : {"PATH=", "PATH=/nowhere"}) {
        lab::Host host;
        tree_host(host, {"CONFIG_MODULE_SIG_FORCE=y"});
        lab::RunOptions options;
        options.env = {path};
        host.install({}, options);
        // Every tool is found, and the script and the compiler run from the default directories.
        EXPECT_TRUE(holds(host.log(), all_tools_found() + "kernel version: "));
        EXPECT_TRUE(holds(host.log(), "Debug: CONFIG_MODULE_SIG_FORCE not empty do module sign.\n")) << path;
    }
}

TEST(Preparation, CompilerCheckRefusesOnlyAnAncientGcc) {
    LAB_REQUIRE();
    const std::string refusal =
        "Error: Kernel version and gcc version didn't match. Please install kernel and gcc with matching version.\n";
    struct Case {
        std::string gcc_output;
        int gcc_status;
        std::string log;
        bool passes;
    } cases[] = {
        {"gcc (GCC) 4.8.5 20150623 (Red Hat 4.8.5-44)\n", 0, "kernel version: 6.1.0\ngcc version: 4.8.5\n", true},
        {"gcc (GCC) 3.4.6\n", 0, "kernel version: 6.1.0\ngcc version: 3.4.6\n" + refusal, false},
        {"gcc (fork of 2.95.3) 12.2.0\n", 0, "kernel version: 6.1.0\ngcc version: 2.95.3\n" + refusal, false},
        {"gcc (GCC) 12.2.0\n", 1, "Debug: found system utility 'ld'\n", false},
    };
    for (const Case& c : cases) {
        lab::Host host;
        tree_host(host).stub("gcc").answer("gcc", "--version", c.gcc_status, c.gcc_output);
        lab::RunResult r = host.install();
        EXPECT_TRUE(holds(host.log(), c.log)) << c.gcc_output;
        if (c.passes) {
            EXPECT_TRUE(holds(host.log(), "Debug: do check module sign prepare\n")) << c.gcc_output;
        } else {
            EXPECT_EQ(r.status, 31) << c.gcc_output;
            EXPECT_TRUE(lacks(host.log(), "do check module sign")) << c.gcc_output;
        }
        if (c.gcc_status != 0) {
            EXPECT_TRUE(lacks(host.log(), "kernel version:"));
        }
    }
}

TEST(Preparation, UnameWithoutADottedTripleEndsTheProcess) {
    LAB_REQUIRE();
    lab::Host host;
    tree_host(host).stub("uname").answer("uname", "-r", 0, "lab-kernel\n");
    lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 128 + 6);
    EXPECT_TRUE(holds(host.log(), "kernel version: \n"));
    EXPECT_TRUE(holds(r.err, "terminate called after throwing an instance of 'std::out_of_range'"));
    EXPECT_FALSE(host.exists("/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests"));
}

TEST(Preparation, TargetThatIsNoDirectoryStopsWithCode11Silently) {
    LAB_REQUIRE();
    struct Case {
        const char* name;
        std::function<void(lab::Host&)> setup;
        int status;
    } cases[] = {
        {"a plain file", [](lab::Host& h) { h.file("/usr/local/quorl-3.2.1", "not a directory\n"); }, 11},
        {"a link to a file",
         [](lab::Host& h) { h.file("/root/plain", "x").symlink("/root/plain", "/usr/local/quorl-3.2.1"); }, 11},
    };
    for (const Case& c : cases) {
        lab::Host host;
        tree_host(host);
        c.setup(host);
        lab::RunResult r = host.install();
        EXPECT_EQ(r.status, c.status) << c.name;
        EXPECT_TRUE(holds(host.log(), "gcc version: ")) << c.name;
        EXPECT_TRUE(lacks(host.log(), "do check module sign")) << c.name;
        EXPECT_EQ(r.err, "Quorl Driver installation failed. error code:11" + failed_run) << c.name;
    }

    // A link to a directory is taken as that directory.
    lab::Host host;
    tree_host(host).directory("/srv/quorl").symlink("/srv/quorl", "/usr/local/quorl-3.2.1");
    host.install();
    EXPECT_TRUE(holds(host.log(), "Debug: do check module sign prepare\n"));
}

TEST(Preparation, CreatedDirectoriesReachTheRecordEvenWhenPreparationFails) {
    LAB_REQUIRE();
    lab::Host host;
    // The kernel command line demands signatures and there is no openssl:
    // preparation fails after the target directory was made.
    tree_host(host).cmdline("BOOT_IMAGE=/boot/vmlinuz root=/dev/vda1 ro module.sig_enforce=1\n").tool_missing("openssl");
    lab::RunResult r = host.install({"--prefix", "/opt/vendor/tools"});
    EXPECT_EQ(r.status, 33);
    EXPECT_EQ(host.mode("/opt/vendor"), 0755u);
    EXPECT_EQ(host.record(),
              "QUORL /opt/vendor/tools/quorl-3.2.1/\n"
              "DIR /opt/vendor/tools/quorl-3.2.1/\n"
              "DIR /opt/vendor/tools/\n"
              "DIR /opt/vendor/tools/quorl-3.2.1\n"
              "DIR /opt/vendor/tools\n"
              "DIR /opt/vendor\n");

    // With the directory already there, nothing more is noted as created.
    lab::Host again;
    tree_host(again).directory("/opt/vendor").directory("/opt/vendor/tools").directory("/opt/vendor/tools/quorl-3.2.1");
    again.cmdline("module.sig_enforce=1\n").tool_missing("openssl");
    r = again.install({"--prefix", "/opt/vendor/tools"});
    EXPECT_EQ(r.status, 33);
    EXPECT_EQ(again.record(),
              "QUORL /opt/vendor/tools/quorl-3.2.1/\n"
              "DIR /opt/vendor/tools/quorl-3.2.1/\n"
              "DIR /opt/vendor/tools/\n");
}

TEST(Preparation, SigningIsDemandedInThreeWaysAndThenNeedsOpenssl) {
    LAB_REQUIRE();
    const std::string start = "Debug: do check module sign prepare\n";
    const std::string conftest = "Debug: running cmd:sh \"" + package_dir + "/./kernel//vnt/kernel_test.sh\" \"gcc\" "
                                 "\"x86_64\" \"" + build_tree + "\" \"" + build_tree +
                                 "\"  test_configuration_option CONFIG_MODULE_SIG_FORCE 2>&1 output";
    const std::string secure_boot_on = std::string("\x06\x00\x00\x00\x01", 5);
    struct Case {
        const char* name;
        std::function<void(lab::Host&)> setup;
        std::string log;
    } cases[] = {
        {"the kernel's configuration",
         [](lab::Host& h) { h.kernel_tree(release, {"CONFIG_MODULE_SIG_FORCE=y"}); },
         start + conftest + " 0\nDebug: CONFIG_MODULE_SIG_FORCE not empty do module sign.\n"},
        {"the kernel command line",
         [&](lab::Host& h) { h.cmdline("BOOT_IMAGE=/boot/vmlinuz module.sig_enforce=1 quiet\n").secure_boot(secure_boot_on); },
         start + conftest + " 1\nDebug: module.sig_enforce set, do module sign.\n"},
        {"Secure Boot, older layout",
         [&](lab::Host& h) { h.secure_boot(std::string("\x01", 1), false); },
         start + conftest + " 1\nDebug: sb enabled do module sign\n"},
        {"Secure Boot, efivars", [&](lab::Host& h) { h.secure_boot(secure_boot_on); },
         start + conftest + " 1\nDebug: sb enabled do module sign\n"},
    };
    for (const Case& c : cases) {
        for (bool openssl : {true, false}) {
            lab::Host host;
            tree_host(host);
            c.setup(host);
            if (!openssl) host.tool_missing("openssl");
            lab::RunResult r = host.install();
            EXPECT_TRUE(holds(host.log(), c.log)) << c.name;
            if (openssl) {
                EXPECT_TRUE(lacks(host.log(), "openssl is requied")) << c.name;
            } else {
                EXPECT_EQ(r.status, 33) << c.name;
                EXPECT_TRUE(holds(host.log(), c.log + "openssl is requied when module sign is mandatory\n")) << c.name;
                EXPECT_EQ(r.err, "openssl is requied when module sign is mandatory\n"
                                 "Quorl Driver installation failed. error code:33" + failed_run)
                    << c.name;
            }
        }
    }

    // Nothing demands it: no signing, and openssl is not asked for.
    lab::Host host;
    tree_host(host).secure_boot(std::string("\x06\x00\x00\x00\x00", 5)).tool_missing("openssl");
    lab::RunResult r = host.install();
    EXPECT_TRUE(holds(host.log(), start + conftest + " 1\n"));
    EXPECT_TRUE(lacks(host.log(), "do module sign."));
    EXPECT_TRUE(lacks(r.err, "openssl"));
}

TEST(Preparation, UserKeysMustExistAndThenSettleSigningAlone) {
    LAB_REQUIRE();
    lab::Host missing;
    tree_host(missing).file("/root/keys/signing.key", "secret\n");
    lab::RunResult r = missing.install({"--module-signing-secret-key", "/root/keys/signing.key",
                                        "--module-signing-public-key", "/root/keys/signing.der"});
    EXPECT_EQ(r.status, 11);
    EXPECT_EQ(r.err, "Module signature key given but not exists.\nPrivate Key:/root/keys/signing.key\n"
                     "Public Key:/root/keys/signing.der\nQuorl Driver installation failed. error code:11" + failed_run);
    EXPECT_TRUE(holds(missing.log(), "Debug: do check module sign prepare\n"
                                     "Debug: Check on private key:/root/keys/signing.key public key:/root/keys/signing.der\n"
                                     "Module signature key given but not exists.\n"));

    // Keys that exist settle it without a question to the kernel tree; with
    // no openssl that still ends in 33.
    lab::Host present;
    tree_host(present).file("/root/keys/signing.key", "secret\n").file("/root/keys/signing.der", "public\n");
    present.tool_missing("openssl");
    r = present.install({"--module-signing-secret-key", "/root/keys/signing.key", "--module-signing-public-key",
                         "/root/keys/signing.der"});
    EXPECT_EQ(r.status, 33);
    EXPECT_TRUE(holds(present.log(), "Debug: do check module sign prepare\n"
                                     "Debug: Check on private key:/root/keys/signing.key public key:/root/keys/signing.der\n"
                                     "Debug: module sign key not empty do module sign.\n"
                                     "openssl is requied when module sign is mandatory\n"));
    EXPECT_TRUE(lacks(present.log(), "test_configuration_option"));
}

}  // namespace
