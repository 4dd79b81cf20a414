#include "record/run_state.hpp"

#include "system/service.hpp"

std::vector<ManifestEntry> install_entries;
std::unordered_map<std::string, std::string> md5_cache;
UninstallState uninstall_state;

void reset_run_state() {
    install_entries.clear();
    md5_cache.clear();
    uninstall_state = UninstallState{};
    service_specs.clear();
}
