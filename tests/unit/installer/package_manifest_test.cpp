#include "installer/package_manifest.hpp"

#include <gtest/gtest.h>
#include <stdexcept>

namespace {

TEST(PackageManifest, LinesByTheirPlace) {
    struct Case {
        std::string text, title, version, name, kernel_path;
    } cases[] = {
        {"T\n9.9\nqv_driver\nsrc", "T", "9.9", "qv_driver", "src"},            // no line feed behind the last line
        {"T\n1\nm\nk\nfifth line\n", "T", "1", "m", "k"},                      // later lines are ignored
        {"T\r\n1.0\r\nmod\r\n./k/\r\n", "T\r", "1.0\r", "mod\r", "./k/\r"},    // a carriage return stays
        {"  T \n\n# m\n k\n", "  T ", "", "# m", " k"},                        // no trimming, no comments
    };
    for (const Case& c : cases) {
        const PackageManifest package = parse_package_manifest(c.text);
        EXPECT_EQ(package.title, c.title) << c.text;
        EXPECT_EQ(package.version, c.version) << c.text;
        EXPECT_EQ(package.name, c.name) << c.text;
        EXPECT_EQ(package.kernel_path, c.kernel_path) << c.text;
    }
    // Nothing catches this: the process ends abnormally.
    for (const std::string text : {"", "T\n1\nm\n", "\n\n\n"}) EXPECT_THROW(parse_package_manifest(text), std::out_of_range);
}

}  // namespace
