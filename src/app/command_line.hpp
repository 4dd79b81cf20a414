#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "app/constants.hpp"
#include "app/install_options.hpp"

// The command line of the installer family. The options that a kind of tool
// declares write into these fields.
class InstallerCommandLine : public CLI::App {
public:
    InstallerCommandLine();

    // Declares the option set of `kind` ("Driver" for this program). argc and
    // argv are accepted for the other tools of the family and have no effect.
    int add_options(int argc, char** argv, const std::string& kind);

    bool quiet = false;
    bool driver = false;
    bool toolkit = false;
    bool no_symlink = false;
    bool skip_spacecheck = false;
    std::string toolkit_path;
    std::string cuda_path;
    std::string image_name;
    std::string kernel_source_path;
    std::string prefix = "/usr/local/quorl-" + installer_version;
    bool disable_dkms = false;
    bool with_vgpu = false;
    bool without_vgpu = false;
    std::string module_signing_secret_key;
    std::string module_signing_public_key;
};

// Turns the parsed command line into the options record. The key paths are
// copied as typed; resolving them is the caller's business.
InstallOptions make_install_options(const InstallerCommandLine& command_line);
