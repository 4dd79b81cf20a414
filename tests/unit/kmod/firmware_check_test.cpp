#include "kmod/firmware_check.hpp"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

ChipInfo chip(const char* pci_name, uint32_t device_id, uint32_t firmware_raw, uint32_t ident_high = 0, int32_t status = 0) {
    ChipInfo info;
    strncpy(info.pci_name, pci_name, sizeof info.pci_name - 1);
    info.device_id = device_id;
    info.firmware_raw = firmware_raw;
    info.ident_high = ident_high;
    info.status = status;
    return info;
}

TEST(FirmwareCheck, OneGoodCardIsEnoughAndOnlyOurChipsAreJudged) {
    struct Case {
        const char* story;
        std::vector<ChipInfo> chips;
        bool passes;
    } cases[] = {
        {"a later minor passes whatever the patch", {chip("01", 2, 0x01000100)}, true},
        {"one good card beside an old one", {chip("01", 2, 0x01000009), chip("02", 2, 0x01000008)}, true},
        {"ident_high 1 is judged", {chip("01", 2, 0x01000001, 1)}, false},
        {"ident_high 2 is not, beside a judged old card", {chip("01", 2, 0x02000000, 3), chip("02", 2, 0x01000001)}, false},
        {"held by another driver", {chip("01", 2, 0x01000001, 0, -1)}, true},
        {"another device id beside an old TR", {chip("01", 5, 0), chip("02", 2, 0)}, false},
    };
    for (const Case& c : cases) EXPECT_EQ(judge_chips(c.chips, "3.2.1"), c.passes) << c.story;
}

// A card's sysfs directory as the kernel shows it: the device id, the link
// to its driver, and the BAR that resource2 maps.
class ChipInfoTest : public LoggedTest {
protected:
    std::string device(const char* name, const std::string& device_id, const std::string& driver, size_t bar_size,
                       uint32_t firmware = 0x01000008, uint32_t identity = 3u << 25 | 5) {
        const std::string path = dir / name;
        dir.write(std::string(name) + "/device", device_id);
        if (!driver.empty()) {
            fs::create_directories(dir / ("drivers/" + driver));
            fs::create_symlink(dir / ("drivers/" + driver), path + "/driver");
        }
        std::string bar(bar_size, '\0');
        if (bar_size > 0x78C4) {
            std::memcpy(bar.data() + 0x78A8, &firmware, 4);
            std::memcpy(bar.data() + 0x78C0, &identity, 4);
        }
        dir.write(std::string(name) + "/resource2", bar);
        return path;
    }
};

TEST_F(ChipInfoTest, RegistersAreReadOnlyBehindOurOwnDriver) {
    struct Case {
        std::string path;
        int32_t result, status;
        uint32_t firmware, ident_high;
        std::string driver, log;
    } cases[] = {
        {device("0000:02:00.0", "0x0002\n", "qv_driver", 0x8000, 0x01000009), 0, 0, 0x01000009, 3, "qv_driver",
         dir / "0000:02:00.0" + ":1.0.9 1000009 2 5 3 0000:02:00.0 qv_driver\n"},
        {device("0000:03:00.0", "0x0002\n", "", 0x8000), 0, 0, 0x01000008, 3, "",
         dir / "0000:03:00.0" + ":1.0.8 1000008 2 5 3 0000:03:00.0 \n"},
        {device("0000:04:00.0", "0x0002\n", "vfio-pci", 0x8000), 0, -1, 0, 0, "vfio-pci",
         "Debug: " + dir / "0000:04:00.0" + " is hold by vfio-pci skip check then\n"},
        {device("0000:05:00.0", "0x0003\n", "vantoria", 0x8000), 0, 0, 0, 0, "", ""},
        // An empty BAR cannot be mapped.
        {device("0000:06:00.0", "0x0002\n", "vantoria", 0), -1, 0, 0, 0, "vantoria",
         "Error: Map device register failed. Invalid argument"},
        {dir / "0000:07:00.0", -1, 0, 0, 0, "", ""},
        // The registers' extremes; bits 31..30 and 24..3 of the identity are ignored.
        {device("0000:08:00.0", "0x0002\n", "vantoria", 0x8000, 0x0201FF03, 0x02000000), 0, 0, 0x0201FF03, 1, "vantoria",
         dir / "0000:08:00.0" + ":2.511.3 201ff03 2 0 1 0000:08:00.0 vantoria\n"},
        {device("0000:09:00.0", "0x0002\n", "vantoria", 0x8000, 0xFFFFFFFF, 0xFFFFFFFF), 0, 0, 0xFFFFFFFF, 31, "vantoria",
         dir / "0000:09:00.0" + ":255.65535.255 ffffffff 2 7 1f 0000:09:00.0 vantoria\n"},
        {device("0000:0a:00.0", "0x0002\n", "vantoria", 0x8000, 0, 0xC1FFFFF8), 0, 0, 0, 0, "vantoria",
         dir / "0000:0a:00.0" + ":0.0.0 0 2 0 0 0000:0a:00.0 vantoria\n"},
    };
    for (const Case& c : cases) {
        ChipInfo info = chip("stale", 9, 9, 9, 9);
        const size_t before = log_text().size();
        EXPECT_EQ(read_chip_info(c.path, info), c.result) << c.path;
        EXPECT_EQ(info.status, c.status) << c.path;
        EXPECT_EQ(info.firmware_raw, c.firmware) << c.path;
        EXPECT_EQ(info.ident_high, c.ident_high) << c.path;
        EXPECT_EQ(std::string(info.driver_name, strnlen(info.driver_name, sizeof info.driver_name)), c.driver) << c.path;
        EXPECT_EQ(std::string(info.pci_name), fs::path(c.path).filename().string());
        EXPECT_EQ(log_text().substr(before), c.log) << c.path;
    }
}

TEST_F(LoggedTest, TheCardsPassedOverAreLogged) {
    judge_chips({chip("0000:03:00.0", 2, 0, 0, -1), chip("0000:04:00.0", 7, 0), chip("0000:05:00.0", 2, 0, 2)}, "3.2.1");
    EXPECT_EQ(log_text(), "Debug: skip for 0000:03:00.0: chip.status -1\nDebug: skip non-TR 0000:04:00.0 chip check\n");
}

}  // namespace
