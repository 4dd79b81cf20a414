#include "system/service_removal.hpp"

#include <gtest/gtest.h>

namespace {

TEST(ServiceRemoval, UnitFileAndSliceOfAName) {
    struct Case {
        std::string name, unit_file, slice;
    } cases[] = {
        {"a@b@c", "/lib/systemd/system/a@.service", "system/a.slice"},  // up to the first "@"
        {"hung_detector", "/lib/systemd/system/hung_detector.service", "system/hung_detector.slice"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(service_unit_file(c.name), c.unit_file) << c.name;
        EXPECT_EQ(service_slice(c.name), c.slice) << c.name;
    }
}

}  // namespace
