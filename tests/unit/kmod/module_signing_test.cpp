#include "kmod/module_signing.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "child_process.hpp"
#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

TEST(ModuleSigning, NameStemFromTheFingerprint) {
    struct Case {
        std::string output, fingerprint, stem;
    } cases[] = {
        {"SHA1 Fingerprint=ABCDEF0123456789\n", "ABCDEF01", "vantoria-cert-ABCDEF01"},
        {"SHA1 Fingerprint=AB:C\n", "AB:C\n", "vantoria-cert-ABC\n"},
        {"=AB:CD=EF", "AB:CD=EF", "vantoria-cert-ABCD=EF"},  // the first "=" counts
        {"no equals sign here\n", "no equal", "vantoria-cert-no equal"},
        {"SHA1 Fingerprint=", "", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(fingerprint_prefix(c.output), c.fingerprint) << c.output;
        EXPECT_EQ(key_name_stem(c.fingerprint), c.stem) << c.output;
    }
}

// A host of stubs: PATH holds only our own openssl (when asked for) and
// md5sum, and a kernel tree whose sign-file signs nothing.
class SigningHost : public LoggedTest {
protected:
    void SetUp() override {
        LoggedTest::SetUp();
        saved_path = getenv("PATH");
        fs::create_directories(dir / "bin");
        fs::create_symlink(fs::exists("/usr/bin/md5sum") ? "/usr/bin/md5sum" : "/bin/md5sum", dir / "bin/md5sum");
        setenv("PATH", (dir / "bin").c_str(), 1);
        script("kernel/scripts/sign-file", "");
        dir.write("vantoria.ko", "module");
        options.kernel_source_path = dir / "kernel";
        options.module_signing_hash = "sha512";
    }
    void TearDown() override {
        setenv("PATH", saved_path.c_str(), 1);
        unsetenv("OPENSSL_STATUS");
        LoggedTest::TearDown();
    }
    // A generated pair goes to the machine's /tmp by its fixed template, so
    // the test runs in a child with a /tmp of its own, the scratch kept in it.
    void with_own_tmp(const std::function<void()>& body) {
        in_child([this] { return own_tmp(dir.path()); }, body);
    }
    void script(const std::string& name, const std::string& body) {
        dir.write(name, "#!/bin/sh\n" + body);
        fs::permissions(dir / name, fs::perms(0755));
    }
    // openssl req writes both files; openssl x509 prints a fingerprint.
    void install_openssl() {
        script("bin/openssl", "[ -n \"$OPENSSL_STATUS\" ] && exit $OPENSSL_STATUS\n"
               "if [ \"$1\" = x509 ]; then echo 'SHA1 Fingerprint=AB:CD:EF:01:23'; exit 0; fi\n"
               "while [ $# -gt 0 ]; do\n  case \"$1\" in -keyout) printf private > \"$2\";; -out) printf public > \"$2\";; esac\n"
               "  shift\ndone\n");
    }
    int sign(DriverInstaller& installer) {
        const int result = installer.sign_module_file(dir / "vantoria.ko");
        made_public = installer.options.module_signing_public_key;
        made_secret = installer.options.module_signing_secret_key;
        return result;
    }

    InstallOptions options;
    std::string saved_path, made_public, made_secret;
    const std::string keys = dir / "share/vantoria";
};

TEST_F(SigningHost, FailuresAndTheirTexts) {
    with_own_tmp([&] {
        struct Case {
            bool openssl;
            const char* openssl_status;
            int result;
            std::string console;
        } cases[] = {
            {false, nullptr, 8, "generate key failed, openssl not found.\n"},
            // The exit status read as an error number: that is the text the user sees.
            {true, "2", 5, "Failed to generate key pair No such file or directory\n"},
        };
        for (const Case& c : cases) {
            if (c.openssl) install_openssl();
            if (c.openssl_status) setenv("OPENSSL_STATUS", c.openssl_status, 1);
            DriverInstaller installer(options);
            installer.options.generated_key = true;
            testing::internal::CaptureStderr();
            EXPECT_EQ(sign(installer), c.result) << c.console;
            EXPECT_EQ(testing::internal::GetCapturedStderr(), c.console);
            EXPECT_TRUE(installer.options.generated_key) << c.console << ": a failed call leaves the flag";
            unsetenv("OPENSSL_STATUS");
        }
    });
}

// Saving a generated pair: a name already taken loses the new key, and is
// recorded with the old content, while the existing directory is not;
// without a fingerprint the temporary file's name is kept, and a key file
// that went missing is passed over; a key directory that cannot be made fails.
TEST_F(SigningHost, SavingAGeneratedPair) {
    with_own_tmp([&] {
        const std::string taken = keys + "/vantoria-cert-ABCDEF.der", under_a_file = dir.write("plain", "") + "/vantoria";
        struct Case {
            const char* story;
            std::function<void()> arrange;
            std::string directory;
            int result;
            std::function<void(const std::string& public_key)> check;
        } cases[] = {
            {"a taken name",
             [&] {
                 dir.write("share/vantoria/vantoria-cert-ABCDEF.der", "older");
                 fs::permissions(taken, fs::perms(0777));
             },
             keys, 0,
             [&](const std::string& public_key) {
                 ASSERT_EQ(install_entries.size(), 2u);
                 EXPECT_EQ(install_entries[0], (ManifestEntry{"FILE", taken, "6a3a6f6e33217afa6373df9d6b2e8a00"}));
                 EXPECT_EQ(fs::status(taken).permissions(), fs::perms(0660));
                 EXPECT_FALSE(fs::exists(made_public));
                 EXPECT_EQ(public_key, made_public);
             }},
            {"no fingerprint", [&] { fs::remove(dir / "bin/openssl"), fs::remove(made_secret); }, keys, 0,
             [&](const std::string& public_key) {
                 const std::string saved = keys + "/" + fs::path(made_public).filename().string() + ".der";
                 EXPECT_EQ(install_entries,
                           (std::vector<ManifestEntry>{{"DIR", keys, ""}, {"FILE", saved, "4c9184f37cff01bcdc32dc486ec36961"}}));
                 EXPECT_EQ(public_key, saved);
             }},
            {"a directory that cannot be made", [] {}, under_a_file, 5,
             [&](const std::string&) {
                 EXPECT_TRUE(log_text().ends_with("Error: create_directories " + under_a_file +
                                                  " failed. code:20 message:Not a directory\n"));
                 EXPECT_EQ(install_entries, std::vector<ManifestEntry>{});
                 EXPECT_TRUE(fs::exists(made_public));
             }},
        };
        options.module_signing_secret_key = dir / "user.key";  // one key alone is no pair: both are generated
        for (const Case& c : cases) {
            fs::remove_all(keys);
            install_entries.clear();
            install_openssl();
            DriverInstaller installer(options);
            ASSERT_EQ(sign(installer), 0) << c.story;
            EXPECT_NE(log_text().find("Debug: private key:" + made_secret + "\npublic_key:" + made_public + "\n"), std::string::npos);
            c.arrange();
            EXPECT_EQ(save_generated_keys_into(installer, c.directory), c.result) << c.story;
            c.check(installer.options.module_signing_public_key);
        }
    });
}

}  // namespace
