#include "record/tree_scan.hpp"

#include <dirent.h>
#include <sys/stat.h>

#include "host/file_digest.hpp"

namespace {

// Each walk keeps its list for the whole process; a public call empties it
// first, so two scans never mix. The walks are not re-entrant.
std::vector<ManifestEntry> scanned_entries;
std::vector<ManifestEntry> installed_entries;

// One name of a walk: `target` is where the thing lies on the host now.
void note(const std::string& target, std::vector<ManifestEntry>& entries, bool& is_dir) {
    struct stat st;
    is_dir = false;
    if (lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        entries.push_back({"SYMLINK", target, ""});
    } else if (stat(target.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        is_dir = true;  // the directory adds its own entry at the end of its walk
    } else {
        entries.push_back({"FILE", target, cached_file_md5(target)});
    }
}

void walk(const std::string& dir) {
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr) return;
    while (const dirent* item = readdir(stream)) {
        const std::string name = item->d_name;
        if (name[0] == '.') continue;
        const std::string full = dir + "/" + name;
        bool is_dir = false;
        note(full, scanned_entries, is_dir);
        if (is_dir) walk(full);
    }
    scanned_entries.push_back({"DIR", dir, ""});
    closedir(stream);
}

void walk_installed(const std::string& rel_dir, const std::string& root) {
    DIR* stream = opendir(rel_dir.c_str());
    if (stream == nullptr) return;
    while (const dirent* item = readdir(stream)) {
        const std::string name = item->d_name;
        if (name[0] == '.') continue;
        const std::string source = rel_dir + "/" + name;
        const std::string target = root + "/" + rel_dir + "/" + name;
        bool is_dir = false;
        note(target, installed_entries, is_dir);
        if (is_dir) walk_installed(source, root);
    }
    installed_entries.push_back({"DIR", root + "/" + rel_dir, ""});
    closedir(stream);
}

}  // namespace

std::vector<ManifestEntry> scan_tree(const std::string& dir) {
    scanned_entries.clear();
    walk(dir);
    return scanned_entries;
}

std::vector<ManifestEntry> scan_installed_tree(const std::string& rel_dir, const std::string& root) {
    installed_entries.clear();
    walk_installed(rel_dir, root);
    return installed_entries;
}
