#include "kmod/firmware_check.hpp"

#include <cstring>
#include <gtest/gtest.h>

#include "../test_support.hpp"
#include "app/log.hpp"

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

}  // namespace
