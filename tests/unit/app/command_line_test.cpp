#include "app/command_line.hpp"

#include <cstddef>
#include <gtest/gtest.h>

#include "installer/package_manifest.hpp"

namespace {

// Parses a command line the way main does and returns the library's exit
// code, 0 when parsing succeeded.
int parse(InstallerCommandLine& command_line, std::vector<std::string> words) {
    words.insert(words.begin(), "quorl-driver-installer");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    command_line.add_options(static_cast<int>(argv.size()), argv.data(), "Driver");
    try {
        command_line.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code();
    }
    return 0;
}

TEST(CommandLine, ParseOutcomes) {
    struct Case {
        std::vector<std::string> words;
        int code;
    } cases[] = {
        {{}, 0},
        {{"--qxquiet"}, 0},
        {{"--with-vgpu", "--without-vgpu"}, 0},
        {{"--version"}, 109},
        {{"--silent"}, 109},
        {{"--toolkit"}, 109},
        {{"stray"}, 109},
        {{"--module-signing-secret-key", "k.key"}, 107},
        {{"--module-signing-public-key", "k.der"}, 107},
        {{"--module-signing-secret-key", "k.key", "--module-signing-public-key", "k.der"}, 0},
        {{"--prefix"}, 114},
        {{"--help"}, 0},  // help is a ParseError of its own, told apart below
    };
    for (const Case& c : cases) {
        InstallerCommandLine command_line;
        EXPECT_EQ(parse(command_line, c.words), c.code) << testing::PrintToString(c.words);
    }
}

TEST(CommandLine, HelpHidesQuietAndSaysFalseForBothVgpuFlags) {
    InstallerCommandLine command_line;
    command_line.add_options(0, nullptr, "Driver");
    const std::string help = command_line.help();
    EXPECT_EQ(help.find("qxquiet"), std::string::npos);
    EXPECT_NE(help.find("Quorl Driver Installation Tool."), std::string::npos);
    EXPECT_NE(help.find("Build driver with VGPU support (default: false)"), std::string::npos);
    EXPECT_NE(help.find("Build driver without VGPU support (default: false)"), std::string::npos);
    EXPECT_NE(help.find("Disable Use of Dkms (default: false)"), std::string::npos);
    // The second declaration of the help flag, with its line feed, is the one that stays.
    EXPECT_NE(help.find("Print this help message and exit\n"), std::string::npos);
    EXPECT_EQ(command_line.get_help_ptr()->get_description(), "Print this help message and exit\n");
}

TEST(CommandLine, OptionsRecordFromTheParsedLine) {
    struct Case {
        std::vector<std::string> words;
        bool enable_vgpu;
        bool disable_dkms;
        std::string prefix;
    } cases[] = {
        {{}, false, false, "/usr/local/quorl-3.2.1"},
        {{"--with-vgpu"}, true, false, "/usr/local/quorl-3.2.1"},
        {{"--with-vgpu", "--without-vgpu"}, false, false, "/usr/local/quorl-3.2.1"},
        {{"--without-vgpu"}, false, false, "/usr/local/quorl-3.2.1"},
        {{"--disable-dkms", "--prefix", "relative/dir"}, false, true, "relative/dir"},
    };
    for (const Case& c : cases) {
        InstallerCommandLine command_line;
        ASSERT_EQ(parse(command_line, c.words), 0);
        InstallOptions options = make_install_options(command_line);
        EXPECT_EQ(options.enable_vgpu, c.enable_vgpu) << testing::PrintToString(c.words);
        EXPECT_EQ(options.disable_dkms, c.disable_dkms);
        EXPECT_EQ(options.prefix, c.prefix);
        EXPECT_FALSE(options.generated_key);
        EXPECT_EQ(options.module_signing_hash, "");
    }
}

TEST(CommandLine, QuietFlagWorksThoughHidden) {
    InstallerCommandLine command_line;
    ASSERT_EQ(parse(command_line, {"--qxquiet"}), 0);
    EXPECT_TRUE(command_line.quiet);
}

// The records are byte-packed: the strings follow the flags with no gap.
static_assert(offsetof(InstallOptions, kernel_source_path) == 3);
static_assert(offsetof(PackageManifest, vgpu) == 6 * sizeof(std::string));
static_assert(sizeof(PackageManifest) == 6 * sizeof(std::string) + 2);

}  // namespace
