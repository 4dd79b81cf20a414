#include "kmod/firmware_check.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"

namespace fs = std::filesystem;

namespace {

ChipInfo chip(const char* pci_name, uint32_t device_id, uint32_t firmware_raw, uint32_t ident_high = 0,
              int32_t status = 0) {
    ChipInfo info;
    strncpy(info.pci_name, pci_name, sizeof info.pci_name - 1);
    info.device_id = device_id;
    info.firmware_raw = firmware_raw;
    info.ident_high = ident_high;
    info.status = status;
    return info;
}

TEST(FirmwareCheck, RegisterDecoding) {
    struct Case {
        uint32_t firmware;
        const char* text;
        uint32_t identity;
        uint32_t ident_high, ident_low;
    } cases[] = {
        {0x01000009, "1.0.9", 0x00000000, 0, 0},
        {0x01000008, "1.0.8", 0x00000007, 0, 7},
        {0x0201FF03, "2.511.3", 0x02000000, 1, 0},
        {0xFFFFFFFF, "255.65535.255", 0xFFFFFFFF, 31, 7},
        {0x00012300, "0.291.0", 0x3E000005, 31, 5},
        {0x00000000, "0.0.0", 0xC1FFFFF8, 0, 0},  // bits 31..30 and 24..3 are ignored
        {0x01000100, "1.1.0", 0x04000002, 2, 2},
    };
    for (const Case& c : cases) {
        ChipInfo info;
        decode_firmware_register(c.firmware, info);
        decode_identity_register(c.identity, info);
        EXPECT_EQ(info.firmware_raw, c.firmware);
        EXPECT_STREQ(info.firmware_text, c.text);
        EXPECT_EQ(info.ident_high, c.ident_high) << std::hex << c.identity;
        EXPECT_EQ(info.ident_low, c.ident_low) << std::hex << c.identity;
    }
    const FirmwareVersion version = split_firmware_version(0x0A0B0C0D);
    EXPECT_EQ(version.major, 0x0Au);
    EXPECT_EQ(version.minor, 0x0B0Cu);
    EXPECT_EQ(version.patch, 0x0Du);
}

TEST(FirmwareCheck, JudgingTheCards) {
    struct Case {
        const char* story;
        std::vector<ChipInfo> chips;
        bool passes;
    } cases[] = {
        {"no card", {}, true},
        {"one good card", {chip("0000:01:00.0", 2, 0x01000009)}, true},
        {"1.0.8 is too old", {chip("0000:01:00.0", 2, 0x01000008)}, false},
        {"a later minor passes whatever the patch", {chip("0000:01:00.0", 2, 0x01000100)}, true},
        {"0.255.255 is too old", {chip("0000:01:00.0", 2, 0x00FFFFFF)}, false},
        {"one good card among old ones",
         {chip("0000:01:00.0", 2, 0x01000005), chip("0000:02:00.0", 2, 0x01000009)},
         true},
        {"good card first, old one after",
         {chip("0000:01:00.0", 2, 0x01000009), chip("0000:02:00.0", 2, 0x01000001)},
         true},
        {"two old cards", {chip("0000:01:00.0", 2, 0x01000005), chip("0000:02:00.0", 2, 0x01000008)}, false},
        {"ident_high 2 is not judged", {chip("0000:01:00.0", 2, 0x01000001, 2)}, true},
        {"ident_high 1 is judged", {chip("0000:01:00.0", 2, 0x01000001, 1)}, false},
        {"not judged beside an old judged card",
         {chip("0000:01:00.0", 2, 0x02000000, 3), chip("0000:02:00.0", 2, 0x01000001)},
         false},
        {"held by another driver", {chip("0000:01:00.0", 2, 0x01000001, 0, -1)}, true},
        {"another device id", {chip("0000:01:00.0", 3, 0x01000001)}, true},
        {"another device id beside an old TR", {chip("0000:01:00.0", 5, 0), chip("0000:02:00.0", 2, 0)}, false},
    };
    for (const Case& c : cases) EXPECT_EQ(judge_chips(c.chips, "3.2.1"), c.passes) << c.story;
}

TEST(FirmwareCheck, MessagesOfTheJudgement) {
    log_reset_for_tests();
    TempDir dir;
    const std::string log = dir / "installer.log";
    log_init(log.c_str());
    judge_chips({chip("0000:01:00.0", 2, 0x01000005), chip("0000:02:00.0", 2, 0x01000009),
                 chip("0000:03:00.0", 2, 0, 0, -1), chip("0000:04:00.0", 7, 0), chip("0000:05:00.0", 2, 0, 2)},
                "3.2.1");
    log_reset_for_tests();
    EXPECT_EQ(slurp(log),
              "Warning: For 0000:01:00.0 Please upgrade your firmware to be >= 1.0.9 (current: drv: 3.2.1 fw:1.0.5)\n"
              "Debug: For 0000:02:00.0 check firmware passed.\n"
              "Debug: skip for 0000:03:00.0: chip.status -1\n"
              "Debug: skip non-TR 0000:04:00.0 chip check\n");
}

// A device directory as sysfs shows it, with a file standing in for BAR 2.
class FakeDevices : public ::testing::Test {
protected:
    std::string device(const std::string& name, const std::string& vendor, const std::string& device_id) {
        const std::string path = dir / ("devices/" + name);
        if (!vendor.empty()) dir.write("devices/" + name + "/vendor", vendor);
        if (!device_id.empty()) dir.write("devices/" + name + "/device", device_id);
        fs::create_directories(path);
        return path;
    }
    void bind(const std::string& device_path, const std::string& driver) {
        fs::create_directories(dir / ("drivers/" + driver));
        fs::create_symlink(dir / ("drivers/" + driver), device_path + "/driver");
    }
    void registers(const std::string& device_path, uint32_t firmware, uint32_t identity) {
        std::string bar(0x8000, '\0');
        memcpy(&bar[0x78A8], &firmware, 4);
        memcpy(&bar[0x78C0], &identity, 4);
        std::ofstream(device_path + "/resource2", std::ios::binary) << bar;
    }
    TempDir dir;
};

TEST_F(FakeDevices, ListsTheVendorsDevicesThroughTheirLinks) {
    device("real/0000:01:00.0", "0x1f5d\n", "0x0002\n");
    device("real/0000:02:00.0", "0x8086\n", "0x1234\n");
    device("real/0000:03:00.0", "0x1F5D", "0x0003\n");
    device("real/0000:04:00.0", "", "0x0002\n");  // no vendor file
    fs::create_directories(dir / "bus");
    for (const char* name : {"0000:01:00.0", "0000:02:00.0", "0000:03:00.0", "0000:04:00.0"})
        fs::create_symlink(dir / (std::string("devices/real/") + name), dir / (std::string("bus/") + name));
    fs::create_directories(dir / "bus/.hidden");
    std::vector<std::string> found = list_gpu_devices_in(dir / "bus/");
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{dir / "bus/0000:01:00.0", dir / "bus/0000:03:00.0"}));
    EXPECT_TRUE(list_gpu_devices_in(dir / "missing/").empty());
}

TEST_F(FakeDevices, ReadsTheChipOfEachKindOfDevice) {
    const std::string ours = device("0000:01:00.0", "0x1f5d\n", "0x0002\n");
    bind(ours, "vantoria");
    registers(ours, 0x01000009, 0x04000003);
    ChipInfo info;
    ASSERT_EQ(read_chip_info(ours, info), 0);
    EXPECT_STREQ(info.pci_name, "0000:01:00.0");
    EXPECT_STREQ(info.driver_name, "vantoria");
    EXPECT_STREQ(info.firmware_text, "1.0.9");
    EXPECT_EQ(info.firmware_raw, 0x01000009u);
    EXPECT_EQ(info.device_id, 2u);
    EXPECT_EQ(info.ident_high, 2u);
    EXPECT_EQ(info.ident_low, 3u);
    EXPECT_EQ(info.status, 0);

    // The older driver's name counts as ours; no driver at all is read the same way.
    const std::string older = device("0000:02:00.0", "0x1f5d\n", "0x0002\n");
    bind(older, "qv_driver");
    registers(older, 0x01000008, 0);
    ASSERT_EQ(read_chip_info(older, info), 0);
    EXPECT_STREQ(info.driver_name, "qv_driver");
    EXPECT_EQ(info.firmware_raw, 0x01000008u);
    const std::string unbound = device("0000:03:00.0", "0x1f5d\n", "0x0002\n");
    registers(unbound, 0x01000109, 0);
    ASSERT_EQ(read_chip_info(unbound, info), 0);
    EXPECT_STREQ(info.driver_name, "");
    EXPECT_STREQ(info.firmware_text, "1.1.9");

    // Another driver's card is not read: it has no resource2 here, and no failure follows.
    const std::string foreign = device("0000:04:00.0", "0x1f5d\n", "0x0002\n");
    bind(foreign, "vfio-pci");
    ASSERT_EQ(read_chip_info(foreign, info), 0);
    EXPECT_EQ(info.status, -1);
    EXPECT_STREQ(info.driver_name, "vfio-pci");
    EXPECT_EQ(info.firmware_raw, 0u);

    // Another chip line: kept, nothing else read.
    const std::string other_chip = device("0000:05:00.0", "0x1f5d\n", "0x0003\n");
    ASSERT_EQ(read_chip_info(other_chip, info), 0);
    EXPECT_EQ(info.device_id, 3u);
    EXPECT_STREQ(info.pci_name, "0000:05:00.0");

    // Failures: no device file, and our card without its register file.
    EXPECT_EQ(read_chip_info(device("0000:06:00.0", "0x1f5d\n", ""), info), -1);
    EXPECT_STREQ(info.pci_name, "0000:06:00.0");
    const std::string no_bar = device("0000:07:00.0", "0x1f5d\n", "0x0002\n");
    bind(no_bar, "vantoria");
    EXPECT_EQ(read_chip_info(no_bar, info), -1);
}

}  // namespace
