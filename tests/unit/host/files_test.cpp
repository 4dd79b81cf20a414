#include "host/files.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

using List = std::vector<std::string>;

TEST(Files, SplitTrimAndEndsWith) {
    EXPECT_EQ(split_string("", '\n'), List{});
    EXPECT_EQ(split_string("a\n\nb\n", '\n'), (List{"a", "", "b"}));
    EXPECT_EQ(split_string(":/bin", ':'), (List{"", "/bin"}));
    for (auto [text, trimmed] : {std::pair<std::string, std::string>{"  3.2.1\n", "3.2.1"}, {"\t \n", ""}, {"\r\nx y\r\n", "x y"}}) {
        trim_whitespace(text);
        EXPECT_EQ(text, trimmed);
    }
    EXPECT_TRUE(ends_with("same", "same"));
    EXPECT_FALSE(ends_with("lib", "/lib"));
}

// make_directories takes 255 bytes of the path and no more.
TEST(Files, MakeDirectoriesCutsAt255Bytes) {
    TempDir dir;
    std::string deep = dir.path();
    while (deep.size() < 300) deep += "/dddddddd";
    make_directories(deep + "/");
    EXPECT_TRUE(is_directory(deep.substr(0, 255)));
    EXPECT_FALSE(file_exists(deep.substr(0, 256 + deep.substr(256).find('/'))));
}

TEST(Files, ReadingKeepsItsQuirks) {
    TempDir dir;
    std::string text = "kept: ";
    ASSERT_TRUE(read_file_chunked(dir.write("cmdline", std::string("first\0second\0", 13)), text));
    EXPECT_EQ(text, "kept: first");
    // A short last chunk carries the tail of the chunk before behind it.
    text.clear();
    ASSERT_TRUE(read_file_chunked(dir.write("long", std::string(1024, 'a') + "bb"), text));
    EXPECT_EQ(text, std::string(1024, 'a') + "bb" + std::string(1022, 'a'));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(read_file_chunked(dir / "missing", text));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to open " + (dir / "missing") + "\n");

    text = "untouched";
    EXPECT_FALSE(read_file(dir / "missing", text));
    EXPECT_EQ(text, "untouched");
    const std::string modules = dir.write("modules", "ib_core 1 0 - Live 0x0\nrdma 2 1 vantoria, Live 0x0\n");
    EXPECT_TRUE(file_contains(modules, "vantoria"));  // any line, even as another's user
}

TEST(Files, FindInPathSkipsEmptyElementsAndNeedsNoExecuteBit) {
    TempDir dir;
    dir.write("one/tool", "not executable");
    dir.write("two/tool", "second");
    const std::string saved = getenv("PATH");
    setenv("PATH", ("::" + (dir / "none") + ":" + (dir / "one") + ":" + (dir / "two")).c_str(), 1);
    EXPECT_EQ(find_in_path("tool"), dir / "one/tool");
    setenv("PATH", saved.c_str(), 1);
}

TEST(Files, KeyPathsFromTheCallersDirectory) {
    TempDir dir;
    fs::create_directories(dir / "keys");
    unsetenv("__QX_PWD");
    EXPECT_EQ(resolve_from_caller_dir("k.key"), "k.key");
    setenv("__QX_PWD", dir.path().c_str(), 1);
    EXPECT_EQ(resolve_from_caller_dir(""), "");
    EXPECT_EQ(resolve_from_caller_dir("keys/../keys/k.key"), dir / "keys/k.key");
    unsetenv("__QX_PWD");
}

// An unreadable /proc/self/exe and glob's read and memory errors cannot be brought about here.

}  // namespace
