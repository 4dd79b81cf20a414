#include "preview/machine_mounts.hpp"

#include <gtest/gtest.h>

namespace {

using preview::MachineMount;
using Mounts = std::vector<MachineMount>;

// A line of /proc/self/mountinfo for a mount point, its options and type;
// its parent is the root (1) unless said.
std::string line(const std::string& point, const std::string& options, const std::string& type, int id = 30,
                 int parent = 1) {
    return std::to_string(id) + " " + std::to_string(parent) + " 8:1 / " + point + " " + options + " shared:1 - " +
           type + " /dev/x rw\n";
}
const std::string root = line("/", "rw", "ext4", 1, 0);

TEST(MachineMounts, ContentIsTheRootAndTheRealFileSystemsBelowIt) {
    struct Case {
        std::string name, mountinfo;
        Mounts expected;
    } cases[] = {
        {"kernel file systems and private trees left out",
         root + line("/proc", "rw", "proc") + line("/sys", "rw", "sysfs") +
             line("/sys/fs/cgroup", "rw", "cgroup2") + line("/dev/shm", "rw", "tmpfs") + line("/run", "rw", "tmpfs") +
             line("/run/user/0", "rw", "tmpfs") + line("/tmp", "rw", "tmpfs") + line("/proc/sys/fs/binfmt_misc", "rw", "autofs") +
             line("/boot/efi", "rw", "autofs") + line("/var", "rw,nosuid,nodev", "xfs") + line("/srv/data", "ro,noexec", "tmpfs"),
         {{"/"}, {"/var", false, true, true, false}, {"/srv/data", true, false, false, true}}},
        {"a later mount covers the ones at or below its place",
         root + line("/home/a", "rw", "ext4") + line("/home", "rw", "ext4") + line("/home", "ro", "nfs"),
         {{"/"}, {"/home", true}}},
        {"blanks in a mount point come escaped", root + line("/mnt/my\\040disk", "rw", "ext4"),
         {{"/"}, {"/mnt/my disk"}}},
        {"a table without the root still shows it", line("/opt", "rw", "ext4", 30, 0), {{"/"}, {"/opt"}}},
        {"mounts inside one that is not shown are not shown",
         root + line("/home", "rw", "autofs", 40) + line("/home/ada", "rw", "nfs", 41, 40) + line("/srv", "rw", "ext4", 42) +
             line("/srv/data", "rw", "ext4", 43, 42),
         {{"/"}, {"/srv"}, {"/srv/data"}}},
        {"a root over a root replaces everything", root + line("/var", "rw", "ext4") + line("/", "ro", "overlay"),
         {{"/", true}}},
        {"lines cut short are passed over", "30 1 8:1 / /x rw shared:1\n" + line("/", "rw", "ext4"), {{"/"}}},
    };
    for (const auto& c : cases) EXPECT_EQ(preview::content_mounts(c.mountinfo), c.expected) << c.name;
    // Each file system of the kernel's own, wherever it is mounted.
    for (const char* type : {"proc", "sysfs", "devtmpfs", "devpts", "mqueue", "cgroup", "cgroup2", "securityfs", "debugfs",
                             "tracefs", "pstore", "bpf", "configfs", "fusectl", "hugetlbfs", "autofs", "binfmt_misc",
                             "efivarfs", "rpc_pipefs", "nsfs", "selinuxfs", "nfsd", "fuse.gvfsd-fuse", "fuse.portal"})
        EXPECT_EQ(preview::content_mounts(root + line("/mnt/k", "rw", type)), Mounts{{"/"}}) << type;
}

TEST(MachineMounts, TheViewsSysLeavesOutTheKernelsDebuggingTrees) {
    const std::string sys = "/stage/root/sys";
    const std::string table = line(sys, "ro", "sysfs", 40) + line(sys + "/kernel/debug", "ro", "debugfs", 41, 40) +
                              line(sys + "/kernel/debug/tracing", "ro", "tracefs", 42, 41) +
                              line(sys + "/fs/bpf", "ro", "bpf", 43, 40) + line(sys + "/kernel/security", "ro", "securityfs") +
                              line(sys + "/fs/pstore", "ro", "pstore") + line(sys + "/kernel/config", "ro", "configfs") +
                              line(sys + "/fs/fuse/connections", "ro", "fusectl") +
                              // What the installation reads stays: the firmware variables and the cgroups.
                              line(sys + "/firmware/efi/efivars", "ro", "efivarfs") + line(sys + "/fs/cgroup", "ro", "cgroup2") +
                              // Only below the tree asked for.
                              line("/sys/kernel/tracing", "rw", "tracefs") + line("/stage/root/system/t", "rw", "tracefs");
    EXPECT_EQ(preview::kernel_trees_below(table, sys),
              (std::vector<std::string>{sys + "/kernel/debug", sys + "/kernel/debug/tracing", sys + "/fs/bpf",
                                        sys + "/kernel/security", sys + "/fs/pstore", sys + "/kernel/config",
                                        sys + "/fs/fuse/connections"}));
}

}  // namespace
