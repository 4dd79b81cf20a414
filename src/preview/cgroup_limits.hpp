// A cgroup of the sandbox's own that bounds its memory and its number of
// processes, so that a build that goes wrong meets its limit and not this
// machine's OOM killer.  It is made only where it can be: cgroup v2 at
// /sys/fs/cgroup, and this process's cgroup able to hand the memory and pids
// controllers to a child (the root cgroup, or one delegated without other
// processes in it).  Elsewhere the sandbox runs without it, as before.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace preview {

struct CgroupLimits {
    uint64_t memory_max = 0;  // bytes; 0: half of this machine's memory
    unsigned pids_max = 4096;
};

// The words of a cgroup's "cgroup.controllers" or "cgroup.subtree_control"
// that the limits need and `listed` lacks, as "+memory +pids" writes them.
std::string controllers_missing(const std::string& listed);

// This process's cgroup v2 path from the text of /proc/self/cgroup, or ""
// when it is in no v2 hierarchy.
std::string unified_path(const std::string& proc_self_cgroup);

// Makes the cgroup "quorl-sandbox-PID" below this process's own, with the
// limits; returns its directory, or "" when this machine cannot have it.
// Cgroups of earlier sandboxes whose process is gone are removed on the way.
std::string make_limited_cgroup(const CgroupLimits&);

// Moves the calling process into the cgroup of `dir`.
bool join_cgroup(const std::string& dir);

// Removes the cgroup once its last process is gone.
void remove_cgroup(const std::string& dir);

}  // namespace preview
