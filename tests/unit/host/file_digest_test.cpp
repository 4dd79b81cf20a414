#include "host/file_digest.hpp"

#include <gtest/gtest.h>

#include "test_support.hpp"

namespace {

using FileDigest = LoggedTest;

const std::string hello_md5 = "b1946ac92492d2347c6235b4d2611184";  // md5("hello\n")

TEST_F(FileDigest, DigestOfFilesAndFailures) {
    EXPECT_EQ(file_md5(dir.write("with 'blank'", "hello\n")), "");  // the quote breaks the command
    EXPECT_EQ(file_md5(dir / "missing"), "");
    EXPECT_EQ(file_md5(dir.path()), "");
    EXPECT_TRUE(log_text().starts_with("Warning: MD5 for " + dir / "with 'blank'" + " failed: "));
    EXPECT_NE(log_text().find("\nWarning: MD5 for " + dir.path() + " failed: 1 ctx: md5sum: "), std::string::npos);
    EXPECT_EQ(log_text().find("missing"), std::string::npos);  // a missing file is no event
}

TEST_F(FileDigest, CacheKeepsTheFirstAnswerEvenAnEmptyOne) {
    const std::string path = dir.write("changing", "hello\n");
    EXPECT_EQ(cached_file_md5(path), hello_md5);
    dir.write("changing", "changed\n");
    EXPECT_EQ(cached_file_md5(path), hello_md5);
    EXPECT_EQ(cached_file_md5(dir / "later"), "");
    dir.write("later", "hello\n");
    EXPECT_EQ(cached_file_md5(dir / "later"), "");
    EXPECT_EQ(md5_cache.size(), 2u);
}

}  // namespace
