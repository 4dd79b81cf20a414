#pragma once

#include <optional>
#include <string>
#include <vector>

// A module as the kernel lists it, wherever it stands in /proc/modules (the
// installer's own check looks at the first line alone; programs that report
// to an administrator must not).
struct LoadedModule {
    std::string name;
    int use_count = 0;
    std::vector<std::string> holders;  // the modules that use it
};

// The module's line of /proc/modules text, or nothing when it is not listed.
std::optional<LoadedModule> find_loaded_module(const std::string& proc_modules_text, const std::string& name);

// The module as this host's kernel lists it now, holders from
// /sys/module/NAME/holders added to those of its line.
std::optional<LoadedModule> loaded_module(const std::string& name);

// "use count 1, held by vnt_peer_mem_drv", or "use count 2, held by no other module".
std::string describe_users(const LoadedModule& module);
