// What the scenarios share. Each phase is one table of rows; a row is a host
// set up in a line or two, the status the run must end in, the fragments of
// log and console that tell its story, and on every row the check that the
// record names what the run left and that all it names is there.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "lab_host.hpp"

namespace scenario {

using Calls = std::vector<std::string>;  // of a stub, or names
inline const std::string release = lab::default_release;
inline const std::string package_dir = lab::default_package_dir;
inline const std::string manifest = package_dir + "/.manifest";
inline const std::string build_tree = "/lib/modules/" + release + "/build";
inline const std::string headers_tree = "/usr/src/linux-headers-" + release;
inline const std::string module_dir = "/lib/modules/" + release + "/kernel/drivers/misc/";
inline const std::string prefix = "/usr/local/quorl-3.2.1/";
inline const std::string record_path = "/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests";
inline const std::string unit_file = "/lib/systemd/system/vantoriaquorl-init@.service";
inline const std::string installed_md5 = "d1357b6d77e6561ac5af85c36c77b46e";  // of "installed\n"

// The last words of a run; success names the uninstaller below the driver prefix.
inline std::string success_under(const std::string& driver_prefix) {
    return "Quorl Driver installation succeed.\nFor the Quorl Driver uninstallation, please run command:\n    sudo " +
           driver_prefix + "bin/quorl-driver-uninstaller\n";
}
inline const std::string success = success_under(prefix);
inline std::string failure(int code) {
    return "Quorl Driver installation failed. error code:" + std::to_string(code) +
           "\nLogfile is /var/log/vantoriaquorl/driver_installer.log\n";
}

// The running kernel with its tree, a good card, the package, and a firmware
// directory and DKMS configuration of the host's own, whatever this machine has.
inline lab::Host& ready(lab::Host& host) {
    return host.kernel(release).kernel_tree(release).card({}).package().directory("/lib/firmware")
        .file("/etc/dkms/framework.conf", "# dkms's own defaults\n");
}
// Ends the run right behind the removal of an older driver, before anything
// is built: the kernel demands signatures and there is no openssl (33).
inline lab::Host& stop_after_removal(lab::Host& host) {
    return host.cmdline("BOOT_IMAGE=/vmlinuz module.sig_enforce=1\n").tool_missing("openssl");
}
inline lab::Host& with_ofed(lab::Host& host, const std::string& dir = "/usr/src/ofa_kernel/default") {
    return host.file(dir + "/include/rdma/peer_mem.h", "").file(dir + "/Module.symvers", "");
}

inline std::string md5_of(lab::Host& host, const std::string& path) {
    return host.run({"md5sum", path}).out.substr(0, 32);
}
inline std::string modinfo_field(lab::Host& host, const std::string& field, const std::string& path) {
    const std::string out = host.run({"modinfo", "-F", field, path}).out;
    return out.substr(0, out.find('\n'));
}

// Each piece appears in `text` after the one before it.
inline ::testing::AssertionResult in_order(const std::string& text, const std::vector<std::string>& pieces) {
    size_t at = 0;
    for (const std::string& piece : pieces) {
        if ((at = text.find(piece, at)) == std::string::npos)
            return ::testing::AssertionFailure() << "missing, or out of order: \"" << piece << "\"\nin:\n" << text;
        at += piece.size();
    }
    return ::testing::AssertionSuccess();
}
inline ::testing::AssertionResult lacks(const std::string& text, const std::string& piece) {
    if (text.find(piece) == std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "unexpected \"" << piece << "\" in:\n" << text;
}

// A line of the record, without the blank that ends RLINK and DKMS lines.
struct Line {
    std::string type, path, md5;
};
inline std::vector<Line> parse_record(const std::string& text) {
    std::vector<Line> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = text.substr(start, end - start);
        const size_t first = line.find(' '), second = line.find(' ', first + 1);
        lines.push_back({line.substr(0, first), line.substr(first + 1, second - first - 1),
                         second == std::string::npos ? "" : line.substr(second + 1)});
    }
    return lines;
}

// Whether the host holds what a record line names, as it was installed.
inline bool present(lab::Host& host, const Line& line) {
    if (line.type == "SYMLINK" || line.type == "RLINK") return host.is_symlink(line.path);
    if (line.type == "DIR" || line.type == "QUORL") return host.exists(line.path);
    if (line.type == "FILE" || line.type == "RFILE") return host.read(line.path) && md5_of(host, line.path) == line.md5;
    if (line.type == "SERVICE") return host.read(unit_file) && md5_of(host, unit_file) == line.md5;
    return line.type == "DKMS" && host.run({"dkms", "status"}).out.find("quorl/" + line.path + ", ") != std::string::npos;
}

// A path as the change list spells it: single slashes, none at the end, and
// /lib reached through the merged-/usr link.
inline std::string canonical(const std::string& path) {
    std::string out;
    for (char c : path)
        if (!(c == '/' && !out.empty() && out.back() == '/')) out += c;
    if (out.size() > 1 && out.back() == '/') out.pop_back();
    return out == "/lib" || out.rfind("/lib/", 0) == 0 ? "/usr" + out : out;
}

// Files and links that the runs created or changed and no line of the record
// names, but for what belongs to others: the log, systemd's links, the
// package's build products, the module indexes, and what dkms keeps for a
// registration (the record names that by its DKMS line).
inline std::vector<std::string> unrecorded(const lab::Host& host) {
    std::vector<std::string> recorded, missing;
    for (const Line& line : parse_record(host.record())) recorded.push_back(canonical(line.path));
    for (const lab::Change& change : host.changes()) {
        const std::string& path = change.path;
        bool elsewhere = path.rfind("/usr/lib/modules/", 0) == 0 &&
                         (std::filesystem::path(path).filename().string().rfind("modules.", 0) == 0 ||
                          path.find("/updates/") != std::string::npos);
        for (const std::string& owner : {std::string("/var/log/vantoriaquorl/"), std::string("/etc/systemd/system/"),
                                         package_dir + "/", std::string("/usr/src/quorl-"), std::string("/var/lib/dkms/")})
            elsewhere = elsewhere || path.rfind(owner, 0) == 0;
        const auto where = host.locate(path);
        if (change.kind == 'D' || elsewhere || (where && std::filesystem::is_directory(std::filesystem::symlink_status(*where))))
            continue;
        if (std::find(recorded.begin(), recorded.end(), path) == recorded.end()) missing.push_back(path);
    }
    return missing;
}

struct Row {
    const char* story;
    std::function<void(lab::Host&)> setup;  // after ready()
    std::vector<std::string> args;
    int status;
    std::vector<std::string> log = {};      // in this order in the log
    std::vector<std::string> console = {};  // in this order on standard error, before the last words
    std::vector<std::string> absent = {};   // neither in the log, nor on the console, nor in the record
    std::function<void(lab::Host&, const lab::RunResult&)> check = nullptr;
    // The record names all that the run left, and all it names is there (the
    // prefix's lines are written whether or not the run got to make it).
    bool record_whole = true;
    std::vector<std::string> env = {};
};
inline void PrintTo(const Row& row, std::ostream* os) { *os << row.story; }
inline std::string row_name(const ::testing::TestParamInfo<Row>& info) {
    std::string name = info.param.story;
    for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

// Runs the installer on the row's host and checks what the row says.
inline void play(const Row& row) {
    lab::Host host;
    ready(host);
    if (row.setup) row.setup(host);
    lab::RunOptions options;
    options.env = row.env;
    const lab::RunResult r = host.install(row.args, options);
    EXPECT_EQ(r.status, row.status) << r.err;
    // Quiet runs and runs that end abnormally have no last words.
    const auto given = std::find(row.args.begin(), row.args.end(), "--prefix");
    std::vector<std::string> console = row.console;
    if (std::find(row.args.begin(), row.args.end(), "--qxquiet") == row.args.end() && row.status != 128 + 6)
        console.push_back(row.status != 0 ? failure(row.status)
                                          : success_under(given == row.args.end() ? prefix : given[1] + "/quorl-3.2.1/"));
    EXPECT_TRUE(in_order(r.err, console));
    EXPECT_TRUE(in_order(host.log(), row.log));
    for (const std::string& piece : row.absent) EXPECT_TRUE(lacks(host.log() + "\n" + r.err + "\n" + host.record(), piece));
    if (row.record_whole) {
        for (const Line& line : parse_record(host.record()))
            EXPECT_TRUE(line.type == "QUORL" || line.type == "DIR" || present(host, line)) << line.type << " " << line.path;
        EXPECT_EQ(unrecorded(host), std::vector<std::string>{});
    }
    if (row.check) row.check(host, r);
}

// One parameterised test per phase, each row a test of its own.
#define SCENARIO_TABLE(Phase, rows)                         \
    class Phase : public ::testing::TestWithParam<::scenario::Row> {}; \
    TEST_P(Phase, Row) {                                     \
        LAB_REQUIRE();                                       \
        ::scenario::play(GetParam());                        \
    }                                                        \
    INSTANTIATE_TEST_SUITE_P(Hosts, Phase, ::testing::ValuesIn(rows), ::scenario::row_name)

}  // namespace scenario
