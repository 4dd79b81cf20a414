#pragma once

#include <string>

#include "record/manifest_entry.hpp"

// The removal handler of a "SERVICE" record entry: disables and stops the
// service, deletes its unit file unless somebody changed it, and makes systemd
// forget it. 0 when removed or when a changed unit file was kept, 12 inside
// docker, -111 when systemd still knows the unit afterwards.
int uninstall_service_entry(ManifestEntry entry);

// The unit file of a service: every instance of a template leads to the
// template's one file under /lib/systemd/system.
std::string service_unit_file(const std::string& name);

// The slice that the instances of a template leave behind.
std::string service_slice(const std::string& name);
