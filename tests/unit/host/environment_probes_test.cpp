#include "host/environment_probes.hpp"

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"

namespace fs = std::filesystem;

namespace {

class EnvironmentProbesTest : public ::testing::Test {
protected:
    void SetUp() override {
        log_reset_for_tests();
        log_init((dir / "installer.log").c_str());
    }
    void TearDown() override { log_reset_for_tests(); }
    std::string log_text() { return slurp(dir / "installer.log"); }
    TempDir dir;
};

TEST_F(EnvironmentProbesTest, DockerIsSeenOnlyInACgroupLine) {
    struct Case {
        std::string text;
        bool docker;
        std::string log;
    } cases[] = {
        {"12:pids:/docker/4f2a\n11:memory:/docker/4f2a\n", true,
         "Debug: seeking docker found line is #12:pids:/docker/4f2a#\n"},
        {"1:name=systemd:/init.scope\n0::/system.slice/docker-4f2a.scope\n", true,
         "Debug: seeking docker found line is #0::/system.slice/docker-4f2a.scope#\n"},
        // The unified hierarchy shows a single line without the word, even in a container.
        {"0::/\n", false, ""},
        {"0::/user.slice/user-0.slice/session-3.scope\n", false, ""},
        {"", false, ""},
    };
    for (const Case& c : cases) {
        const size_t before = log_text().size();
        EXPECT_EQ(cgroup_text_names_docker(c.text), c.docker) << c.text;
        EXPECT_EQ(log_text().substr(before), c.log) << c.text;
    }
}

TEST(EnvironmentProbes, OsReleaseKeysAreFoundAnywhereAndTheLastLineWins) {
    struct Case {
        std::string text;
        std::string id, version;
    } cases[] = {
        {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n",
         "debian", "12"},
        {"ID=\"rhel\"\nVERSION_ID=\"8.9\"\nID_LIKE=\"fedora\"\n", "rhel", "8.9"},  // ID_LIKE= holds no ID=
        {"ID=ubuntu\nVARIANT_ID=server\n", "server", "old-version"},
        {"ID=sles\nBUILD_ID=rolling\nVARIANT_ID=container\n", "container", "old-version"},
        {"ID='alpine'\nVERSION_ID= 3.19 \n", "'alpine'", " 3.19 "},  // single quotes and blanks stay
        {"ID=\"a\"b\"\r\n", "ab\r", "old-version"},
        {"  # ID=commented\n", "commented", "old-version"},
        {"NAME=Debian\nVERSION=12\n", "old-id", "old-version"},
        {"", "old-id", "old-version"},
    };
    for (const Case& c : cases) {
        OsIdentity identity{"old-id", "old-version"};
        parse_os_release(c.text, identity);
        EXPECT_EQ(identity.id, c.id) << c.text;
        EXPECT_EQ(identity.version, c.version) << c.text;
    }
}

TEST_F(EnvironmentProbesTest, SecureBootFlagIsTheLastBitOfTheLastByte) {
    const std::string vars = dir / "vars-data";
    const std::string efivars = dir / "efivars";
    const std::string missing = dir / "missing";
    const std::string attributes_on = std::string("\x06\x00\x00\x00\x01", 5);
    const std::string attributes_off = std::string("\x06\x00\x00\x00\x00", 5);
    struct Case {
        const char* name;
        std::string first_path, first, second_path, second;
        int state;
    } cases[] = {
        {"neither file", missing, "", missing, "", -2},
        {"old layout on", vars, "\x01", missing, "", 1},
        {"old layout wins", vars, std::string("\x00", 1), efivars, attributes_on, 0},
        {"efivars on", missing, "", efivars, attributes_on, 1},
        {"efivars off", missing, "", efivars, attributes_off, 0},
        {"last byte's low bit", missing, "", efivars, std::string("\x06\x00\x00\x00\x03", 5), 1},
        {"empty file", vars, "", missing, "", -5},
        {"empty file then a value", vars, "", efivars, attributes_on, 1},
        {"only an empty efivars file", missing, "", efivars, "", -5},
    };
    for (const Case& c : cases) {
        fs::remove(vars);
        fs::remove(efivars);
        if (c.first_path != missing) dir.write("vars-data", c.first);
        if (c.second_path != missing) dir.write("efivars", c.second);
        const char* const paths[] = {c.first_path.c_str(), c.second_path.c_str()};
        EXPECT_EQ(secure_boot_state_from(paths, 2), c.state) << c.name;
    }
    // A directory opens but can't be read: the stream's error indicator, negated.
    fs::create_directories(dir / "a-directory");
    const std::string directory = dir / "a-directory";
    const char* const paths[] = {directory.c_str(), missing.c_str()};
    EXPECT_EQ(secure_boot_state_from(paths, 2), -1);
    EXPECT_EQ(machine_arch(), "x86_64");
}

TEST_F(EnvironmentProbesTest, FirstUtf8LocaleByItsEnding) {
    const char* path = getenv("PATH");
    const std::string saved_path = path != nullptr ? path : "";
    setenv("PATH", (dir / "stubs").c_str(), 1);
    struct Case {
        std::string script;
        bool set;
        std::string log;
    } cases[] = {
        {"printf 'C\\nPOSIX\\nC.UTF-8\\n'", true, "Debug: Set character type UTF-8.\n"},
        {"printf 'C.utf8\\n'", true, "Debug: Set character type UTF-8.\n"},
        {"printf 'C\\nPOSIX\\nen_GB.ISO-8859-1\\n'", false, ""},
        {"printf 'C.UTF-8\\n'; exit 1", false, ""},
        {"printf ''", false, ""},
        {"", false, ""},  // no locale command at all
    };
    for (const Case& c : cases) {
        fs::remove_all(dir / "stubs");
        if (!c.script.empty()) {
            dir.write("stubs/locale", "#!/bin/sh\n" + c.script + "\n");
            fs::permissions(dir / "stubs/locale", fs::perms::owner_all);
        }
        setlocale(LC_CTYPE, "C");
        const size_t before = log_text().size();
        EXPECT_EQ(select_utf8_locale(), c.set) << c.script;
        EXPECT_EQ(log_text().substr(before), c.log) << c.script;
    }
    setlocale(LC_CTYPE, "C");
    setenv("PATH", saved_path.c_str(), 1);
}

}  // namespace
