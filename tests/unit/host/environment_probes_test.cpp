#include "host/environment_probes.hpp"

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

using EnvironmentProbes = LoggedTest;

TEST(OsRelease, KeysAreFoundAnywhereAndTheLastLineWins) {
    struct Case {
        std::string text, id, version;
    } cases[] = {
        {"NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n", "debian", "12"},
        {"ID=sles\nBUILD_ID=rolling\nVARIANT_ID=container\n", "container", "old"},
        {"ID='alpine'\nVERSION_ID= 3.19 \n", "'alpine'", " 3.19 "},
        {"NAME=Debian\n", "old", "old"},
    };
    for (const Case& c : cases) {
        OsIdentity identity{"old", "old"};
        parse_os_release(c.text, identity);
        EXPECT_EQ(identity.id, c.id) << c.text;
        EXPECT_EQ(identity.version, c.version) << c.text;
    }
}

TEST(SecureBoot, TheFlagIsTheLowBitOfTheLastByte) {
    TempDir dir;
    const std::string vars = dir / "vars", efivars = dir / "efivars", missing = dir / "missing";
    const std::string on = std::string("\x06\x00\x00\x00\x01", 5);
    struct Case {
        const char* name;
        std::string first, second;  // "-" for a missing file
        int state;
    } cases[] = {
        {"neither file", "-", "-", -2},
        {"old layout wins", std::string("\x00", 1), on, 0},
        {"efivars, last byte 3", "-", std::string("\x06\x00\x00\x00\x03", 5), 1},
        {"empty file", "", "-", -5},
        {"empty file then a value", "", on, 1},
    };
    for (const Case& c : cases) {
        fs::remove(vars);
        fs::remove(efivars);
        if (c.first != "-") dir.write("vars", c.first);
        if (c.second != "-") dir.write("efivars", c.second);
        const char* const paths[] = {vars.c_str(), efivars.c_str()};
        EXPECT_EQ(secure_boot_state_from(paths, 2), c.state) << c.name;
    }
    // A directory opens but can't be read: the stream's error indicator, negated.
    const char* const paths[] = {dir.path().c_str(), missing.c_str()};
    EXPECT_EQ(secure_boot_state_from(paths, 2), -1);
}

TEST_F(EnvironmentProbes, FirstUtf8LocaleByItsEnding) {
    const std::string saved_path = getenv("PATH");
    setenv("PATH", (dir / "stubs").c_str(), 1);
    struct Case {
        std::string script;
        bool set;
    } cases[] = {
        {"printf 'C\\nPOSIX\\nC.UTF-8\\n'", true}, {"printf 'C.utf8\\n'", true},
        {"printf 'C\\nen_GB.ISO-8859-1\\n'", false}, {"printf 'C.UTF-8\\n'; exit 1", false}, {"", false},
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
        EXPECT_EQ(log_text().substr(before), c.set ? "Debug: Set character type UTF-8.\n" : "") << c.script;
    }
    setlocale(LC_CTYPE, "C");
    setenv("PATH", saved_path.c_str(), 1);
}

}  // namespace
