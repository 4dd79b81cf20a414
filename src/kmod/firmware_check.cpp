#include "kmod/firmware_check.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/log.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

namespace {

constexpr uint32_t vendor_id = 0x1F5D;
constexpr uint32_t tr_device_id = 0x0002;
// Firmware above this raw value, 1.0.8, passes: version 1.0.9 and later.
constexpr uint32_t lowest_failing_firmware = 0x01000008;

// Byte offsets of the registers in the card's BAR 2, as resource2 maps it.
constexpr size_t firmware_version_offset = 0x78A8;
constexpr size_t identity_offset = 0x78C0;

// Reads the first bytes of a small sysfs attribute such as "0x1f5d\n" and
// parses them as hexadecimal; false when the file cannot be read.
bool read_hex_attribute(const std::string& path, uint32_t& value) {
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) return false;
    char buffer[32] = {};
    size_t count = fread(buffer, 1, 6, file);
    (void)count;
    fclose(file);
    return sscanf(buffer, "%x", &value) == 1;
}

std::string last_component(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Fills a zeroed field the way the record keeps its texts: at most the
// field's size, with no terminator when the text is that long or longer.
void copy_bounded(char* field, size_t size, const std::string& text) {
    memcpy(field, text.data(), std::min(size, text.size()));
}

// A bounded field as a text, whether or not it is terminated.
std::string field_text(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

uint32_t read_register(const void* base, size_t offset) {
    return *reinterpret_cast<const volatile uint32_t*>(static_cast<const char*>(base) + offset);
}

}  // namespace

std::vector<std::string> list_gpu_devices() {
    const std::string devices_dir = "/sys/bus/pci/devices/";
    std::vector<std::string> devices;
    DIR* dir = opendir(devices_dir.c_str());
    if (dir == nullptr) return devices;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        // The entries are links into the device tree: no type test, only the vendor file decides.
        const std::string device_path = devices_dir + entry->d_name;
        uint32_t vendor = 0;
        if (read_hex_attribute(device_path + "/vendor", vendor) && vendor == vendor_id) devices.push_back(device_path);
    }
    closedir(dir);
    return devices;
}

void decode_identity_register(uint32_t value, ChipInfo& chip) {
    chip.ident_low = value & 0x7;
    chip.ident_high = (value >> 25) & 0x1f;
}

FirmwareVersion split_firmware_version(uint32_t raw) { return {raw >> 24, (raw >> 8) & 0xffff, raw & 0xff}; }

void decode_firmware_register(uint32_t value, ChipInfo& chip) {
    chip.firmware_raw = value;
    const FirmwareVersion version = split_firmware_version(value);
    char text[32] = {};
    snprintf(text, sizeof text, "%d.%d.%d", version.major, version.minor, version.patch);
    copy_bounded(chip.firmware_text, sizeof chip.firmware_text, text);
}

int32_t read_chip_info(const std::string& device_path, ChipInfo& chip) {
    chip = ChipInfo{};
    copy_bounded(chip.pci_name, sizeof chip.pci_name, last_component(device_path));

    const std::string device_file = device_path + "/device";
    if (!file_exists(device_file)) return -1;
    FILE* file = fopen(device_file.c_str(), "r");
    if (file == nullptr) return -1;
    char buffer[32] = {};
    size_t count = fread(buffer, 1, 6, file);
    (void)count;
    fclose(file);
    sscanf(buffer, "%x", &chip.device_id);
    // Other chips of the vendor are not ours to judge: their registers stay untouched.
    if (chip.device_id != tr_device_id) return 0;

    const std::string driver_link = device_path + "/driver";
    if (file_exists(driver_link)) {
        char target[1024] = {};
        ssize_t length = readlink(driver_link.c_str(), target, sizeof target - 1);
        (void)length;
        const std::string driver = last_component(target);
        copy_bounded(chip.driver_name, sizeof chip.driver_name, driver);
        // "qv_driver" is the older name of our driver; a card bound to anything
        // else must not be read behind its driver's back.
        if (driver != "vantoria" && driver != "qv_driver") {
            log_message(0, "%s is hold by %s skip check then\n", device_path.c_str(), driver.c_str());
            chip.status = -1;
            return 0;
        }
    }

    const std::string resource = device_path + "/resource2";
    int fd = open(resource.c_str(), O_RDONLY);
    if (fd < 0) {
        log_message(3, "open reg for %s failed. %s\n", device_path.c_str(), strerror(errno));
        return -1;
    }
    struct stat st{};
    fstat(fd, &st);
    const uint32_t size = static_cast<uint32_t>(st.st_size);
    // Read-only and shared: the registers are looked at, never written.
    void* registers = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (registers == MAP_FAILED) {
        log_message(4, "Map device register failed. %s", strerror(errno));
        close(fd);
        return -1;
    }
    decode_identity_register(read_register(registers, identity_offset), chip);
    decode_firmware_register(read_register(registers, firmware_version_offset), chip);
    munmap(registers, size);
    log_message(2, "%s:%s %x %x %x %x %s %s\n", device_path.c_str(),
                field_text(chip.firmware_text, sizeof chip.firmware_text).c_str(), chip.firmware_raw, chip.device_id,
                chip.ident_low, chip.ident_high, field_text(chip.pci_name, sizeof chip.pci_name).c_str(),
                field_text(chip.driver_name, sizeof chip.driver_name).c_str());
    close(fd);
    return 0;
}

bool judge_chips(const std::vector<ChipInfo>& chips, const std::string& driver_version) {
    bool checked = false;
    bool passed = false;
    for (const ChipInfo& chip : chips) {
        const std::string pci_name = field_text(chip.pci_name, sizeof chip.pci_name);
        if (chip.status != 0) {
            log_message(0, "skip for %s: chip.status %d\n", pci_name.c_str(), chip.status);
            continue;
        }
        if (chip.device_id != tr_device_id) {
            log_message(0, "skip non-TR %s chip check\n", pci_name.c_str());
            continue;
        }
        // Chips of a later identity are not judged by this rule.
        if (chip.ident_high >= 2) continue;
        if (chip.firmware_raw > lowest_failing_firmware) {
            log_message(0, "For %s check firmware passed.\n", pci_name.c_str());
            checked = true;
            passed = true;
        } else {
            const FirmwareVersion current = split_firmware_version(chip.firmware_raw);
            log_message(3, "For %s Please upgrade your firmware to be >= %d.%d.%d (current: drv: %s fw:%d.%d.%d)\n",
                        pci_name.c_str(), 1, 0, 9, driver_version.c_str(), current.major, current.minor,
                        current.patch);
            checked = true;
        }
    }
    // One good card is enough; a host where nothing was judged passes too.
    return checked ? passed : true;
}

bool DriverInstaller::check_firmware() {
    const std::vector<std::string> devices = list_gpu_devices();
    if (devices.empty()) {
        log_message(3, "No Vantoria Quorl GPU found.\n");
        return true;
    }
    std::vector<ChipInfo> chips;
    for (const std::string& device : devices) {
        ChipInfo chip;
        const int32_t result = read_chip_info(device, chip);
        if ((result & 0xff) != 0) {
            log_message(3, "get info for %s failed. %d\n", device.c_str(), result & 0xff);
            continue;
        }
        log_message(0, "get info for %s succeed\n", device.c_str());
        chips.push_back(chip);
    }
    if (chips.empty()) return true;
    return judge_chips(chips, get_driver_version());
}
