#include "kmod/module_signing.hpp"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "../child_process.hpp"
#include "../test_support.hpp"
#include "app/log.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

namespace {

TEST(ModuleSigning, NameStemFromTheFingerprint) {
    struct Case {
        std::string output, fingerprint, stem;
    } cases[] = {
        {"SHA1 Fingerprint=AB:CD:EF:01:23:45:67\n", "AB:CD:EF", "vantoria-cert-ABCDEF"},
        {"sha1 Fingerprint=0A:1B:2C:3D\n", "0A:1B:2C", "vantoria-cert-0A1B2C"},
        {"SHA1 Fingerprint=ABCDEF0123456789\n", "ABCDEF01", "vantoria-cert-ABCDEF01"},
        {"SHA1 Fingerprint=AB:C\n", "AB:C\n", "vantoria-cert-ABC\n"},
        {"SHA1 Fingerprint=", "", ""},
        {"=AB:CD=EF", "AB:CD=EF", "vantoria-cert-ABCD=EF"},  // the first "=" counts
        {"no equals sign here\n", "no equal", "vantoria-cert-no equal"},
        {"", "", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(fingerprint_prefix(c.output), c.fingerprint) << c.output;
        EXPECT_EQ(key_name_stem(c.fingerprint), c.stem) << c.output;
    }
    EXPECT_EQ(key_name_stem("::::::::"), "vantoria-cert-");
}

std::string mode_of(const std::string& path) {
    struct stat st{};
    if (stat(path.c_str(), &st) != 0) return "missing";
    char text[8];
    snprintf(text, sizeof text, "%04o", st.st_mode & 07777);
    return text;
}

// A host of stubs: PATH holds only our own openssl (when asked for) and
// md5sum, and a kernel tree whose sign-file writes down its arguments.
class SigningHost : public ::testing::Test {
protected:
    void SetUp() override {
        reset_run_state();
        log_reset_for_tests();
        log_init(log_path().c_str());
        saved_path = getenv("PATH");
        fs::create_directories(dir / "bin");
        const std::string md5sum = real_tool("md5sum");
        if (!md5sum.empty()) fs::create_symlink(md5sum, dir / "bin/md5sum");
        setenv("PATH", (dir / "bin").c_str(), 1);
        dir.write("kernel/scripts/sign-file",
                  "#!/bin/sh\n"
                  "for argument in \"$@\"; do echo \"$argument\"; done > \"" + dir / "sign-file.args" + "\"\n"
                  "exit ${SIGN_FILE_STATUS:-0}\n");
        fs::permissions(dir / "kernel/scripts/sign-file", fs::perms(0755));
        dir.write("vantoria.ko", "module");
        options.kernel_source_path = dir / "kernel";
        options.module_signing_hash = "sha512";
    }
    void TearDown() override {
        setenv("PATH", saved_path.c_str(), 1);
        unsetenv("SIGN_FILE_STATUS");
        unsetenv("OPENSSL_STATUS");
        log_reset_for_tests();
        reset_run_state();
    }
    // A generated pair goes to the machine's /tmp by its fixed template, so
    // the test runs in a child with a /tmp of its own, the scratch kept in it.
    void with_own_tmp(const std::function<void()>& body) {
        in_child([this] { return own_tmp(dir.path()); }, body);
    }
    static std::string real_tool(const std::string& name) {
        for (const char* dir : {"/usr/bin/", "/bin/"})
            if (fs::exists(dir + name)) return dir + name;
        return "";
    }
    // openssl req writes both files; openssl x509 prints a fingerprint.
    void install_openssl() {
        dir.write("bin/openssl",
                  "#!/bin/sh\n"
                  "echo \"$@\" >> \"" + dir / "openssl.calls" + "\"\n"
                  "[ -n \"$OPENSSL_STATUS\" ] && exit $OPENSSL_STATUS\n"
                  "if [ \"$1\" = x509 ]; then echo 'SHA1 Fingerprint=AB:CD:EF:01:23'; exit 0; fi\n"
                  "while [ $# -gt 0 ]; do\n"
                  "  case \"$1\" in -keyout) printf private > \"$2\";; -out) printf public > \"$2\";; esac\n"
                  "  shift\n"
                  "done\n");
        fs::permissions(dir / "bin/openssl", fs::perms(0755));
    }
    std::string log_path() const { return dir / "installer.log"; }
    int sign(DriverInstaller& installer) {
        const int result = installer.sign_module_file(dir / "vantoria.ko");
        made_public = installer.options.module_signing_public_key;
        made_secret = installer.options.module_signing_secret_key;
        return result;
    }

    TempDir dir;
    InstallOptions options;
    std::string saved_path;
    std::string made_public, made_secret;
};

TEST_F(SigningHost, GeneratesAPairAndSignsInTheKernelsArgumentOrder) {
    with_own_tmp([&] {
        install_openssl();
        DriverInstaller installer(options);
        ASSERT_EQ(sign(installer), 0);
        EXPECT_TRUE(installer.options.generated_key);
        EXPECT_EQ(made_public.rfind("/tmp/vantoriatmp-", 0), 0u);
        EXPECT_EQ(made_secret.rfind("/tmp/vantoriatmp-", 0), 0u);
        EXPECT_EQ(mode_of(made_public), "0644");
        EXPECT_EQ(mode_of(made_secret), "0600");
        EXPECT_EQ(slurp(made_secret), "private");
        EXPECT_EQ(slurp(dir / "openssl.calls"),
                  "req -new -x509 -newkey rsa:2048 -days 7300 -nodes -subj /CN=quorl-installer generated signing key/ "
                  "-keyout " + made_secret + " -outform DER -out " + made_public + "\n");
        EXPECT_EQ(slurp(dir / "sign-file.args"), "sha512\n" + made_secret + "\n" + made_public + "\n" + dir / "vantoria.ko" + "\n");

        // The same pair for a second module: nothing generated, and the flag falls back to false.
        ASSERT_EQ(sign(installer), 0);
        EXPECT_FALSE(installer.options.generated_key);
        EXPECT_EQ(installer.options.module_signing_public_key, made_public);
        EXPECT_EQ(slurp(dir / "openssl.calls").find("req", 1), std::string::npos);
    });
}

TEST_F(SigningHost, FallbackHashKeepsItsQuotesAndIsAskedOnce) {
    install_openssl();
    options.module_signing_hash.clear();
    options.module_signing_public_key = dir / "user.der";
    options.module_signing_secret_key = dir / "user.key";
    DriverInstaller installer(options);
    // No kernel_test.sh lies beside the test program, so the script cannot tell.
    ASSERT_EQ(sign(installer), 0);
    EXPECT_EQ(installer.options.module_signing_hash, "\"sha256\"");
    EXPECT_EQ(slurp(dir / "sign-file.args"), "sha256\n" + dir / "user.key" + "\n" + dir / "user.der" + "\n" + dir / "vantoria.ko" + "\n");
    EXPECT_FALSE(installer.options.generated_key);
    EXPECT_FALSE(fs::exists(dir / "openssl.calls"));  // a user's pair needs no openssl
    ASSERT_EQ(sign(installer), 0);
    EXPECT_EQ(installer.options.module_signing_hash, "\"sha256\"");
    EXPECT_EQ(slurp(log_path()).find("Guessing sha256"), slurp(log_path()).rfind("Guessing sha256"));
}

TEST_F(SigningHost, OneKeyAloneIsReplacedByAGeneratedPair) {
    with_own_tmp([&] {
        install_openssl();
        options.module_signing_secret_key = dir / "user.key";
        DriverInstaller installer(options);
        ASSERT_EQ(sign(installer), 0);
        EXPECT_TRUE(installer.options.generated_key);
        EXPECT_NE(made_secret, dir / "user.key");
        EXPECT_EQ(made_secret.rfind("/tmp/vantoriatmp-", 0), 0u);
    });
}

TEST_F(SigningHost, FailuresAndTheirTexts) {
    with_own_tmp([&] {
        struct Case {
            const char* story;
            bool openssl;
            const char* openssl_status;
            const char* sign_file_status;
            int result;
            std::string console;
        } cases[] = {
            {"no openssl", false, nullptr, nullptr, 8, "generate key failed, openssl not found.\n"},
            {"openssl req fails", true, "2", nullptr, 5, "Failed to generate key pair No such file or directory\n"},
            {"sign-file fails", true, nullptr, "1", 5, "Failed to sign module file: Operation not permitted\n"},
        };
        for (const Case& c : cases) {
            if (c.openssl) install_openssl();
            if (c.openssl_status) setenv("OPENSSL_STATUS", c.openssl_status, 1);
            if (c.sign_file_status) setenv("SIGN_FILE_STATUS", c.sign_file_status, 1);
            DriverInstaller installer(options);
            installer.options.generated_key = true;
            testing::internal::CaptureStderr();
            EXPECT_EQ(sign(installer), c.result) << c.story;
            EXPECT_EQ(testing::internal::GetCapturedStderr(), c.console) << c.story;
            EXPECT_TRUE(installer.options.generated_key) << c.story << ": a failed call leaves the flag";
            unsetenv("OPENSSL_STATUS");
            unsetenv("SIGN_FILE_STATUS");
        }
    });
}

TEST_F(SigningHost, SavedKeysTakeTheFingerprintNameAndLoseTheirOtherBits) {
    with_own_tmp([&] {
        install_openssl();
        DriverInstaller installer(options);
        ASSERT_EQ(sign(installer), 0);
        const std::string keys = dir / "share/vantoria";
        ASSERT_EQ(save_generated_keys_into(installer, keys), 0);

        EXPECT_EQ(mode_of(keys), "0755");
        EXPECT_EQ(mode_of(keys + "/vantoria-cert-ABCDEF.der"), "0640");
        EXPECT_EQ(mode_of(keys + "/vantoria-cert-ABCDEF.key"), "0600");
        EXPECT_FALSE(fs::exists(made_public));
        EXPECT_FALSE(fs::exists(made_secret));
        EXPECT_EQ(installer.options.module_signing_public_key, keys + "/vantoria-cert-ABCDEF.der");
        EXPECT_EQ(installer.options.module_signing_secret_key, keys + "/vantoria-cert-ABCDEF.key");
        const std::vector<ManifestEntry> expected = {
            {"DIR", keys, ""},
            {"FILE", keys + "/vantoria-cert-ABCDEF.der", "4c9184f37cff01bcdc32dc486ec36961"},  // md5 of "public"
            {"FILE", keys + "/vantoria-cert-ABCDEF.key", "2c17c6393771ee3048ae34d6b380c5ec"},  // md5 of "private"
        };
        EXPECT_EQ(install_entries, expected);
    });
}

TEST_F(SigningHost, ATakenNameLosesTheNewKeyButIsRecorded) {
    with_own_tmp([&] {
        install_openssl();
        DriverInstaller installer(options);
        ASSERT_EQ(sign(installer), 0);
        const std::string keys = dir / "share/vantoria";
        dir.write("share/vantoria/vantoria-cert-ABCDEF.der", "older");
        fs::permissions(keys + "/vantoria-cert-ABCDEF.der", fs::perms(0777));
        ASSERT_EQ(save_generated_keys_into(installer, keys), 0);

        // The existing directory is not recorded; the taken name is, with the old content.
        ASSERT_EQ(install_entries.size(), 2u);
        EXPECT_EQ(install_entries[0],
                  (ManifestEntry{"FILE", keys + "/vantoria-cert-ABCDEF.der", "6a3a6f6e33217afa6373df9d6b2e8a00"}));
        EXPECT_EQ(slurp(keys + "/vantoria-cert-ABCDEF.der"), "older");
        EXPECT_EQ(mode_of(keys + "/vantoria-cert-ABCDEF.der"), "0660");
        EXPECT_EQ(install_entries[1].path, keys + "/vantoria-cert-ABCDEF.key");
        EXPECT_FALSE(fs::exists(made_public));
        EXPECT_EQ(installer.options.module_signing_public_key, made_public);
        EXPECT_EQ(installer.options.module_signing_secret_key, keys + "/vantoria-cert-ABCDEF.key");
    });
}

TEST_F(SigningHost, WithoutAFingerprintTheTemporaryNamesStay) {
    with_own_tmp([&] {
        install_openssl();
        DriverInstaller installer(options);
        ASSERT_EQ(sign(installer), 0);
        fs::remove(dir / "bin/openssl");
        fs::remove(made_secret);  // a key file that went missing is passed over
        const std::string keys = dir / "share/vantoria";
        ASSERT_EQ(save_generated_keys_into(installer, keys), 0);
        const std::string saved = keys + "/" + fs::path(made_public).filename().string() + ".der";
        ASSERT_EQ(install_entries.size(), 2u);
        EXPECT_EQ(install_entries[0], (ManifestEntry{"DIR", keys, ""}));
        EXPECT_EQ(install_entries[1].path, saved);
        EXPECT_EQ(slurp(saved), "public");
        EXPECT_EQ(installer.options.module_signing_public_key, saved);
    });
}

}  // namespace
