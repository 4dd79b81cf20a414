#include "system/service_removal.hpp"

#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/environment_probes.hpp"
#include "host/file_digest.hpp"
#include "host/files.hpp"
#include "record/run_state.hpp"

std::string service_unit_file(const std::string& name) {
    const size_t at = name.find('@');
    const std::string unit = (at == std::string::npos ? name : name.substr(0, at + 1)) + ".service";
    return (std::filesystem::path("/lib/systemd/system") / unit).string();
}

std::string service_slice(const std::string& name) { return "system/" + name.substr(0, name.find('@')) + ".slice"; }

int uninstall_service_entry(ManifestEntry entry) {
    const std::string& name = entry.path;
    if (inside_docker()) {
        log_message(2, "Skip systemctl in side docker.\n");
        return removal::skipped_in_container;
    }
    std::string output;
    int32_t status = 0;
    run_command("systemctl disable " + name + " 2>&1; systemctl stop " + name + " 2>&1", output, status);

    const std::string unit_file = service_unit_file(name);
    log_message(0, "checking service_file %s\n", unit_file.c_str());
    if (file_exists(unit_file)) {
        // A unit file that somebody edited is theirs: the service is stopped,
        // but the file stays and systemd is left as it is.
        if (md5_cache[unit_file] != entry.md5 && file_md5(unit_file) != entry.md5) {
            log_message(1, "%s's md5 mismatch, skip remove. please check it's content.\n", unit_file.c_str());
            uninstall_state.kept.push_back(unit_file);
            return removal::done;
        }
        // The message does not depend on the deletion; the report says only what went.
        if (remove(unit_file.c_str()) == 0) uninstall_state.removed.push_back(unit_file);
        log_message(2, "Uninstall: %s Succeed.\n", unit_file.c_str());
    }
    run_command("systemctl reset-failed;systemctl daemon-reload", output, status);

    // systemctl answers 4 for a unit it does not know: the proof that the service is gone.
    status = 0;
    run_command("systemctl status " + name + " 2>&1", output, status);
    if (status != 4) {
        log_message(2, "Uninstall: service:%s failed.\n", name.c_str());
        log_message(3, "    service %s may not being removed properly.\n", name.c_str());
        return removal::service_not_removed;
    }
    log_message(2, "Uninstall: service:%s success.\n", name.c_str());
    uninstall_state.services.push_back(name);

    if (name.find('@') == std::string::npos) {
        log_message(0, "not template. f.path:%s\n", name.c_str());
        return removal::done;
    }
    run_command_output("systemctl stop $(systemd-escape " + service_slice(name) + ");", output);
    return removal::done;
}
