#include "status/record_check.hpp"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "dkms/dkms_config.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "record/install_record.hpp"
#include "status/file_digests.hpp"

namespace {

PathSight::Kind kind_from_stat(int result, const struct stat& st, bool want_link) {
    if (result != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return PathSight::Kind::absent;
        return PathSight::Kind::unreadable;
    }
    if (want_link) return S_ISLNK(st.st_mode) ? PathSight::Kind::link : PathSight::Kind::other;
    return S_ISDIR(st.st_mode) ? PathSight::Kind::directory : PathSight::Kind::other;
}

PathSight::Kind digest_kind(FileDigest::Outcome outcome) {
    switch (outcome) {
    case FileDigest::Outcome::read: return PathSight::Kind::file;
    case FileDigest::Outcome::missing: return PathSight::Kind::absent;
    case FileDigest::Outcome::unreadable: return PathSight::Kind::unreadable;
    case FileDigest::Outcome::not_a_file: return PathSight::Kind::other;
    }
    return PathSight::Kind::other;
}

// Files by their digests, all at once so that they hash side by side; links
// and directories by what lstat and stat say. One sight for each path, in order.
std::vector<PathSight> look_at_paths(const std::vector<RecordedPath>& recorded) {
    std::vector<PathSight> sights(recorded.size());
    std::vector<std::string> files;
    std::vector<size_t> file_places;
    for (size_t i = 0; i < recorded.size(); ++i) {
        const RecordedPath& path = recorded[i];
        if (path.kind == RecordedPath::Kind::file) {
            files.push_back(path.path);
            file_places.push_back(i);
            continue;
        }
        struct stat st;
        const bool link = path.kind == RecordedPath::Kind::link;
        const int result = link ? lstat(path.path.c_str(), &st) : stat(path.path.c_str(), &st);
        sights[i] = {kind_from_stat(result, st, link), ""};
    }
    std::vector<FileDigest> digests = digest_files(files, hashing_threads());
    for (size_t i = 0; i < files.size(); ++i)
        sights[file_places[i]] = {digest_kind(digests[i].outcome), std::move(digests[i].md5)};
    return sights;
}

std::string text_of(const std::string& path) {
    std::string text;
    read_file(path, text);
    return text;
}

}  // namespace

Observations observe_host(const std::string& record_path) {
    Observations seen;
    struct stat st;
    if (stat(record_path.c_str(), &st) != 0) {
        // A directory on the way that this user may not enter hides a record
        // as well as none at all would: only its absence says "not installed".
        seen.record = errno == ENOENT || errno == ENOTDIR ? RecordReading::absent : RecordReading::unreadable;
        return seen;
    }
    if (access(record_path.c_str(), R_OK) != 0 || S_ISDIR(st.st_mode)) {
        seen.record = RecordReading::unreadable;
        return seen;
    }
    seen.record = RecordReading::read;
    seen.entries = read_install_record(record_path);
    if (!installed_prefix(seen.entries)) return seen;

    seen.sights = look_at_paths(recorded_paths(seen.entries));

    for (const ManifestEntry& entry : seen.entries) {
        if (entry.type == "DKMS")
            seen.dkms_source = file_exists(read_dkms_config().dkms_tree + "/quorl/" + entry.path + "/source");
    }

    struct utsname names;
    if (uname(&names) == 0) seen.running_kernel = names.release;
    seen.modules_dep = text_of("/lib/modules/" + seen.running_kernel + "/modules.dep");

    seen.proc_modules = text_of("/proc/modules");
    for (const std::string& name : listed_modules(seen.proc_modules)) {
        if (std::find(driver_modules.begin(), driver_modules.end(), name) == driver_modules.end()) continue;
        std::string loaded;
        if (read_file("/sys/module/" + name + "/version", loaded)) {
            trim_whitespace(loaded);
            seen.loaded_version = loaded;
        }
        break;
    }

    for (const ManifestEntry& entry : seen.entries) {
        if (entry.type != "SERVICE") continue;
        std::string output;
        int32_t status = -1;
        // systemctl answers 0 for an enabled unit, whoever asks.
        if (run_command("systemctl is-enabled '" + entry.path + "' 2>/dev/null", output, status) && status == 0)
            seen.services_enabled.push_back(entry.path);
    }

    // The registers lie behind a root-only file: as anyone else, say that
    // the cards were not read rather than judge them unseen.
    if (geteuid() == 0) {
        std::vector<ChipInfo> cards;
        for (const std::string& device : list_gpu_devices()) {
            ChipInfo chip;
            if (read_chip_info(device, chip) == 0) cards.push_back(chip);
        }
        seen.cards = cards;
    }
    return seen;
}
