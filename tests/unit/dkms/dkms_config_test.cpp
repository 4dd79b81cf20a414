#include "dkms/dkms_config.hpp"

#include <gtest/gtest.h>

namespace {

TEST(DkmsConfig, FrameworkFileParsing) {
    struct Case {
        std::string text, source_tree, dkms_tree, install_tree;
    } cases[] = {
        {" #dkms_tree=/blank-first\n", "/usr/src", "/blank-first", "/lib/modules"},  // only column one comments
        {"my_source_tree=/longer/name\n", "/longer/name", "/var/lib/dkms", "/lib/modules"},
        {"dkms_tree=/a\ndkms_tree=/b\n", "/usr/src", "/b", "/lib/modules"},
        {"install_tree=/lib/modules/x \n", "/usr/src", "/var/lib/dkms", "/lib/modules/x "},
        {"dkms_tree=/d source_tree=/s\n", "/usr/src", "/d source_tree=/s", "/lib/modules"},  // one key per line
    };
    for (const Case& c : cases) {
        DkmsConfig config;
        parse_dkms_config(c.text, config);
        EXPECT_EQ(config.source_tree, c.source_tree) << c.text;
        EXPECT_EQ(config.dkms_tree, c.dkms_tree) << c.text;
        EXPECT_EQ(config.install_tree, c.install_tree) << c.text;
    }
}

}  // namespace
