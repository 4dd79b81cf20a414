#include "uninstaller/uninstall_run.hpp"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "host/system_utilities.hpp"
#include "kmod/loaded_modules.hpp"
#include "kmod/module_trees.hpp"
#include "record/install_record.hpp"
#include "record/run_state.hpp"
#include "record/uninstall_engine.hpp"

namespace {

// The peer-memory module holds the driver, so it goes first; the older
// driver's name is taken too, as the installer takes it.
const char* const modules_in_unload_order[] = {"vnt_peer_mem_drv", "vantoria", "qv_driver"};

std::string busy_message(const std::string& name, const LoadedModule& module) {
    return "Kernel module " + name + " is in use (" + describe_users(module) +
           "): stop what uses it, then run the uninstaller again. Nothing was removed from the disk.\n";
}

// Unloads every module of the driver wherever it stands in the module list.
// A module in use stops the run before anything on the disk is touched.
int unload_modules(UninstallOutcome& outcome) {
    for (const char* name : modules_in_unload_order) {
        std::optional<LoadedModule> module = loaded_module(name);
        if (!module) continue;
        if (module->use_count > 0 || !module->holders.empty()) {
            outcome.message = busy_message(name, *module);
            return code::module_busy;
        }
        std::string output;
        int32_t status = 0;
        if (!run_command(std::string("rmmod ") + name + " 2>&1", output, status) || status != 0) {
            log_message(0, "%s\n", output.c_str());
            // The kernel refused: a user came between the look and the unload.
            module = loaded_module(name);
            if (module) {
                outcome.message = busy_message(name, *module);
                return code::module_busy;
            }
        }
        log_message(2, "Unloaded kernel module %s.\n", name);
        outcome.modules_unloaded.push_back(name);
    }
    return 0;
}

// The module files of the record that are gone now: a run that resumes
// still refreshes the index of the kernels whose tree lost them.
std::vector<std::string> gone_module_files(const std::vector<ManifestEntry>& entries) {
    std::vector<std::string> gone;
    for (const ManifestEntry& entry : entries) {
        if ((entry.type == "FILE" || entry.type == "RFILE") && !file_exists(entry.path)) gone.push_back(entry.path);
    }
    return gone;
}

int refresh_host(const std::vector<ManifestEntry>& entries, UninstallOutcome& outcome) {
    std::string output;
    int32_t status = 0;
    for (const std::string& release : module_tree_releases(gone_module_files(entries))) {
        const std::string command = "depmod " + release + " 2>&1";
        if (!run_command(command, output, status) || status != 0) {
            log_message(4, "%s failed: %s\n", command.c_str(), output.c_str());
            outcome.message = "\"" + command + "\" failed; the install record is kept, so that the next run tries again.\n";
            return code::depmod_failed;
        }
        log_message(2, "Refreshed the module index of %s.\n", release.c_str());
    }
    // Units that went must leave systemd's memory too; a host without systemd running has nothing to forget.
    if (!run_command("systemctl daemon-reload 2>&1", output, status) || status != 0)
        log_message(3, "systemctl daemon-reload failed: %s\n", output.c_str());
    return 0;
}

void forget_record() {
    if (std::remove(install_record_path) != 0) {
        log_message(3, "The install record %s could not be deleted.\n", install_record_path);
        return;
    }
    std::error_code ec;
    const auto directory = std::filesystem::path(install_record_path).parent_path();
    if (std::filesystem::is_empty(directory, ec)) std::filesystem::remove(directory, ec);
}

}  // namespace

UninstallOutcome run_uninstall() {
    UninstallOutcome outcome;
    // sudo may hand a short PATH; the removal needs dkms, depmod and systemctl.
    find_system_utility("depmod");

    const std::vector<ManifestEntry> entries = read_install_record(install_record_path);
    if (entries.empty()) {
        outcome.nothing_installed = true;
        return outcome;
    }
    if ((outcome.status = unload_modules(outcome)) != 0) return outcome;

    const int walked = remove_entries(entries) & 0xff;
    outcome.services = uninstall_state.services;
    outcome.dkms = uninstall_state.dkms;
    outcome.removed = uninstall_state.removed;
    outcome.kept = uninstall_state.kept;
    const int refreshed = refresh_host(entries, outcome);
    if (walked != 0) {
        // Everything that went stays gone; the record stays whole, and the
        // next run finds the removed paths missing and goes on past them.
        outcome.status = walked;
        outcome.message = "The removal stopped with code " + std::to_string(walked) +
                          ". The install record is kept: run the uninstaller again once the cause is fixed, and it "
                          "resumes where it stopped.\n";
        return outcome;
    }
    if ((outcome.status = refreshed) != 0) return outcome;
    forget_record();
    return outcome;
}
