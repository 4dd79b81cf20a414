#pragma once

#include "installer/installer.hpp"

// Hands the driver's sources to DKMS under the name "quorl": clears older
// registrations, fixes the package's dkms.conf, copies, adds, builds and
// installs for the chosen kernel, then loads vantoria.ko itself and checks
// the cards. 0, or the code of the step that failed (5, 8, 34, 38, 45, 49 to
// 52, 54).
int build_with_dkms(DriverInstaller& installer);

// How the interactive build child ended, from its wait status.
struct BuildChildOutcome {
    bool ended_abnormally;  // low 7 bits set: killed or stopped; only worth a message
    bool failed;            // bits 8 to 15 set: this alone fails the build
};
BuildChildOutcome judge_build_wait_status(int wait_status);
