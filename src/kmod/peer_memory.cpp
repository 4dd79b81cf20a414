#include "kmod/peer_memory.hpp"

#include <climits>
#include <cstdlib>
#include <string>
#include <sys/utsname.h>

#include "app/log.hpp"
#include "host/files.hpp"

bool ofed_available() {
    static const char* const required[] = {
        "/usr/src/ofa_kernel/default",
        "/usr/src/ofa_kernel/default/include/rdma/peer_mem.h",
        "/usr/src/ofa_kernel/default/Module.symvers",
    };
    for (const char* path : required) {
        if (!file_exists(path)) {
            log_message(0, "OFED dir [%s] is not exist.\n", path);
            return false;
        }
    }
    if (!is_symlink("/usr/src/ofa_kernel/default")) return true;

    char resolved[PATH_MAX];
    if (realpath("/usr/src/ofa_kernel/default", resolved) == nullptr) return false;
    const std::string target = resolved;
    const std::string version = target.substr(target.rfind('/') + 1);
    log_message(0, "Use OFED: %s, version: %s\n", resolved, version.c_str());

    struct utsname host;
    if (uname(&host) != 0) return false;
    if (version != host.release) {
        log_message(3, "Version of OFED is %s, not the same as running kernel %s.\n", version.c_str(), host.release);
    }
    return true;
}
