#include "record/install_record.hpp"

#include <libgen.h>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"
#include "record/run_state.hpp"

const std::vector<std::string> reserved_paths = {
    "bin/qxsmi",          "lib",        "lib64/libcuda.so", "lib64/libcuda.so.1", "lib64/libqxml.so",
    "lib64/libqxthunk.so", "lib64/libqxlogger.so", "EULA.txt", "copyright",
};

bool is_reserved_path(const std::string& path, const std::string& base) {
    if (path.size() <= base.size()) return false;
    std::string rest = path.substr(base.size());
    // substr throws std::out_of_range when only slashes are left; that is the
    // accepted end of the process for such a path.
    rest = rest.substr(rest.find_first_not_of('/'));
    for (const std::string& reserved : reserved_paths) {
        if (rest == reserved) return true;
    }
    return false;
}

std::vector<std::string> format_install_record(const std::vector<ManifestEntry>& entries,
                                               const std::string& driver_prefix) {
    std::vector<std::string> services, symlinks, files, rfiles, rlinks, dirs;
    for (const ManifestEntry& entry : entries) {
        const bool reserved = entry.path.compare(0, driver_prefix.size(), driver_prefix) == 0 &&
                              is_reserved_path(entry.path, driver_prefix);
        if (entry.type == "DIR") {
            dirs.push_back(entry.type + " " + entry.path);
        } else if (entry.type == "SYMLINK") {
            // The blank behind an RLINK path is part of the format.
            if (reserved) {
                rlinks.push_back("RLINK " + entry.path + " ");
            } else {
                symlinks.push_back("SYMLINK " + entry.path);
            }
        } else if (entry.type == "SERVICE") {
            services.push_back(entry.type + " " + entry.path + " " + entry.md5);
        } else if (reserved) {
            rfiles.push_back("RFILE " + entry.path + " " + entry.md5);
        } else {
            // FILE and DKMS alike; a DKMS line thus ends in a blank.
            files.push_back(entry.type + " " + entry.path + " " + entry.md5);
        }
    }

    std::vector<std::string> lines = {"QUORL " + driver_prefix};
    for (const auto* group : {&services, &symlinks, &files, &rfiles, &rlinks, &dirs}) {
        lines.insert(lines.end(), group->begin(), group->end());
    }
    return lines;
}

int DriverInstaller::write_install_record() {
    std::string copy = options.prefix;
    std::string last_component = basename(copy.data());
    if (last_component != "quorl-" + installer_version) install_entries.push_back({"DIR", driver_prefix, ""});
    install_entries.push_back({"DIR", options.prefix, ""});
    install_entries.insert(install_entries.end(), created_dir_entries.begin(), created_dir_entries.end());

    write_lines(format_install_record(install_entries, driver_prefix), install_record_path);
    return 0;
}

std::vector<ManifestEntry> parse_install_record(const std::string& text) {
    std::vector<ManifestEntry> entries;
    for (const std::string& line : split_string(text, '\n')) {
        ManifestEntry entry;
        std::vector<std::string> fields = split_string(line, ' ');
        // Each field overwrites what the earlier ones left: a line of two
        // fields gives an entry whose md5 equals its path.
        for (size_t i = 0; i < fields.size() && i < 3; ++i) {
            if (i == 0) entry.type = fields[i];
            if (i <= 1) entry.path = fields[i];
            entry.md5 = fields[i];
        }
        entries.push_back(entry);
    }
    return entries;
}

std::vector<ManifestEntry> read_install_record(const std::string& path) {
    if (!file_exists(path)) {
        log_message(3, "Uninstall manifests not found at location: '%s'.\n", path.c_str());
        return {};
    }
    std::string text;
    read_file(path, text);
    if (text.empty()) return {};
    return parse_install_record(text);
}
