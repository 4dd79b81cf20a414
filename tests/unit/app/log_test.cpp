#include "app/log.hpp"

#include <gtest/gtest.h>

#include "test_support.hpp"

namespace {

// The levels' prefixes and consoles, and the quiet flag, are the scenarios' to
// pin; no run logs a message longer than the buffer.
TEST(Log, ALongMessageIsWholeOnTheConsoleAndCutInTheFile) {
    log_reset_for_tests();
    TempDir dir;
    const std::string path = dir / "log/driver_installer.log", message(3000, 'x');
    log_init(path.c_str());
    testing::internal::CaptureStderr();
    log_message(5, "%s", message.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message);
    EXPECT_EQ(slurp(path), "Emerge: " + std::string(2039, 'x'));
    log_reset_for_tests();
}

TEST(Log, AFileThatCannotBeOpenedEndsTheProcessWithStatusOne) {
    TempDir dir;
    const std::string under_a_file = dir.write("plain", "") + "/cannot/be/here.log";
    EXPECT_EXIT(log_init(under_a_file.c_str()), ::testing::ExitedWithCode(1), "Failed to init qxlogger.\n");
}

}  // namespace
