#pragma once

#include <string>
#include <vector>

#include "record/manifest_entry.hpp"

// Removes what the entries of an install record name, one at a time in the
// record's order: 0 when the walk ended, 5 when an entry's type has no
// handler, or the full result of the handler that stopped the walk.
int remove_entries(const std::vector<ManifestEntry>& entries);

// A handler takes a copy of one entry and returns 0 or 12 to go on, or a
// negative code to stop the walk.
using RemovalHandler = int (*)(ManifestEntry);

// The handler of a type word, by exact match of the whole word; null for none.
RemovalHandler removal_handler(const std::string& type);

// The handlers of the table, each deciding on the entry and the host alone.
int remove_quorl_entry(ManifestEntry entry);
int remove_file_entry(ManifestEntry entry);
int remove_rfile_entry(ManifestEntry entry);
int remove_rlink_entry(ManifestEntry entry);
int remove_symlink_entry(ManifestEntry entry);
int remove_dir_entry(ManifestEntry entry);

// Where the marker of a package lies: `relative` joined as a path component
// to `base`, or to the default installation when `base` is empty.
std::string package_marker_path(const std::string& base, const std::string& relative);
bool toolkit_installed(const std::string& base);
bool driver_installed(const std::string& base);
