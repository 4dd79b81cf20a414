#include "installer/preparation.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

namespace {

class PreparationTest : public ::testing::Test {
protected:
    void SetUp() override {
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
        reset_run_state();
    }
    void TearDown() override {
        log_reset_for_tests();
        reset_run_state();
    }
    std::string log_text() { return slurp(dir / "installer.log"); }
    TempDir dir;
};

TEST(Preparation, FirstDottedTriple) {
    struct Case {
        std::string text, triple;
    } cases[] = {
        {"6.1.0-18-amd64\n", "6.1.0"},
        {"5.15.0-91-generic", "5.15.0"},
        {"gcc (Debian 12.2.0-14+deb12u1) 12.2.0\nCopyright (C) 2022\n", "12.2.0"},
        {"version 1.2 then 3.4.5.6", "3.4.5"},
        {"6.1-rc1", ""},
        {"", ""},
        {"a1.22.333b", "1.22.333"},
        {"11.2x3.4.5", "3.4.5"},
        {"1..2.3.4", "2.3.4"},
        // Long runs of digits take time in their length, and no recursion per digit.
        {std::string(50000, '1') + "x 1.2.3", "1.2.3"},
        {"6-" + std::string(50000, '7') + ".1.0", std::string(50000, '7') + ".1.0"},
    };
    for (const Case& c : cases) EXPECT_EQ(first_dotted_triple(c.text), c.triple) << c.text.substr(0, 80);
}

TEST_F(PreparationTest, OnlyAGccOfMajorVersionThreeOrLowerIsRefused) {
    const std::string refusal =
        "Error: Kernel version and gcc version didn't match. Please install kernel and gcc with matching version.\n";
    struct Case {
        std::string uname, gcc;
        bool passes;
        std::string log;
    } cases[] = {
        {"6.1.0-18-amd64\n", "gcc (Debian 12.2.0-14) 12.2.0\n", true, "kernel version: 6.1.0\ngcc version: 12.2.0\n"},
        {"6.1.0-18-amd64\n", "gcc (GCC) 4.8.5 20150623 (Red Hat 4.8.5-44)\n", true,
         "kernel version: 6.1.0\ngcc version: 4.8.5\n"},
        {"3.10.0-1160.el7.x86_64\n", "gcc (Ubuntu 9.4.0-1ubuntu1~20.04.2) 9.4.0\n", true,
         "kernel version: 3.10.0\ngcc version: 9.4.0\n"},
        {"6.1.0\n", "gcc (GCC) 3.4.6\n", false, "kernel version: 6.1.0\ngcc version: 3.4.6\n" + refusal},
        // The first triple counts even when it isn't gcc's own.
        {"6.1.0\n", "gcc (fork of 2.95.3) 12.2.0\n", false, "kernel version: 6.1.0\ngcc version: 2.95.3\n" + refusal},
        {"6.1.0\n", "gcc (GCC) 12\n", false, "kernel version: 6.1.0\ngcc version: \n" + refusal},
        {"6.1.0\n", "", false, "kernel version: 6.1.0\ngcc version: \n" + refusal},
    };
    for (const Case& c : cases) {
        const size_t before = log_text().size();
        EXPECT_EQ(judge_compiler(c.uname, c.gcc), c.passes) << c.gcc;
        EXPECT_EQ(log_text().substr(before), c.log) << c.gcc;
    }
    for (const std::string uname : {"", "6.1-rc1\n", "custom-kernel\n"}) {
        EXPECT_THROW(judge_compiler(uname, "gcc (GCC) 12.2.0\n"), std::out_of_range) << uname;
    }
}

TEST_F(PreparationTest, CompilerCheckFailsSilentlyWhenACommandFails) {
    const char* path = getenv("PATH");
    const std::string saved_path = path != nullptr ? path : "";
    const std::string stub_dir = dir / "stubs";
    auto stub = [&](const std::string& name, const std::string& body) {
        dir.write("stubs/" + name, "#!/bin/sh\n" + body + "\n");
        fs::permissions(stub_dir + "/" + name, fs::perms::owner_all);
    };
    setenv("PATH", (stub_dir + ":" + saved_path).c_str(), 1);
    struct Case {
        std::string uname, gcc;
        bool passes;
    } cases[] = {
        {"echo 6.1.0-18-amd64", "echo 'gcc (Debian 12.2.0-14) 12.2.0'", true},
        {"echo 6.1.0-18-amd64; exit 1", "echo 'gcc (Debian 12.2.0-14) 12.2.0'", false},
        {"echo 6.1.0-18-amd64", "echo 'gcc (Debian 12.2.0-14) 12.2.0'; exit 3", false},
    };
    for (const Case& c : cases) {
        stub("uname", c.uname);
        stub("gcc", c.gcc);
        const size_t before = log_text().size();
        EXPECT_EQ(check_compiler(), c.passes) << c.uname << " / " << c.gcc;
        EXPECT_EQ(log_text().substr(before),
                  c.passes ? "kernel version: 6.1.0\ngcc version: 12.2.0\n" : "")
            << c.uname << " / " << c.gcc;
    }
    setenv("PATH", saved_path.c_str(), 1);
}

TEST_F(PreparationTest, MissingTargetIsCreatedAndOnlyWhatWasCreatedIsRecorded) {
    fs::create_directories(dir / "opt");
    std::vector<ManifestEntry> created = {{"DIR", "/earlier", ""}};
    EXPECT_EQ(prepare_target_directory(dir / "opt/vendor/tools//quorl-3.2.1/", created), 0);
    EXPECT_TRUE(fs::is_directory(dir / "opt/vendor/tools/quorl-3.2.1"));
    EXPECT_EQ((fs::status(dir / "opt/vendor").permissions() & fs::perms::all), fs::perms(0755));
    const std::vector<ManifestEntry> expected = {
        {"DIR", "/earlier", ""},
        {"DIR", dir / "opt/vendor/tools/quorl-3.2.1", ""},
        {"DIR", dir / "opt/vendor/tools", ""},
        {"DIR", dir / "opt/vendor", ""},
    };
    EXPECT_EQ(created, expected);

    // Once it exists, nothing more is recorded.
    EXPECT_EQ(prepare_target_directory(dir / "opt/vendor/tools//quorl-3.2.1/", created), 0);
    EXPECT_EQ(created.size(), 4u);
}

TEST_F(PreparationTest, ExistingTargetMustBeADirectoryOrALinkToOne) {
    fs::create_directories(dir / "real");
    dir.write("plain", "");
    fs::create_symlink(dir / "real", dir / "to-dir");
    fs::create_symlink(dir / "plain", dir / "to-file");
    // A relative target is taken as the text it is, from the working
    // directory, not from the link's own.
    fs::create_symlink("real", dir / "relative");
    struct Case {
        std::string prefix;
        int result;
    } cases[] = {
        {dir / "real/", 0}, {dir / "to-dir/", 0}, {dir / "plain/", 11}, {dir / "to-file/", 11}, {dir / "relative/", 11},
    };
    for (const Case& c : cases) {
        std::vector<ManifestEntry> created;
        EXPECT_EQ(prepare_target_directory(c.prefix, created), c.result) << c.prefix;
        EXPECT_TRUE(created.empty()) << c.prefix;
    }
    EXPECT_EQ(log_text(), "");

    // A dangling link is no directory to follow and none can be made there.
    fs::create_symlink(dir / "gone", dir / "dangling");
    std::vector<ManifestEntry> created;
    EXPECT_THROW(prepare_target_directory(dir / "dangling/", created), fs::filesystem_error);
}

// Which probes the signing decision asked, in order.
struct ProbeAnswers {
    int32_t sig_force = 0;
    bool cmdline = false;
    int secure_boot = 0;
    bool openssl = true;
    std::string asked;

    SigningProbes probes() {
        return {
            [this] { asked += "sig_force "; return sig_force; },
            [this] { asked += "cmdline "; return cmdline; },
            [this] { asked += "secure_boot "; return secure_boot; },
            [this] { asked += "openssl "; return openssl; },
        };
    }
};

TEST_F(PreparationTest, SigningIsDecidedByTheFirstDeciderThatSaysYes) {
    const std::string start = "Debug: do check module sign prepare\n";
    const std::string no_openssl = "openssl is requied when module sign is mandatory\n";
    struct Case {
        const char* name;
        ProbeAnswers answers;
        int result;
        bool sign;
        std::string asked, log;
    } cases[] = {
        {"nothing asks for it", {0, false, 0, true, ""}, 0, false, "sig_force cmdline secure_boot ", start},
        {"config option", {1, true, 1, true, ""}, 0, true, "sig_force openssl ",
         start + "Debug: CONFIG_MODULE_SIG_FORCE not empty do module sign.\n"},
        {"no kernel tree is a no", {2, false, 0, true, ""}, 0, false, "sig_force cmdline secure_boot ", start},
        {"kernel command line", {0, true, 1, true, ""}, 0, true, "sig_force cmdline openssl ",
         start + "Debug: module.sig_enforce set, do module sign.\n"},
        {"secure boot", {0, false, 1, true, ""}, 0, true, "sig_force cmdline secure_boot openssl ",
         start + "Debug: sb enabled do module sign\n"},
        {"secure boot unknown", {0, false, -2, false, ""}, 0, false, "sig_force cmdline secure_boot ", start},
        {"secure boot without openssl", {0, false, 1, false, ""}, 33, true,
         "sig_force cmdline secure_boot openssl ", start + "Debug: sb enabled do module sign\n" + no_openssl},
    };
    for (Case& c : cases) {
        InstallOptions options;
        PackageManifest package;
        package.do_module_sign = !c.sign;
        testing::internal::CaptureStderr();
        const size_t before = log_text().size();
        EXPECT_EQ(decide_module_signing(options, package, c.answers.probes()), c.result) << c.name;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.result == 33 ? no_openssl : "") << c.name;
        EXPECT_EQ(package.do_module_sign, c.sign) << c.name;
        EXPECT_FALSE(options.disable_dkms) << c.name;
        EXPECT_EQ(c.answers.asked, c.asked) << c.name;
        EXPECT_EQ(log_text().substr(before), c.log) << c.name;
    }
}

TEST_F(PreparationTest, UserKeysForceSigningAndThePlainBuild) {
    const std::string secret = dir.write("keys/signing.key", "k");
    const std::string pub = dir.write("keys/signing.der", "d");
    const std::string missing = dir / "keys/missing.der";
    struct Case {
        std::string secret, pub;
        bool openssl;
        int result;
        bool sign, plain_build;
        std::string asked, console, log;
    } cases[] = {
        {secret, pub, true, 0, true, true, "openssl ", "",
         "Debug: Check on private key:" + secret + " public key:" + pub +
             "\nDebug: module sign key not empty do module sign.\n"},
        {secret, pub, false, 33, true, true, "openssl ", "openssl is requied when module sign is mandatory\n",
         "Debug: Check on private key:" + secret + " public key:" + pub +
             "\nDebug: module sign key not empty do module sign.\n"
             "openssl is requied when module sign is mandatory\n"},
        {secret, missing, true, 11, false, false, "",
         "Module signature key given but not exists.\nPrivate Key:" + secret + "\nPublic Key:" + missing + "\n",
         "Debug: Check on private key:" + secret + " public key:" + missing +
             "\nModule signature key given but not exists.\nPrivate Key:" + secret + "\nPublic Key:" + missing +
             "\n"},
        {missing, pub, true, 11, false, false, "",
         "Module signature key given but not exists.\nPrivate Key:" + missing + "\nPublic Key:" + pub + "\n",
         "Debug: Check on private key:" + missing + " public key:" + pub +
             "\nModule signature key given but not exists.\nPrivate Key:" + missing + "\nPublic Key:" + pub +
             "\n"},
        // One key alone is no key pair: the host decides, here with a no.
        {secret, "", true, 0, false, false, "sig_force cmdline secure_boot ", "", ""},
    };
    for (const Case& c : cases) {
        InstallOptions options;
        options.module_signing_secret_key = c.secret;
        options.module_signing_public_key = c.pub;
        PackageManifest package;
        ProbeAnswers answers{1, true, 1, c.openssl, ""};
        if (c.pub.empty()) answers = ProbeAnswers{0, false, 0, true, ""};
        testing::internal::CaptureStderr();
        const size_t before = log_text().size();
        EXPECT_EQ(decide_module_signing(options, package, answers.probes()), c.result) << c.pub;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.console) << c.pub;
        EXPECT_EQ(package.do_module_sign, c.sign) << c.pub;
        EXPECT_EQ(options.disable_dkms, c.plain_build) << c.pub;
        EXPECT_EQ(answers.asked, c.asked) << c.pub;
        EXPECT_EQ(log_text().substr(before), "Debug: do check module sign prepare\n" + c.log) << c.pub;
    }
}

}  // namespace
