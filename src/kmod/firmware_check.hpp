#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What the installer learns about one card of the vendor. Text fields are
// bounded copies: a text as long as its field is not terminated.
struct ChipInfo {
    uint32_t ident_high = 0;    // bits 29..25 of the identity register
    uint32_t ident_low = 0;     // bits 2..0 of the identity register
    uint32_t firmware_raw = 0;  // the firmware version register as read
    uint32_t device_id = 0;     // from the sysfs file "device"
    char firmware_text[16] = {};
    char driver_name[16] = {};  // last component of the device's "driver" link
    char pci_name[32] = {};     // last component of the device's sysfs path
    int32_t status = 0;         // -1 when another driver holds the device
};

// The sysfs directories of the vendor's PCI devices, in directory order.
std::vector<std::string> list_gpu_devices();

// Fills `chip` from the device's sysfs directory and, for a TR chip held by
// our driver, from its registers: 0 when `chip` may be looked at, -1 on failure.
int32_t read_chip_info(const std::string& device_path, ChipInfo& chip);

// The two registers in their hardware format.
void decode_identity_register(uint32_t value, ChipInfo& chip);
void decode_firmware_register(uint32_t value, ChipInfo& chip);

struct FirmwareVersion {
    uint32_t major;  // bits 31..24
    uint32_t minor;  // bits 23..8
    uint32_t patch;  // bits 7..0
};
FirmwareVersion split_firmware_version(uint32_t raw);

// Whether the driver can go on with these cards: true unless at least one TR
// chip held by our driver was judged and none of them has firmware above
// 1.0.8. `driver_version` only goes into the upgrade message.
bool judge_chips(const std::vector<ChipInfo>& chips, const std::string& driver_version);
