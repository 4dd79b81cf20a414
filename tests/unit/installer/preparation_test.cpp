#include "installer/preparation.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

#include "../test_support.hpp"

namespace fs = std::filesystem;

namespace {

using Preparation = LoggedTest;

TEST_F(Preparation, FirstDottedTriple) {
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

TEST_F(Preparation, OnlyAGccOfMajorVersionThreeOrLowerIsRefused) {
    struct Case {
        std::string uname, gcc;
        bool passes;
    } cases[] = {
        {"5.15.0-91-generic\n", "gcc (Debian 12.2.0-14) 12.2.0\n", true},
        {"3.10.0-1160.el7\n", "gcc (GCC) 4.8.5 20150623\n", true},
        // The first triple counts even when it isn't gcc's own.
        {"6.1.0\n", "gcc (fork of 2.95.3) 12.2.0\n", false},
        {"6.1.0\n", "gcc (GCC) 12\n", false},
    };
    for (const Case& c : cases) EXPECT_EQ(judge_compiler(c.uname, c.gcc), c.passes) << c.gcc;
    // Nothing catches this: the process ends abnormally.
    EXPECT_THROW(judge_compiler("6.1-rc1\n", "gcc (GCC) 12.2.0\n"), std::out_of_range);
}

TEST_F(Preparation, ExistingTargetIsJudgedByItsLinkText) {
    fs::create_directories(dir / "real");
    // A relative target is taken as the text it is, from the working
    // directory, not from the link's own.
    fs::create_symlink("real", dir / "relative");
    std::vector<ManifestEntry> created;
    EXPECT_EQ(prepare_target_directory(dir / "relative/", created), 11);
    EXPECT_EQ(prepare_target_directory(dir / "real/", created), 0);
    fs::create_symlink(dir / "real", dir / "absolute");
    EXPECT_EQ(prepare_target_directory(dir / "absolute/", created), 0);
    // A dangling link is no directory to follow, and none can be made there.
    fs::create_symlink(dir / "gone", dir / "dangling");
    EXPECT_THROW(prepare_target_directory(dir / "dangling/", created), fs::filesystem_error);
}

// Which probes the signing decision asked, in order.
struct ProbeAnswers {
    int32_t sig_force = 0;
    bool cmdline = false;
    int secure_boot = 0;
    bool openssl = true;
    std::string asked = "";

    SigningProbes probes() {
        return {[this] { asked += "sig_force "; return sig_force; }, [this] { asked += "cmdline "; return cmdline; },
                [this] { asked += "secure_boot "; return secure_boot; }, [this] { asked += "openssl "; return openssl; }};
    }
};

TEST_F(Preparation, SigningIsDecidedByTheFirstDeciderThatSaysYes) {
    const std::string secret = dir.write("signing.key", "k"), pub = dir.write("signing.der", "d");
    struct Case {
        const char* name;
        std::string secret, pub;
        ProbeAnswers answers;
        int result;
        bool sign, plain_build;
        std::string asked;
    } cases[] = {
        {"nothing asks for it", "", "", {0, false, 0, true}, 0, false, false, "sig_force cmdline secure_boot "},
        {"config option", "", "", {1, true, 1, true}, 0, true, false, "sig_force openssl "},
        {"no kernel tree is a no", "", "", {2, false, -2, true}, 0, false, false, "sig_force cmdline secure_boot "},
        {"kernel command line", "", "", {0, true, 1, false}, 33, true, false, "sig_force cmdline openssl "},
        {"secure boot", "", "", {0, false, 1, true}, 0, true, false, "sig_force cmdline secure_boot openssl "},
        {"user keys rule out dkms", secret, pub, {0, false, 0, true}, 0, true, true, "openssl "},
        {"a missing user key", secret, dir / "missing.der", {1, true, 1, true}, 11, false, false, ""},
        {"one key alone is no pair", secret, "", {0, false, 0, true}, 0, false, false, "sig_force cmdline secure_boot "},
    };
    for (Case& c : cases) {
        InstallOptions options;
        options.module_signing_secret_key = c.secret;
        options.module_signing_public_key = c.pub;
        PackageManifest package;
        package.do_module_sign = !c.sign;
        testing::internal::CaptureStderr();
        EXPECT_EQ(decide_module_signing(options, package, c.answers.probes()), c.result) << c.name;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(package.do_module_sign, c.sign) << c.name;
        EXPECT_EQ(options.disable_dkms, c.plain_build) << c.name;
        EXPECT_EQ(c.answers.asked, c.asked) << c.name;
    }
}

}  // namespace
