// The cards' registers and sysfs facts, as the firmware check judges them:
// up to eight cards, each with its device id, the state of its driver, the
// identity and firmware version registers and its names. Nothing may end the
// process.
#include <algorithm>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_support.hpp"
#include "kmod/firmware_check.hpp"

namespace {

// Filled the way the record keeps its texts: bounded, unterminated when full.
void copy_bounded(char* field, size_t size, const std::string& text) {
    memcpy(field, text.data(), std::min(size, text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string driver_version = input.ConsumeRandomLengthString(64);
    std::vector<ChipInfo> chips(input.ConsumeIntegralInRange<size_t>(0, 8));
    for (ChipInfo& chip : chips) {
        chip.device_id = input.ConsumeBool() ? 2 : input.ConsumeIntegral<uint32_t>();
        chip.status = input.ConsumeBool() ? 0 : input.ConsumeIntegral<int32_t>();
        decode_identity_register(input.ConsumeIntegral<uint32_t>(), chip);
        decode_firmware_register(input.ConsumeIntegral<uint32_t>(), chip);
        copy_bounded(chip.pci_name, sizeof chip.pci_name, input.ConsumeRandomLengthString(40));
        copy_bounded(chip.driver_name, sizeof chip.driver_name, input.ConsumeRandomLengthString(24));
    }
    const bool passed = judge_chips(chips, driver_version);
    // A host passes unless a card was judged and none of the judged had firmware above 1.0.8.
    bool judged = false;
    bool good = false;
    for (const ChipInfo& chip : chips) {
        if (chip.status != 0 || chip.device_id != 2 || chip.ident_high >= 2) continue;
        judged = true;
        good = good || chip.firmware_raw > 0x01000008;
    }
    FUZZ_CHECK(passed == (!judged || good));
    return 0;
}
