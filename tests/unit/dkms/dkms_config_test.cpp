#include "dkms/dkms_config.hpp"

#include <gtest/gtest.h>

namespace {

TEST(DkmsConfig, FrameworkFileParsing) {
    struct Case {
        std::string text;
        std::string source_tree, dkms_tree, install_tree;
    } cases[] = {
        {"", "/usr/src", "/var/lib/dkms", "/lib/modules"},
        {"dkms_tree=\"/opt/dkms\"\n", "/usr/src", "/opt/dkms", "/lib/modules"},
        {"#dkms_tree=/commented\n", "/usr/src", "/var/lib/dkms", "/lib/modules"},
        // Only a "#" in the first column comments a line out.
        {" #dkms_tree=/blank-first\n", "/usr/src", "/blank-first", "/lib/modules"},
        {"my_source_tree=/longer/name\n", "/longer/name", "/var/lib/dkms", "/lib/modules"},
        {"dkms_tree=/a\ndkms_tree=/b\n", "/usr/src", "/b", "/lib/modules"},
        {"install_tree=/lib/modules/x \n", "/usr/src", "/var/lib/dkms", "/lib/modules/x "},
        {"source_tree=$HOME/src\n", "$HOME/src", "/var/lib/dkms", "/lib/modules"},
        // One key per line, tried in this order.
        {"dkms_tree=/d source_tree=/s\n", "/usr/src", "/d source_tree=/s", "/lib/modules"},
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
