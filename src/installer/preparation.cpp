#include "installer/installer.hpp"

int DriverInstaller::prepare() { return 0; }
