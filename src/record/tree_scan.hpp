#pragma once

#include <string>
#include <vector>

#include "record/manifest_entry.hpp"

// Turns what a copy put on the host into entries of the install record, each
// directory behind everything below it, so that removal goes from the inside
// out. Names beginning with "." are passed over (neither noted nor removed);
// links are noted and never followed. File digests come by cache.

// Walks `dir` where it lies.
std::vector<ManifestEntry> scan_tree(const std::string& dir);

// Walks the package directory `rel_dir` but notes where its files now lie
// under `root`: paths, link tests and digests are those of the copies.
std::vector<ManifestEntry> scan_installed_tree(const std::string& rel_dir, const std::string& root);
