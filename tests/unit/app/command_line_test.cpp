#include "app/command_line.hpp"

#include <gtest/gtest.h>

namespace {

// Parses a command line the way main does: the library's exit code, 0 when it was taken.
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

TEST(CommandLine, WhatTheDriversLineTakesAndWhatItBecomes) {
    struct Case {
        std::vector<std::string> words;
        int code;
        bool vgpu = false, quiet = false;
    } cases[] = {
        {{"--qxquiet"}, 0, false, true},
        {{"--with-vgpu"}, 0, true},
        {{"--with-vgpu", "--without-vgpu"}, 0},  // both together cancel out, without a word
        {{"--module-signing-secret-key", "k.key", "--module-signing-public-key", "k.der"}, 0},
        {{"--help"}, 0},
        // The options that only the family's other tools declare.
        {{"--silent"}, 109}, {{"--toolkit"}, 109}, {{"--image-name", "x"}, 109}, {{"--cuda-path", "x"}, 109},
        {{"--version"}, 109}, {{"stray"}, 109},
        {{"--module-signing-public-key", "k.der"}, 107},
        {{"--prefix"}, 114},
    };
    for (const Case& c : cases) {
        InstallerCommandLine command_line;
        EXPECT_EQ(parse(command_line, c.words), c.code) << testing::PrintToString(c.words);
        if (c.code != 0) continue;
        const InstallOptions options = make_install_options(command_line);
        EXPECT_EQ(options.enable_vgpu, c.vgpu) << testing::PrintToString(c.words);
        EXPECT_EQ(command_line.quiet, c.quiet) << testing::PrintToString(c.words);
        EXPECT_EQ(options.prefix, "/usr/local/quorl-3.2.1");
    }
}

TEST(CommandLine, HelpHidesQuietAndSpeaksOfTheDefaultsAtDeclaration) {
    InstallerCommandLine command_line;
    command_line.add_options(0, nullptr, "Driver");
    const std::string help = command_line.help();
    for (const char* hidden : {"qxquiet", "--image-name", "--silent", "--toolkit", "--cuda-path"})
        EXPECT_EQ(help.find(hidden), std::string::npos) << hidden;
    for (const char* shown : {"Quorl Driver Installation Tool.", "Build driver with VGPU support (default: false)",
                              "Build driver without VGPU support (default: false)", "Disable Use of Dkms (default: false)",
                              "The Quorl Driver util installation path.", "The kernel source path."})
        EXPECT_NE(help.find(shown), std::string::npos) << shown;
    // The second declaration of the help flag, with its line feed, is the one that stays.
    EXPECT_EQ(command_line.get_help_ptr()->get_description(), "Print this help message and exit\n");
}

}  // namespace
