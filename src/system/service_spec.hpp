#pragma once

#include <cstdint>
#include <string>

#include "app/constants.hpp"

// The exit code of `systemctl status` that a service may ask for, with the bit
// pattern 0x80 set aside for a service whose state is not looked at after its
// restart.
inline constexpr int8_t service_status_not_looked_at = -128;

// One service to install. Declared byte-packed, with its three small numbers
// in bit-fields: a service installed as it stands here reads 0x203 across
// them (file_count 3 from the low bit, expected_status 0x80, expected_pid_status 0).
#pragma pack(push, 1)
struct ServiceSpec {
    std::string name;           // the unit name handed to systemctl
    const ServiceFile* files;   // the first of file_count files of a constant list, not owned
    uint32_t file_count : 2;
    int32_t expected_status : 8;      // wanted exit code of `systemctl status`
    int32_t expected_pid_status : 8;  // wanted exit status of the service's main process
};
#pragma pack(pop)
