#include "record/previous_driver.hpp"

// Removal of an older driver arrives with the uninstall engine; until then a
// host is taken to hold none.
int remove_previous_drivers() { return 0; }

int uninstall_driver(const std::string& /*name*/) { return 0; }
