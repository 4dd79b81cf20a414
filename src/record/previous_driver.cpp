#include "record/previous_driver.hpp"

#include <cstdlib>
#include <vector>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "kmod/module_loading.hpp"
#include "kmod/peer_memory.hpp"
#include "record/install_record.hpp"
#include "record/uninstall_engine.hpp"

int remove_previous_drivers() {
    bool found = false;
    for (const char* name : {"qv_driver", "vantoria"}) {
        // A loose test: any line that holds the name, another module's users included.
        if (!file_contains("/proc/modules", name)) {
            log_message(2, "Quorl driver %s not installed. Continue...\n", name);
            continue;
        }
        found = true;
        log_message(2, "Quorl driver %s installed. Uninstall...\n", name);
        const int result = uninstall_driver(name);
        if (result != 0) {
            log_message(1, "Uninstall quorl driver %s failed.\n", name);
            return result;
        }
    }
    if (!found) {
        // Nothing loaded, but an earlier run may have left files and a record.
        log_message(2, "No driver installed. try uninstall utils.\n");
        uninstall_driver("");
    }
    return 0;
}

int uninstall_driver(const std::string& name) {
    // Modules first, files second: a module that won't unload stops
    // everything before anything is removed from the disk.
    if (!name.empty()) {
        if (ofed_available()) {
            // The peer-memory module holds the driver; it must go first.
            system("rmmod vnt_peer_mem_drv 2>/dev/null");
            if (module_use_state("vnt_peer_mem_drv") != 0) {
                log_message(4,
                            "Remove 'vnt_peer_mem_drv' failed and it's maybe busy. The packaged driver you're "
                            "attempting to install should kill these associated processes first.\n");
                return code::module_busy;
            }
        }
        switch (module_use_state(name)) {
        case 0:
            // Not the first line of /proc/modules: nothing is unloaded, and nothing removed.
            return 0;
        case -2:
            log_message(4,
                        "'vantoria' is busy. The packaged driver you're attempting to install should kill these "
                        "associated processes first.\n");
            return code::module_busy;
        case -1:
            break;
        case 1:
            log_message(4, "Internal error.\n");
            return code::general_failure;
        default:
            return code::general_failure;
        }
        std::string output;
        int32_t status = 0;
        if (!run_command("rmmod " + name, output, status) || status != 0) {
            log_message(4, "Failed to uninstall driver %s.\n", name.c_str());
            log_message(0, "%s\n", output.c_str());
            return code::general_failure;
        }
        log_message(2, "Successful to uninstall driver %s.\n", name.c_str());
    }

    std::vector<ManifestEntry> entries = read_install_record(install_record_path);
    if (entries.empty()) {
        log_message(3, "parse uninstall manifest error. please uninstall %s manually\n", name.c_str());
        // Without a record, a registration in DKMS is still worth taking out.
        if (!find_in_path("dkms").empty()) {
            log_message(0, "Found dkms, try to remove dkms QuorL configuration.\n");
            entries.push_back({"DKMS", "latest", ""});
        }
    }
    const int removed = remove_entries(entries) & 0xff;
    if (removed != 0) {
        log_message(4, "failed in removing.\n");
        return removed;
    }

    // Old configuration paths of earlier drivers. The modules-loads.d spelling
    // misses the modules-load file on purpose: the record takes care of that one.
    std::string output;
    int32_t status = 0;
    const std::string clean_up =
        "rm -rf /usr/bin/vantoriaquorl.sh /lib/systemd/system/hung_detector "
        "/lib/systemd/system/qxlicense_monitor.service /etc/modprobe.d/vantoria.conf "
        "/etc/modules-loads.d/vantoria.conf /etc/vantoria /usr/share/vantoria";
    if (!run_command(clean_up, output, status) || status != 0) {
        log_message(4, "Clean up the old configuration files failed, exec command: %s\n", clean_up.c_str());
        return code::general_failure;
    }
    if (!run_command("depmod 2>&1", output, status) || status != 0) {
        log_message(4, "Failed to depmod, modprobe/modinfo might cant find %s:\n%s\n", name.c_str(), output.c_str());
        return code::general_failure;
    }
    return 0;
}
