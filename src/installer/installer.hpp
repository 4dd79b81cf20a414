#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/install_options.hpp"
#include "installer/package_manifest.hpp"
#include "record/manifest_entry.hpp"

// The three phases of an installation, run in this order by main.
class Installer {
public:
    virtual int prepare() = 0;
    virtual int install() = 0;
    virtual int post_install() = 0;
};

// The one installer of this program. Its object is the whole memory of a run:
// what one phase learns, a later phase reads from these fields.
class DriverInstaller final : public Installer {
public:
    explicit DriverInstaller(const InstallOptions& options);

    int prepare() override;
    int install() override;
    int post_install() override;

    int write_install_record();

    // Kernel tree.
    int fetch_kernel_version();
    int32_t check_configuration_option(const std::string& option);
    bool query_signing_hash(std::string& hash);

    // Signing and the plain build.
    int sign_module_file(const std::string& module_path);
    int save_generated_keys();
    int build_install_module(const std::string& module_name, const std::string& source_dir, bool skip_load);
    int build_and_install_modules();

    // Loading and the cards.
    bool fetch_module_version(const std::string& path);
    bool check_firmware();
    std::string get_driver_version() const { return driver_version; }

    // The last step of the install phase: the user-space tree and its lib link.
    int install_user_files();

    std::string host_arch;
    std::string os_id;
    InstallOptions options;
    PackageManifest package;
    int32_t environment = 0;  // 1 on a host, 2 inside Docker
    std::string driver_prefix;
    std::string driver_version;
    std::string module_params;
    std::vector<ManifestEntry> created_dir_entries;

private:
    std::string given_prefix;  // options.prefix as it came, before the slash was added
};

// The versioned directory of the installation for a given prefix (which ends in "/").
std::string derive_driver_prefix(const std::string& given_prefix, const std::string& prefix_with_slash);
