// What one run of the uninstaller did, and how it tells an administrator and
// a program about it.
#pragma once

#include <string>
#include <vector>

struct UninstallOutcome {
    int status = 0;
    std::string message;  // why the run stopped, when it did; empty on success
    bool nothing_installed = false;
    std::vector<std::string> modules_unloaded;
    std::vector<std::string> services;  // instances removed
    std::vector<std::string> dkms;      // versions taken out of DKMS
    std::vector<std::string> removed;   // paths, in the order they went
    std::vector<std::string> kept;      // files kept because an administrator changed them
};

// The console's account: what went, what stayed, and the last words.
std::string outcome_text(const UninstallOutcome&);
// One JSON object: status, modules_unloaded, services, dkms, removed, kept, log (and message when it stopped).
std::string outcome_json(const UninstallOutcome&);
