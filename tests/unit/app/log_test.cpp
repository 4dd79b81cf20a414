#include "app/log.hpp"

#include <gtest/gtest.h>

#include "test_support.hpp"

namespace {

TEST(Log, LevelsChooseConsoleAndPrefix) {
    log_reset_for_tests();
    TempDir dir;
    const std::string path = dir / "log/driver_installer.log";
    testing::internal::CaptureStderr();
    log_message(2, "before the file is open\n");
    log_init(path.c_str());
    for (int level : {0, 1, 2, 3, 4, 5, 7}) log_message(level, "m%d\n", level);
    log_set_quiet();  // silences level 1 on the console, never level 5
    log_message(1, "file only\n");
    log_message(5, "seen %s", "anyway");
    const std::string message(3000, 'x');  // whole on the console, cut in the file
    log_message(5, "%s", message.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "m1\nm5\nseen anyway" + message);
    EXPECT_EQ(slurp(path), "Debug: m0\nm1\nm2\nWarning: m3\nError: m4\nEmerge: m5\nm7\nfile only\nEmerge: seen anyway" +
                               std::string("Emerge: ") + std::string(2039, 'x'));
    log_reset_for_tests();
}

TEST(Log, AFileThatCannotBeOpenedEndsTheProcessWithStatusOne) {
    TempDir dir;
    const std::string under_a_file = dir.write("plain", "") + "/cannot/be/here.log";
    EXPECT_EXIT(log_init(under_a_file.c_str()), ::testing::ExitedWithCode(1), "Failed to init qxlogger.\n");
}

}  // namespace
