// What the scenarios share: the usual host, and the checks that an
// administrator would make after a run (lines of the log in their order,
// digests of installed files, and that the record names what the run left).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "lab_host.hpp"

namespace scenario {

inline const std::string release = lab::default_release;
inline const std::string package_dir = lab::default_package_dir;
inline const std::string module_dir = "/lib/modules/" + release + "/kernel/drivers/misc/";
inline const std::string prefix = "/usr/local/quorl-3.2.1/";

// A host that runs `release`, has its kernel tree, one card and the package.
inline lab::Host& ready(lab::Host& host, lab::Card card = {}) {
    return host.kernel(release).kernel_tree(release).card(card).package();
}

// The console's last words on a failed run.
inline std::string failure_console(int code) {
    return "Quorl Driver installation failed. error code:" + std::to_string(code) +
           "\nLogfile is /var/log/vantoriaquorl/driver_installer.log\n";
}

inline std::string md5_of(lab::Host& host, const std::string& path) {
    return host.run({"md5sum", path}).out.substr(0, 32);
}

// The first line of modinfo -F for a field.
inline std::string modinfo_field(lab::Host& host, const std::string& field, const std::string& path) {
    std::string out = host.run({"modinfo", "-F", field, path}).out;
    return out.substr(0, out.find('\n'));
}

// Each piece appears in `text` after the one before it.
inline ::testing::AssertionResult in_order(const std::string& text, const std::vector<std::string>& pieces) {
    size_t at = 0;
    for (const std::string& piece : pieces) {
        size_t found = text.find(piece, at);
        if (found == std::string::npos)
            return ::testing::AssertionFailure() << "missing, or out of order: \"" << piece << "\"\nin:\n" << text;
        at = found + piece.size();
    }
    return ::testing::AssertionSuccess();
}

// The lines of `block` stand together, in this order, in `text`.
inline ::testing::AssertionResult holds(const std::string& text, const std::string& block) {
    if (text.find(block) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "missing:\n" << block << "\nin:\n" << text;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

inline ::testing::AssertionResult lacks(const std::string& text, const std::string& piece) {
    if (text.find(piece) == std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "unexpected \"" << piece << "\" in:\n" << text;
}

// A path as the host's change list spells it: single slashes, no slash at
// the end, and /lib reached through the merged-/usr link.
inline std::string canonical(std::string path) {
    std::string out;
    for (char c : path)
        if (!(c == '/' && !out.empty() && out.back() == '/')) out += c;
    if (out.size() > 1 && out.back() == '/') out.pop_back();
    if (out.rfind("/lib/", 0) == 0) out = "/usr" + out;
    return out;
}

inline std::vector<std::string> recorded_paths(const std::string& record) {
    std::vector<std::string> paths;
    size_t start = 0;
    while (start < record.size()) {
        size_t end = record.find('\n', start);
        std::string line = record.substr(start, end - start);
        start = end == std::string::npos ? record.size() : end + 1;
        size_t blank = line.find(' ');
        if (blank == std::string::npos) continue;
        paths.push_back(canonical(line.substr(blank + 1, line.find(' ', blank + 1) - blank - 1)));
    }
    return paths;
}

// Files and links that the runs created or changed below one of `roots`
// (canonical spellings) and that no line of the record names.
inline std::vector<std::string> unrecorded(const lab::Host& host, const std::vector<std::string>& roots) {
    const std::vector<std::string> recorded = recorded_paths(host.record());
    std::vector<std::string> missing;
    for (const lab::Change& change : host.changes()) {
        if (change.kind == 'D') continue;
        bool below = false;
        for (const std::string& root : roots) below = below || change.path.rfind(root + "/", 0) == 0;
        if (!below) continue;
        // depmod's indexes belong to the kernel's module tree, not to the driver.
        if (change.path.rfind("/usr/lib/modules/", 0) == 0 &&
            std::filesystem::path(change.path).filename().string().rfind("modules.", 0) == 0)
            continue;
        const auto where = host.locate(change.path);
        if (where && std::filesystem::is_directory(std::filesystem::symlink_status(*where))) continue;
        if (std::find(recorded.begin(), recorded.end(), change.path) == recorded.end()) missing.push_back(change.path);
    }
    return missing;
}

// The roots that the install phase and the plain build write below.
inline const std::vector<std::string> installed_roots = {"/usr/lib/firmware", "/usr/lib/modules", "/usr/local",
                                                         "/usr/share/vantoria"};

}  // namespace scenario
