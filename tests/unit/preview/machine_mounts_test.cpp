#include "preview/machine_mounts.hpp"

#include <gtest/gtest.h>

namespace {

using preview::MachineMount;
using Mounts = std::vector<MachineMount>;

// A line of /proc/self/mountinfo for a mount point, its options and type.
std::string line(const std::string& point, const std::string& options, const std::string& type) {
    return "30 1 8:1 / " + point + " " + options + " shared:1 - " + type + " /dev/x rw\n";
}

TEST(MachineMounts, ContentIsTheRootAndTheRealFileSystemsBelowIt) {
    struct Case {
        std::string name, mountinfo;
        Mounts expected;
    } cases[] = {
        {"kernel file systems and private trees left out",
         line("/", "rw", "ext4") + line("/proc", "rw", "proc") + line("/sys", "rw", "sysfs") +
             line("/sys/fs/cgroup", "rw", "cgroup2") + line("/dev/shm", "rw", "tmpfs") + line("/run", "rw", "tmpfs") +
             line("/run/user/0", "rw", "tmpfs") + line("/tmp", "rw", "tmpfs") + line("/proc/sys/fs/binfmt_misc", "rw", "autofs") +
             line("/boot/efi", "rw", "autofs") + line("/var", "rw,nosuid,nodev", "xfs") + line("/srv/data", "ro,noexec", "tmpfs"),
         {{"/"}, {"/var", false, true, true, false}, {"/srv/data", true, false, false, true}}},
        {"a later mount covers the ones at or below its place",
         line("/", "rw", "ext4") + line("/home/a", "rw", "ext4") + line("/home", "rw", "ext4") + line("/home", "ro", "nfs"),
         {{"/"}, {"/home", true}}},
        {"blanks in a mount point come escaped", line("/", "rw", "ext4") + line("/mnt/my\\040disk", "rw", "ext4"),
         {{"/"}, {"/mnt/my disk"}}},
        {"a table without the root still shows it", line("/opt", "rw", "ext4"), {{"/"}, {"/opt"}}},
        {"a root over a root replaces everything", line("/", "rw", "ext4") + line("/var", "rw", "ext4") + line("/", "ro", "overlay"),
         {{"/", true}}},
        {"lines cut short are passed over", "30 1 8:1 / /x rw shared:1\n" + line("/", "rw", "ext4"), {{"/"}}},
    };
    for (const auto& c : cases) EXPECT_EQ(preview::content_mounts(c.mountinfo), c.expected) << c.name;
}

}  // namespace
