#include "host/system_utilities.hpp"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>
#include <vector>

#include "app/log.hpp"
#include "host/files.hpp"

// Rows 10 to 14 close and reopen the quotes inside the package text, so that
// the message reads 'module-init-tools' or 'kmod'.
SystemUtility system_utilities[17] = {
    {"ldconfig", "glibc", 0},
    {"ldd", "glibc", 0},
    {"grep", "grep", 0},
    {"dmesg", "util-linux", 0},
    {"tail", "coreutils", 0},
    {"cut", "coreutils", 0},
    {"tr", "coreutils", 0},
    {"sed", "sed", 0},
    {"objcopy", "binutils", 0},
    {"insmod", "module-init-tools' or 'kmod", 0},
    {"modprobe", "module-init-tools' or 'kmod", 0},
    {"rmmod", "module-init-tools' or 'kmod", 0},
    {"lsmod", "module-init-tools' or 'kmod", 0},
    {"depmod", "module-init-tools' or 'kmod", 0},
    {"gcc", "gcc", 0},
    {"make", "make", 0},
    {"ld", "binutils", 0},
};

std::vector<std::string> search_path_elements(const char* current) {
    const std::string default_path = "/bin:/usr/bin:/sbin:/usr/sbin";
    const std::string joined = current != nullptr ? std::string(current) + ":" + default_path : default_path;

    std::vector<std::string> elements;
    for (const std::string& element : split_string(joined, ':')) {
        if (std::find(elements.begin(), elements.end(), element) == elements.end()) elements.push_back(element);
    }
    return elements;
}

namespace {

std::string joined_path(const std::vector<std::string>& elements) {
    std::string result;
    for (size_t i = 0; i < elements.size(); ++i) {
        if (i > 0) result += ":";
        result += elements[i];
    }
    return result;
}

}  // namespace

bool find_system_utility(const std::string& name) {
    // The widened PATH is left in the environment on purpose: the commands of
    // the whole run then find the tools in the default directories even when
    // the caller's PATH lacked them. Repeated calls leave it as the first made it.
    const std::vector<std::string> elements = search_path_elements(getenv("PATH"));
    setenv("PATH", joined_path(elements).c_str(), 1);

    // The list itself, not the joined text split again: that would lose an
    // empty element at the end, and with it the candidate "/" + name.
    for (const std::string& element : elements) {
        const std::string candidate = element + "/" + name;
        if (file_exists(candidate) && access(candidate.c_str(), X_OK) == 0) return true;
    }
    return false;
}

bool check_system_utilities(SystemUtility* table, size_t count) {
    if (table == nullptr) return false;
    bool all_found = true;
    for (size_t i = 0; i < count; ++i) {
        SystemUtility& utility = table[i];
        if (find_system_utility(utility.name)) {
            utility.found = 1;
            log_message(0, "found system utility '%s'\n", utility.name);
        } else {
            utility.found = 0;
            log_message(4, "Unable to find the system utility '%s'; please make sure you have the package '%s' installed.  If you do have '%s' installed, then please check that '%s' is in your PATH.\n",
                        utility.name, utility.package, utility.package, utility.name);
            all_found = false;
        }
    }
    return all_found;
}
