// The program's entry as an administrator meets it: who may run it, its help,
// and the library's exit codes for a command line it cannot take.
#include <gtest/gtest.h>

#include "lab_host.hpp"

namespace {

const std::string installer = std::string(lab::default_package_dir) + "/quorl-driver-installer";
const std::string log_path = "/var/log/vantoriaquorl/driver_installer.log";
const std::string record_path = "/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests";

TEST(CommandLine, OnlyRootMayRunItAndTheRefusalLeavesNoLog) {
    LAB_REQUIRE();
    lab::Host host;
    host.directory("/root", 0755).package();  // so that a plain user can reach the program
    lab::RunOptions as_user;
    as_user.uid = 65534;
    as_user.gid = 65534;
    as_user.cwd = "/";
    for (std::vector<std::string> args : {std::vector<std::string>{}, {"--help"}, {"--no-such-option"}}) {
        args.insert(args.begin(), installer);
        const lab::RunResult r = host.run(args, as_user);
        EXPECT_EQ(r.status, 255) << testing::PrintToString(args);
        EXPECT_EQ(r.err, "Permission denied.\n");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(host.exists("/var/log/vantoriaquorl"));
}

TEST(CommandLine, HelpComesBeforeAnyLookAtTheHost) {
    LAB_REQUIRE();
    lab::Host host;
    host.package();
    host.file(log_path, "line of an earlier run\n");
    const lab::RunResult r = host.install({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("Quorl Driver Installation Tool."), std::string::npos) << r.out;
    for (const char* option : {"--prefix", "--kernel-source-path", "--disable-dkms", "--with-vgpu", "--without-vgpu",
                               "--module-signing-secret-key", "--module-signing-public-key", "-h,--help"}) {
        EXPECT_NE(r.out.find(option), std::string::npos) << option;
    }
    EXPECT_EQ(r.out.find("qxquiet"), std::string::npos);
    // The log was emptied and holds no trace of an installer object.
    EXPECT_EQ(host.log().find("earlier run"), std::string::npos);
    EXPECT_EQ(host.log().find("driver prefix is"), std::string::npos);
    EXPECT_FALSE(host.exists(record_path));
}

TEST(CommandLine, ParseErrorsEndWithTheLibrarysCodes) {
    LAB_REQUIRE();
    lab::Host host;
    host.package();
    struct Case {
        std::vector<std::string> args;
        int status;
    } cases[] = {
        {{"--version"}, 109},
        {{"--silent"}, 109},
        {{"--toolkit"}, 109},
        {{"stray-argument"}, 109},
        {{"--module-signing-secret-key", "k.key"}, 107},
        {{"--module-signing-public-key", "k.der"}, 107},
        {{"--prefix"}, 114},
        {{"--kernel-source-path"}, 114},
    };
    for (const Case& c : cases) {
        const lab::RunResult r = host.install(c.args);
        EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err, "");
        // The installer is never built, so nothing is recorded.
        EXPECT_EQ(host.log().find("driver prefix is"), std::string::npos);
        EXPECT_FALSE(host.exists(record_path));
    }
}

}  // namespace
