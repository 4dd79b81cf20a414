#include "status/status_report.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "app/constants.hpp"
#include "kmod/module_trees.hpp"
#include "system/service_removal.hpp"

namespace {

using json = nlohmann::ordered_json;

enum class PathState { intact, changed, missing, unreadable };

PathState judge_path(const RecordedPath& recorded, const PathSight& sight) {
    using Kind = PathSight::Kind;
    if (sight.kind == Kind::absent) return PathState::missing;
    // Not being allowed to look is no evidence of a change.
    if (sight.kind == Kind::unreadable) return PathState::unreadable;
    switch (recorded.kind) {
    case RecordedPath::Kind::file:
        // As removal judges a file: its digest now against the recorded one.
        return sight.kind == Kind::file && sight.md5 == recorded.md5 ? PathState::intact : PathState::changed;
    case RecordedPath::Kind::link: return sight.kind == Kind::link ? PathState::intact : PathState::changed;
    case RecordedPath::Kind::directory:
        return sight.kind == Kind::directory ? PathState::intact : PathState::changed;
    }
    return PathState::changed;
}

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
    return text;
}

// A bounded field of ChipInfo as a text, terminated or not.
template <size_t size>
std::string field(const char (&text)[size]) {
    return std::string(text, strnlen(text, size));
}

std::string device_text(uint32_t device_id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x", device_id);
    return text;
}

}  // namespace

std::vector<RecordedPath> recorded_paths(const std::vector<ManifestEntry>& entries) {
    std::vector<RecordedPath> paths;
    for (const ManifestEntry& entry : entries) {
        if (entry.type == "FILE" || entry.type == "RFILE") {
            paths.push_back({RecordedPath::Kind::file, entry.path, entry.md5});
        } else if (entry.type == "SERVICE") {
            const std::string unit_file = service_unit_file(entry.path);
            const bool listed = std::any_of(entries.begin(), entries.end(), [&](const ManifestEntry& other) {
                return other.type == "FILE" && other.path == unit_file;
            });
            if (!listed) paths.push_back({RecordedPath::Kind::file, unit_file, entry.md5});
        } else if (entry.type == "SYMLINK" || entry.type == "RLINK") {
            paths.push_back({RecordedPath::Kind::link, entry.path, ""});
        } else if (entry.type == "DIR") {
            paths.push_back({RecordedPath::Kind::directory, entry.path, ""});
        }
    }
    return paths;
}

std::optional<std::string> installed_prefix(const std::vector<ManifestEntry>& entries) {
    if (entries.empty() || entries.front().type != "QUORL") return std::nullopt;
    return entries.front().path;
}

std::string installed_version(const std::vector<ManifestEntry>& entries) {
    for (const ManifestEntry& entry : entries) {
        if (entry.type == "DKMS") return entry.path;
    }
    // The installer's prefix ends in a slash; one written by hand may not.
    std::string prefix = installed_prefix(entries).value_or("");
    while (prefix.size() > 1 && prefix.back() == '/') prefix.pop_back();
    const std::string component = prefix.substr(prefix.rfind('/') + 1);
    return component.starts_with("quorl-") ? component.substr(6) : "";
}

std::vector<std::string> listed_modules(const std::string& proc_modules) {
    std::vector<std::string> names;
    std::istringstream lines(proc_modules);
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(0, line.find(' '));
        if (!name.empty()) names.push_back(name);
    }
    return names;
}

bool dep_lists_module(const std::string& modules_dep, const std::string& module) {
    std::istringstream lines(modules_dep);
    for (std::string line; std::getline(lines, line);) {
        // "kernel/drivers/misc/vantoria.ko: dependencies..."; the module is what stands before the colon.
        const std::string target = line.substr(0, line.find(':'));
        const std::string file = target.substr(target.rfind('/') + 1);
        for (const char* suffix : {".ko", ".ko.xz", ".ko.gz", ".ko.zst"}) {
            if (file == module + suffix) return true;
        }
    }
    return false;
}

std::vector<std::string> module_kernels(const std::vector<ManifestEntry>& entries) {
    std::vector<std::string> files;
    for (const ManifestEntry& entry : entries) {
        if (entry.type == "FILE") files.push_back(entry.path);
    }
    return module_tree_releases(files);
}

StatusReport judge_status(const Observations& seen) {
    StatusReport report;
    report.record = seen.record;
    if (seen.record == RecordReading::absent) {
        report.status = status_code::not_installed;
        return report;
    }
    const std::optional<std::string> prefix = installed_prefix(seen.entries);
    if (seen.record == RecordReading::unreadable || !prefix) {
        report.status = status_code::cannot_tell;
        report.problems.push_back(seen.record == RecordReading::unreadable
                                      ? std::string("the install record ") + install_record_path + " cannot be read"
                                      : std::string("the install record ") + install_record_path +
                                            " does not begin with a QUORL line");
        return report;
    }
    report.prefix = *prefix;
    report.version = installed_version(seen.entries);

    const std::vector<RecordedPath> paths = recorded_paths(seen.entries);
    std::set<std::string> changed, missing, unreadable;
    for (size_t i = 0; i < paths.size(); ++i) {
        const RecordedPath& recorded = paths[i];
        switch (judge_path(recorded, i < seen.sights.size() ? seen.sights[i] : PathSight{})) {
        case PathState::intact: ++report.intact; break;
        case PathState::changed: changed.insert(recorded.path); break;
        case PathState::missing: missing.insert(recorded.path); break;
        case PathState::unreadable: unreadable.insert(recorded.path); break;
        }
    }
    report.changed.assign(changed.begin(), changed.end());
    report.missing.assign(missing.begin(), missing.end());
    report.unreadable.assign(unreadable.begin(), unreadable.end());
    for (const std::string& path : report.changed) report.problems.push_back("changed: " + path);
    for (const std::string& path : report.missing) report.problems.push_back("missing: " + path);

    const bool dkms_line = std::any_of(seen.entries.begin(), seen.entries.end(),
                                       [](const ManifestEntry& entry) { return entry.type == "DKMS"; });
    if (dkms_line) {
        report.dkms_registered = seen.dkms_source;
        if (!seen.dkms_source) report.problems.push_back("DKMS: quorl/" + report.version + " is not registered");
    }

    // depmod lists the module on both build paths; after a kernel upgrade
    // the plain build's modules stay behind under the release they were made for.
    report.running_kernel = seen.running_kernel;
    report.modules_for_running_kernel = dep_lists_module(seen.modules_dep, "vantoria");
    report.module_kernels = module_kernels(seen.entries);
    if (!report.modules_for_running_kernel) {
        report.problems.push_back(report.module_kernels.empty()
                                      ? "no driver module for the running kernel " + seen.running_kernel
                                      : "no driver module for the running kernel " + seen.running_kernel +
                                            ": the installed modules are for " + joined(report.module_kernels, ", "));
    }

    for (const std::string& name : listed_modules(seen.proc_modules)) {
        if (contains(driver_modules, name) || name == peer_memory_module) report.modules_loaded.push_back(name);
    }
    const bool driver_loaded = std::any_of(driver_modules.begin(), driver_modules.end(), [&](const std::string& name) {
        return contains(report.modules_loaded, name);
    });
    // The peer-memory module is loaded only where OFED is; the plain build
    // records it when it built it, and then it belongs loaded.
    const bool peer_memory_recorded = std::any_of(seen.entries.begin(), seen.entries.end(), [](const ManifestEntry& e) {
        // The name behind the last slash, without building a path object for each of ten thousand lines.
        return e.type == "FILE" && e.path.compare(e.path.rfind('/') + 1, peer_memory_module.size() + 3,
                                                  peer_memory_module + ".ko") == 0;
    });
    report.loaded_version = seen.loaded_version;
    if (!driver_loaded) {
        report.problems.push_back("driver module vantoria is not loaded");
    } else if (!seen.loaded_version) {
        report.problems.push_back("the loaded driver module gives no version; installed is " + report.version);
    } else if (*seen.loaded_version != report.version) {
        report.problems.push_back("the loaded driver module is version " + *seen.loaded_version + "; installed is " +
                                  report.version);
    }
    if (peer_memory_recorded && !contains(report.modules_loaded, peer_memory_module))
        report.problems.push_back("peer-memory module vnt_peer_mem_drv is not loaded");

    for (const ManifestEntry& entry : seen.entries) {
        if (entry.type != "SERVICE") continue;
        if (contains(seen.services_enabled, entry.path)) {
            report.services_enabled.push_back(entry.path);
        } else {
            report.services_disabled.push_back(entry.path);
            report.problems.push_back("service " + entry.path + " is not enabled");
        }
    }

    report.cards = seen.cards;
    if (seen.cards) report.firmware_passes = judge_chips(*seen.cards, report.version);
    if (!report.firmware_passes) report.problems.push_back("no card has firmware above 1.0.8");

    report.status = report.problems.empty() ? status_code::intact : status_code::drift;
    return report;
}

std::string status_json(const StatusReport& report) {
    const bool installed = report.status == status_code::intact || report.status == status_code::drift;
    auto text_or_null = [&](const std::string& text) { return installed ? json(text) : json(nullptr); };
    json j;
    j["status"] = report.status;
    // Whether a driver is installed cannot be told from a record that cannot be read.
    j["installed"] = report.status == status_code::cannot_tell ? json(nullptr) : json(installed);
    j["version"] = text_or_null(report.version);
    j["prefix"] = text_or_null(report.prefix);
    j["intact"] = report.intact;
    j["changed"] = report.changed;
    j["missing"] = report.missing;
    j["unreadable"] = report.unreadable;
    j["dkms"] = report.dkms_registered
                    ? json{{"version", report.version}, {"registered", *report.dkms_registered}}
                    : json(nullptr);
    j["running_kernel"] = text_or_null(report.running_kernel);
    j["modules_for_running_kernel"] = installed ? json(report.modules_for_running_kernel) : json(nullptr);
    j["module_kernels"] = report.module_kernels;
    j["modules_loaded"] = report.modules_loaded;
    j["loaded_version"] = report.loaded_version ? json(*report.loaded_version) : json(nullptr);
    j["services_enabled"] = report.services_enabled;
    j["services_disabled"] = report.services_disabled;
    if (report.cards) {
        j["cards"] = json::array();
        for (const ChipInfo& chip : *report.cards) {
            const std::string firmware = field(chip.firmware_text), driver = field(chip.driver_name);
            j["cards"].push_back({{"address", field(chip.pci_name)},
                                  {"device", device_text(chip.device_id)},
                                  {"driver", driver.empty() ? json(nullptr) : json(driver)},
                                  {"firmware", firmware.empty() ? json(nullptr) : json(firmware)}});
        }
        j["firmware_check"] = report.firmware_passes ? "passed" : "failed";
    } else {
        j["cards"] = nullptr;
        j["firmware_check"] = nullptr;
    }
    j["problems"] = report.problems;
    return j.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string status_text(const StatusReport& report) {
    std::ostringstream out;
    if (report.status == status_code::not_installed) {
        out << "Quorl driver: not installed (no install record at " << install_record_path << ")\n"
            << "status 3: not installed\n";
        return out.str();
    }
    if (report.status == status_code::cannot_tell) {
        out << "Quorl driver: cannot tell whether it is installed: " << report.problems.front() << "\n"
            << "status 4: cannot tell\n";
        return out.str();
    }
    out << "Quorl driver " << report.version << " installed in " << report.prefix << "\n";
    out << "recorded paths: " << report.intact << " intact, " << report.changed.size() << " changed, "
        << report.missing.size() << " missing, " << report.unreadable.size() << " unreadable\n";
    for (const std::string& path : report.unreadable) out << "  unreadable, not judged: " << path << "\n";
    if (!report.dkms_registered) {
        out << "DKMS: not used (built with make)\n";
    } else {
        out << "DKMS: quorl/" << report.version << (*report.dkms_registered ? " registered\n" : " not registered\n");
    }
    out << "running kernel " << report.running_kernel
        << (report.modules_for_running_kernel ? ": driver module present\n" : ": no driver module\n");
    out << "modules loaded: " << (report.modules_loaded.empty() ? "none" : joined(report.modules_loaded, ", "));
    if (report.loaded_version) out << " (driver version " << *report.loaded_version << ")";
    out << "\n";
    if (!report.services_enabled.empty()) out << "services enabled: " << joined(report.services_enabled, ", ") << "\n";
    if (!report.cards) {
        out << "cards: not read (their registers are for root only)\n";
    } else if (report.cards->empty()) {
        out << "cards: none found\n";
    } else {
        for (const ChipInfo& chip : *report.cards) {
            out << "card " << field(chip.pci_name) << ": device " << device_text(chip.device_id);
            if (chip.firmware_text[0] != '\0') out << ", firmware " << field(chip.firmware_text);
            if (chip.driver_name[0] != '\0') out << ", driver " << field(chip.driver_name);
            out << "\n";
        }
        out << "firmware check: " << (report.firmware_passes ? "passed\n" : "failed\n");
    }
    if (!report.problems.empty()) {
        out << "problems:\n";
        for (const std::string& problem : report.problems) out << "  " << problem << "\n";
    }
    out << (report.status == status_code::intact ? "status 0: installed and intact\n"
                                                 : "status 1: installed, with the problems above\n");
    return out.str();
}
