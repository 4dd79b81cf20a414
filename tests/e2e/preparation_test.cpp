// Preparation: the package description, the container, the kernel tree, the
// tools, the compiler, the target directory and the signing decision. Most
// rows end the run before anything is built.
#include "scenario.hpp"

namespace {

using namespace scenario;

const std::string not_ready = "Emerge: kernel source is not ready.\n";
const std::string no_openssl = "openssl is requied when module sign is mandatory\n";
const std::string sign_start = "Debug: do check module sign prepare\n";
const std::string conftest = sign_start + "Debug: running cmd:sh \"" + package_dir +
                             "/./kernel//vnt/kernel_test.sh\" \"gcc\" \"x86_64\" \"" + build_tree + "\" \"" + build_tree +
                             "\"  test_configuration_option CONFIG_MODULE_SIG_FORCE 2>&1 output";
const std::string secure_boot_on = std::string("\x06\x00\x00\x00\x01", 5);
const std::string abnormal_end = "terminate called after throwing an instance of 'std::out_of_range'";
const std::vector<std::string> user_keys = {"--module-signing-secret-key", "/root/keys/k.key", "--module-signing-public-key",
                                            "/root/keys/k.der"};

std::string header_missing(const std::string& header, const std::string& tree) {
    return "Error: The kernel header file '" + header + "' does not exist.  The most likely reason for this is that "
           "the kernel source path '" + tree + "' is incorrect. Please make sure you have installed the kernel source "
           "files for your kernel and that they are properly configured; on Red Hat Linux systems, for example, be "
           "sure you have the 'kernel-source' or 'kernel-devel' RPM installed.  If you know the correct kernel source "
           "files are installed, you may specify the kernel source path with the '--kernel-source-path' command line "
           "option." + not_ready;
}
std::string tool_missing(const std::string& name, const std::string& package) {
    return "Error: Unable to find the system utility '" + name + "'; please make sure you have the package '" + package +
           "' installed.  If you do have '" + package + "' installed, then please check that '" + name + "' is in your PATH.\n";
}
std::string found(std::vector<std::string> names) {
    std::string lines;
    for (const std::string& name : names) lines += "Debug: found system utility '" + name + "'\n";
    return lines;
}
const std::string tools_found = found({"ldconfig", "ldd", "grep", "dmesg", "tail", "cut", "tr", "sed", "objcopy", "insmod",
                                       "modprobe", "rmmod", "lsmod", "depmod", "gcc", "make", "ld"});

auto stop = [](std::function<void(lab::Host&)> more) {
    return [more](lab::Host& h) { more(stop_after_removal(h)); };
};
auto no_record = [](lab::Host& host, const lab::RunResult&) { EXPECT_FALSE(host.exists(record_path)); };
auto console_is = [](std::string text) { return [text](lab::Host&, const lab::RunResult& r) { EXPECT_EQ(r.err, text); }; };
auto record_is = [](std::string text) { return [text](lab::Host& h, const lab::RunResult&) { EXPECT_EQ(h.record(), text); }; };
auto gcc_says = [](int status, std::string text) {
    return stop([=](lab::Host& h) { h.stub("gcc").answer("gcc", "--version", status, text); });
};
auto signing_tree = [](lab::Host& h) { h.kernel_tree(release, {"CONFIG_MODULE_SIG_FORCE=y"}).tool_missing("openssl"); };

const Row rows[] = {
    // The defaults carry the run through: the module is built by its default name.
    {"missing description gives the defaults", [](lab::Host& h) { h.remove(manifest); }, {"--disable-dkms"}, 0,
     {"Debug: driver prefix is /usr/local/quorl-3.2.1/.\nDebug: PARAMS://\n", "Debug: Failed to open " + manifest +
      "\nInitializing driverConfig using default values. This driver installation package maybe incomplete.\n",
      "Debug: Using kernel source: " + build_tree + "\n" + tools_found + "kernel version: 6.1.0\n",
      "Building vantoria\nStart to build driver: vantoria\n", "modprobe vantoria succeed.\n"},
     {"Initializing driverConfig using default values."}},
    {"quiet run shows only level five and records all the same", [](lab::Host& h) { h.remove(manifest).remove(headers_tree); },
     {"--qxquiet"}, 32,
     {"\nInitializing driverConfig", "Warning: Get kernel source of running kernel:" + release + " failed.\n" + not_ready +
      failure(32)}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_EQ(r.err, "kernel source is not ready.\n");
         EXPECT_EQ(host.record(), "QUORL /usr/local/quorl-3.2.1/\nDIR /usr/local/quorl-3.2.1/\n");
     }},
    {"short description ends the process without a record",
     [](lab::Host& h) { h.file(manifest, "Quorl Driver for Linux-x86_64\n3.2.1\nvantoria\n"); }, {}, 128 + 6, {},
     {abnormal_end}, {"parse manifest failed", "Using kernel"}, no_record},
    {"empty version stops with 37",
     [](lab::Host& h) { h.file(manifest, "Quorl Driver for Linux-x86_64\n\nvantoria\n./kernel/\n"); }, {}, 37,
     {"Error: parse manifest failed " + manifest + "\n"}, {}, {"seeking docker", "Using kernel source"},
     [](lab::Host& host, const lab::RunResult&) { EXPECT_TRUE(host.exists(record_path)); }},
    {"a container is only warned about", stop([](lab::Host& h) { h.cgroup("12:pids:/docker/4f\n11:memory:/docker/4f\n"); }),
     {}, 33, {"Debug: seeking docker found line is #12:pids:/docker/4f#\nWarning: You're install driver inside docker, the "
              "installation may be corrupt.\nDebug: Using kernel source: " + build_tree + "\n"}},
    {"dangling build link then the headers place", stop([](lab::Host& h) { h.symlink("/nowhere", build_tree); }), {}, 33,
     {"Debug: Using kernel source: " + headers_tree + "\n" + tools_found}},
    {"source link before the kernels place",
     stop([](lab::Host& h) {
         h.remove(build_tree).symlink(headers_tree, "/lib/modules/" + release + "/source")
             .symlink(headers_tree, "/usr/src/kernels/" + release);
     }), {}, 33, {"Debug: Using kernel source: /lib/modules/" + release + "/source\n"}},
    {"the kernels place before the headers place",
     stop([](lab::Host& h) { h.remove(build_tree).symlink(headers_tree, "/usr/src/kernels/" + release); }), {}, 33,
     {"Debug: Using kernel source: /usr/src/kernels/" + release + "\n"}},
    {"usr src linux is taken on trust",
     stop([](lab::Host& h) {
         h.kernel_tree("6.1.0-other-amd64").remove(build_tree).remove(headers_tree)
             .symlink("/usr/src/linux-headers-6.1.0-other-amd64", "/usr/src/linux");
     }), {}, 33, {"Debug: Using kernel source: /usr/src/linux\n"}},
    {"no tree at all stops with 32 and still records", [](lab::Host& h) { h.remove(headers_tree); },
     {"--prefix", "/opt/quorl-3.2.10"}, 32,
     {"Debug: driver prefix is /opt/quorl-3.2.10/quorl-3.2.1/.\nDebug: PARAMS://\n",
      "Warning: Get kernel source of running kernel:" + release + " failed.\n" + not_ready}, {}, {"found system utility"},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_EQ(r.err, "kernel source is not ready.\n" + failure(32));
         EXPECT_EQ(r.out, "");
         EXPECT_EQ(host.record(), "QUORL /opt/quorl-3.2.10/quorl-3.2.1/\nDIR /opt/quorl-3.2.10/quorl-3.2.1/\nDIR /opt/quorl-3.2.10/\n");
     }},
    {"the user names usr", nullptr, {"--kernel-source-path", "/usr"}, 32,
     {"Error: The kernel source path /usr is invalid.\nThis should not be /usr" + not_ready},
     {"kernel source is not ready.\n"}, {"found system utility"}},
    {"no kernel h", [](lab::Host& h) { h.remove(headers_tree + "/include/linux/kernel.h"); }, {}, 32,
     {header_missing(build_tree + "/include/linux/kernel.h", build_tree)}, {"kernel source is not ready.\n"}},
    {"no utsrelease h in a named tree", [](lab::Host& h) { h.remove(headers_tree + "/include/generated/utsrelease.h"); },
     {"--kernel-source-path", headers_tree + "/"}, 32,
     {header_missing(headers_tree + "//include/generated/utsrelease.h", headers_tree + "/")}},
    {"utsrelease h without the define",
     [](lab::Host& h) { h.file(headers_tree + "/include/generated/utsrelease.h", "/* empty */\n"); }, {}, 32,
     {"Debug: Using kernel source: " + build_tree + "\nWarning: Fetch kernel version from " + build_tree +
      "/include/generated/utsrelease.h failed.\n"}, {}, {"kernel source is not ready", "found system utility"}},
    {"release line ending behind the word ends the process",
     [](lab::Host& h) { h.file(headers_tree + "/include/generated/utsrelease.h", "#define UTS_RELEASE\n"); }, {}, 128 + 6,
     {}, {abnormal_end}, {}, no_record},
    {"missing tools are all named and stop with 33", [](lab::Host& h) { h.tool_missing("objcopy").tool_missing("lsmod"); },
     {}, 33,
     {found({"sed"}) + tool_missing("objcopy", "binutils") + found({"insmod", "modprobe", "rmmod"}) +
      tool_missing("lsmod", "module-init-tools' or 'kmod") + found({"depmod", "gcc", "make", "ld"})},
     {}, {"gcc version"}, console_is(failure(33))},
    {"a poor PATH is widened for the whole run", signing_tree, {}, 33,
     {tools_found + "kernel version: ", "Debug: CONFIG_MODULE_SIG_FORCE not empty do module sign.\n"}, {}, {}, nullptr, true,
     {"PATH=/nowhere"}},
    {"an ancient gcc is refused", gcc_says(0, "gcc (GCC) 3.4.6\n"), {}, 31,
     {"kernel version: 6.1.0\ngcc version: 3.4.6\nError: Kernel version and gcc version didn't match. Please install "
      "kernel and gcc with matching version.\n"}, {}, {"do check module sign"}},
    {"a gcc that fails is refused without a word", gcc_says(1, "gcc (GCC) 12.2.0\n"), {}, 31, {found({"ld"})}, {},
     {"kernel version:"}},
    {"uname without a dotted triple ends the process",
     [](lab::Host& h) { h.stub("uname").answer("uname", "-r", 0, "lab-kernel\n"); }, {}, 128 + 6, {"kernel version: \n"},
     {abnormal_end}, {}, no_record},
    {"target that is a plain file stops with 11", [](lab::Host& h) { h.file("/usr/local/quorl-3.2.1", "a file\n"); }, {},
     11, {"gcc version: "}, {}, {"do check module sign"}, console_is(failure(11))},
    {"created directories reach the record though preparation fails", stop([](lab::Host&) {}),
     {"--prefix", "/opt/vendor/tools"}, 33, {}, {}, {},
     [](lab::Host& host, const lab::RunResult& r) {
         EXPECT_EQ(host.mode("/opt/vendor"), 0755u);
         record_is("QUORL /opt/vendor/tools/quorl-3.2.1/\nDIR /opt/vendor/tools/quorl-3.2.1/\nDIR /opt/vendor/tools/\n"
                   "DIR /opt/vendor/tools/quorl-3.2.1\nDIR /opt/vendor/tools\nDIR /opt/vendor\n")(host, r);
     }},
    // A prefix that names the driver's own directory, whatever its last slash, is taken as the driver prefix.
    {"directories already there are not recorded",
     stop([](lab::Host& h) { h.directory("/opt/vendor/tools/quorl-3.2.1"); }), {"--prefix", "/opt/vendor/tools/quorl-3.2.1/"},
     33, {}, {}, {}, record_is("QUORL /opt/vendor/tools/quorl-3.2.1/\nDIR /opt/vendor/tools/quorl-3.2.1/\n")},
    {"an empty prefix is the root", stop([](lab::Host&) {}), {"--prefix", ""}, 33,
     {"Debug: driver prefix is /quorl-3.2.1/.\n"}, {}, {}, record_is("QUORL /quorl-3.2.1/\nDIR /quorl-3.2.1/\nDIR /\nDIR /quorl-3.2.1\n")},
    {"the kernel configuration demands signing", signing_tree, {}, 33,
     {conftest + " 0\nDebug: CONFIG_MODULE_SIG_FORCE not empty do module sign.\n" + no_openssl}, {no_openssl}},
    {"the kernel command line demands signing",
     [](lab::Host& h) { h.cmdline("BOOT_IMAGE=/vmlinuz module.sig_enforce=1 quiet\n").secure_boot(secure_boot_on).tool_missing("openssl"); },
     {}, 33, {conftest + " 1\nDebug: module.sig_enforce set, do module sign.\n" + no_openssl}},
    {"secure boot in the older layout demands signing",
     [](lab::Host& h) { h.secure_boot(std::string("\x01", 1), false).tool_missing("openssl"); }, {}, 33,
     {conftest + " 1\nDebug: sb enabled do module sign\n" + no_openssl}},
    {"secure boot in efivars demands signing", [](lab::Host& h) { h.secure_boot(secure_boot_on).tool_missing("openssl"); },
     {}, 33, {conftest + " 1\nDebug: sb enabled do module sign\n" + no_openssl}},
    {"nothing demands signing and openssl is not asked for",
     [](lab::Host& h) { h.secure_boot(std::string("\x06\x00\x00\x00\x00", 5)).tool_missing("openssl").tool_fails("make", 2); },
     {"--disable-dkms"}, 34, {conftest + " 1\n"}, {}, {"do module sign.", "openssl"}},
    {"user keys must exist", [](lab::Host& h) { h.file("/root/keys/k.key", "secret\n"); }, user_keys, 11,
     {sign_start + "Debug: Check on private key:/root/keys/k.key public key:/root/keys/k.der\n"
                   "Module signature key given but not exists.\n"}, {}, {},
     console_is("Module signature key given but not exists.\nPrivate Key:/root/keys/k.key\nPublic Key:/root/keys/k.der\n" +
                failure(11))},
    {"user keys settle signing without the kernel tree",
     [](lab::Host& h) { h.file("/root/keys/k.key", "secret\n").file("/root/keys/k.der", "public\n").tool_missing("openssl"); },
     user_keys, 33,
     {sign_start + "Debug: Check on private key:/root/keys/k.key public key:/root/keys/k.der\n"
                   "Debug: module sign key not empty do module sign.\n" + no_openssl}, {}, {"test_configuration_option"}},
    {"relative key paths come from the callers directory", nullptr,
     {"--prefix", "rel/dir", "--module-signing-secret-key", "keys/k.key", "--module-signing-public-key", "keys/k.der"}, 11,
     {"Debug: driver prefix is rel/dir/quorl-3.2.1/.\n",
      "Debug: Check on private key:/home/admin/keys/k.key public key:/home/admin/keys/k.der\n"},
     {"Private Key:/home/admin/keys/k.key\nPublic Key:/home/admin/keys/k.der\n"}, {}, nullptr, true, {"__QX_PWD=/home/admin"}},
};

SCENARIO_TABLE(Preparation, rows);

}  // namespace
