#include "system/service.hpp"

#include <charconv>
#include <cstdio>
#include <limits>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/environment_probes.hpp"
#include "host/file_digest.hpp"
#include "host/files.hpp"
#include "host/regex_options.hpp"
#include "installer/installer.hpp"
#include "kmod/module_loading.hpp"
#include "record/run_state.hpp"
#include "record/tree_scan.hpp"

std::vector<ServiceSpec> service_specs;

namespace {

constexpr int32_t host_environment_docker = 2;
constexpr int status_attempts = 3;

// Group and other may neither write nor run what the service installs.
void clear_group_other_write_execute(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return;
    chmod(path.c_str(), st.st_mode & ~static_cast<mode_t>(033));
}

// Copies one file of a service and records it. Returns false when the source
// is missing, which ends the service.
bool install_service_file(const ServiceFile& file, const std::string& driver_prefix) {
    if (!file_exists(file.source)) {
        log_message(4, "service or bin not existed %s\n", file.source.c_str());
        return false;
    }
    const std::string destination = service_destination(file.destination, driver_prefix);
    // Sized to fit: unlike the enable command, this one is never cut.
    const char* const format = "cp -f %s %s 2>&1";
    std::string command(snprintf(nullptr, 0, format, file.source.c_str(), destination.c_str()), '\0');
    snprintf(command.data(), command.size() + 1, format, file.source.c_str(), destination.c_str());
    log_message(0, "cmd is %s\n", command.c_str());

    // When the copy has to create its destination, the record takes the
    // whole created tree, so that removal takes the new directories too.
    const bool destination_existed = is_directory(destination);
    std::string created_top;
    if (!destination_existed) {
        created_top = first_missing_path(destination);
        make_directories(destination);
    }

    std::string output;
    int32_t status = 0;
    if (!run_command(command, output, status) || status != 0) {
        // A file that could not be copied is not recorded, and the service goes on without it.
        log_message(3, "Install %s failed.\n%s\n", file.source.c_str(), output.c_str());
        return true;
    }

    std::vector<ManifestEntry> entries;
    if (destination_existed) {
        const std::string path = copied_service_file(destination, file.source);
        entries.push_back({"FILE", path, cached_file_md5(path)});
    } else {
        entries = scan_tree(created_top);
    }
    for (const ManifestEntry& entry : entries) {
        if (entry.type == "FILE") clear_group_other_write_execute(entry.path);
    }
    install_entries.insert(install_entries.end(), entries.begin(), entries.end());
    return true;
}

// The timeout script only matters to the PCI bus of aarch64 Kylin machines
// running us inside docker.
void run_pci_timeout_script(const std::string& driver_prefix) {
    const std::string script = driver_prefix + "bin/pci_timeout.sh";
    log_message(2, "running %s\n", script.c_str());
    std::string output;
    int32_t status = 0;
    if (!run_command(script + " 2>&1", output, status) || status != 0) {
        log_message(3, "running %s failed. please check it.\n", script.c_str());
        log_message(0, "pci_timeout.sh:\n%s", output.c_str());
    } else {
        log_message(0, "running %s succeed\n", script.c_str());
    }
}

// A run of digits as a 32-bit number. More digits than that holds, which no
// systemctl prints, read as the largest number rather than ending the run:
// they match no expected status all the same.
int32_t decimal_or_largest(const std::string& digits) {
    int32_t value = 0;
    const std::from_chars_result result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (result.ec == std::errc::result_out_of_range) return std::numeric_limits<int32_t>::max();
    return value;
}

}  // namespace

bool equals_ignore_case(const std::string& a, const std::string& b) {
    auto folded = [](std::string text) {
        for (char& c : text) {
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        }
        return text;
    };
    return folded(a) == folded(b);
}

bool pci_timeout_wanted(const std::string& host_arch, const std::string& os_id) {
    // The architecture is asked first, the distribution only after a match.
    return equals_ignore_case(host_arch, "aarch64") && equals_ignore_case(os_id, "Kylin");
}

std::string service_instance_name(int32_t peer_memory_state) {
    // Listed at all, in use or not, the peer-memory module is the service's to handle too.
    if (peer_memory_state == 0) return "vantoriaquorl-init@vantoria";
    return "vantoriaquorl-init@vantoria,vnt_peer_mem_drv";
}

std::string service_destination(const std::string& destination, const std::string& driver_prefix) {
    if (!destination.empty() && destination[0] == '/') return destination;
    return driver_prefix + "/" + destination;
}

std::string copied_service_file(const std::string& destination, const std::string& source) {
    const size_t slash = source.rfind('/');
    if (slash == std::string::npos) return destination + "/" + source;
    return destination + source.substr(slash);
}

std::string service_enable_command(const std::string& name) {
    char command[256];
    snprintf(command, sizeof command, "systemctl enable %s 2>&1 && systemctl restart %s 2>&1", name.c_str(),
             name.c_str());
    return command;
}

int install_services(const DriverInstaller& installer) {
    const std::string name = service_instance_name(module_use_state("vnt_peer_mem_drv"));
    service_specs.push_back({name, packaged_service_files.data(), 3, service_status_not_looked_at, 0});

    for (const ServiceSpec& spec : service_specs) {
        const int result = install_service(spec, installer.environment, installer.driver_prefix);
        if ((result & 0xff) != 0) {
            log_message(3, "Install %s failed.\n", spec.name.c_str());
            return result;
        }
        if (!inside_docker() || spec.name.find("vantoriaquorl-init@") == std::string::npos) continue;
        log_message(3, "DKMS won't work inside docker. skip it.\n");
        // Only inside docker, and never on a host: there the script is not ours to run.
        if (pci_timeout_wanted(installer.host_arch, installer.os_id)) {
            run_pci_timeout_script(installer.driver_prefix);
        } else {
            log_message(2, "Skip pci_timeout set.\n");
        }
    }
    return 0;
}

int install_service(const ServiceSpec& spec, int32_t environment, const std::string& driver_prefix) {
    log_message(2, "Installing service: %s\n", spec.name.c_str());
    for (unsigned i = 0; i < spec.file_count; ++i) {
        if (!install_service_file(spec.files[i], driver_prefix)) return code::missing_file_or_tool;
    }
    // Docker has no systemd of ours to enable the service with.
    if (environment == host_environment_docker) return 0;

    std::string output;
    int32_t status = 0;
    if (!run_command(service_enable_command(spec.name), output, status) || status != 0) {
        log_message(3, "Install service %s failed.\n%s\n", spec.name.c_str(), output.c_str());
        return code::general_failure;
    }

    // The unit's digest is the package's own file, the one the copy came
    // from; the removal compares the installed copy against it.
    auto cached = md5_cache.find(spec.name);
    std::string digest;
    if (cached != md5_cache.end()) {
        digest = cached->second;
    } else {
        digest = file_md5(spec.files[0].source);
        md5_cache[spec.name] = digest;
    }
    install_entries.push_back({"SERVICE", spec.name, digest});

    if (spec.expected_status == service_status_not_looked_at) return 0;
    return check_service_status(spec);
}

bool parse_main_pid(const std::string& status_text, int32_t& pid, int32_t& pid_status) {
    static const std::regex main_pid(
        "Main PID: ([0-9]+) \\(code=[a-zA-Z0-9]+, status=([0-9]+)\\/[a-zA-Z0-9]+\\)",
        std::regex::ECMAScript | regex_in_loop);
    std::smatch match;
    if (!std::regex_search(status_text, match, main_pid)) return false;
    pid = decimal_or_largest(match[1].str());
    pid_status = decimal_or_largest(match[2].str());
    return true;
}

bool query_service_status(const std::string& name, int32_t& pid, int32_t& status, int32_t& pid_status) {
    pid = -1;
    std::string output;
    if (!run_command("systemctl status " + name, output, status)) return false;
    pid = 0;
    if (status == 0) return true;
    return parse_main_pid(output, pid, pid_status);
}

int check_service_status(const ServiceSpec& spec, const StatusQuery& query, const Pause& pause) {
    int32_t pid = 0;
    int32_t status = 0;
    int32_t pid_status = 0;
    const int32_t expected_status = spec.expected_status;
    const int32_t expected_pid_status = spec.expected_pid_status;
    for (int attempt = 1; attempt <= status_attempts; ++attempt) {
        log_message(2, "Checking service service_status: (%d/%d)\n", attempt, status_attempts);
        if (query(spec.name, pid, status, pid_status) && pid == -1) {
            log_message(1, "Get service %s service_status failed. please check manually\n", spec.name.c_str());
            return 0;
        }
        log_message(2, "pid %d service_status %d pidtstatus %d\n", pid, status, pid_status);
        if (expected_status == 0) {
            if (status == 0) return 0;
            log_message(3, "Service %s start with unexpected status.\n\texpected:%d, actual:%d\n", spec.name.c_str(),
                        expected_status, status);
        } else {
            if (status == expected_status && pid_status == expected_pid_status) return 0;
            log_message(3, "Service %s status is %d as expected, but it's process is %d other than %d\n",
                        spec.name.c_str(), expected_status, pid_status, expected_pid_status);
        }
        // The pause follows the last failed attempt as well.
        pause(5);
    }
    return code::copy_or_check_failed;
}

int check_service_status(const ServiceSpec& spec) {
    return check_service_status(spec, query_service_status, [](unsigned seconds) { return sleep(seconds); });
}
