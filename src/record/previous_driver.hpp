#pragma once

#include <cstdint>
#include <string>

// Unloads an older driver and removes what its install record lists: 0, or
// the code of the step that failed.
int remove_previous_drivers();

// Removes one loaded driver module (or, with an empty name, the record's
// contents alone); returns a code of eight bits.
int uninstall_driver(const std::string& name);
