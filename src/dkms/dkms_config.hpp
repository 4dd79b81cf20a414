#pragma once

#include <string>

#include "record/manifest_entry.hpp"

// Where DKMS keeps its trees.
struct DkmsConfig {
    std::string source_tree = "/usr/src";
    std::string dkms_tree = "/var/lib/dkms";
    std::string install_tree = "/lib/modules";
};

// Reads /etc/dkms/framework.conf; every problem falls back to the defaults.
DkmsConfig read_dkms_config();
// Keys are found anywhere in a line that does not begin with "#", the value
// is the rest of the line without double quotes, and the last line wins.
void parse_dkms_config(const std::string& text, DkmsConfig& config);

// Takes every version of the driver that the DKMS tree holds out of DKMS,
// whatever `version` says: 0, -110 without dkms, -116 when a removal failed.
int remove_dkms_modules(const std::string& version);

// The removal handler of a "DKMS" record entry.
int uninstall_dkms_entry(ManifestEntry entry);

// Clears the driver out of Ubuntu's dkms autoinstaller. Nothing in the
// install or removal flow calls it.
void clean_dkms_autoinstaller(const std::string& distribution);
