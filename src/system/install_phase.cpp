#include "installer/installer.hpp"

int DriverInstaller::install() { return 0; }
