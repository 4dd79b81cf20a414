#include "status/file_digests.hpp"

#include <gtest/gtest.h>

#include "test_support.hpp"
#include "host/file_digest.hpp"

namespace {

using Outcome = FileDigest::Outcome;

TEST(StatusFileDigests, DigestsAsMd5sumPrintsThem) {
    TempDir dir;
    std::filesystem::create_symlink(dir / "gone", dir / "dangling");
    const std::vector<std::string> paths = {dir.write("installed", "installed\n"), dir.write("empty", ""),
                                            dir.write("large", std::string(300 * 1024, 'q')), dir / "missing",
                                            dir.path(), dir / "dangling", dir / "installed/below"};
    const std::vector<FileDigest> expected = {{Outcome::read, "d1357b6d77e6561ac5af85c36c77b46e"},
                                              {Outcome::read, "d41d8cd98f00b204e9800998ecf8427e"},
                                              {Outcome::read, "0cdcd15556079ae91254068d3f49c22f"},
                                              {Outcome::missing, ""},
                                              {Outcome::not_a_file, ""},
                                              {Outcome::missing, ""},
                                              {Outcome::missing, ""}};
    EXPECT_EQ(digest_files(paths, 1), expected);
}

// Many files, shared among three threads, each digest in its file's place.
TEST(StatusFileDigests, EachDigestInItsPlace) {
    TempDir dir;
    std::vector<std::string> paths;
    for (int i = 0; i < 100; ++i) paths.push_back(dir.write(std::to_string(i), std::string(i * 97, 'a' + i % 26)));
    const std::vector<FileDigest> digests = digest_files(paths, 3);
    ASSERT_EQ(digests.size(), paths.size());
    for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(digests[i].md5, file_md5(paths[i])) << paths[i];
}

}  // namespace
