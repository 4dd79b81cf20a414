#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "record/manifest_entry.hpp"

// The process-wide stores that every installing step shares. A run appends
// to `install_entries` in the order of its work; `md5_cache` keeps the digest
// of each path so that it is computed once.
extern std::vector<ManifestEntry> install_entries;
extern std::unordered_map<std::string, std::string> md5_cache;

// What the removal walk remembers across the entries of a record, and across
// two walks in one process.
struct UninstallState {
    bool changed_file_seen = false;
    std::string installed_path;
    bool presence_checked = false;
    bool toolkit_present = false;
    bool driver_present = false;
    // What the walks did, for the programs that report it to an administrator
    // (the uninstaller); the installer only logs it.
    std::vector<std::string> removed;   // files, links and directories that went
    std::vector<std::string> kept;      // files kept because they changed since they were installed
    std::vector<std::string> services;  // service instances removed
    std::vector<std::string> dkms;      // versions taken out of DKMS
};
extern UninstallState uninstall_state;

// Empties all process-wide state, as at the start of a process. For tests.
void reset_run_state();
