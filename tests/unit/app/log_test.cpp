#include "app/log.hpp"

#include <gtest/gtest.h>

#include "../test_support.hpp"

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { log_reset_for_tests(); }
    void TearDown() override { log_reset_for_tests(); }
    TempDir dir;
    const std::string path = dir / "log/driver_installer.log";
};

TEST_F(LogTest, LevelsChooseConsoleAndPrefix) {
    testing::internal::CaptureStderr();
    log_message(1, "Permission denied.\n");  // before the file is open: the console only
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Permission denied.\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "log"));
    log_init(path.c_str());
    struct Case {
        int level;
        const char* console;
        const char* file;
    } cases[] = {
        {0, "", "Debug: m0\n"},   {1, "m1\n", "m1\n"},    {2, "", "m2\n"},       {3, "", "Warning: m3\n"},
        {4, "", "Error: m4\n"},   {5, "m5\n", "Emerge: m5\n"}, {7, "", "m7\n"}, {-1, "", "m-1\n"},
    };
    std::string file;
    for (const Case& c : cases) {
        testing::internal::CaptureStderr();
        log_message(c.level, "m%d\n", c.level);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.console) << "level " << c.level;
        file += c.file;
    }
    // Quiet silences level 1 on the console, never level 5.
    log_set_quiet();
    testing::internal::CaptureStderr();
    log_message(1, "file only\n");
    log_message(5, "seen %s", "anyway");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "seen anyway");
    EXPECT_EQ(slurp(path), file + "file only\nEmerge: seen anyway");
}

TEST_F(LogTest, EachRunEmptiesTheLogAndALongMessageIsCutInTheFileOnly) {
    log_init(path.c_str());
    log_message(2, "first run\n");
    log_close();
    log_init(path.c_str());
    const std::string message(3000, 'x');
    testing::internal::CaptureStderr();
    log_message(1, "%s", message.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
    log_message(4, "%s", message.c_str());
    EXPECT_EQ(slurp(path), std::string(2047, 'x') + "Error: " + std::string(2040, 'x'));
}

TEST_F(LogTest, UnopenableFileEndsTheProcessWithStatusOne) {
    const std::string under_a_file = dir.write("plain", "") + "/cannot/be/here.log";
    EXPECT_EXIT(log_init(under_a_file.c_str()), ::testing::ExitedWithCode(1), "Failed to init qxlogger.\n");
}

}  // namespace
