#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "record/manifest_entry.hpp"

// The install phase is DriverInstaller::install: firmware into /lib/firmware,
// the modules vGPU depends on, the kernel modules by DKMS or by hand, and the
// user-space tree into driver_prefix (DriverInstaller::install_user_files).
// These are its decisions, apart from the host.

// The scan of the copied firmware as it goes into the record: the system's
// own /lib/firmware (its first DIR entry) is left out unless this run made it.
std::vector<ManifestEntry> firmware_entries_to_record(std::vector<ManifestEntry> scanned, bool created_here);

// Whether the modules are built through DKMS: not disabled, dkms on the PATH,
// not inside Docker, asked in this order and no further than needed.
bool dkms_path_chosen(bool disable_dkms, const std::function<bool()>& dkms_on_path, int32_t environment);

// The scan of the package's "quorl" tree moved to where the copy put it:
// "quorl/x" becomes driver_prefix + "x". The entry of "quorl" itself and
// entries whose new path does not exist (links followed) are dropped.
std::vector<ManifestEntry> rebase_user_entries(std::vector<ManifestEntry> scanned,
                                               const std::string& driver_prefix,
                                               const std::function<bool(const std::string&)>& exists);
