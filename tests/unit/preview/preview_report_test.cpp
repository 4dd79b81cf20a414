#include "preview/preview_report.hpp"

#include <gtest/gtest.h>

namespace {

preview::Report sample(int status) {
    preview::Report r;
    r.status = status;
    r.console = "No card with suitable firmware found. Driver's install might wrong\n\nQuorl Driver installation failed. error code:54\n";
    preview::add_differences(r, {{'C', "/etc/a"}, {'M', "/etc/b"}, {'C', "/etc/c"}, {'D', "/etc/d"}});
    r.modules_loaded = {"vantoria"};
    r.systemctl = {"systemctl enable vantoriaquorl-init@vantoria"};
    r.log = std::string("make: \xff\xfe bytes\n");
    return r;
}

TEST(PreviewReport, TextTellsTheOutcomeAndEveryList) {
    EXPECT_EQ(preview::report_text(sample(54)),
              "\n== Preview of the installation on this machine\n"
              "Status 54: the installation would fail. The installer said:\n"
              "    No card with suitable firmware found. Driver's install might wrong\n"
              "    Quorl Driver installation failed. error code:54\n"
              "It would create (2):\n    /etc/a\n    /etc/c\n"
              "It would change (1):\n    /etc/b\n"
              "It would delete (1):\n    /etc/d\n"
              "Kernel modules it would unload, in order: none\n"
              "Kernel modules it would load, in order (1):\n    vantoria\n"
              "systemctl calls, in order (1):\n    systemctl enable vantoriaquorl-init@vantoria\n"
              "Not decided by the preview:\n"
              "    - the kernel was not asked to accept the modules: signature enforcement and Secure Boot\n"
              "      were judged by the installer's own logic only\n"
              "    - services were not started\n");
    // What --keep adds to the text is the preview scenarios' to pin.
    EXPECT_NE(preview::report_text(sample(0)).find("\nStatus 0: the installation would succeed.\nIt would create (2):\n"),
              std::string::npos);
}

TEST(PreviewReport, JsonIsOneObjectWithTheListsInOrder) {
    EXPECT_EQ(preview::report_json(sample(54)),
              "{\n  \"status\": 54,\n  \"created\": [\n    \"/etc/a\",\n    \"/etc/c\"\n  ],\n"
              "  \"changed\": [\n    \"/etc/b\"\n  ],\n  \"deleted\": [\n    \"/etc/d\"\n  ],\n"
              "  \"modules_unloaded\": [],\n  \"modules_loaded\": [\n    \"vantoria\"\n  ],\n"
              "  \"systemctl\": [\n    \"systemctl enable vantoriaquorl-init@vantoria\"\n  ],\n"
              "  \"log\": \"make: \xef\xbf\xbd\xef\xbf\xbd bytes\\n\"\n}\n");
}

}  // namespace
