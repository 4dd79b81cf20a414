#include "record/uninstall_engine.hpp"

#include <cstdio>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "dkms/dkms_config.hpp"
#include "host/file_digest.hpp"
#include "host/files.hpp"
#include "record/run_state.hpp"
#include "system/service_removal.hpp"

namespace {

// Asks once per process whether the toolkit and the driver are still
// installed; a second walk in the same process keeps the first answers.
void probe_package_presence() {
    if (uninstall_state.presence_checked) return;
    uninstall_state.toolkit_present = toolkit_installed(uninstall_state.installed_path);
    uninstall_state.driver_present = driver_installed(uninstall_state.installed_path);
    uninstall_state.presence_checked = true;
}

// Files shared with the toolkit stay as long as either package remains.
bool reserved_still_in_use(const std::string& path) {
    probe_package_presence();
    if (uninstall_state.toolkit_present) {
        log_message(2, "Uninstall: Toolkit not uninstalled. Skipping remove %s.\n", path.c_str());
        return true;
    }
    if (uninstall_state.driver_present) {
        log_message(2, "Uninstall: Driver not uninstalled. Skipping remove %s.\n", path.c_str());
        return true;
    }
    return false;
}

// Removes a link, and nothing that is not one. A missing path passes in silence.
int unlink_entry(const std::string& path, int failure) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return removal::done;
    if (unlink(path.c_str()) != 0) {
        log_message(2, "Uninstall: %s Failed.\n", path.c_str());
        return failure;
    }
    log_message(2, "Uninstall: %s Succeed.\n", path.c_str());
    uninstall_state.removed.push_back(path);
    return removal::done;
}

}  // namespace

std::string package_marker_path(const std::string& base, const std::string& relative) {
    const std::string root = base.empty() ? "/usr/local/quorl-" + installer_version : base;
    return (std::filesystem::path(root) / relative).string();
}

bool toolkit_installed(const std::string& base) {
    return file_exists(package_marker_path(base, "lib64/libcudart.so"));
}

bool driver_installed(const std::string& base) {
    return file_exists(package_marker_path(base, "bin/quorl-driver-uninstaller"));
}

int remove_quorl_entry(ManifestEntry entry) {
    uninstall_state.installed_path = entry.path;
    log_message(0, "Installed path is %s.\n", entry.path.c_str());
    return removal::done;
}

int remove_file_entry(ManifestEntry entry) {
    const std::string& path = entry.path;
    if (!file_exists(path)) {
        log_message(2, "Uninstall: %s not exist. Skipping.\n", path.c_str());
        return removal::done;
    }
    const std::string digest = cached_file_md5(path);
    if (digest.empty()) {
        log_message(3, "Uninstall: md5sum of %s is empty. Skipping.\n", path.c_str());
        return removal::done;
    }
    // A file that somebody changed since it was installed is theirs now.
    if (digest != entry.md5) {
        uninstall_state.changed_file_seen = true;
        uninstall_state.kept.push_back(path);
        log_message(3, "Uninstall: md5sum of %s has changed. Skipping. expected,actual:(%s %s).\n", path.c_str(),
                    entry.md5.c_str(), digest.c_str());
        return removal::done;
    }
    if (remove(path.c_str()) != 0) {
        log_message(2, "Uninstall: %s Failed.\n", path.c_str());
        return removal::file_not_removed;
    }
    log_message(2, "Uninstall: %s Succeed.\n", path.c_str());
    uninstall_state.removed.push_back(path);
    return removal::done;
}

int remove_rfile_entry(ManifestEntry entry) {
    if (reserved_still_in_use(entry.path)) return removal::done;
    return remove_file_entry(entry);
}

int remove_rlink_entry(ManifestEntry entry) {
    if (reserved_still_in_use(entry.path)) return removal::done;
    return unlink_entry(entry.path, removal::rlink_not_removed);
}

int remove_symlink_entry(ManifestEntry entry) {
    // The prefix's lib link is shared with the toolkit; the test looks at the
    // end of the text alone, so any link whose path ends so waits as well.
    if (ends_with(entry.path, "/lib") && reserved_still_in_use(entry.path)) return removal::done;
    return unlink_entry(entry.path, removal::symlink_not_removed);
}

int remove_dir_entry(ManifestEntry entry) {
    const std::string& path = entry.path;
    // These two queries are not guarded: their errors end the process abnormally.
    if (!std::filesystem::exists(path)) return removal::done;
    if (!std::filesystem::is_empty(path)) {
        log_message(0, "Uninstall: %s not empty skip.\n", path.c_str());
        return removal::done;
    }
    try {
        if (std::filesystem::remove(path)) {
            log_message(2, "Uninstall: %s Succeed.\n", path.c_str());
            uninstall_state.removed.push_back(path);
        } else {
            log_message(2, "Uninstall: %s Failed.\n", path.c_str());
        }
    } catch (const std::filesystem::filesystem_error& error) {
        log_message(3, "catched %s when rmdir %s\n", error.what(), path.c_str());
    }
    // A directory that won't go never stops the walk.
    return removal::done;
}

RemovalHandler removal_handler(const std::string& type) {
    static const std::map<std::string, RemovalHandler> handlers = {
        {"QUORL", remove_quorl_entry},     {"SYMLINK", remove_symlink_entry},
        {"FILE", remove_file_entry},       {"RFILE", remove_rfile_entry},
        {"RLINK", remove_rlink_entry},     {"DIR", remove_dir_entry},
        {"SERVICE", uninstall_service_entry}, {"DKMS", uninstall_dkms_entry},
    };
    auto found = handlers.find(type);
    return found == handlers.end() ? nullptr : found->second;
}

int remove_entries(const std::vector<ManifestEntry>& entries) {
    uninstall_state.changed_file_seen = false;
    if (entries.empty()) return 0;
    for (const ManifestEntry& entry : entries) {
        RemovalHandler handler = removal_handler(entry.type);
        if (handler == nullptr) {
            printf("Uninstall: type:%s's handler is not found.\n", entry.type.c_str());
            return removal::no_handler;
        }
        const int result = handler(entry);
        const int low_byte = result & 0xff;
        if (low_byte != removal::done && low_byte != removal::skipped_in_container) return result;
    }
    if (uninstall_state.changed_file_seen)
        log_message(1,
                    "Found changed file during uninstall quorl, changed file will not be remove.\nCheck uninstall "
                    "log please.\n");
    return 0;
}
