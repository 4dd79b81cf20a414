#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/log.hpp"
#include "host/commands.hpp"
#include "host/file_digest.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"
#include "kmod/module_loading.hpp"
#include "record/run_state.hpp"
#include "system/service.hpp"

// Makes the system load the driver at boot, installs the service and keeps
// the driver out of the initial ramdisk. Only the service's result counts:
// everything else here is at worst a warning.
int DriverInstaller::post_install() {
    std::string output;
    run_command_output("echo vantoria > /etc/modules-load.d/vantoria.conf", output);
    // Listed at all, in use or not, the peer-memory module is loaded at boot too.
    if (module_use_state("vnt_peer_mem_drv") != 0)
        run_command_output("echo vnt_peer_mem_drv>> /etc/modules-load.d/vantoria.conf", output);
    // Recorded even when the write failed; the digest is then empty.
    install_entries.push_back(
        {"FILE", "/etc/modules-load.d/vantoria.conf", cached_file_md5("/etc/modules-load.d/vantoria.conf")});

    if (!module_params.empty()) {
        run_command_output("echo 'options vantoria " + module_params + "' > /etc/modprobe.d/vantoria.conf", output);
        install_entries.push_back(
            {"FILE", "/etc/modprobe.d/vantoria.conf", cached_file_md5("/etc/modprobe.d/vantoria.conf")});
    }

    // The prefix goes into the package's own service files, so that what the
    // service step copies and fingerprints already holds it. A second run
    // from the same package finds no marker left and keeps the first prefix.
    char sed_command[512];
    snprintf(sed_command, sizeof sed_command, "sed -i 's|PREFIX|%s|g' conf/*.service", driver_prefix.c_str());
    log_message(0, "%s\n", sed_command);
    system(sed_command);

    log_message(2, "Install system service...\n");
    const int result = install_services(*this);
    if ((result & 0xff) == 0) {
        log_message(2, "Install system service succeed.\n");
    } else {
        log_message(3, "Install system service with fail.\n");
    }

    if (find_in_path("dracut").empty()) return result;
    // Appended, so a run over an older file adds a second such line.
    const std::string command = "echo 'omit_drivers+=\"vantoria\"' >> " + std::string("/etc/dracut.conf.d") +
                                "/vantoria.conf";
    // A directory that was there before is not ours, and removal must leave it.
    if (!is_directory("/etc/dracut.conf.d")) {
        make_directories("/etc/dracut.conf.d");
        install_entries.push_back({"DIR", "/etc/dracut.conf.d", ""});
    }
    int32_t status = 0;
    run_command(command, output, status);
    if (status == 0) {
        // Hashed afresh: the file is appended to, so a cached digest could be stale.
        const std::string dracut_file = std::string("/etc/dracut.conf.d") + "/vantoria.conf";
        install_entries.push_back({"FILE", dracut_file, file_md5(dracut_file)});
    } else {
        log_message(3, "add dracut conf failed.\n%s : status:%d %s\n", command.c_str(), status, strerror(status));
        log_message(5, "Add dracut configuration failed. Vantoria driver might be added into initrd.\n");
    }
    return result;
}
