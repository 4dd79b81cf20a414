#include "installer/kernel_source.hpp"

#include <gtest/gtest.h>

namespace {

// Characters are counted, not parsed.
TEST(KernelSource, ReleaseIsCutByCountingCharacters) {
    struct Case {
        std::string text;
        bool found;
        std::string release;
    } cases[] = {
        {"/* generated */\n#define UTS_RELEASE \"6.1.0\"\n#define UTS_RELEASE \"9.9.9\"\n", true, "6.1.0"},
        {"#define UTS_RELEASE \"6.1.0\"\r\n", true, "6.1.0\r"},
        {"#define UTS_RELEASE  \"6.1.0\"", true, "6.1.0"},  // the second blank took the quote's place
        {"#define UTS_RELEASE 6.1.0-x\n", true, ".1.0-x"},  // no quote: its place is taken all the same
        {"#define UTS_RELEASE \"", true, ""},  // exactly two characters behind the word
        {"#define UTS_VERSION \"#1 SMP\"\n", false, ""},
    };
    for (const Case& c : cases) {
        std::string release;
        EXPECT_EQ(parse_uts_release(c.text, release), c.found) << c.text;
        EXPECT_EQ(release, c.release) << c.text;
    }
}

}  // namespace
