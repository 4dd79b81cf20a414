#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "system/service_spec.hpp"

class DriverInstaller;

// The services of this run, in the order they are installed. Empty at start;
// install_services adds the driver's one service.
extern std::vector<ServiceSpec> service_specs;

// Installs the services that bring the driver up at boot: 0, or the code of
// the first service that failed (5, 8 or 35).
int install_services(const DriverInstaller& installer);

// Copies a service's files under `driver_prefix` and records them; on a host
// (`environment` 1) also enables and restarts it and records the unit. Inside
// docker (2) the service is only copied. Returns 0, 5, 8 or 35.
int install_service(const ServiceSpec& spec, int32_t environment, const std::string& driver_prefix);

// Asks `systemctl status` about a unit. pid stays -1 when no shell could be
// started (false); it is 0 with a true result when the unit is fine, and the
// service's main process otherwise, when the output names one.
bool query_service_status(const std::string& name, int32_t& pid, int32_t& status, int32_t& pid_status);

// Compares after folding the ASCII capitals only; no locale takes part.
bool equals_ignore_case(const std::string& a, const std::string& b);

// Whether the PCI timeout script is to run in a container: aarch64 Kylin only.
bool pci_timeout_wanted(const std::string& host_arch, const std::string& os_id);

// The unit name for the state of the peer-memory module in /proc/modules: its
// instance lists the modules that the service handles.
std::string service_instance_name(int32_t peer_memory_state);

// Where a service file goes: a destination without a leading "/" lies under
// the driver prefix, with the doubled slash that joining gives.
std::string service_destination(const std::string& destination, const std::string& driver_prefix);

// The path of a copied file: the destination and the source's name.
std::string copied_service_file(const std::string& destination, const std::string& source);

// The enable-and-restart command, cut at 256 bytes as its buffer is.
std::string service_enable_command(const std::string& name);

// The process number and exit status that `systemctl status` reports for a
// failed service's main process.
bool parse_main_pid(const std::string& status_text, int32_t& pid, int32_t& pid_status);

// Waits for a service to reach the state its spec expects: three attempts,
// with a pause of five seconds after each that fails. 0 or 35.
using StatusQuery = std::function<bool(const std::string&, int32_t&, int32_t&, int32_t&)>;
using Pause = std::function<unsigned(unsigned)>;
int check_service_status(const ServiceSpec& spec, const StatusQuery& query, const Pause& pause);
int check_service_status(const ServiceSpec& spec);
