#pragma once

#include <string>
#include <vector>

#include "record/manifest_entry.hpp"

// Files that the driver package and the toolkit package both install, relative
// to the driver prefix. Removal takes them only once neither package remains.
extern const std::vector<std::string> reserved_paths;

// Whether `path`, taken relative to `base`, is one of reserved_paths. Slashes
// behind `base` are dropped, so that the doubled slash of prefix + "/lib"
// still matches "lib". A path of slashes only behind `base` ends the process
// abnormally (an out-of-range error that nothing catches).
bool is_reserved_path(const std::string& path, const std::string& base);

// The lines of the record: the QUORL header, then the entries grouped in the
// order of removal (services, symlinks, files, rfiles, rlinks, dirs).
std::vector<std::string> format_install_record(const std::vector<ManifestEntry>& entries,
                                               const std::string& driver_prefix);

// Reads the record back. Each line becomes one entry, whatever it holds;
// field 0 fills type, path and md5, field 1 path and md5, field 2 md5.
std::vector<ManifestEntry> read_install_record(const std::string& path);
std::vector<ManifestEntry> parse_install_record(const std::string& text);
