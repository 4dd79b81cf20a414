#include "app/log.hpp"

#include <gtest/gtest.h>

#include "../test_support.hpp"

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { log_reset_for_tests(); }
    void TearDown() override { log_reset_for_tests(); }
    TempDir dir;
};

TEST_F(LogTest, LevelsChooseConsoleAndPrefix) {
    const std::string path = dir / "log/driver_installer.log";
    log_init(path.c_str());
    struct Case {
        int level;
        const char* console;
        const char* file;
    } cases[] = {
        {0, "", "Debug: m0\n"},   {1, "m1\n", "m1\n"},         {2, "", "m2\n"},
        {3, "", "Warning: m3\n"}, {4, "", "Error: m4\n"},      {5, "m5\n", "Emerge: m5\n"},
        {7, "", "m7\n"},          {-1, "", "m-1\n"},
    };
    std::string expected_file;
    for (const Case& c : cases) {
        testing::internal::CaptureStderr();
        log_message(c.level, "m%d\n", c.level);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.console) << "level " << c.level;
        expected_file += c.file;
    }
    EXPECT_EQ(slurp(path), expected_file);
}

TEST_F(LogTest, QuietSilencesLevelOneButNotFive) {
    const std::string path = dir / "q.log";
    log_init(path.c_str());
    log_set_quiet();
    testing::internal::CaptureStderr();
    log_message(1, "for the file only\n");
    log_message(5, "seen %s\n", "anyway");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "seen anyway\n");
    EXPECT_EQ(slurp(path), "for the file only\nEmerge: seen anyway\n");
}

TEST_F(LogTest, LongMessageIsWholeOnConsoleAndCutInFile) {
    const std::string path = dir / "long.log";
    log_init(path.c_str());
    const std::string message(3000, 'x');
    testing::internal::CaptureStderr();
    log_message(1, "%s", message.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
    log_message(4, "%s", message.c_str());
    EXPECT_EQ(slurp(path), std::string(2047, 'x') + "Error: " + std::string(2040, 'x'));
}

TEST_F(LogTest, NoFileBeforeInitAndEachRunEmptiesTheLog) {
    const std::string path = dir / "runs.log";
    testing::internal::CaptureStderr();
    log_message(1, "Permission denied.\n");
    log_message(2, "vanishes\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Permission denied.\n");
    EXPECT_FALSE(std::filesystem::exists(path));

    log_init(path.c_str());
    log_message(2, "first run\n");
    log_close();
    log_init(path.c_str());
    log_message(2, "second run\n");
    log_close();
    EXPECT_EQ(slurp(path), "second run\n");
}

TEST_F(LogTest, MessagesWithoutLineFeedRunIntoTheNext) {
    const std::string path = dir / "joined.log";
    log_init(path.c_str());
    log_message(4, "no line end");
    log_message(2, "next\n");
    EXPECT_EQ(slurp(path), "Error: no line endnext\n");
}

TEST_F(LogTest, UnopenableFileEndsTheProcessWithStatusOne) {
    const std::string path = dir.write("plain", "") + "/cannot/be/here.log";
    EXPECT_EXIT(log_init(path.c_str()), ::testing::ExitedWithCode(1), "Failed to init qxlogger.\n");
}

}  // namespace
