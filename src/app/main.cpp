#include <sys/stat.h>
#include <unistd.h>

#include "app/command_line.hpp"
#include "app/constants.hpp"
#include "app/install_options.hpp"
#include "app/log.hpp"
#include "host/environment_probes.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

int main(int argc, char** argv) {
    // The log is not open yet: the refusal reaches standard error only and
    // leaves no file behind.
    if (getuid() != 0) {
        log_message(1, "Permission denied.\n");
        return -1;
    }
    umask(022);
    log_init(log_file_path);
    select_utf8_locale();

    auto* command_line = new InstallerCommandLine();
    command_line->add_options(argc, argv, "Driver");
    try {
        command_line->parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help ends here as well, before any look at the host.
        return command_line->exit(error, std::cout, std::cerr);
    }
    if (command_line->quiet) log_set_quiet();

    auto* options = new InstallOptions(make_install_options(*command_line));
    if (!options->module_signing_public_key.empty())
        options->module_signing_public_key = resolve_from_caller_dir(options->module_signing_public_key);
    if (!options->module_signing_secret_key.empty())
        options->module_signing_secret_key = resolve_from_caller_dir(options->module_signing_secret_key);

    auto* installer = new DriverInstaller(InstallOptions(*options));

    // Only the low byte of a phase's result counts; the first non-zero one ends the chain.
    int result = installer->prepare() & 0xff;
    if (result == 0) result = installer->install() & 0xff;
    if (result == 0) result = installer->post_install() & 0xff;

    // A failed run still leaves a record of what it put on the disk.
    installer->write_install_record();

    if (result != 0) {
        log_message(1, "Quorl Driver installation failed. error code:%d\nLogfile is %s\n", result, log_file_path);
    } else {
        log_message(1,
                    "Quorl Driver installation succeed.\nFor the Quorl Driver uninstallation, please run "
                    "command:\n    sudo %sbin/quorl-driver-uninstaller\n",
                    installer->driver_prefix.c_str());
    }

    delete command_line;
    delete installer;
    log_close();
    delete options;
    return result;
}
