#include "preview/systemctl_stand_in.hpp"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;

TEST(SystemctlStandIn, CallsAreRecordedAsShellWords) {
    struct Case {
        Words args;
        std::string line;
    } cases[] = {
        {{"enable", "vantoriaquorl-init@vantoria,vnt_peer_mem_drv"}, "systemctl enable vantoriaquorl-init@vantoria,vnt_peer_mem_drv"},
        {{"stop", "system-vantoriaquorl\\x2dinit.slice"}, "systemctl stop 'system-vantoriaquorl\\x2dinit.slice'"},
        {{"stop", "with blank", "it's", ""}, "systemctl stop 'with blank' 'it'\\''s' ''"},
        {{}, "systemctl"},
    };
    for (const auto& c : cases) EXPECT_EQ(preview::call_line("systemctl", c.args), c.line);
}

TEST(SystemctlStandIn, UnitsAndTheFilesThatDefineThem) {
    struct Case {
        std::string unit, name, file;
    } cases[] = {
        {"vantoriaquorl-init@vantoria", "vantoriaquorl-init@vantoria.service", "vantoriaquorl-init@.service"},
        {"vantoriaquorl-init@vantoria,vnt_peer_mem_drv", "vantoriaquorl-init@vantoria,vnt_peer_mem_drv.service",
         "vantoriaquorl-init@.service"},
        {"system-vantoriaquorl\\x2dinit.slice", "system-vantoriaquorl\\x2dinit.slice", "system-vantoriaquorl\\x2dinit.slice"},
        {"a@b.timer", "a@b.timer", "a@.timer"},
        {"plain", "plain.service", "plain.service"},
        {"name.with.dots", "name.with.dots.service", "name.with.dots.service"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(preview::unit_name(c.unit), c.name) << c.unit;
        EXPECT_EQ(preview::unit_file_name(c.unit), c.file) << c.unit;
    }
    EXPECT_EQ(preview::wanted_by("[Unit]\nDescription=WantedBy=x\n[Install]\nWantedBy=multi-user.target graphical.target\n"
                                 "WantedBy=default.target\nRequiredBy=other.target\n"),
              (Words{"multi-user.target", "graphical.target", "default.target"}));
}

}  // namespace
