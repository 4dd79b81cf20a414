#include "host/files.hpp"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "../test_support.hpp"

namespace fs = std::filesystem;

namespace {

TEST(Files, SplitString) {
    using List = std::vector<std::string>;
    EXPECT_EQ(split_string("", '\n'), List{});
    EXPECT_EQ(split_string("a", '\n'), List{"a"});
    EXPECT_EQ(split_string("a\n", '\n'), List{"a"});
    EXPECT_EQ(split_string("a\n\nb", '\n'), (List{"a", "", "b"}));
    EXPECT_EQ(split_string("\na", '\n'), (List{"", "a"}));
    EXPECT_EQ(split_string("FILE /p ", ' '), (List{"FILE", "/p"}));
    EXPECT_EQ(split_string("a  b", ' '), (List{"a", "", "b"}));
    EXPECT_EQ(split_string(":/bin", ':'), (List{"", "/bin"}));
}

TEST(Files, TrimAndEndsWith) {
    struct Case {
        std::string text, trimmed;
    } cases[] = {{"  3.2.1\n", "3.2.1"}, {"\t \n", ""}, {"", ""}, {"a b", "a b"}, {"\r\nx\r\n", "x"}};
    for (Case c : cases) {
        trim_whitespace(c.text);
        EXPECT_EQ(c.text, c.trimmed);
    }
    EXPECT_TRUE(ends_with("/usr/local/quorl-3.2.1//lib", "/lib"));
    EXPECT_TRUE(ends_with("anything", ""));
    EXPECT_TRUE(ends_with("same", "same"));
    EXPECT_FALSE(ends_with("lib", "/lib"));
    EXPECT_FALSE(ends_with("", "x"));
}

TEST(Files, PathTests) {
    TempDir dir;
    dir.write("file", "x");
    fs::create_directory(dir / "sub");
    fs::create_symlink(dir / "sub", dir / "to-sub");
    fs::create_symlink(dir / "nowhere", dir / "dangling");
    EXPECT_TRUE(file_exists(dir / "file"));
    EXPECT_FALSE(file_exists(dir / "dangling"));
    EXPECT_TRUE(is_directory(dir / "to-sub"));
    EXPECT_FALSE(is_directory(dir / "file"));
    EXPECT_TRUE(is_symlink(dir / "dangling"));
    EXPECT_FALSE(is_symlink(dir / "sub"));
}

TEST(Files, FirstMissingPath) {
    TempDir dir;
    fs::create_directories(dir / "a");
    EXPECT_EQ(first_missing_path(dir / "a"), "");
    EXPECT_EQ(first_missing_path(dir / "a/b/c"), dir / "a/b");
    EXPECT_EQ(first_missing_path(dir / "a/b/c/"), dir / "a/b");
    const std::string cwd = fs::current_path();
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    EXPECT_EQ(first_missing_path("a/x/y"), dir / "a/x");
    ASSERT_EQ(chdir(cwd.c_str()), 0);
}

TEST(Files, MakeDirectoriesCutsAt255Bytes) {
    TempDir dir;
    std::string path = dir.path();
    while (path.size() < 300) path += "/dddddddd";
    make_directories(path + "/");
    const std::string kept = path.substr(0, 255);
    EXPECT_TRUE(is_directory(kept));
    EXPECT_FALSE(file_exists(path.substr(0, 256 + path.substr(256).find('/'))));
    make_directories("/");  // an empty text after the slash is dropped; nothing happens
    make_directories(dir / "x//y");
    EXPECT_TRUE(is_directory(dir / "x/y"));
}

TEST(Files, ReadFileChunkedKeepsItsQuirks) {
    TempDir dir;
    std::string text = "kept: ";
    ASSERT_TRUE(read_file_chunked(dir.write("cmdline", std::string("first\0second\0", 13)), text));
    EXPECT_EQ(text, "kept: first");

    // A short last chunk carries the tail of the chunk before behind it.
    const std::string content = std::string(1024, 'a') + std::string(10, 'b');
    text.clear();
    ASSERT_TRUE(read_file_chunked(dir.write("long", content), text));
    EXPECT_EQ(text, std::string(1024, 'a') + std::string(10, 'b') + std::string(1014, 'a'));

    text.clear();
    ASSERT_TRUE(read_file_chunked(dir.write("exact", std::string(1024, 'c')), text));
    EXPECT_EQ(text, std::string(1024, 'c'));

    testing::internal::CaptureStdout();
    EXPECT_FALSE(read_file_chunked(dir / "missing", text));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to open " + (dir / "missing") + "\n");
}

TEST(Files, ReadFileAndContains) {
    TempDir dir;
    std::string text = "untouched";
    EXPECT_FALSE(read_file(dir / "missing", text));
    EXPECT_EQ(text, "untouched");
    EXPECT_TRUE(read_file(dir.write("empty", ""), text));
    EXPECT_EQ(text, "");
    const std::string modules = dir.write("modules", "ib_core 1 0 - Live 0x0\nrdma 2 1 vantoria, Live 0x0\n");
    EXPECT_TRUE(file_contains(modules, "vantoria"));  // any line, even as another's user
    EXPECT_FALSE(file_contains(modules, "qv_driver"));
    EXPECT_FALSE(file_contains(dir / "missing", "x"));
    EXPECT_FALSE(file_contains(dir / "empty", ""));
}

TEST(Files, FindInPathSkipsEmptyElementsAndNeedsNoExecuteBit) {
    TempDir dir;
    dir.write("one/tool", "not executable");
    dir.write("two/tool", "second");
    const char* saved = getenv("PATH");
    const std::string old_path = saved ? saved : "";
    setenv("PATH", ("::" + (dir / "none") + ":" + (dir / "one") + ":" + (dir / "two")).c_str(), 1);
    EXPECT_EQ(find_in_path("tool"), dir / "one/tool");
    EXPECT_EQ(find_in_path("absent"), "");
    setenv("PATH", old_path.c_str(), 1);
}

TEST(Files, ResolveFromCallerDir) {
    TempDir dir;
    fs::create_directories(dir / "keys");
    unsetenv("__QX_PWD");
    EXPECT_EQ(resolve_from_caller_dir(""), "");
    EXPECT_EQ(resolve_from_caller_dir("k.key"), "k.key");
    EXPECT_EQ(resolve_from_caller_dir("/abs/k.key"), "/abs/k.key");
    setenv("__QX_PWD", dir.path().c_str(), 1);
    EXPECT_EQ(resolve_from_caller_dir("keys/../keys/k.key"), dir / "keys/k.key");
    EXPECT_EQ(resolve_from_caller_dir("/abs/k.key"), "/abs/k.key");
    unsetenv("__QX_PWD");
}

TEST(Files, GlobPathsSortedOrEmpty) {
    TempDir dir;
    dir.write("q/3.2.1/x", "");
    dir.write("q/1.0/x", "");
    EXPECT_EQ(glob_paths(dir / "q/*"), (std::vector<std::string>{dir / "q/1.0", dir / "q/3.2.1"}));
    EXPECT_EQ(glob_paths(dir / "none/*"), std::vector<std::string>{});
}

TEST(Files, WriteLinesCreatesTheDirectoryAndTruncates) {
    TempDir dir;
    const std::string path = dir / "new/dir/record";
    write_lines({"QUORL /p/", "DKMS 3.2.1 "}, path);
    EXPECT_EQ(slurp(path), "QUORL /p/\nDKMS 3.2.1 \n");
    write_lines({}, path);
    EXPECT_EQ(slurp(path), "");
}

}  // namespace
