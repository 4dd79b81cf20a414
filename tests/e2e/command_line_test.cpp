// The program's entry as an administrator meets it: who may run it, its help,
// and the library's exit codes for a command line it cannot take.
#include "scenario.hpp"

namespace {

using namespace scenario;

TEST(CommandLine, OnlyRootMayRunItAndTheRefusalLeavesNoLog) {
    LAB_REQUIRE();
    lab::Host host;
    host.directory("/root", 0755).package();  // so that a plain user can reach the program
    lab::RunOptions as_user;
    as_user.uid = as_user.gid = 65534;
    as_user.cwd = "/";
    for (const char* option : {"--help", "--no-such-option"}) {
        const lab::RunResult r = host.run({package_dir + "/quorl-driver-installer", option}, as_user);
        EXPECT_EQ(r.status, 255) << option;
        EXPECT_EQ(r.err, "Permission denied.\n");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(host.exists("/var/log/vantoriaquorl"));
}

// Help and the parse errors end the run before any look at the host: the log
// is emptied, no installer is made and no record written.
TEST(CommandLine, HelpAndParseErrorsEndBeforeAnyLookAtTheHost) {
    LAB_REQUIRE();
    lab::Host host;
    host.package().file("/var/log/vantoriaquorl/driver_installer.log", "line of an earlier run\n");
    struct Case {
        std::vector<std::string> args;
        int status;
    } cases[] = {
        {{"--help"}, 0},
        {{"--version"}, 109},
        // The options that only the family's other tools declare.
        {{"--image-name", "quorl"}, 109}, {{"--silent"}, 109}, {{"--toolkit"}, 109}, {{"--cuda-path", "x"}, 109},
        // Either key needs the other.
        {{"--module-signing-secret-key", "k.key"}, 107}, {{"--module-signing-public-key", "k.der"}, 107},
        {{"--prefix"}, 114},
    };
    for (const Case& c : cases) {
        const lab::RunResult r = host.install(c.args);
        EXPECT_EQ(r.status, c.status) << c.args[0];
        EXPECT_EQ(r.out.empty(), c.status != 0) << c.args[0];
        EXPECT_EQ(r.err.empty(), c.status == 0) << c.args[0];
        EXPECT_TRUE(lacks(host.log(), "earlier run")) << c.args[0];
        EXPECT_TRUE(lacks(host.log(), "driver prefix is")) << c.args[0];  // no installer, so no record either
    }
    // The defaults are spoken as they were at declaration, the options of the
    // family's other tools and the quiet flag stay hidden, and of the help
    // flag's two declarations the second, with its line feed, is the one shown.
    const std::string help = host.install({"--help"}).out;
    EXPECT_TRUE(in_order(help, {"Quorl Driver Installation Tool.", "--prefix", "The Quorl Driver util installation path.",
                                "--kernel-source-path", "The kernel source path.", "--disable-dkms",
                                "Disable Use of Dkms (default: false)", "--with-vgpu",
                                "Build driver with VGPU support (default: false)", "--without-vgpu",
                                "Build driver without VGPU support (default: false)", "--module-signing-secret-key",
                                "The corresponding public key must also be provided.", "--module-signing-public-key",
                                "The corresponding private key must also be provided.",
                                "Print this help message and exit\n "}));
    for (const char* hidden : {"qxquiet", "--image-name", "--silent", "--toolkit", "--cuda-path"})
        EXPECT_TRUE(lacks(help, hidden));
}

}  // namespace
