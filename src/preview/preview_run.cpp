#include "preview/preview_run.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "preview/kernel_stand_in.hpp"
#include "preview/sandbox.hpp"
#include "preview/text_files.hpp"

extern char** environ;

namespace preview {

namespace {

namespace fs = std::filesystem;

constexpr long overlayfs_magic = 0x794c7630;
// The scratch of a preview: a tmpfs over /run in the preview's own mount
// namespace, so that it vanishes with the preview.
constexpr const char* scratch = "/run";

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

// The tree that `path` lies in of those that the view does not show from
// this machine, or none.
const char* private_tree_of(const std::string& path) {
    for (const char* tree : {"/run", "/proc", "/sys", "/dev"}) {
        if (within(path, tree)) return tree;
    }
    return nullptr;
}

bool prepare_keep(const std::string& dir, std::string* error) {
    if (const char* tree = private_tree_of(dir)) {
        *error = "--keep " + dir + " lies in " + tree + ", which the preview does not show";
        return false;
    }
    // Judged where the directory is, or will be, before anything is made.
    std::string existing = dir;
    while (!fs::exists(existing)) existing = fs::path(existing).parent_path().string();
    struct statfs fs_info;
    if (statfs(existing.c_str(), &fs_info) != 0) {
        *error = failure("--keep " + dir);
        return false;
    }
    if (fs_info.f_type == overlayfs_magic) {
        *error = "--keep " + dir + " lies on overlayfs, which cannot hold the upper layer of another";
        return false;
    }
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec || !fs::is_directory(dir)) {
        *error = "--keep " + dir + ": " + (ec ? ec.message() : "not a directory");
        return false;
    }
    if (!fs::is_empty(dir, ec)) {
        *error = "--keep " + dir + " is not empty";
        return false;
    }
    // What the installation wrote, setuid programs among them, is for root alone.
    if (chmod(dir.c_str(), 0700) != 0) {
        *error = failure("--keep " + dir);
        return false;
    }
    return true;
}

// Each place where a search of the PATH finds systemctl, as the installer
// widens it.
std::vector<std::string> systemctl_places() {
    std::string path = getenv("PATH") ? getenv("PATH") : "";
    path += ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    std::set<std::string> places;
    std::istringstream dirs(path);
    for (std::string dir; std::getline(dirs, dir, ':');) {
        char real[PATH_MAX];
        std::string candidate = dir + "/systemctl";
        if (!dir.empty() && access(candidate.c_str(), X_OK) == 0 && realpath(candidate.c_str(), real)) places.insert(real);
    }
    return {places.begin(), places.end()};
}

// Passes the command's streams on as they come and keeps a copy of both; a
// stream given as -1 is not there (the other one carries both).
std::string pump(int out, int err, int out_to, int err_to) {
    std::string console;
    pollfd fds[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    const int to[2] = {out_to, err_to};
    int open_streams = (out >= 0) + (err >= 0);
    char buf[4096];
    while (open_streams > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_streams;
                continue;
            }
            console.append(buf, static_cast<size_t>(n));
            for (ssize_t done = 0; done < n;) {
                ssize_t w = write(to[i], buf + done, static_cast<size_t>(n - done));
                if (w <= 0) break;
                done += w;
            }
        }
    }
    return console;
}

// Sets up this process's own mount namespace with the scratch, and the
// sandbox that runs the installer.
bool prepare(const PreviewRequest& request, Sandbox* box, std::string* error) {
    char cwd[PATH_MAX] = "/";
    if (!request.uninstall && !getcwd(cwd, sizeof cwd)) {
        *error = failure("the working directory");
        return false;
    }
    if (const char* tree = private_tree_of(cwd)) {
        *error = std::string("the package directory lies in ") + tree + ", which the preview does not show";
        return false;
    }
    if (!request.keep.empty() && !prepare_keep(request.keep, error)) return false;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) {
        *error = failure("find this program");
        return false;
    }
    self[n] = 0;
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *error = failure("a mount namespace of its own");
        return false;
    }
    box->content = content_mounts();
    if (mount("quorl-preview-scratch", scratch, "tmpfs", MS_NOSUID | MS_NODEV, ("mode=0700,size=" + box->tmpfs_size).c_str()) != 0) {
        *error = failure("a scratch tmpfs");
        return false;
    }
    const std::string base = scratch;
    box->stage = base + "/stage";
    box->state = base + "/state";
    box->changes = request.keep.empty() ? base + "/changes" : request.keep;
    // The view's /tmp, where builds often go, counts against the scratch's limit.
    box->tmp = base + "/tmp";
    for (const auto& dir : {box->stage, box->state + "/proc", base + "/empty", box->tmp}) fs::create_directories(dir);
    chmod(box->tmp.c_str(), 01777);
    // The kernel as it is now: the module list, /sys/module after it, the command line.
    const std::string modules = read_text("/proc/modules");
    std::ofstream(box->state + "/proc/modules") << modules;
    std::ofstream(box->state + "/proc/cmdline") << read_text("/proc/cmdline");
    sync_sys_modules(modules, box->state + "/sys/module");
    // A systemctl in the private trees or /tmp is not in the view, where the
    // installer's search goes on to the next one (the package directory alone
    // stays visible in /tmp).
    for (const auto& place : systemctl_places()) {
        const bool hidden = private_tree_of(place) || (within(place, "/tmp") && !within(place, cwd));
        if (!hidden) box->binds.push_back({self, place});
    }
    // The kept directory is no part of what the installer sees.
    if (!request.keep.empty() && !within(request.keep, "/tmp")) box->binds.push_back({base + "/empty", request.keep});
    if (within(cwd, "/tmp")) box->kept_visible.push_back(cwd);
    box->argv = {request.program.path};
    box->argv.insert(box->argv.end(), request.installer_args.begin(), request.installer_args.end());
    for (char** e = environ; *e; ++e) box->env.push_back(*e);
    box->cwd = cwd;
    return true;
}

}  // namespace

PreviewedProgram installer_program() {
    return {"./quorl-driver-installer", "/var/log/vantoriaquorl/driver_installer.log", "installation", "installer"};
}

PreviewedProgram uninstaller_program(const std::string& driver_prefix) {
    return {driver_prefix + "bin/quorl-driver-uninstaller", "/var/log/vantoriaquorl/driver_uninstaller.log",
            "uninstallation", "uninstaller"};
}

std::optional<Report> run_preview(const PreviewRequest& request, std::string* error) {
    Sandbox box;
    if (!prepare(request, &box, error)) return std::nullopt;
    // With the report on standard output, both streams of the installer go to
    // standard error through one pipe, so that their lines keep the order in
    // which they were written.
    int out[2], err[2] = {-1, -1}, result[2];
    if (pipe2(out, O_CLOEXEC) != 0 || (!request.json && pipe2(err, O_CLOEXEC) != 0) || pipe2(result, O_CLOEXEC) != 0) {
        *error = failure("pipes");
        return std::nullopt;
    }
    box.stdout_fd = out[1];
    box.stderr_fd = request.json ? out[1] : err[1];
    const pid_t preview = getpid();
    pid_t runner = fork();
    if (runner < 0) {
        *error = failure("fork");
        return std::nullopt;
    }
    if (runner == 0) {
        die_with(preview);
        close(out[0]);
        if (err[0] >= 0) close(err[0]);
        close(result[0]);
        std::string why;
        int status = run_sandboxed(box, &why);
        std::string text = std::to_string(status) + "\n" + why;
        (void)!write(result[1], text.data(), text.size());
        _exit(0);
    }
    close(out[1]);
    if (err[1] >= 0) close(err[1]);
    close(result[1]);
    Report report;
    report.console = pump(out[0], err[0], request.json ? 2 : 1, 2);
    int wait_status;
    while (waitpid(runner, &wait_status, 0) < 0 && errno == EINTR) {
    }
    std::string outcome;
    char buf[1024];
    for (ssize_t n; (n = read(result[0], buf, sizeof buf)) > 0;) outcome.append(buf, static_cast<size_t>(n));
    close(result[0]);
    size_t line_end = outcome.find('\n');
    if (line_end == std::string::npos) {
        *error = "the sandbox ended without a word";
        return std::nullopt;
    }
    if (line_end + 1 < outcome.size()) {
        *error = outcome.substr(line_end + 1);
        return std::nullopt;
    }
    report.status = std::atoi(outcome.c_str());
    add_differences(report, changes_of(box));
    const auto journal = read_module_journal(box.state);
    report.modules_unloaded = journal.unloaded;
    report.modules_loaded = journal.loaded;
    report.systemctl = lines_of(read_text(box.state + "/run/calls/systemctl"));
    auto log = resolve(view_of(box, true), request.program.log, true);
    if (log && S_ISREG(log->st.st_mode)) report.log = read_text(log->host);
    report.noun = request.program.noun;
    report.role = request.program.role;
    report.log_name = fs::path(request.program.log).filename();
    if (!request.keep.empty()) {
        std::ofstream(request.keep + "/" + report.log_name) << report.log;
        report.kept = request.keep;
    }
    return report;
}

}  // namespace preview
