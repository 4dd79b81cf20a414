// bench-steps: single steps of the installer, timed inside a simulated host,
// and the baseline they are held against.
//
//   bench-steps make-tree DIR COUNT        COUNT files of a user-space tree under DIR
//   bench-steps list DIR LIST              the regular files under DIR, one a line
//   bench-steps digest-record DIR RECORD   an install record with a FILE line per file under DIR
//   bench-steps baseline LIST              one shell and one md5sum per file named in LIST
//   bench-steps record PACKAGE_DIR         the copy and record of PACKAGE_DIR/quorl
//   bench-steps remove RECORD              reading RECORD and walking it as a removal does
//   bench-steps repeat N COMMAND [ARG...]  COMMAND N times, each timed
//   bench-steps shells N FILE              N digests of FILE through the installer's command runner
//   bench-steps md5sum-check LIST          md5sum -c over LIST, a list of digests as md5sum prints them
//   bench-steps status PROGRAM FILES       PROGRAM --json (quorl-driver-status) over the host's record
//
// The timed modes print key=value lines on standard output: wall_ns and
// tree_cpu_ns (the CPU time of this process and of every process it waited
// for, which a busy machine disturbs less than the wall time), and for the
// steps of the installer also cpu_ns (this process alone, user and system),
// maxrss_kib (its peak resident set), entries and result; remove adds left,
// the files of the record that are still there afterwards; status gives
// result 0 only when the report found FILES paths intact and none changed,
// missing or unreadable, and maxrss_kib is then the status process's.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/constants.hpp"
#include "app/install_options.hpp"
#include "app/log.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"
#include "record/install_record.hpp"
#include "record/run_state.hpp"
#include "record/uninstall_engine.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;

long long now_ns() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

long long cpu_ns_of(int who) {
    rusage usage;
    getrusage(who, &usage);
    auto ns = [](const timeval& t) { return t.tv_sec * 1000000000LL + t.tv_usec * 1000LL; };
    return ns(usage.ru_utime) + ns(usage.ru_stime);
}

long long own_cpu_ns() {
    return cpu_ns_of(RUSAGE_SELF);
}

// Ours and that of the children we waited for, and of theirs.
long long tree_cpu_ns() {
    return cpu_ns_of(RUSAGE_SELF) + cpu_ns_of(RUSAGE_CHILDREN);
}

long peak_rss_kib() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// The peak resident set of the largest child waited for.
long children_peak_rss_kib() {
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return usage.ru_maxrss;
}

// Runs argv and waits for it; the exit status, or 128+signal. Quiet, its
// standard output goes to `output` and its errors nowhere.
int spawn_and_wait(const std::vector<std::string>& argv, bool quiet, const char* output = "/dev/null") {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, 1, output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid = 0;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) return 127;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Files spread over a few nested directories, as a user-space tree has
// them: four top directories of ten subdirectories each. Every file is
// distinct, between half a kilobyte and four kilobytes.
int make_tree(const std::string& dir, long count) {
    static const char* const tops[] = {"bin", "lib64", "share/doc", "share/samples"};
    for (long i = 0; i < count; ++i) {
        const std::string sub = dir + "/" + tops[i % 4] + "/d" + std::to_string(i / 4 % 10);
        if (i < 40) fs::create_directories(sub);
        std::ofstream file(sub + "/file" + std::to_string(i));
        std::string line = "generated file " + std::to_string(i) + "\n";
        const size_t size = 512 * static_cast<size_t>(i % 8 + 1);
        std::string content;
        while (content.size() < size) content += line;
        file << content;
    }
    return 0;
}

std::vector<std::string> regular_files(const std::string& dir) {
    std::vector<std::string> files;
    for (const auto& item : fs::recursive_directory_iterator(dir)) {
        if (item.is_regular_file()) files.push_back(item.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

int list_files(const std::string& dir, const std::string& list) {
    std::ofstream out(list);
    for (const std::string& file : regular_files(dir)) out << file << "\n";
    return 0;
}

// The digests come from md5sum, as the installer's do, but from one md5sum
// run over many files: setting up the record is not what is measured.
int digest_record(const std::string& dir, const std::string& record) {
    const std::string command = "find '" + dir + "' -type f -print0 | xargs -0 md5sum";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return 1;
    std::ofstream out(record);
    out << "QUORL " << dir << "\n";
    char line[4096];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text = line;
        if (!text.empty() && text.back() == '\n') text.pop_back();
        // "<digest>  <path>"
        const size_t gap = text.find("  ");
        if (gap == std::string::npos) continue;
        out << "FILE " << text.substr(gap + 2) << " " << text.substr(0, gap) << "\n";
    }
    return pclose(pipe) == 0 ? 0 : 1;
}

// What the installer cannot do with less: for each file, a shell that runs
// md5sum, started from a shell loop.
int baseline(const std::string& list) {
    const long long tree_start = tree_cpu_ns();
    const long long start = now_ns();
    const int status = spawn_and_wait(
        {"bash", "-c", "while IFS= read -r f; do sh -c \"md5sum '$f' 2>&1\" >/dev/null; done < \"$1\"", "baseline",
         list},
        false);
    const long long wall = now_ns() - start;
    std::printf("wall_ns=%lld\ntree_cpu_ns=%lld\nresult=%d\n", wall, tree_cpu_ns() - tree_start, status);
    return status;
}

// The baseline of the status report: one md5sum that checks every file.
int md5sum_check(const std::string& list) {
    const long long tree_start = tree_cpu_ns();
    const long long start = now_ns();
    const int result = spawn_and_wait({"md5sum", "-c", list}, true);
    const long long wall = now_ns() - start;
    std::printf("wall_ns=%lld\ntree_cpu_ns=%lld\nresult=%d\n", wall, tree_cpu_ns() - tree_start, result);
    return result;
}

// The status report over the record that the host holds. Its exit status is
// 1 in a host without the driver's modules; what counts is that it judged
// every file, which its report tells.
int status(const std::string& program, long files) {
    const std::string report_path = "/tmp/bench-status.json";
    const long long tree_start = tree_cpu_ns();
    const long long start = now_ns();
    const int exit_status = spawn_and_wait({program, "--json"}, true, report_path.c_str());
    const long long wall = now_ns() - start;
    const long long tree = tree_cpu_ns() - tree_start;
    std::ifstream stream(report_path);
    const std::string report((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    bool judged = exit_status <= 1 && report.find("\"intact\": " + std::to_string(files) + ",") != std::string::npos;
    for (const char* empty : {"\"changed\": []", "\"missing\": []", "\"unreadable\": []"})
        judged = judged && report.find(empty) != std::string::npos;
    if (!judged) std::fprintf(stderr, "status %d, report:\n%s", exit_status, report.c_str());
    std::printf("wall_ns=%lld\ntree_cpu_ns=%lld\nmaxrss_kib=%ld\nresult=%d\n", wall, tree, children_peak_rss_kib(),
                judged ? 0 : 1);
    return judged ? 0 : 1;
}

int record(const std::string& package_dir) {
    if (chdir(package_dir.c_str()) != 0) return 1;
    log_init(log_file_path);
    InstallOptions options;
    options.prefix = "/usr/local";
    DriverInstaller installer(options);
    make_directories(installer.driver_prefix);

    const long long tree_start = tree_cpu_ns();
    const long long cpu_start = own_cpu_ns();
    const long long start = now_ns();
    const int result = installer.install_user_files();
    const long long wall = now_ns() - start;
    const long long cpu = own_cpu_ns() - cpu_start;
    const long long tree = tree_cpu_ns() - tree_start;

    std::printf("wall_ns=%lld\ntree_cpu_ns=%lld\ncpu_ns=%lld\nmaxrss_kib=%ld\nentries=%zu\nresult=%d\n", wall, tree,
                cpu, peak_rss_kib(), install_entries.size(), result);
    log_close();
    return result;
}

int remove(const std::string& record) {
    log_init(log_file_path);
    const long long tree_start = tree_cpu_ns();
    const long long cpu_start = own_cpu_ns();
    const long long start = now_ns();
    const std::vector<ManifestEntry> entries = read_install_record(record);
    const int result = remove_entries(entries);
    const long long wall = now_ns() - start;
    const long long cpu = own_cpu_ns() - cpu_start;
    const long long tree = tree_cpu_ns() - tree_start;

    // A walk that skipped its files (a digest that did not match) did not do the work.
    long left = 0;
    for (const ManifestEntry& entry : entries) {
        if (entry.type == "FILE" && file_exists(entry.path)) ++left;
    }
    std::printf("wall_ns=%lld\ntree_cpu_ns=%lld\ncpu_ns=%lld\nmaxrss_kib=%ld\nentries=%zu\nleft=%ld\nresult=%d\n",
                wall, tree, cpu, peak_rss_kib(), entries.size(), left, result);
    log_close();
    return result;
}

int repeat(long count, const std::vector<std::string>& argv) {
    std::vector<long long> times;
    int last = 0;
    for (long i = 0; i < count; ++i) {
        const long long start = now_ns();
        last = spawn_and_wait(argv, true);
        times.push_back(now_ns() - start);
    }
    std::sort(times.begin(), times.end());
    long long total = 0;
    for (long long t : times) total += t;
    std::printf("runs=%ld\nmedian_ns=%lld\nmean_ns=%lld\nresult=%d\n", count, times[times.size() / 2],
                total / count, last);
    return 0;
}

// What one command costs the installer itself: starting the shell, reading
// its line of output, waiting for it. The command is the one it runs most.
int shells(long count, const std::string& file) {
    const std::string command = "md5sum '" + file + "' 2>&1";
    const long long cpu_start = own_cpu_ns();
    const long long start = now_ns();
    int32_t status = 0;
    std::string output;
    bool started = true;
    for (long i = 0; i < count; ++i) started = run_command(command, output, status) && started;
    const long long wall = now_ns() - start;
    const long long cpu = own_cpu_ns() - cpu_start;
    std::printf("wall_ns=%lld\ncpu_ns=%lld\nruns=%ld\nresult=%d\n", wall, cpu, count, started ? status : 1);
    return 0;
}

int usage() {
    std::fprintf(stderr,
                 "usage: bench-steps make-tree DIR COUNT | list DIR LIST | digest-record DIR RECORD |\n"
                 "                   baseline LIST | record PACKAGE_DIR | remove RECORD | repeat N COMMAND [ARG...] |\n"
                 "                   shells N FILE | md5sum-check LIST | status PROGRAM FILES\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 3 && args[0] == "make-tree") return make_tree(args[1], std::stol(args[2]));
    if (args.size() == 3 && args[0] == "list") return list_files(args[1], args[2]);
    if (args.size() == 3 && args[0] == "digest-record") return digest_record(args[1], args[2]);
    if (args.size() == 2 && args[0] == "baseline") return baseline(args[1]);
    if (args.size() == 2 && args[0] == "record") return record(args[1]);
    if (args.size() == 2 && args[0] == "remove") return remove(args[1]);
    if (args.size() == 3 && args[0] == "shells") return shells(std::stol(args[1]), args[2]);
    if (args.size() == 2 && args[0] == "md5sum-check") return md5sum_check(args[1]);
    if (args.size() == 3 && args[0] == "status") return status(args[1], std::stol(args[2]));
    if (args.size() >= 3 && args[0] == "repeat")
        return repeat(std::stol(args[1]), std::vector<std::string>(args.begin() + 2, args.end()));
    return usage();
}
