#include "app/command_line.hpp"

namespace {

const char* bool_word(bool value) { return value ? "true" : "false"; }

}  // namespace

InstallerCommandLine::InstallerCommandLine() : CLI::App("", "") {
    set_help_flag("-h,--help", "Print this help message and exit");
}

int InstallerCommandLine::add_options(int /*argc*/, char** /*argv*/, const std::string& kind) {
    description("Quorl " + kind + " Installation Tool.");
    const bool is_driver = kind == "Driver";

    if (is_driver) {
        // Hidden: an empty group keeps it out of the help.
        add_flag("--qxquiet", quiet, "")->group("");
        add_option("--prefix", prefix, "The Quorl Driver util installation path.");
    } else {
        add_flag("--silent", quiet, "Perform silent installation");
        add_flag("--driver", driver, "Install the Quorl driver.");
    }
    if (kind == "Toolkit") {
        add_flag("--toolkit", toolkit, "Install the Quorl toolkit.");
        add_flag("--no-symlink", no_symlink, "Prevents the /usr/local/quorl symbolic link from being created.");
        add_flag("--skip-spacecheck", skip_spacecheck, "Skip space check for toolkit.");
        add_option("--toolkit-path", toolkit_path, "The Quorl toolkit installation path.");
    }
    if (!is_driver) add_option("--cuda-path", cuda_path, "The Cuda path to refter.");
    if (kind == "Docker") add_option("--image-name", image_name, "Name of Quorl image");

    add_option("--kernel-source-path", kernel_source_path, "The kernel source path.");
    add_flag("--disable-dkms", disable_dkms, "Disable Use of Dkms (default: false)");
    // The defaults are spoken at declaration time, so both texts end in false.
    add_flag("--with-vgpu", with_vgpu,
             std::string("Build driver with VGPU support (default: ") + bool_word(with_vgpu) + ")");
    add_flag("--without-vgpu", without_vgpu,
             std::string("Build driver without VGPU support (default: ") + bool_word(without_vgpu) + ")");
    CLI::Option* secret_key = add_option(
        "--module-signing-secret-key", module_signing_secret_key,
        "Specify a path to a private key to use for signing the kernel module. The corresponding public key must "
        "also be provided.");
    CLI::Option* public_key = add_option(
        "--module-signing-public-key", module_signing_public_key,
        "Specify a path to a public key to use for verifying the signature of the kernel module. The corresponding "
        "private key must also be provided.");
    set_help_flag("-h,--help", "Print this help message and exit\n");

    secret_key->needs(public_key);
    public_key->needs(secret_key);
    return 0;
}

InstallOptions make_install_options(const InstallerCommandLine& command_line) {
    InstallOptions options;
    options.disable_dkms = command_line.disable_dkms;
    // Both flags together cancel out, without a word.
    options.enable_vgpu = command_line.with_vgpu && !command_line.without_vgpu;
    options.kernel_source_path = command_line.kernel_source_path;
    options.prefix = command_line.prefix;
    options.module_signing_secret_key = command_line.module_signing_secret_key;
    options.module_signing_public_key = command_line.module_signing_public_key;
    options.module_signing_hash.clear();
    options.generated_key = false;
    return options;
}
