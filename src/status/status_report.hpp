// The status report's decisions: from the install record and what the host
// showed of it, the findings and the exit status, and their text and JSON.
// Nothing here reads the host, so that unit tables can hold every case.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kmod/firmware_check.hpp"
#include "record/manifest_entry.hpp"

// The exit statuses: the contract with the monitoring that runs the status.
namespace status_code {
inline constexpr int intact = 0;         // installed, unchanged, loaded, enabled, firmware fine
inline constexpr int drift = 1;          // installed, with at least one problem
inline constexpr int not_installed = 3;  // no install record
inline constexpr int cannot_tell = 4;    // a record that cannot be read, or is not one
}  // namespace status_code

// The driver modules by name; "qv_driver" is the older name of "vantoria".
inline const std::vector<std::string> driver_modules = {"vantoria", "qv_driver"};
inline const std::string peer_memory_module = "vnt_peer_mem_drv";

// One path the record names, and what it must be.
struct RecordedPath {
    enum class Kind { file, link, directory };
    Kind kind;
    std::string path;
    std::string md5;  // of a file
};

// The paths to look at: FILE and RFILE lines, the unit file of each SERVICE
// (its digest is the SERVICE line's) unless a FILE line names it too, as the
// installer's do, SYMLINK and RLINK lines, DIR lines.
std::vector<RecordedPath> recorded_paths(const std::vector<ManifestEntry>& entries);

// The driver prefix of a record whose first line is "QUORL <prefix>"; none otherwise.
std::optional<std::string> installed_prefix(const std::vector<ManifestEntry>& entries);
// The DKMS line's version when there is one, else the last component of the
// prefix without its "quorl-" ("/usr/local/quorl-3.2.1/" gives "3.2.1").
std::string installed_version(const std::vector<ManifestEntry>& entries);
// The first field of each line of /proc/modules.
std::vector<std::string> listed_modules(const std::string& proc_modules);
// Whether modules.dep has a line for `module`.ko (plain or compressed).
bool dep_lists_module(const std::string& modules_dep, const std::string& module);
// The releases R of the record's FILE lines under /lib/modules/R/ (or /usr/lib/modules/R/), sorted.
std::vector<std::string> module_kernels(const std::vector<ManifestEntry>& entries);

// What the host showed at a recorded path.
struct PathSight {
    enum class Kind { absent, file, link, directory, other, unreadable };
    Kind kind = Kind::absent;
    std::string md5;  // of a file that could be read
};

enum class RecordReading { absent, unreadable, read };

// Everything the status reads from the host, as the host gave it.
struct Observations {
    RecordReading record = RecordReading::absent;
    std::vector<ManifestEntry> entries;
    std::vector<PathSight> sights;           // one for each of recorded_paths(entries), in its order
    bool dkms_source = false;                // <dkms_tree>/quorl/<version>/source exists
    std::string running_kernel;
    std::string modules_dep;                 // /lib/modules/<running_kernel>/modules.dep
    std::string proc_modules;
    std::optional<std::string> loaded_version;  // /sys/module/<driver>/version, trimmed
    std::vector<std::string> services_enabled;  // SERVICE names that systemctl calls enabled
    std::optional<std::vector<ChipInfo>> cards;  // none when not read (not root)
};

struct StatusReport {
    int status = status_code::not_installed;
    RecordReading record = RecordReading::absent;
    std::string prefix, version;
    size_t intact = 0;  // recorded paths found as installed
    std::vector<std::string> changed, missing, unreadable;  // sorted, each path once
    std::optional<bool> dkms_registered;                    // none without a DKMS line
    std::string running_kernel;
    bool modules_for_running_kernel = false;
    std::vector<std::string> module_kernels;
    std::vector<std::string> modules_loaded;  // ours, in the order of /proc/modules
    std::optional<std::string> loaded_version;
    std::vector<std::string> services_enabled, services_disabled;
    std::optional<std::vector<ChipInfo>> cards;
    bool firmware_passes = true;  // by the installer's own check; true when cards were not read
    std::vector<std::string> problems;  // one line each, in the order of the report
};

StatusReport judge_status(const Observations& seen);

// One JSON object, pretty-printed, with a final line feed.
std::string status_json(const StatusReport& report);
// A short report for people, with a final line feed.
std::string status_text(const StatusReport& report);
