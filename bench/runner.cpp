// bench-runner: what the installer costs beside the commands it has to run,
// measured in simulated hosts, and printed as one table.
//
//   bench-runner [--runs N] [--help-runs N] [--only install|record|remove|status|preview|help]... [--on-disk] [--keep]
//
//   --runs N       repetitions of each measurement, reported by their median (default 5)
//   --help-runs N  runs of --help in each repetition (default 200)
//   --only PART    measure only this part (may be given more than once)
//   --on-disk      keep the hosts' scratch directories on the build tree's file
//                  system instead of a tmpfs of the bench's own
//   --keep         keep the simulated hosts under <build>/lab-hosts (with --on-disk)
//
// The hosts' scratch directories (their upper layers, /tmp and the package)
// lie on a tmpfs by default. On the ext4 of the machine this was written on,
// creating a file or a directory in the build tree cost from 0.1 to 0.9 ms of
// system time, spent in ext4's search for a free inode (find_inode_bit,
// recently_deleted), against under 20 us on a tmpfs. That time is charged to
// whichever process creates the file, the installer included, and it says
// something about that disk, not about the installer.
//
// Every installer run happens inside a lab::Host; nothing here runs it on this
// machine. A ratio is taken between two timings of one repetition, side by
// side in the same host, and the table shows the median of those ratios.
#include <sched.h>
#include <sys/mount.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "lab_host.hpp"

#ifndef BENCH_HOSTS_DIR
#error "BENCH_HOSTS_DIR must name the directory where the lab puts its hosts"
#endif
#if !defined(BENCH_OWN_USAGE) || !defined(BENCH_STEPS)
#error "BENCH_OWN_USAGE and BENCH_STEPS must name the bench's helper binaries"
#endif

namespace {

// Where the bench's helpers lie inside a host.
const std::string own_usage_in_host = "/usr/lib/bench/bench-own-usage";
const std::string steps_in_host = "/usr/lib/bench/bench-steps";
const std::string generated_package = "/root/bench-package";
const std::string installed_tree = "/usr/local/quorl-3.2.1";

struct Settings {
    int runs = 5;
    int help_runs = 200;
    std::set<std::string> parts;
    bool on_disk = false;
    bool keep = false;
    bool wants(const std::string& part) const { return parts.empty() || parts.count(part) != 0; }
};

using Values = std::map<std::string, long long>;

Values parse_values(const std::string& text) {
    Values values;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        values[line.substr(0, eq)] = std::stoll(line.substr(eq + 1));
    }
    return values;
}

double median(std::vector<double> samples) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const size_t middle = samples.size() / 2;
    return samples.size() % 2 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

void progress(const std::string& text) {
    std::cerr << "bench: " << text << std::endl;
}

// Puts the lab's hosts on a tmpfs seen by this process and its children only:
// a mount namespace of our own, so that nothing changes for the machine.
bool hosts_on_tmpfs(std::string* why) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *why = std::string("a mount namespace of our own: ") + std::strerror(errno);
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(BENCH_HOSTS_DIR, ec);
    if (mount("bench-hosts", BENCH_HOSTS_DIR, "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        *why = std::string("a tmpfs on " BENCH_HOSTS_DIR ": ") + std::strerror(errno);
        return false;
    }
    return true;
}

// A default host (the lab's kernel and a tree for it, one good card, the
// sample package) with the bench's helpers in it.
void prepare_host(lab::Host& host, const Settings& settings) {
    host.keep(settings.keep);
    host.kernel(lab::default_release).kernel_tree(lab::default_release).card({}).package();
    host.copy(BENCH_OWN_USAGE, own_usage_in_host);
    host.copy(BENCH_STEPS, steps_in_host);
}

// One run of a helper in the host whose key=value output is wanted; a run
// that failed is said at once, and its values are empty.
Values run_step(lab::Host& host, const std::vector<std::string>& argv, const std::string& cwd = "/root") {
    lab::RunOptions options;
    options.cwd = cwd;
    options.timeout = 0;
    const lab::RunResult r = host.run(argv, options);
    if (r.status != 0) {
        std::string words;
        for (const std::string& word : argv) words += " " + word;
        progress("FAILED (" + std::to_string(r.status) + "):" + words + "\n" + r.out + r.err);
        return {};
    }
    return parse_values(r.out);
}

// --- a complete first installation ------------------------------------------

struct InstallRow {
    std::string name;
    std::vector<double> wall_s, cpu_ms, share, hwm_mib, commands;
    int failures = 0;
};

void install_once(InstallRow& row, const std::vector<std::string>& options, bool expect_dkms, int run,
                  const Settings& settings) {
    lab::Host host("bench-install-" + std::string(expect_dkms ? "dkms-" : "manual-") + std::to_string(run));
    prepare_host(host, settings);
    std::vector<std::string> argv = {own_usage_in_host, "/tmp/own-usage", "./quorl-driver-installer"};
    argv.insert(argv.end(), options.begin(), options.end());
    lab::RunOptions run_options;
    run_options.cwd = host.package_dir();
    const lab::RunResult r = host.run(argv, run_options);
    const Values v = parse_values(host.read("/tmp/own-usage").value_or(""));
    // A run that did not install, or took the other build path, measures something else.
    const bool took_dkms = host.record().find("\nDKMS ") != std::string::npos;
    if (r.status != 0 || v.empty() || v.at("status") != 0 || took_dkms != expect_dkms) {
        ++row.failures;
        progress("installation " + row.name + " failed (" + std::to_string(r.status) + "):\n" + r.err);
        return;
    }
    const double wall = static_cast<double>(v.at("wall_ns"));
    const double cpu = static_cast<double>(v.at("cpu_ns"));
    row.wall_s.push_back(wall / 1e9);
    row.cpu_ms.push_back(cpu / 1e6);
    row.share.push_back(cpu / wall);
    row.hwm_mib.push_back(static_cast<double>(v.at("hwm_kib")) / 1024);
    row.commands.push_back(static_cast<double>(v.at("children")));
    progress("  " + row.name + ": wall " + format("%.3f s", wall / 1e9) + ", own CPU " + format("%.1f ms", cpu / 1e6) +
             ", " + std::to_string(v.at("children")) + " commands");
}

std::vector<InstallRow> measure_installations(const Settings& settings) {
    InstallRow manual{"manual (--disable-dkms)", {}, {}, {}, {}, {}, 0};
    InstallRow dkms{"DKMS", {}, {}, {}, {}, {}, 0};
    // The two paths alternate, so that a slow spell of the machine falls on both.
    for (int run = 1; run <= settings.runs; ++run) {
        progress("installation " + std::to_string(run) + "/" + std::to_string(settings.runs));
        install_once(manual, {"--disable-dkms"}, false, run, settings);
        install_once(dkms, {}, true, run, settings);
    }
    return {manual, dkms};
}

// What any run of the installer costs it, whatever the host: starting the
// process (measured by --help, which also runs the one shell of the locale
// choice), and each further command it runs through the shell.
struct FixedCosts {
    std::vector<double> start_ms, shell_us;
};

// Own CPU of a command of the host as bench-own-usage sees it; -1 when it failed.
double own_cpu_ms(lab::Host& host, std::vector<std::string> argv, const std::string& cwd) {
    argv.insert(argv.begin(), {own_usage_in_host, "/tmp/fixed-usage"});
    lab::RunOptions options;
    options.cwd = cwd;
    const lab::RunResult r = host.run(argv, options);
    const Values v = parse_values(host.read("/tmp/fixed-usage").value_or(""));
    if (r.status != 0 || v.empty()) return -1;
    return static_cast<double>(v.at("cpu_ns")) / 1e6;
}

FixedCosts measure_fixed_costs(lab::Host& host, const Settings& settings) {
    FixedCosts costs;
    const std::string package = host.package_dir();
    // Measured as the installations are, through the tracer, whose stop at
    // each SIGCHLD is then part of the cost of a command on both sides.
    const long shells = 200;
    for (int run = 1; run <= settings.runs; ++run) {
        progress("fixed costs " + std::to_string(run) + "/" + std::to_string(settings.runs));
        const double start = own_cpu_ms(host, {"./quorl-driver-installer", "--help"}, package);
        if (start >= 0) costs.start_ms.push_back(start);
        const double none = own_cpu_ms(host, {steps_in_host, "shells", "0", package + "/.manifest"}, "/root");
        const double many =
            own_cpu_ms(host, {steps_in_host, "shells", std::to_string(shells), package + "/.manifest"}, "/root");
        if (none >= 0 && many >= 0) costs.shell_us.push_back((many - none) * 1000 / static_cast<double>(shells));
    }
    return costs;
}

// --- copy and record of the user-space tree, removal walk ---------------------

struct StepRow {
    std::string name;
    long files = 0;
    std::vector<double> step_s, baseline_s, ratio, cpu_ratio, step_cpu_s, baseline_cpu_s, rss_mib;
    int failures = 0;
};

// One repetition: the baseline and the step over the same files, one after the
// other, in an order that alternates between repetitions.
void step_against_baseline(StepRow& row, int run, const std::function<void()>& reset,
                           const std::function<Values()>& baseline, const std::function<Values()>& step) {
    reset();
    Values base, measured;
    if (run % 2) {
        base = baseline();
        measured = step();
    } else {
        measured = step();
        reset();
        base = baseline();
    }
    if (base.empty() || measured.empty() || base.at("result") != 0 || measured.at("result") != 0) {
        ++row.failures;
        return;
    }
    const double step_ns = static_cast<double>(measured.at("wall_ns"));
    const double base_ns = static_cast<double>(base.at("wall_ns"));
    row.step_s.push_back(step_ns / 1e9);
    row.baseline_s.push_back(base_ns / 1e9);
    row.ratio.push_back(step_ns / base_ns);
    const double step_tree = static_cast<double>(measured.at("tree_cpu_ns"));
    const double base_tree = static_cast<double>(base.at("tree_cpu_ns"));
    row.cpu_ratio.push_back(step_tree / base_tree);
    row.step_cpu_s.push_back(step_tree / 1e9);
    row.baseline_cpu_s.push_back(base_tree / 1e9);
    progress("  installer " + format("%.2f s", step_ns / 1e9) + " (CPU " + format("%.2f s", step_tree / 1e9) +
             "), baseline " + format("%.2f s", base_ns / 1e9) + " (CPU " + format("%.2f s", base_tree / 1e9) + ")");
    row.rss_mib.push_back(static_cast<double>(measured.at("maxrss_kib")) / 1024);
}

StepRow measure_recording(lab::Host& host, long files, const Settings& settings) {
    StepRow row{"copy and record", files, {}, {}, {}, {}, {}, {}, {}, 0};
    const std::string tree = generated_package + "/quorl";
    const std::string list = "/root/bench-list";
    host.shell("rm -rf " + generated_package);
    run_step(host, {steps_in_host, "make-tree", tree, std::to_string(files)});
    run_step(host, {steps_in_host, "list", tree, list});
    for (int run = 1; run <= settings.runs; ++run) {
        progress("copy and record of " + std::to_string(files) + " files " + std::to_string(run) + "/" +
                 std::to_string(settings.runs));
        step_against_baseline(
            row, run, [&] { host.shell("rm -rf " + installed_tree + " /var/log/vantoriaquorl"); },
            [&] { return run_step(host, {steps_in_host, "baseline", list}); },
            [&] { return run_step(host, {steps_in_host, "record", generated_package}); });
    }
    return row;
}

StepRow measure_removal(lab::Host& host, long files, const Settings& settings) {
    StepRow row{"removal walk", files, {}, {}, {}, {}, {}, {}, {}, 0};
    const std::string record = "/root/bench-record";
    const std::string list = "/root/bench-list";
    // The tree is made again before each walk; its files are the same every
    // time, so one record made up front fits them all.
    auto reset = [&] {
        host.shell("rm -rf " + installed_tree + " /var/log/vantoriaquorl");
        run_step(host, {steps_in_host, "make-tree", installed_tree, std::to_string(files)});
    };
    reset();
    run_step(host, {steps_in_host, "digest-record", installed_tree, record});
    run_step(host, {steps_in_host, "list", installed_tree, list});
    for (int run = 1; run <= settings.runs; ++run) {
        progress("removal walk of " + std::to_string(files) + " files " + std::to_string(run) + "/" +
                 std::to_string(settings.runs));
        step_against_baseline(
            row, run, reset, [&] { return run_step(host, {steps_in_host, "baseline", list}); },
            [&] {
                Values v = run_step(host, {steps_in_host, "remove", record});
                // Files left behind mean the walk skipped them: not the work to measure.
                if (!v.empty() && v.at("left") != 0) {
                    progress("the removal walk left " + std::to_string(v.at("left")) + " files");
                    v.clear();
                }
                return v;
            });
    }
    return row;
}

// --- the status report -----------------------------------------------------------

// quorl-driver-status over an install record of FILE entries, against one
// md5sum -c over the same files: what a monitoring run cannot do with less.
StepRow measure_status(lab::Host& host, long files, const Settings& settings) {
    StepRow row{"status report", files, {}, {}, {}, {}, {}, {}, {}, 0};
    const std::string record = "/var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests";
    const std::string checklist = "/root/bench-md5sums";
    const std::string program = host.package_dir() + "/quorl/bin/quorl-driver-status";
    host.shell("rm -rf " + installed_tree + " /var/log/vantoriaquorl && mkdir -p /var/log/vantoriaquorl/uninstall");
    run_step(host, {steps_in_host, "make-tree", installed_tree, std::to_string(files)});
    run_step(host, {steps_in_host, "digest-record", installed_tree, record});
    // The same files in the same order, as md5sum -c reads them: "<digest>  <path>".
    host.shell("sed -n 's/^FILE \\(.*\\) \\([0-9a-f]\\{32\\}\\)$/\\2  \\1/p' " + record + " > " + checklist);
    for (int run = 1; run <= settings.runs; ++run) {
        progress("status report over " + std::to_string(files) + " files " + std::to_string(run) + "/" +
                 std::to_string(settings.runs));
        step_against_baseline(
            row, run, [] {}, [&] { return run_step(host, {steps_in_host, "md5sum-check", checklist}); },
            [&] { return run_step(host, {steps_in_host, "status", program, std::to_string(files)}); });
    }
    return row;
}

// --- the preview against the installation ---------------------------------------

struct PreviewRow {
    std::string name;
    std::string options;
    std::vector<double> preview_s, install_s, ratio;
    int failures = 0;
};

// Wall time of one command of the host, from the package directory, as the
// administrator's shell sees it; -1 when it did not end 0.
double wall_of(lab::Host& host, const std::string& command, bool lab_kernel) {
    lab::RunOptions options;
    options.cwd = host.package_dir();
    options.lab_kernel = lab_kernel;
    options.timeout = 0;
    const lab::RunResult r = host.shell("start=$(date +%s%N); " + command +
                                            " > /tmp/out 2>&1 || { cat /tmp/out; exit 1; }; echo $(( $(date +%s%N) - start ))",
                                        options);
    if (r.status != 0) {
        progress(command + " failed (" + std::to_string(r.status) + "):\n" + r.out + r.err);
        return -1;
    }
    return std::stod(r.out) / 1e9;
}

// Each repetition in a fresh host with this machine's release, so that a
// preview, which plays the kernel itself here, and the installation see the
// same kernel: a first preview that warms the host's caches, the preview
// timed, and the installation timed last, as an administrator runs them. The
// installation thus finds the warmest caches, which can only favour it.
std::vector<PreviewRow> measure_preview(const Settings& settings) {
    std::vector<PreviewRow> rows = {{"manual (--disable-dkms)", " --disable-dkms", {}, {}, {}, 0},
                                    {"DKMS", "", {}, {}, {}, 0}};
    for (int run = 1; run <= settings.runs; ++run) {
        progress("preview and installation " + std::to_string(run) + "/" + std::to_string(settings.runs));
        for (PreviewRow& row : rows) {
            lab::Host host("bench-preview-" + std::to_string(run) + (row.options.empty() ? "-dkms" : "-manual"));
            host.keep(settings.keep);
            const std::string release = lab::machine_release();
            host.kernel(release).kernel_tree(release).card({}).package();
            wall_of(host, "./quorl-driver-preview" + row.options, false);
            const double preview = wall_of(host, "./quorl-driver-preview" + row.options, false);
            const double install = wall_of(host, "./quorl-driver-installer" + row.options, true);
            if (preview < 0 || install < 0) {
                ++row.failures;
                continue;
            }
            row.preview_s.push_back(preview);
            row.install_s.push_back(install);
            row.ratio.push_back(preview / install);
            progress("  " + row.name + ": preview " + format("%.3f s", preview) + ", installation " +
                     format("%.3f s", install));
        }
    }
    return rows;
}

// --- --help --------------------------------------------------------------------

struct HelpRow {
    std::vector<double> median_ms, mean_ms;
    int failures = 0;
};

HelpRow measure_help(lab::Host& host, const Settings& settings) {
    HelpRow row;
    for (int run = 1; run <= settings.runs; ++run) {
        progress("--help " + std::to_string(run) + "/" + std::to_string(settings.runs));
        const Values v = run_step(
            host, {steps_in_host, "repeat", std::to_string(settings.help_runs), "./quorl-driver-installer", "--help"},
            host.package_dir());
        if (v.empty() || v.at("result") != 0) {
            ++row.failures;
            continue;
        }
        row.median_ms.push_back(static_cast<double>(v.at("median_ns")) / 1e6);
        row.mean_ms.push_back(static_cast<double>(v.at("mean_ns")) / 1e6);
    }
    return row;
}

// --- the table -------------------------------------------------------------------

std::string verdict(bool met) {
    return met ? "met" : "MISSED";
}

std::string failures_note(int failures) {
    return failures ? "  (" + std::to_string(failures) + " failed runs left out)" : "";
}

void print_installations(const std::vector<InstallRow>& rows, const FixedCosts& costs) {
    std::printf("\nComplete first installation of the sample package (installer process alone, children excluded)\n");
    std::printf("  %-24s %9s %9s %9s %9s %9s %9s   %s\n", "path", "wall", "own CPU", "CPU/wall", "peak RSS",
                "commands", "floor", "target CPU/wall < 2%");
    const double start_ms = median(costs.start_ms), shell_ms = median(costs.shell_us) / 1000;
    for (const InstallRow& row : rows) {
        if (row.wall_s.empty()) {
            std::printf("  %-24s no successful run%s\n", row.name.c_str(), failures_note(row.failures).c_str());
            continue;
        }
        const double share = median(row.share), commands = median(row.commands);
        // The start measured by --help already holds one command.
        const double floor = start_ms + (commands - 1) * shell_ms;
        std::printf("  %-24s %9s %9s %9s %9s %9.0f %9s   %s%s\n", row.name.c_str(),
                    format("%.3f s", median(row.wall_s)).c_str(), format("%.1f ms", median(row.cpu_ms)).c_str(),
                    format("%.2f %%", share * 100).c_str(), format("%.1f MiB", median(row.hwm_mib)).c_str(),
                    commands, format("%.1f ms", floor).c_str(), verdict(share < 0.02).c_str(),
                    failures_note(row.failures).c_str());
    }
    std::printf("  floor: start of the process %.2f ms (own CPU of --help, one command included)\n"
                "         + %.0f us of own CPU per further command (a digest through the shell, as the installer runs it)\n",
                start_ms, shell_ms * 1000);
}

void print_steps(const std::string& title, const std::vector<StepRow>& rows) {
    std::printf("\n%s\n", title.c_str());
    std::printf("  %-16s %6s %9s %9s %7s %9s %9s   %s\n", "step", "files", "installer", "baseline", "ratio",
                "CPU ratio", "peak RSS", "targets at 10000: ratio <= 1.1, RSS < 16 MiB");
    for (const StepRow& row : rows) {
        if (row.step_s.empty()) {
            std::printf("  %-16s %6ld no successful run%s\n", row.name.c_str(), row.files,
                        failures_note(row.failures).c_str());
            continue;
        }
        const double ratio = median(row.ratio), rss = median(row.rss_mib);
        std::printf("  %-16s %6ld %9s %9s %7s %9s %9s   %s%s\n", row.name.c_str(), row.files,
                    format("%.2f s", median(row.step_s)).c_str(), format("%.2f s", median(row.baseline_s)).c_str(),
                    format("%.3f", ratio).c_str(), format("%.3f", median(row.cpu_ratio)).c_str(),
                    format("%.1f MiB", rss).c_str(),
                    row.files >= 10000 ? (verdict(ratio <= 1.1) + ", " + verdict(rss < 16)).c_str() : "",
                    failures_note(row.failures).c_str());
    }
    // Growth from the smallest to the largest tree: about the ratio of their
    // sizes when linear. What a process costs on a shared machine wanders by
    // some ten per cent from one minute to the next, and the baseline's growth
    // with it; a term of the installer's own that grows faster than the files
    // shows as a ratio to the baseline that rises with the tree.
    if (rows.size() >= 2 && !rows.front().step_s.empty() && !rows.back().step_s.empty()) {
        const StepRow &small = rows.front(), &large = rows.back();
        const double sizes = static_cast<double>(large.files) / static_cast<double>(small.files);
        auto growth = [](const std::vector<double>& a, const std::vector<double>& b) { return median(b) / median(a); };
        const double drift = median(large.ratio) / median(small.ratio);
        std::printf("  growth %ld -> %ld files (linear: x%.0f): installer x%.2f (CPU x%.2f), baseline x%.2f (CPU x%.2f)\n"
                    "  ratio to the baseline at %ld files over that at %ld: x%.3f   %s\n",
                    small.files, large.files, sizes, growth(small.step_s, large.step_s),
                    growth(small.step_cpu_s, large.step_cpu_s), growth(small.baseline_s, large.baseline_s),
                    growth(small.baseline_cpu_s, large.baseline_cpu_s), large.files, small.files, drift,
                    verdict(drift <= 1.1).c_str());
    }
}

void print_status(const StepRow& row) {
    std::printf("\nquorl-driver-status over an install record of FILE entries, against md5sum -c over the same files\n");
    std::printf("  %-16s %6s %9s %9s %7s %9s %9s   %s\n", "step", "files", "status", "md5sum -c", "ratio", "CPU ratio",
                "peak RSS", "target at 10000: ratio <= 1.0");
    if (row.step_s.empty()) {
        std::printf("  %-16s %6ld no successful run%s\n", row.name.c_str(), row.files, failures_note(row.failures).c_str());
        return;
    }
    const double ratio = median(row.ratio);
    std::printf("  %-16s %6ld %9s %9s %7s %9s %9s   %s%s\n", row.name.c_str(), row.files,
                format("%.3f s", median(row.step_s)).c_str(), format("%.3f s", median(row.baseline_s)).c_str(),
                format("%.3f", ratio).c_str(), format("%.3f", median(row.cpu_ratio)).c_str(),
                format("%.1f MiB", median(row.rss_mib)).c_str(), verdict(ratio <= 1.0).c_str(),
                failures_note(row.failures).c_str());
    std::printf("  (the status hashes on one thread per idle processor: on a quiet machine its CPU time may exceed\n"
                "  its wall time, on a busy one the CPU ratio is the fairer figure)\n");
}

void print_preview(const std::vector<PreviewRow>& rows) {
    std::printf("\nThe preview against the installation it previews, in the same host (wall time)\n");
    std::printf("  %-24s %9s %12s %7s   %s\n", "path", "preview", "installation", "ratio", "target ratio <= 1.1");
    for (const PreviewRow& row : rows) {
        if (row.ratio.empty()) {
            std::printf("  %-24s no successful run%s\n", row.name.c_str(), failures_note(row.failures).c_str());
            continue;
        }
        const double ratio = median(row.ratio);
        std::printf("  %-24s %9s %12s %7s   %s%s\n", row.name.c_str(), format("%.3f s", median(row.preview_s)).c_str(),
                    format("%.3f s", median(row.install_s)).c_str(), format("%.3f", ratio).c_str(),
                    verdict(ratio <= 1.1).c_str(), failures_note(row.failures).c_str());
    }
}

void print_help(const HelpRow& row, const Settings& settings) {
    std::printf("\n--help, %d runs per repetition\n", settings.help_runs);
    if (row.median_ms.empty()) {
        std::printf("  no successful run%s\n", failures_note(row.failures).c_str());
        return;
    }
    std::printf("  per run: median %.2f ms, mean %.2f ms%s\n", median(row.median_ms), median(row.mean_ms),
                failures_note(row.failures).c_str());
}

int usage() {
    std::cerr << "usage: bench-runner [--runs N] [--help-runs N] [--only install|record|remove|status|preview|help]... "
                 "[--on-disk] [--keep]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--runs" && i + 1 < argc) {
            settings.runs = std::max(1, std::stoi(argv[++i]));
        } else if (arg == "--help-runs" && i + 1 < argc) {
            settings.help_runs = std::max(1, std::stoi(argv[++i]));
        } else if (arg == "--only" && i + 1 < argc) {
            const std::string part = argv[++i];
            if (part != "install" && part != "record" && part != "remove" && part != "status" && part != "preview" &&
                part != "help")
                return usage();
            settings.parts.insert(part);
        } else if (arg == "--on-disk") {
            settings.on_disk = true;
        } else if (arg == "--keep") {
            settings.keep = true;
        } else {
            return usage();
        }
    }
    std::string why;
    if (!lab::lab_available(&why)) {
        std::cerr << "bench-runner: this machine cannot host the simulated host: " << why << "\n";
        return 77;
    }
    if (settings.keep && !settings.on_disk)
        std::cerr << "bench-runner: the hosts lie on a tmpfs that goes with this process; add --on-disk to keep them\n";
    if (!settings.on_disk && !hosts_on_tmpfs(&why)) {
        std::cerr << "bench-runner: cannot put the hosts on a tmpfs (" << why << "); try --on-disk\n";
        return 1;
    }
    const time_t started = time(nullptr);

    std::vector<InstallRow> installations;
    if (settings.wants("install")) installations = measure_installations(settings);

    std::vector<PreviewRow> preview;
    if (settings.wants("preview")) preview = measure_preview(settings);

    std::vector<StepRow> recording, removal;
    std::optional<StepRow> status;
    HelpRow help;
    FixedCosts costs;
    {
        lab::Host host("bench-steps");
        prepare_host(host, settings);
        if (settings.wants("install")) costs = measure_fixed_costs(host, settings);
        for (long files : {1000L, 10000L}) {
            if (settings.wants("record")) recording.push_back(measure_recording(host, files, settings));
            if (settings.wants("remove")) removal.push_back(measure_removal(host, files, settings));
        }
        if (settings.wants("status")) status = measure_status(host, 10000, settings);
        if (settings.wants("help")) help = measure_help(host, settings);
    }

    char date[64];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M", std::localtime(&started));
    std::printf("quorl-driver-installer benchmark, %s, medians of %d runs, in simulated hosts on %s\n", date,
                settings.runs, settings.on_disk ? "the build tree's disk" : "a tmpfs");
    if (!installations.empty()) print_installations(installations, costs);
    if (!recording.empty())
        print_steps("Copy and record of the user-space tree, against one shell and one md5sum per file", recording);
    if (!removal.empty())
        print_steps("Removal walk of an install record of FILE entries, against the same baseline", removal);
    if (!recording.empty() || !removal.empty())
        std::printf("  (CPU ratio: the same ratio of the CPU time of the whole process tree, the installer's and all\n"
                    "  its commands', which a busy machine disturbs less than the wall time)\n");
    if (status) print_status(*status);
    if (!preview.empty()) print_preview(preview);
    if (settings.wants("help")) print_help(help, settings);
    return 0;
}
