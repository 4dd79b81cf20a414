// The uninstaller's run, step by step: the modules out of the kernel, then
// what the install record lists, then the module index and systemd, and the
// record last, so that a run that stops can be run again and resumes.
#pragma once

#include "uninstaller/uninstall_outcome.hpp"

UninstallOutcome run_uninstall();
