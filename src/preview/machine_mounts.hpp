// Which mounts of this machine hold the content that a view must show: the
// root and every mount below it that is a real file system, in the order of
// the mount table, leaving out the kernel's own file systems and what the
// view makes private (/proc, /sys, /dev, /run, /tmp).
#pragma once

#include <string>
#include <vector>

namespace preview {

struct MachineMount {
    std::string path;  // where it is mounted, "/" first
    bool read_only = false, nosuid = false, nodev = false, noexec = false;
    bool operator==(const MachineMount&) const = default;
};

// One line of /proc/self/mountinfo, its mount point unescaped.
struct MountLine {
    std::string id, parent, point, options, type;
};
std::vector<MountLine> mount_lines(const std::string& mountinfo);

// From the text of /proc/self/mountinfo.  A mount that another one covers
// later (at its own path or above it) is left out.
std::vector<MachineMount> content_mounts(const std::string& mountinfo);

// The mount points strictly below `tree` of the kernel's debugging, tracing
// and security trees, which the view's /sys leaves out; in the order of the
// mount table.
std::vector<std::string> kernel_trees_below(const std::string& mountinfo, const std::string& tree);

// This process's mount table.
std::vector<MachineMount> content_mounts();

// Whether `path` is `tree` or lies below it.
bool within(const std::string& path, const std::string& tree);

}  // namespace preview
