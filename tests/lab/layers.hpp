// How a host's root looks without mounting it: the overlay's layers read
// the way the kernel merges them (whiteouts, opaque directories), plus the
// directories and files that a run binds over parts of the tree.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

namespace lab::detail {

using Components = std::vector<std::string>;

struct Entry {
    std::string host;  // where it lies on this machine
    struct stat st;
};

struct View {
    std::vector<std::string> layers;  // topmost first; "/" is the machine itself
    // A path of the host (as components) served by a directory or file of
    // this machine instead of the overlay; the longest prefix wins.
    std::vector<std::pair<Components, std::string>> binds;
    // Mount points whose content is made afresh at each run (/proc, /dev,
    // /run): they exist as empty directories apart from their binds.
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
// (absolute targets start again at the host's root).  `canonical` receives
// the path of the entry without links.
std::optional<Entry> resolve(const View&, const std::string& path, bool follow_last,
                             Components* canonical = nullptr);
// The names a directory of the view holds, sorted.
std::vector<std::string> list(const View&, const Components& dir);

struct Difference {
    char kind;
    std::string path;
};
// What `upper` changed over the layers of `lower`: created, modified
// (content, type, mode or owner) and deleted paths, sorted by path.
std::vector<Difference> differences(const std::string& upper, const View& lower);

// Copies a layer, keeping modes, owners, symlinks, whiteouts and the opaque
// mark of directories.  Returns false with a message on failure.
bool copy_layer(const std::string& from, const std::string& to, std::string* error);

// Turns `path` of a layer into a whiteout, replacing whatever was there.
bool make_whiteout(const std::string& host_path);
bool make_opaque(const std::string& host_dir);

}  // namespace lab::detail
