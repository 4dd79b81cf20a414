#include "preview/machine_mounts.hpp"

#include <set>
#include <sstream>

#include "preview/text_files.hpp"

namespace preview {

namespace {

// File systems of the kernel's own, which hold no files of the machine.
const std::set<std::string> kernel_file_systems = {
    "proc",    "sysfs",    "devtmpfs",  "devpts",   "mqueue",    "cgroup",    "cgroup2",     "securityfs",
    "debugfs", "tracefs",  "pstore",    "bpf",      "configfs",  "fusectl",   "hugetlbfs",   "autofs",
    "binfmt_misc", "efivarfs", "rpc_pipefs", "nsfs", "selinuxfs", "nfsd", "fuse.gvfsd-fuse", "fuse.portal"};

// The view's own mount points: what lies in or below them is never shown.
const char* const private_trees[] = {"/proc", "/sys", "/dev", "/run", "/tmp"};

// Mount points are written with octal escapes for blanks, tabs, line feeds and backslashes.
std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        auto octal = [&](size_t k) { return k < text.size() && text[k] >= '0' && text[k] <= '7'; };
        if (text[i] == '\\' && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
            out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

bool has_option(const std::string& options, const std::string& name) {
    std::istringstream in(options);
    for (std::string o; std::getline(in, o, ',');) {
        if (o == name) return true;
    }
    return false;
}

}  // namespace

bool within(const std::string& path, const std::string& tree) {
    if (tree == "/") return true;
    return path == tree || (path.size() > tree.size() && path.compare(0, tree.size(), tree) == 0 && path[tree.size()] == '/');
}

std::vector<MountLine> mount_lines(const std::string& mountinfo) {
    std::vector<MountLine> lines;
    std::istringstream text(mountinfo);
    for (std::string line; std::getline(text, line);) {
        std::istringstream fields(line);
        MountLine m;
        std::string device, root, word;
        if (!(fields >> m.id >> m.parent >> device >> root >> m.point >> m.options)) continue;
        while (fields >> word && word != "-") {
        }
        if (word != "-" || !(fields >> m.type)) continue;
        m.point = unescape(m.point);
        lines.push_back(m);
    }
    return lines;
}

std::vector<MachineMount> content_mounts(const std::string& mountinfo) {
    std::vector<MachineMount> mounts;
    std::set<std::string> seen, shown;  // the ids of the mounts read, and of those the view shows
    for (const MountLine& line : mount_lines(mountinfo)) {
        // Whatever was mounted at this place or below it before is covered now.
        std::erase_if(mounts, [&](const MachineMount& m) { return within(m.path, line.point); });
        // A mount inside one that the view does not show (an automount point,
        // a private tree) is not shown either.
        bool hidden = kernel_file_systems.count(line.type) > 0 || (seen.count(line.parent) && !shown.count(line.parent));
        seen.insert(line.id);
        for (const char* tree : private_trees) hidden = hidden || within(line.point, tree);
        if (hidden && line.point != "/") continue;
        shown.insert(line.id);
        mounts.push_back({line.point, has_option(line.options, "ro"), has_option(line.options, "nosuid"),
                          has_option(line.options, "nodev"), has_option(line.options, "noexec")});
    }
    if (mounts.empty() || mounts.front().path != "/") mounts.insert(mounts.begin(), MachineMount{"/"});
    return mounts;
}

std::vector<std::string> kernel_trees_below(const std::string& mountinfo, const std::string& tree) {
    // Reading some of them has effects on the machine (a trace pipe hands
    // its events to whoever reads first), and an installation needs none.
    static const std::set<std::string> debugging = {"debugfs", "tracefs", "bpf", "securityfs", "pstore", "configfs",
                                                    "fusectl"};
    std::vector<std::string> points;
    for (const MountLine& line : mount_lines(mountinfo)) {
        if (line.point != tree && within(line.point, tree) && debugging.count(line.type)) points.push_back(line.point);
    }
    return points;
}

std::vector<MachineMount> content_mounts() { return content_mounts(read_text("/proc/self/mountinfo")); }

}  // namespace preview
