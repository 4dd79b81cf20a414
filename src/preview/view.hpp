// How a sandbox's root looks, read without mounting it: each mount of the
// view is a stack of directories of this machine merged the way overlayfs
// merges them (whiteouts, opaque directories), and the change list is what
// the upper directories add to the layers below them.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace preview {

using Components = std::vector<std::string>;

struct Entry {
    std::string host;  // where it lies on this machine
    struct stat st;
};

struct View {
    struct Mount {
        Components at;                    // where it sits in the view; empty for the root
        std::vector<std::string> layers;  // directories (or one file) of this machine, topmost first
    };
    // The deepest mount that holds a path serves it.
    std::vector<Mount> mounts;
    // Mount points made afresh at each run (/proc, /dev): an empty directory
    // but for the mounts below them.  A mount as deep wins over them.
    std::vector<Components> fresh;
};

bool is_whiteout(const struct stat& st);
bool is_opaque(const std::string& host_dir);
std::string join(const std::string& dir, const std::string& name);
Components split(const std::string& path);
std::string to_path(const Components&);

// The entry at a path of the view, without following symlinks on the way.
std::optional<Entry> lookup(const View&, const Components&);
// The entry a path names, following symlinks the way the kernel does
// (absolute targets start again at the view's root).  `canonical` receives
// the path of the entry without links.
std::optional<Entry> resolve(const View&, const std::string& path, bool follow_last,
                             Components* canonical = nullptr);
// The names a directory of the view holds, sorted.
std::vector<std::string> list(const View&, const Components& dir);

struct Difference {
    char kind;  // 'C'reated, 'M'odified (content, type, mode or owner), 'D'eleted
    std::string path;
    bool operator==(const Difference&) const = default;
};
struct Upper {
    Components at;    // the mount point it belongs to
    std::string dir;  // the upper directory on this machine
};
// What the upper directories changed over the view below them, sorted by path.
std::vector<Difference> differences(const std::vector<Upper>& uppers, const View& below);

// Copies a tree, keeping modes, owners, symlinks, whiteouts and the opaque
// mark of directories.  Returns false with a message on failure.
bool copy_tree(const std::string& from, const std::string& to, std::string* error);

// Turns `host_path` of a layer into a whiteout, replacing whatever was there.
bool make_whiteout(const std::string& host_path);
bool make_opaque(const std::string& host_dir);

}  // namespace preview
