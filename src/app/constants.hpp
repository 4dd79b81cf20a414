#pragma once

#include <string>
#include <vector>

// Values fixed for the whole process, alive before main starts.

inline const std::string installer_version = "3.2.1";
inline const std::string package_manifest_name = ".manifest";
inline const char* const log_file_path = "/var/log/vantoriaquorl/driver_installer.log";
inline const char* const install_record_path = "/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests";

struct ModuleParameter {
    std::string text;
    bool enabled;
};

// Parameters handed to the driver module when it is loaded; a row counts only
// when it is enabled.
inline const std::vector<ModuleParameter> module_parameters = {
    {"vgpu_enable=1", false},
};

// One file of a service: a source relative to the package directory, and a
// destination directory, relative to the driver prefix unless it begins with "/".
struct ServiceFile {
    std::string source;
    std::string destination;
};

inline const std::vector<ServiceFile> packaged_service_files = {
    {"./conf/vantoriaquorl-init@.service", "/lib/systemd/system"},
    {"./bin/pci_timeout.sh", "bin"},
    {"./bin/vantoriaquorl.sh", "bin"},
};

// The uninstaller's log, beside the installer's.
inline const char* const uninstaller_log_path = "/var/log/vantoriaquorl/driver_uninstaller.log";
