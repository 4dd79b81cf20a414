#include "preview/cgroup_limits.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "preview/text_files.hpp"

namespace preview {

namespace {

const std::string hierarchy = "/sys/fs/cgroup";
const std::string prefix = "quorl-sandbox-";
constexpr long cgroup2_magic = 0x63677270;

// A sandbox cut short (its preview killed) leaves its empty cgroup behind;
// a populated one refuses rmdir and stays.
void remove_stale(const std::string& parent) {
    DIR* d = opendir(parent.c_str());
    if (!d) return;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.rfind(prefix, 0) != 0) continue;
        const pid_t owner = static_cast<pid_t>(std::atol(name.c_str() + prefix.size()));
        if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) rmdir((parent + "/" + name).c_str());
    }
    closedir(d);
}

}  // namespace

std::string controllers_missing(const std::string& listed) {
    std::string missing;
    for (const char* needed : {"memory", "pids"}) {
        bool found = false;
        std::istringstream words(listed);
        for (std::string word; words >> word;) found = found || word == needed;
        if (!found) missing += std::string(missing.empty() ? "+" : " +") + needed;
    }
    return missing;
}

std::string unified_path(const std::string& proc_self_cgroup) {
    for (const std::string& line : lines_of(proc_self_cgroup)) {
        if (line.rfind("0::/", 0) == 0) return line.substr(3);
    }
    return "";
}

std::string make_limited_cgroup(const CgroupLimits& limits) {
    struct statfs fs;
    if (statfs(hierarchy.c_str(), &fs) != 0 || fs.f_type != cgroup2_magic) return "";
    const std::string own = unified_path(read_text("/proc/self/cgroup"));
    if (own.empty()) return "";
    const std::string parent = hierarchy + (own == "/" ? "" : own);
    // The controllers must reach this cgroup, and it must hand them on; a
    // cgroup that holds processes of its own (a login session) cannot.
    if (!controllers_missing(read_text(parent + "/cgroup.controllers")).empty()) return "";
    const std::string missing = controllers_missing(read_text(parent + "/cgroup.subtree_control"));
    if (!missing.empty() && !write_to_kernel(parent + "/cgroup.subtree_control", missing)) return "";
    remove_stale(parent);
    const std::string dir = parent + "/" + prefix + std::to_string(getpid());
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return "";
    const uint64_t memory = limits.memory_max ? limits.memory_max
                                              : static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) *
                                                    static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 2;
    if (!write_to_kernel(dir + "/memory.max", std::to_string(memory)) ||
        !write_to_kernel(dir + "/pids.max", std::to_string(limits.pids_max))) {
        rmdir(dir.c_str());
        return "";
    }
    return dir;
}

bool join_cgroup(const std::string& dir) { return write_to_kernel(dir + "/cgroup.procs", "0"); }

void remove_cgroup(const std::string& dir) {
    // The processes of a pid namespace that just ended may still be on their
    // way out; cgroup.events tells when the last one is gone.
    const std::string events = dir + "/cgroup.events";
    for (int waits = 0; waits < 50 && read_text(events).find("populated 1") != std::string::npos; ++waits) {
        const int fd = open(events.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) break;
        pollfd changed{fd, POLLPRI, 0};
        poll(&changed, 1, 100);
        close(fd);
    }
    rmdir(dir.c_str());
}

}  // namespace preview
