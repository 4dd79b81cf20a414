#include "installer/preparation.hpp"

#include <filesystem>
#include <gtest/gtest.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

using Preparation = LoggedTest;

TEST_F(Preparation, FirstDottedTriple) {
    struct Case {
        std::string text, triple;
    } cases[] = {
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
        {"3.10.0-1160.el7\n", "gcc (GCC) 4.8.5 20150623\n", true},
        // The first triple counts even when it isn't gcc's own.
        {"6.1.0\n", "gcc (fork of 2.95.3) 12.2.0\n", false},
        {"6.1.0\n", "gcc (GCC) 12\n", false},
    };
    for (const Case& c : cases) EXPECT_EQ(judge_compiler(c.uname, c.gcc), c.passes) << c.gcc;
}

TEST_F(Preparation, ExistingTargetIsJudgedByItsLinkText) {
    fs::create_directories(dir / "real");
    // A relative target is taken as the text it is, from the working
    // directory, not from the link's own.
    fs::create_symlink("real", dir / "relative");
    std::vector<ManifestEntry> created;
    EXPECT_EQ(prepare_target_directory(dir / "relative/", created), 11);
    fs::create_symlink(dir / "real", dir / "absolute");
    EXPECT_EQ(prepare_target_directory(dir / "absolute/", created), 0);
    // A dangling link is no directory to follow, and none can be made there.
    fs::create_symlink(dir / "gone", dir / "dangling");
    EXPECT_THROW(prepare_target_directory(dir / "dangling/", created), fs::filesystem_error);
}

// The probes' answers, as a host would give them.
struct ProbeAnswers {
    int32_t sig_force = 0;
    bool cmdline = false;
    int secure_boot = 0;
    bool openssl = true;

    SigningProbes probes() const {
        return {[this] { return sig_force; }, [this] { return cmdline; }, [this] { return secure_boot; }, [this] { return openssl; }};
    }
};

TEST_F(Preparation, NoProbeThatSaysYesAndNoPairOfKeysMeansNoSigning) {
    struct Case {
        const char* name;
        std::string secret_key;
        ProbeAnswers answers;
        int result;
        bool sign;
    } cases[] = {
        {"no kernel tree is a no", "", {2, false, -2, true}, 0, false},
        {"one key alone is no pair", dir.write("signing.key", "k"), {0, false, 0, true}, 0, false},
    };
    for (const Case& c : cases) {
        InstallOptions options;
        options.module_signing_secret_key = c.secret_key;
        PackageManifest package;
        package.do_module_sign = !c.sign;
        testing::internal::CaptureStderr();
        EXPECT_EQ(decide_module_signing(options, package, c.answers.probes()), c.result) << c.name;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(package.do_module_sign, c.sign) << c.name;
        EXPECT_FALSE(options.disable_dkms) << c.name;
    }
}

}  // namespace
