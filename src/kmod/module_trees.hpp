#pragma once

#include <string>
#include <vector>

// The releases R whose module tree (/lib/modules/R, or /usr/lib/modules/R
// through the merged /usr) holds one of `paths`: each once, sorted.
std::vector<std::string> module_tree_releases(const std::vector<std::string>& paths);
