// The program's entry as an administrator meets it: who may run it, its help,
// and the library's exit codes for a command line it cannot take.
#include "scenario_support.hpp"

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
        // An option that only another tool of the family declares.
        {{"--image-name", "quorl"}, 109},
        {{"--module-signing-secret-key", "k.key"}, 107},
        {{"--prefix"}, 114},
    };
    for (const Case& c : cases) {
        const lab::RunResult r = host.install(c.args);
        EXPECT_EQ(r.status, c.status) << c.args[0];
        EXPECT_EQ(r.out.empty(), c.status != 0) << c.args[0];
        EXPECT_EQ(r.err.empty(), c.status == 0) << c.args[0];
        EXPECT_TRUE(lacks(host.log(), "earlier run")) << c.args[0];
        EXPECT_TRUE(lacks(host.log(), "driver prefix is")) << c.args[0];
        EXPECT_FALSE(host.exists(record_path)) << c.args[0];
    }
    const std::string help = host.install({"--help"}).out;
    EXPECT_TRUE(in_order(help, {"Quorl Driver Installation Tool.", "--prefix", "--kernel-source-path", "--disable-dkms",
                                "--with-vgpu", "--without-vgpu", "--module-signing-secret-key",
                                "--module-signing-public-key"}));
}

}  // namespace
