#include "host/commands.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../child_process.hpp"

namespace {

TEST(RunCommand, OutputAndStatus) {
    struct Case {
        std::string command;
        size_t output_size;
        int32_t status;
    } cases[] = {
        {"true", 0, 0},
        {"head -c 1024 /dev/zero", 1024, 0},
        {"head -c 3000 /dev/zero", 3000, 0},
        {"head -c 2048 /dev/zero; exit 3", 2048, 3},
        {"echo -n partial; exit 42", 7, 42},
        // Only bits 8 to 15 of the wait status are taken: a signal reads as 0.
        {"kill -KILL $$", 0, 0},
        {"echo -n before; kill -TERM $$", 6, 0},
    };
    for (const Case& c : cases) {
        std::string output = "stale";
        int32_t status = -7;
        EXPECT_TRUE(run_command(c.command, output, status)) << c.command;
        EXPECT_EQ(output.size(), c.output_size) << c.command;
        EXPECT_EQ(status, c.status) << c.command;
    }
}

TEST(RunCommand, KeepsEveryByteAndOnlyStandardOutput) {
    std::string output;
    int32_t status = 0;
    ASSERT_TRUE(run_command("printf 'a\\000b\\n'; echo err >&2", output, status));
    EXPECT_EQ(output, std::string("a\0b\n", 4));
    ASSERT_TRUE(run_command("echo err >&2 2>&1; echo out 2>&1", output, status));
    EXPECT_EQ(output, "out\n");
    ASSERT_TRUE(run_command("echo both >&2", output, status));
    EXPECT_EQ(output, "");
    ASSERT_TRUE(run_command("(echo both >&2) 2>&1", output, status));
    EXPECT_EQ(output, "both\n");
}

TEST(RunCommandOutput, DropsTheStatus) {
    std::string output = "stale";
    EXPECT_TRUE(run_command_output("echo text; exit 9", output));
    EXPECT_EQ(output, "text\n");
}

TEST(MakeTempFile, CreatesFromTheTemplateWithTheMode) {
    // The template names the machine's /tmp: the child gets one of its own.
    in_child([] { return own_tmp(); }, [] {
        for (uint32_t mode : {0644u, 0600u}) {
            std::string path = "previous";
            ASSERT_TRUE(make_temp_file(path, mode));
            EXPECT_EQ(path.rfind("/tmp/vantoriatmp-", 0), 0u) << path;
            EXPECT_EQ(path.size(), 23u);
            struct stat st;
            ASSERT_EQ(stat(path.c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, mode);
            EXPECT_EQ(st.st_size, 0);
        }
    });
}

}  // namespace
