#include "app/command_line.hpp"

#include <gtest/gtest.h>

namespace {

TEST(CommandLine, WhatTheDriversLineTakesAndWhatItBecomes) {
    struct Case {
        std::vector<std::string> words;
        int code;
    } cases[] = {
        {{"--with-vgpu", "--without-vgpu"}, 0},  // both together cancel out, without a word
        // The options that only the family's other tools declare.
        {{"--silent"}, 109}, {{"--toolkit"}, 109}, {{"--image-name", "x"}, 109}, {{"--cuda-path", "x"}, 109},
        {{"--module-signing-public-key", "k.der"}, 107},
    };
    for (Case c : cases) {
        c.words.insert(c.words.begin(), "quorl-driver-installer");
        std::vector<char*> argv;
        for (std::string& word : c.words) argv.push_back(word.data());
        InstallerCommandLine command_line;
        command_line.add_options(static_cast<int>(argv.size()), argv.data(), "Driver");
        int code = 0;
        try {
            command_line.parse(static_cast<int>(argv.size()), argv.data());
        } catch (const CLI::ParseError& error) {
            code = error.get_exit_code();
        }
        EXPECT_EQ(code, c.code) << c.words[1];
        EXPECT_FALSE(make_install_options(command_line).enable_vgpu) << c.words[1];
    }
}

TEST(CommandLine, HelpHidesQuietAndSpeaksOfTheDefaultsAtDeclaration) {
    InstallerCommandLine command_line;
    command_line.add_options(0, nullptr, "Driver");
    const std::string help = command_line.help();
    for (const char* hidden : {"qxquiet", "--image-name", "--silent", "--toolkit", "--cuda-path"})
        EXPECT_EQ(help.find(hidden), std::string::npos) << hidden;
    for (const char* shown : {"Build driver with VGPU support (default: false)", "Build driver without VGPU support (default: false)",
                              "Disable Use of Dkms (default: false)", "The Quorl Driver util installation path.",
                              "The kernel source path.", "The corresponding public key must also be provided.",
                              "The corresponding private key must also be provided."})
        EXPECT_NE(help.find(shown), std::string::npos) << shown;
    // The second declaration of the help flag, with its line feed, is the one that stays.
    EXPECT_EQ(command_line.get_help_ptr()->get_description(), "Print this help message and exit\n");
}

}  // namespace
