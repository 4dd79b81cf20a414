#include "kmod/module_loading.hpp"

#include <gtest/gtest.h>

namespace {

TEST(ModuleUseState, OnlyTheFirstLineOfProcModulesCanMatch) {
    struct Case {
        std::string text, name;
        int32_t state;
    } cases[] = {
        {"vantoria\t16384\t0 - Live 0x0\n", "vantoria", -1},
        {"vantoria_extra 16384 0 - Live 0x0\n", "vantoria", 0},
        {"vantoria 16384 0", "vantoria", -1},
        {"vantoria 16384 0 - Live 0x0\n", "vantoria|ib_core", -1},  // the name is a pattern, unescaped
        // A first line of any length is matched in a loop, not by a recursion per character.
        {"vantoria 16384 0 " + std::string(50000, 'x') + "\nib_core 1 0\n", "vantoria", -1},
        {"vantoria " + std::string(50000, '1') + " 10\n", "vantoria", -2},
        {std::string(50000, ' ') + "vantoria 1 0\n", "vantoria", 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(module_use_state_in(c.text, c.name), c.state) << c.name << " in " << c.text.substr(0, 80);
    // No name the installer asks about has a group of its own; one that had would print each sub-match, and give 1.
    testing::internal::CaptureStdout();
    EXPECT_EQ(module_use_state_in("vantoria 1 0\n", "(vantoria)"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "vantoria 1 0\nvantoria\n1\n0\n");
}

TEST(ModuleLoading, SmallDecisions) {
    // The version is modinfo's last word, or all of a text without a blank.
    EXPECT_EQ(module_version_from_modinfo("3.2.1\n"), "3.2.1");
    EXPECT_FALSE(journal_text_is_useful("\n"));
    EXPECT_TRUE(journal_text_is_useful("-- No entries --"));
    EXPECT_EQ(module_load_error_text(2), "Unknown symbol in module or unknown parameter (see dmesg)");
    // Key errors run from 126 to 129; the scenarios' refused key is 129.
    for (int error : {125, 126, 130}) EXPECT_EQ(is_key_error(error), error == 126) << error;
}

}  // namespace
