#include "host/file_digest.hpp"

#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "record/run_state.hpp"

namespace {

using FileDigestTest = LoggedTest;

TEST_F(FileDigestTest, DigestOfFilesAndFailures) {
    // md5("hello\n")
    EXPECT_EQ(file_md5(dir.write("hello", "hello\n")), "b1946ac92492d2347c6235b4d2611184");
    EXPECT_EQ(file_md5(dir.write("with blank", "")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(file_md5(dir / "missing"), "");
    EXPECT_EQ(slurp(log_path), "");  // a missing file is no event

    EXPECT_EQ(file_md5(dir.path()), "");
    const std::string log = slurp(log_path);
    EXPECT_EQ(log.rfind("Warning: MD5 for " + dir.path() + " failed: 1 ctx: md5sum: ", 0), 0u) << log;
}

TEST_F(FileDigestTest, CacheKeepsTheFirstAnswer) {
    const std::string path = dir.write("changing", "hello\n");
    EXPECT_EQ(cached_file_md5(path), "b1946ac92492d2347c6235b4d2611184");
    dir.write("changing", "changed\n");
    EXPECT_EQ(cached_file_md5(path), "b1946ac92492d2347c6235b4d2611184");
    EXPECT_NE(file_md5(path), "b1946ac92492d2347c6235b4d2611184");

    // An empty answer is stored as well.
    const std::string later = dir / "later";
    EXPECT_EQ(cached_file_md5(later), "");
    dir.write("later", "hello\n");
    EXPECT_EQ(cached_file_md5(later), "");
    EXPECT_EQ(md5_cache.size(), 2u);
}

}  // namespace
