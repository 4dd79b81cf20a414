#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// One of the standard tools the installer drives, with the distribution
// package to name when it is missing.
struct SystemUtility {
    const char* const name;
    const char* const package;  // goes between single quotes in the message
    uint8_t found;              // written by check_system_utilities
};

// The seventeen tools checked before any work, in the order of the check.
extern SystemUtility system_utilities[17];

// Walks every row (a missing tool does not stop the walk), noting each one
// found and naming the package of each one missing. True when none is
// missing; a null table gives false.
bool check_system_utilities(SystemUtility* table, size_t count);

// Whether an executable `name` lies on the widened search path. Widens the
// process's PATH as a side effect, for every command started afterwards.
bool find_system_utility(const std::string& name);

// The directories that find_system_utility searches: `current` (null when
// PATH is unset) followed by the default directories, each element kept once,
// at its first place. An empty element stays and stands for "/".
std::vector<std::string> search_path_elements(const char* current);

