#include "host/commands.hpp"

#include <gtest/gtest.h>

namespace {

TEST(RunCommand, OutputAndStatus) {
    struct Case {
        std::string command, output;
        int32_t status;
    } cases[] = {
        {"head -c 1024 /dev/zero | tr '\\0' a", std::string(1024, 'a'), 0},
        {"head -c 3000 /dev/zero | tr '\\0' b; exit 3", std::string(3000, 'b'), 3},
        {"printf 'a\\000b\\n'; echo err >&2", std::string("a\0b\n", 4), 0},  // every byte, standard output only
        {"(echo both >&2) 2>&1", "both\n", 0},
        // Only bits 8 to 15 of the wait status are taken: a signal reads as 0.
        {"echo -n before; kill -TERM $$", "before", 0},
    };
    for (const Case& c : cases) {
        std::string output = "stale";
        int32_t status = -7;
        EXPECT_TRUE(run_command(c.command, output, status)) << c.command;
        EXPECT_EQ(output, c.output) << c.command;
        EXPECT_EQ(status, c.status) << c.command;
        EXPECT_TRUE(run_command_output(c.command, output)) << c.command;
        EXPECT_EQ(output, c.output) << c.command;
    }
}

}  // namespace
