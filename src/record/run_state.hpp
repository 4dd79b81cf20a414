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
};
extern UninstallState uninstall_state;

// Empties all process-wide state, as at the start of a process. For tests.
void reset_run_state();
