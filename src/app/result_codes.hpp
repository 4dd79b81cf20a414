#pragma once

// Result codes are the contract with the administrator: the step that fails
// returns its code, every caller passes it up unchanged, and its low byte
// becomes the exit status.
namespace code {
inline constexpr int success = 0;
inline constexpr int general_failure = 5;
// No openssl to generate keys, the DKMS source copy failed, or a service's file is missing.
inline constexpr int missing_file_or_tool = 8;
inline constexpr int target_unusable = 11;
inline constexpr int compiler_check_failed = 31;
inline constexpr int kernel_source_unusable = 32;
inline constexpr int tool_missing = 33;
inline constexpr int build_failed = 34;
// The module copy into the kernel's tree, or the service's status check.
inline constexpr int copy_or_check_failed = 35;
inline constexpr int firmware_copy_failed = 36;
inline constexpr int package_version_missing = 37;
inline constexpr int not_running_kernel = 38;
inline constexpr int user_files_copy_failed = 39;
inline constexpr int module_busy = 43;
inline constexpr int dkms_add_failed = 45;
inline constexpr int load_failed = 49;
inline constexpr int load_key_rejected = 50;
inline constexpr int modprobe_failed = 51;
inline constexpr int dkms_install_failed = 52;
inline constexpr int depmod_failed = 53;
inline constexpr int no_suitable_firmware = 54;
}  // namespace code

// What a removal handler returns. The walk goes on after 0 and 12 and stops
// at anything else; the low byte of a stop (140 to 147) becomes the code.
namespace removal {
inline constexpr int done = 0;
inline constexpr int skipped_in_container = 12;
inline constexpr int dkms_in_container = -109;
inline constexpr int dkms_missing = -110;
inline constexpr int service_not_removed = -111;
inline constexpr int rlink_not_removed = -112;
inline constexpr int symlink_not_removed = -113;
inline constexpr int file_not_removed = -115;
inline constexpr int dkms_removal_failed = -116;
// An entry whose type word has no handler.
inline constexpr int no_handler = 5;
}  // namespace removal
