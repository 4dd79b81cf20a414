// One command run over a copy-on-write view of this machine, in private
// mount, pid, uts, ipc, cgroup and (unless asked) network namespaces and,
// where cgroup v2 allows, a cgroup with memory and pid limits, with
// pid 1 playing the kernel for it, and the command confined to the view
// (confinement.hpp, syscall_filter.hpp).  Every write lands in the changes
// directory; nothing mounted or started outlives the run, nor the process
// that started it.
//
// The view's root is an overlay of this machine's root, and one more for
// each mount of this machine that holds content, under the extra layers
// given (topmost first).  /proc is a fresh proc with /proc/modules and
// /proc/cmdline taken from the kernel's state (kernel_stand_in.hpp), /dev a
// private set of harmless devices, /run a fresh tmpfs whose
// /run/quorl-preview is the state's run/ directory, /tmp a fresh tmpfs or
// the directory given, /sys this machine's read-only (with the state's
// sys/module over /sys/module) or the state's own sys/.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "preview/cgroup_limits.hpp"
#include "preview/machine_mounts.hpp"
#include "preview/view.hpp"

namespace preview {

// Where the command finds the state's run/ directory.
inline constexpr const char* run_state_dir = "/run/quorl-preview";

struct Sandbox {
    // An empty directory of this machine; a tmpfs is mounted on it in the
    // sandbox's own namespace to put the view together.
    std::string stage;
    // Trees of a whole root laid over this machine's content, topmost first.
    std::vector<std::string> layers;
    // The mounts of this machine whose content the view shows ("/" first).
    std::vector<MachineMount> content = {MachineMount{"/"}};
    // Where the writes go: upper/ and work/ for the root, and
    // mounts/NAME/upper and work for each other mount of `content`.
    std::string changes;
    // The kernel's state, laid out as kernel_stand_in.hpp tells.
    std::string state;
    // false: the command plays the kernel itself, as a preview does, and keeps
    // what it needs to build a view of its own; true: pid 1 answers its
    // module calls, and the command is confined (confinement.hpp,
    // syscall_filter.hpp).
    bool answer_kernel = true;
    bool own_sys = false;       // the state's sys/ is /sys, instead of this machine's
    std::string run_seed;       // a directory whose content /run starts with, if any
    std::string tmp;            // the directory shown as /tmp; empty: a fresh one
    // Directories of this machine in /tmp that the view shows all the same,
    // copy-on-write, at their place (a package unpacked in /tmp); their
    // writes go to changes/visible/N and are no part of the change list.
    std::vector<std::string> kept_visible;
    // Files or directories of this machine shown at paths of the view,
    // over what the view has there, after everything else.
    std::vector<std::pair<std::string, std::string>> binds;

    std::vector<std::string> argv;
    std::vector<std::string> env;
    std::string cwd = "/";
    uid_t uid = 0;
    gid_t gid = 0;
    bool network = false;
    std::string hostname;  // empty: this machine's
    unsigned timeout = 0;  // seconds; 0 waits as long as it takes
    // The limit of each tmpfs of the view, as tmpfs takes it: a quarter of
    // this machine's memory unless told.
    std::string tmpfs_size = "25%";
    // The bounds of the sandbox's own cgroup, where this machine can give it one.
    CgroupLimits limits;
    std::string cgroup;    // file shown as the command's own /proc/self/cgroup
    // Descriptors for the standard streams; -1 shares this process's own.
    int stdin_fd = -1, stdout_fd = -1, stderr_fd = -1;
};

// The view as the command sees it (`with_writes`) or as it was before any
// run (the layers and this machine alone).
View view_of(const Sandbox&, bool with_writes);
// The paths the runs created, changed and deleted, sorted.  /proc, /sys,
// /dev, /run and /tmp are no part of it.
std::vector<Difference> changes_of(const Sandbox&);

// The upper directories that hold the writes, each with its mount point.
std::vector<Upper> uppers_of(const Sandbox&);
// Where the writes to a path of the view lie on this machine, or "" when
// no overlay takes them.
std::string written_at(const Sandbox&, const std::string& path);

// The command's exit status, or 128+signal.  When the sandbox itself could
// not be set up the result is 125 and `error` says why.
int run_sandboxed(const Sandbox&, std::string* error);

// Called right after fork(): this process is killed when `parent` ends, by
// whatever signal, so that nothing of a sandbox outlives the one who started it.
void die_with(pid_t parent);

// What stands in the way of sandboxes on this machine, or "" when nothing
// does: root, overlayfs, seccomp user notification, the namespaces.
std::string sandbox_obstacle();

}  // namespace preview
