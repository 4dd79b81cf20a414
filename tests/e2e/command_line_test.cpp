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

const std::string failed_32 =
    "Quorl Driver installation failed. error code:32\nLogfile is /var/log/vantoriaquorl/driver_installer.log\n";

TEST(Run, FailedRunReportsItsCodeAndStillWritesTheRecord) {
    LAB_REQUIRE();
    lab::Host host;
    host.package();  // no kernel tree: preparation fails with 32
    lab::RunResult r = host.install();
    EXPECT_EQ(r.status, 32);
    EXPECT_EQ(r.err, "kernel source is not ready.\n" + failed_32);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(host.record(), "QUORL /usr/local/quorl-3.2.1/\nDIR /usr/local/quorl-3.2.1/\n");

    r = host.install({"--prefix", "/opt/vendor"});
    EXPECT_EQ(r.status, 32);
    EXPECT_EQ(host.record(), "QUORL /opt/vendor/quorl-3.2.1/\nDIR /opt/vendor/quorl-3.2.1/\nDIR /opt/vendor/\n");
    EXPECT_NE(host.log().find("Debug: driver prefix is /opt/vendor/quorl-3.2.1/.\nDebug: PARAMS://\n"),
              std::string::npos)
        << host.log();
}

TEST(Run, QuietModeLeavesTheResultToTheFileAndTheExitStatus) {
    LAB_REQUIRE();
    lab::Host host;
    host.package();
    const lab::RunResult r = host.install({"--qxquiet"});
    EXPECT_EQ(r.status, 32);
    // Level 5 reaches the console even in quiet mode; the result does not.
    EXPECT_EQ(r.err, "kernel source is not ready.\n");
    const std::string log = host.log();
    EXPECT_EQ(log.substr(log.size() - std::min(log.size(), ("Emerge: kernel source is not ready.\n" + failed_32).size())),
              "Emerge: kernel source is not ready.\n" + failed_32);
}

TEST(Run, KeyPathsAreResolvedFromTheCallersDirectoryButThePrefixIsNot) {
    LAB_REQUIRE();
    lab::Host host;
    host.kernel(lab::default_release).kernel_tree(lab::default_release).package();
    const std::vector<std::string> args = {"--prefix", "rel/dir", "--module-signing-secret-key", "keys/k.key",
                                           "--module-signing-public-key", "keys/k.der"};
    lab::RunOptions from_admin;
    from_admin.env = {"__QX_PWD=/home/admin"};
    lab::RunResult r = host.install(args, from_admin);
    EXPECT_EQ(r.status, 11);
    EXPECT_EQ(r.err,
              "Module signature key given but not exists.\nPrivate Key:/home/admin/keys/k.key\n"
              "Public Key:/home/admin/keys/k.der\nQuorl Driver installation failed. error code:11\n"
              "Logfile is /var/log/vantoriaquorl/driver_installer.log\n");
    EXPECT_NE(host.log().find("Debug: driver prefix is rel/dir/quorl-3.2.1/.\n"), std::string::npos);
    EXPECT_NE(host.log().find("Debug: Check on private key:/home/admin/keys/k.key public key:/home/admin/keys/k.der\n"),
              std::string::npos);

    // Without the caller's directory the paths stay as typed.
    r = host.install(args);
    EXPECT_EQ(r.status, 11);
    EXPECT_NE(r.err.find("Private Key:keys/k.key\nPublic Key:keys/k.der\n"), std::string::npos) << r.err;
}

}  // namespace
