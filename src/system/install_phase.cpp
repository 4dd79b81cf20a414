#include "system/install_phase.hpp"

#include <cstring>
#include <iterator>
#include <utility>
#include <unistd.h>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "dkms/dkms_build.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"
#include "kmod/module_loading.hpp"
#include "record/run_state.hpp"
#include "record/tree_scan.hpp"

std::vector<ManifestEntry> firmware_entries_to_record(std::vector<ManifestEntry> scanned, bool created_here) {
    if (created_here) return scanned;
    for (auto entry = scanned.begin(); entry != scanned.end(); ++entry) {
        if (entry->type == "DIR" && entry->path == "/lib/firmware") {
            scanned.erase(entry);
            break;
        }
    }
    return scanned;
}

bool dkms_path_chosen(bool disable_dkms, const std::function<bool()>& dkms_on_path, int32_t environment) {
    return !disable_dkms && dkms_on_path() && environment != 2;
}

std::vector<ManifestEntry> rebase_user_entries(std::vector<ManifestEntry> scanned,
                                               const std::string& driver_prefix,
                                               const std::function<bool(const std::string&)>& exists) {
    // Rebased in place: a tree of thousands of files is not copied again.
    size_t kept = 0;
    for (size_t i = 0; i < scanned.size(); ++i) {
        ManifestEntry& entry = scanned[i];
        // "quorl" itself: driver_prefix is no part of the package's tree.
        if (entry.path.size() < 6) continue;
        std::string path = driver_prefix + entry.path.substr(6);
        // What the copy did not put in place, or a link to nothing, is not ours to remove.
        if (!exists(path)) continue;
        entry.path = std::move(path);
        if (kept != i) scanned[kept] = std::move(entry);
        ++kept;
    }
    scanned.resize(kept);
    return scanned;
}

int DriverInstaller::install() {
    log_message(2, "Start to install firmwares.\n");
    const bool firmware_dir_created = !is_directory("/lib/firmware");
    if (firmware_dir_created) make_directories("/lib/firmware");
    // Only a shell that could not start fails here; what cp says is not looked at.
    std::string output;
    if (!run_command_output("cp -fr firmware /lib", output)) {
        log_message(4, "Failed to install firmware.\n");
        return code::firmware_copy_failed;
    }
    // The system's own firmware directory must never be removed with the driver.
    const std::vector<ManifestEntry> firmware_entries =
        firmware_entries_to_record(scan_installed_tree("firmware", "/lib"), firmware_dir_created);
    install_entries.insert(install_entries.end(), firmware_entries.begin(), firmware_entries.end());

    if (options.enable_vgpu) {
        log_message(0, "Vantoria with VGPU depend on module :%s %s %s\n", "vfio", "kvm", "mdev");
        // A dependency that does not load is told by insert_module; the build goes on.
        insert_module("vfio", "");
        insert_module("kvm", "");
        insert_module("mdev", "");
    }

    int result;
    if (dkms_path_chosen(options.disable_dkms, [] { return !find_in_path("dkms").empty(); }, environment)) {
        log_message(0, "dkms installed and not in docker. use dkms to build driver. disable_dkms:%d\n", 0);
        result = build_with_dkms(*this);
    } else {
        log_message(0, "dkms not installed or in side docker. manually build driver. disable_dkms:%d\n",
                    options.disable_dkms ? 1 : 0);
        result = build_and_install_modules();
    }
    // No fall-back to the other path, and no user-space tree after a failed build.
    if ((result & 0xff) != 0) return result;
    return install_user_files();
}

int DriverInstaller::install_user_files() {
    // No redirection: cp's complaints reach the terminal, not the log.
    const std::string command = "cp -r ./quorl/* " + driver_prefix;
    std::string output;
    int32_t status = 0;
    run_command(command, output, status);
    log_message(0, "%s\n", command.c_str());
    if (status != 0) {
        log_message(3, "Executing %s failed with %d\n%s\n", command.c_str(), status, output.c_str());
        return code::user_files_copy_failed;
    }

    std::vector<ManifestEntry> user_entries =
        rebase_user_entries(scan_tree("quorl"), driver_prefix, [](const std::string& path) { return file_exists(path); });
    install_entries.insert(install_entries.end(), std::make_move_iterator(user_entries.begin()),
                           std::make_move_iterator(user_entries.end()));

    // driver_prefix ends in "/": the doubled slash is kept, here and in the record.
    const std::string link_path = driver_prefix + "/lib";
    if (is_symlink(link_path) || file_exists(link_path)) {
        log_message(2, "symlink %s already be taken, skip symlink generate\n", link_path.c_str());
    } else {
        log_message(2, "Create symlink %s -> lib64\n", link_path.c_str());
        const int made = symlink("lib64", link_path.c_str());
        // The message shows the call's -1 and strerror of that same -1, not of errno.
        if (made != 0) log_message(3, "create symlink failed. %d %s\n", made, strerror(made));
    }
    // Recorded in every case, also when the name was taken or the link could not be made.
    install_entries.push_back({"SYMLINK", link_path, ""});
    return 0;
}
