#include "preview/view.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

namespace preview {

namespace {

constexpr const char* opaque_xattr = "trusted.overlay.opaque";

std::vector<std::string> names_in(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (dirent* e = readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

bool starts_with(const Components& path, const Components& prefix) {
    return path.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

// The directories of each layer that make up a directory of the overlay:
// the walk down stops at a whiteout, a non-directory or an opaque directory,
// which hide everything below them.
std::vector<std::string> layer_dirs(const std::vector<std::string>& layers, const Components& dir,
                                    std::optional<Entry>* top = nullptr) {
    std::vector<std::string> live = layers;
    if (top) {
        *top = std::nullopt;
        struct stat st;
        if (dir.empty() && !layers.empty() && lstat(layers.front().c_str(), &st) == 0) *top = Entry{layers.front(), st};
    }
    for (size_t i = 0; i < dir.size(); ++i) {
        std::vector<std::string> next;
        bool found = false;
        for (const auto& d : live) {
            std::string p = join(d, dir[i]);
            struct stat st;
            if (lstat(p.c_str(), &st) != 0) continue;
            if (is_whiteout(st)) break;
            if (!found) {
                found = true;
                if (top && i + 1 == dir.size()) *top = Entry{p, st};
            }
            if (!S_ISDIR(st.st_mode)) break;
            next.push_back(p);
            if (is_opaque(p)) break;
        }
        if (!found) {
            if (top) *top = std::nullopt;
            return {};
        }
        live = std::move(next);
    }
    return live;
}

// What serves a path: the deepest mount, or a fresh mount point as deep or deeper.
struct Owner {
    const View::Mount* mount = nullptr;
    const Components* fresh = nullptr;
};

Owner owner_of(const View& view, const Components& path) {
    Owner o;
    for (const auto& m : view.mounts) {
        if (starts_with(path, m.at) && (!o.mount || m.at.size() > o.mount->at.size())) o.mount = &m;
    }
    for (const auto& f : view.fresh) {
        if (starts_with(path, f) && (!o.mount || f.size() > o.mount->at.size()) && (!o.fresh || f.size() > o.fresh->size()))
            o.fresh = &f;
    }
    if (o.fresh) o.mount = nullptr;
    return o;
}

Components below(const Components& path, const Components& at) {
    return Components(path.begin() + static_cast<long>(at.size()), path.end());
}

bool same_content(const std::string& a, const std::string& b) {
    int fa = open(a.c_str(), O_RDONLY | O_CLOEXEC);
    int fb = open(b.c_str(), O_RDONLY | O_CLOEXEC);
    bool same = fa >= 0 && fb >= 0;
    static char ba[65536], bb[65536];
    while (same) {
        ssize_t ra = read(fa, ba, sizeof ba);
        ssize_t rb = ra > 0 ? read(fb, bb, static_cast<size_t>(ra)) : read(fb, bb, 1);
        if (ra < 0 || rb < 0 || ra != rb) {
            same = false;
            break;
        }
        if (ra == 0) break;
        same = std::memcmp(ba, bb, static_cast<size_t>(ra)) == 0;
    }
    if (fa >= 0) close(fa);
    if (fb >= 0) close(fb);
    return same;
}

std::string read_link(const std::string& path) {
    std::string target(4096, '\0');
    ssize_t n = readlink(path.c_str(), target.data(), target.size());
    target.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return target;
}

bool differs(const Entry& now, const Entry& before) {
    const struct stat &a = now.st, &b = before.st;
    if (a.st_mode != b.st_mode || a.st_uid != b.st_uid || a.st_gid != b.st_gid) return true;
    if (S_ISLNK(a.st_mode)) return read_link(now.host) != read_link(before.host);
    if (S_ISREG(a.st_mode)) return a.st_size != b.st_size || !same_content(now.host, before.host);
    if (S_ISCHR(a.st_mode) || S_ISBLK(a.st_mode)) return a.st_rdev != b.st_rdev;
    return false;
}

void add_deleted_tree(const View& lower, Components& path, std::vector<Difference>& out) {
    out.push_back({'D', to_path(path)});
    auto entry = lookup(lower, path);
    if (!entry || !S_ISDIR(entry->st.st_mode)) return;
    for (const auto& name : list(lower, path)) {
        path.push_back(name);
        add_deleted_tree(lower, path, out);
        path.pop_back();
    }
}

void walk_upper(const std::string& dir, Components& path, const View& lower, std::vector<Difference>& out) {
    for (const auto& name : names_in(dir)) {
        std::string host = join(dir, name);
        struct stat st;
        if (lstat(host.c_str(), &st) != 0) continue;
        path.push_back(name);
        auto before = lookup(lower, path);
        if (is_whiteout(st)) {
            if (before) add_deleted_tree(lower, path, out);
        } else if (S_ISDIR(st.st_mode)) {
            bool was_dir = before && S_ISDIR(before->st.st_mode);
            if (!before)
                out.push_back({'C', to_path(path)});
            else if (differs(Entry{host, st}, *before))
                out.push_back({'M', to_path(path)});
            // An opaque directory replaced the one below: whatever the lower
            // layers held there and the upper one lacks is gone.
            if (was_dir && is_opaque(host)) {
                auto upper_names = names_in(host);
                std::set<std::string> kept(upper_names.begin(), upper_names.end());
                for (const auto& old : list(lower, path)) {
                    if (kept.count(old)) continue;
                    path.push_back(old);
                    add_deleted_tree(lower, path, out);
                    path.pop_back();
                }
            }
            walk_upper(host, path, lower, out);
        } else if (!before) {
            out.push_back({'C', to_path(path)});
        } else if (differs(Entry{host, st}, *before)) {
            out.push_back({'M', to_path(path)});
        }
        path.pop_back();
    }
}

bool copy_file_content(const std::string& from, const std::string& to, mode_t mode) {
    int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode & 07777);
    if (out < 0) {
        close(in);
        return false;
    }
    bool ok = true;
    static char buf[65536];
    for (;;) {
        ssize_t r = read(in, buf, sizeof buf);
        if (r == 0) break;
        if (r < 0 || write(out, buf, static_cast<size_t>(r)) != r) {
            ok = false;
            break;
        }
    }
    close(in);
    close(out);
    return ok;
}

}  // namespace

bool is_whiteout(const struct stat& st) { return S_ISCHR(st.st_mode) && st.st_rdev == makedev(0, 0); }

bool is_opaque(const std::string& host_dir) {
    char value[2] = {};
    ssize_t n = lgetxattr(host_dir.c_str(), opaque_xattr, value, sizeof value);
    return n == 1 && value[0] == 'y';
}

std::string join(const std::string& dir, const std::string& name) {
    if (!dir.empty() && dir.back() == '/') return dir + name;
    return dir + "/" + name;
}

Components split(const std::string& path) {
    Components parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::string to_path(const Components& parts) {
    if (parts.empty()) return "/";
    std::string path;
    for (const auto& p : parts) path += "/" + p;
    return path;
}

std::optional<Entry> lookup(const View& view, const Components& path) {
    Owner o = owner_of(view, path);
    if (o.fresh) {
        if (path.size() != o.fresh->size()) return std::nullopt;
        Entry e{"", {}};
        e.st.st_mode = S_IFDIR | 0755;
        return e;
    }
    if (!o.mount) return std::nullopt;
    std::optional<Entry> top;
    layer_dirs(o.mount->layers, below(path, o.mount->at), &top);
    return top;
}

std::optional<Entry> resolve(const View& view, const std::string& path, bool follow_last, Components* canonical) {
    Components todo = split(path);
    std::reverse(todo.begin(), todo.end());
    Components cur;
    int links = 0;
    while (!todo.empty()) {
        std::string name = todo.back();
        todo.pop_back();
        if (name == ".") continue;
        if (name == "..") {
            if (!cur.empty()) cur.pop_back();
            continue;
        }
        cur.push_back(name);
        auto entry = lookup(view, cur);
        if (!entry) return std::nullopt;
        bool last = todo.empty();
        if (S_ISLNK(entry->st.st_mode) && (!last || follow_last)) {
            if (++links > 40) return std::nullopt;
            std::string target = read_link(entry->host);
            cur.pop_back();
            if (!target.empty() && target.front() == '/') cur.clear();
            Components more = split(target);
            todo.insert(todo.end(), more.rbegin(), more.rend());
            continue;
        }
        if (!last && !S_ISDIR(entry->st.st_mode)) return std::nullopt;
    }
    if (canonical) *canonical = cur;
    return lookup(view, cur);
}

std::vector<std::string> list(const View& view, const Components& dir) {
    auto entry = lookup(view, dir);
    if (!entry || !S_ISDIR(entry->st.st_mode)) return {};
    std::set<std::string> names;
    // Mounts and fresh mount points below this directory show up in it.
    auto add_child_of = [&](const Components& p) {
        if (p.size() > dir.size() && starts_with(p, dir)) names.insert(p[dir.size()]);
    };
    for (const auto& m : view.mounts) add_child_of(m.at);
    for (const auto& f : view.fresh) add_child_of(f);
    Owner o = owner_of(view, dir);
    if (o.mount) {
        std::map<std::string, bool> seen;
        for (const auto& d : layer_dirs(o.mount->layers, below(dir, o.mount->at))) {
            for (const auto& n : names_in(d)) {
                if (seen.count(n)) continue;
                struct stat st;
                seen[n] = lstat(join(d, n).c_str(), &st) == 0 && !is_whiteout(st);
            }
        }
        for (const auto& [n, visible] : seen) {
            if (visible) names.insert(n);
        }
    }
    return {names.begin(), names.end()};
}

std::vector<Difference> differences(const std::vector<Upper>& uppers, const View& below_view) {
    std::vector<Difference> out;
    for (const auto& u : uppers) {
        Components path = u.at;
        walk_upper(u.dir, path, below_view, out);
    }
    std::sort(out.begin(), out.end(), [](const Difference& a, const Difference& b) { return a.path < b.path; });
    return out;
}

bool copy_tree(const std::string& from, const std::string& to, std::string* error) {
    struct stat st;
    auto fail = [&](const char* what) {
        if (error) *error = std::string(what) + " " + to + ": " + std::strerror(errno);
        return false;
    };
    if (lstat(from.c_str(), &st) != 0) return fail("lstat");
    if (S_ISDIR(st.st_mode)) {
        if (mkdir(to.c_str(), st.st_mode & 07777) != 0 && errno != EEXIST) return fail("mkdir");
        if (is_opaque(from) && !make_opaque(to)) return fail("mark opaque");
        for (const auto& name : names_in(from)) {
            if (!copy_tree(join(from, name), join(to, name), error)) return false;
        }
    } else if (S_ISLNK(st.st_mode)) {
        if (::symlink(read_link(from).c_str(), to.c_str()) != 0) return fail("symlink");
    } else if (S_ISREG(st.st_mode)) {
        if (!copy_file_content(from, to, st.st_mode)) return fail("copy");
    } else if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISFIFO(st.st_mode)) {
        if (mknod(to.c_str(), st.st_mode, st.st_rdev) != 0) return fail("mknod");
    } else {
        return true;  // sockets have no place in a layer
    }
    if (lchown(to.c_str(), st.st_uid, st.st_gid) != 0) return fail("chown");
    if (!S_ISLNK(st.st_mode) && chmod(to.c_str(), st.st_mode & 07777) != 0) return fail("chmod");
    return true;
}

bool make_whiteout(const std::string& host_path) {
    std::error_code ec;
    std::filesystem::remove_all(host_path, ec);
    return mknod(host_path.c_str(), S_IFCHR | 0000, makedev(0, 0)) == 0;
}

bool make_opaque(const std::string& host_dir) { return lsetxattr(host_dir.c_str(), opaque_xattr, "y", 1, 0) == 0; }

}  // namespace preview
