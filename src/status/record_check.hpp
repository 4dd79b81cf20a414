#pragma once

#include <string>

#include "status/status_report.hpp"

// Reads this host for the status report: the install record at
// `record_path`, then, when it is one, each path it names, the DKMS
// registration, the running kernel's module index, the loaded modules, the
// services' enablement and, as root, the cards. It changes nothing, and logs
// nothing that reaches the console.
Observations observe_host(const std::string& record_path);
