#include "kmod/loaded_modules.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

std::optional<LoadedModule> find_loaded_module(const std::string& proc_modules_text, const std::string& name) {
    std::istringstream lines(proc_modules_text);
    for (std::string line; std::getline(lines, line);) {
        // name size use-count users state address
        std::istringstream fields(line);
        std::string module, size, count, users;
        if (!(fields >> module >> size >> count >> users) || module != name) continue;
        LoadedModule found{module, std::atoi(count.c_str()), {}};
        std::istringstream listed(users == "-" ? "" : users);
        for (std::string user; std::getline(listed, user, ',');)
            if (!user.empty()) found.holders.push_back(user);
        return found;
    }
    return std::nullopt;
}

std::optional<LoadedModule> loaded_module(const std::string& name) {
    // Read whole, not in the installer's chunks, whose tail can repeat a line's end.
    std::ifstream file("/proc/modules");
    std::ostringstream text;
    text << file.rdbuf();
    std::optional<LoadedModule> module = find_loaded_module(text.str(), name);
    if (!module) return module;
    std::error_code ec;
    for (const auto& holder : std::filesystem::directory_iterator("/sys/module/" + name + "/holders", ec)) {
        const std::string holder_name = holder.path().filename().string();
        if (std::find(module->holders.begin(), module->holders.end(), holder_name) == module->holders.end())
            module->holders.push_back(holder_name);
    }
    return module;
}

std::string describe_users(const LoadedModule& module) {
    std::string text = "use count " + std::to_string(module.use_count) + ", held by ";
    if (module.holders.empty()) return text + "no other module";
    for (size_t i = 0; i < module.holders.size(); ++i) text += (i ? ", " : "") + module.holders[i];
    return text;
}
