#include "installer/installer.hpp"

int DriverInstaller::post_install() { return 0; }
