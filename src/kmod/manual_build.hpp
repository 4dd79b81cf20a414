#pragma once

#include <cstdint>

#include "installer/installer.hpp"

// The plain build path, taken when DKMS is not used:
// DriverInstaller::build_and_install_modules drives the main module and the
// optional peer-memory module "vnt_peer_mem_drv"; DriverInstaller::build_install_module
// takes one module through make, signing, the copy into
// /lib/modules/<release>/kernel/drivers/misc/, depmod, the load and the
// firmware check. Both return the code of the step that failed, or 0.

// Whether the peer-memory step follows the main module's result: after a
// success, and after a key refusal when the module was signed, since enrolling
// the key is what the user is told to do next.
bool main_module_result_lets_peer_memory_follow(int result, bool do_module_sign);

// The peer-memory module needs the OFED sources and ib_core loaded (a
// negative use state).
bool peer_memory_module_wanted(bool ofed_sources, int32_t ib_core_state);
