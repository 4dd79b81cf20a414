#include "preview/sandbox.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "preview/confinement.hpp"
#include "preview/kernel_stand_in.hpp"
#include "preview/text_files.hpp"

namespace preview {

namespace {

// One overlay of the view: a mount of this machine under the layers that
// have a directory at its place.
struct Overlay {
    std::string at;
    std::vector<size_t> layers;  // indexes into Sandbox::layers, topmost first
    std::string upper, work;     // empty for a read-only mount of this machine
    unsigned long flags = 0;
};

std::string name_of_mount(const std::string& at) {
    std::string name = at.substr(1);
    std::replace(name.begin(), name.end(), '/', '+');
    return name;
}

// Whether a layer hides what this machine has at `path`: a whiteout, a
// non-directory or an opaque directory at the path or above it.
bool hidden_by(const std::string& layer, const std::string& path) {
    std::string host = layer;
    for (const auto& part : split(path)) {
        host = join(host, part);
        struct stat st;
        if (lstat(host.c_str(), &st) != 0) return false;
        if (!S_ISDIR(st.st_mode) || is_opaque(host)) return true;
    }
    return false;
}

std::vector<Overlay> plan(const Sandbox& box) {
    std::vector<Overlay> overlays;
    for (const auto& m : box.content) {
        bool hidden = false;
        for (const auto& layer : box.layers) hidden = hidden || (m.path != "/" && hidden_by(layer, m.path));
        if (hidden) continue;
        Overlay o;
        o.at = m.path;
        o.flags = (m.read_only ? MS_RDONLY : 0) | (m.nosuid ? MS_NOSUID : 0) | (m.nodev ? MS_NODEV : 0) |
                  (m.noexec ? MS_NOEXEC : 0);
        struct stat st;
        if (stat(m.path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
            // A file mounted on its own is shown as it is, read-only.
            o.flags |= MS_RDONLY;
            overlays.push_back(o);
            continue;
        }
        for (size_t i = 0; i < box.layers.size(); ++i) {
            struct stat st;
            if (lstat((box.layers[i] + m.path).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) o.layers.push_back(i);
        }
        if (!m.read_only) {
            std::string base = m.path == "/" ? box.changes : box.changes + "/mounts/" + name_of_mount(m.path);
            o.upper = base + "/upper";
            o.work = base + "/work";
        }
        overlays.push_back(o);
    }
    return overlays;
}

bool file_exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// The controlled files of /proc that the state holds.
std::vector<std::string> proc_files(const Sandbox& box) {
    std::vector<std::string> names;
    for (const char* name : {"modules", "cmdline", "version"}) {
        if (file_exists(box.state + "/proc/" + name)) names.push_back(name);
    }
    return names;
}

// Paths of the view that no overlay serves.
std::vector<std::string> private_points(const Sandbox& box) {
    std::vector<std::string> points = {"/proc", "/sys", "/dev", "/run", "/tmp"};
    for (const auto& [from, to] : box.binds) points.push_back(to);
    return points;
}

// Everything below runs in the forked children, where a failure can only be
// told through the error pipe before the child ends.
struct Setup {
    int error_fd;
    std::string failure;

    bool fail(const std::string& what) {
        failure = what + ": " + std::strerror(errno);
        return false;
    }
    bool mount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
               const std::string& data = "") {
        if (::mount(source.c_str(), target.c_str(), type, flags, data.empty() ? nullptr : data.c_str()) != 0)
            return fail("mount " + target);
        return true;
    }
    bool bind(const std::string& source, const std::string& target, bool read_only = false) {
        if (!mount(source, target, nullptr, MS_BIND)) return false;
        return !read_only || mount("none", target, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY);
    }
    bool dir(const std::string& path, mode_t mode) {
        if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return fail("mkdir " + path);
        chmod(path.c_str(), mode);
        return true;
    }
    bool dirs(const std::string& path) {
        std::string sofar;
        for (const auto& part : split(path)) {
            sofar += "/" + part;
            if (mkdir(sofar.c_str(), 0755) != 0 && errno != EEXIST) return fail("mkdir " + sofar);
        }
        return true;
    }
    bool empty_file(const std::string& path) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return fail("create " + path);
        close(fd);
        return true;
    }
    bool link(const std::string& target, const std::string& path) {
        if (::symlink(target.c_str(), path.c_str()) != 0) return fail("symlink " + path);
        return true;
    }
    [[noreturn]] void die() {
        std::string text = failure.empty() ? "unknown failure" : failure;
        (void)!write(error_fd, text.data(), text.size());
        _exit(125);
    }
};

// Each tmpfs of the view is limited, so that a build cannot fill this
// machine's memory.
std::string size_option(const Sandbox& box) { return "size=" + box.tmpfs_size; }

bool all_digits(const char* s) {
    for (; *s; ++s) {
        if (!std::isdigit(static_cast<unsigned char>(*s))) return false;
    }
    return true;
}

// A path in the option text of an overlay: its separators escaped.
std::string option_path(const std::string& path) {
    std::string out;
    for (char c : path) {
        if (c == ':' || c == ',' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

bool mount_overlays(Setup& s, const std::vector<Overlay>& overlays, const std::string& stage, const std::string& root) {
    for (const auto& o : overlays) {
        std::string target = root + (o.at == "/" ? "" : o.at);
        std::vector<std::string> lowers;
        for (size_t i : o.layers) lowers.push_back(stage + "/layer" + std::to_string(i) + (o.at == "/" ? "" : o.at));
        lowers.push_back(o.at);
        if (o.upper.empty() && lowers.size() == 1) {
            // A read-only mount with nothing laid over it, or a file mounted
            // on its own, is shown as it is, read-only.
            if (!s.bind(o.at, target) || !s.mount("none", target, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | o.flags))
                return false;
            continue;
        }
        std::string options = "lowerdir=";
        for (size_t i = 0; i < lowers.size(); ++i) options += (i ? ":" : "") + option_path(lowers[i]);
        if (!o.upper.empty()) {
            if (!s.dirs(o.upper) || !s.dirs(o.work)) return false;
            options += ",upperdir=" + option_path(o.upper) + ",workdir=" + option_path(o.work);
        }
        // redirect_dir and metacopy stay off so that the upper directories
        // hold whole files and plain whiteouts, which the change list reads.
        options += ",redirect_dir=off,metacopy=off,index=off";
        if (!s.mount("quorl-preview", target, "overlay", o.flags, options)) {
            s.failure = "show " + o.at + " in the view: " + s.failure;
            return false;
        }
    }
    return true;
}

// /proc is a tmpfs of links into a fresh proc of the namespace, so that the
// module list and the kernel command line can be plain files of the state.
bool mount_proc(Setup& s, const Sandbox& box, const std::string& root) {
    std::string realproc = root + "/run/realproc";
    // A process the command may not trace is not listed at all: pid 1 is not,
    // and its mounts, which are this machine's, are no part of the view.  The
    // group that would see them all is the one id the view does not map.
    if (!s.dir(realproc, 0555) || !s.mount("proc", realproc, "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC,
                                           "hidepid=invisible,gid=" + std::to_string(unmapped_id)))
        return false;
    // The sandbox shares this machine's kernel: its tunables, sysrq and the
    // hardware listings stay read-only, as container runtimes keep them.
    for (const char* guarded : {"sys", "sysrq-trigger", "irq", "bus"}) {
        std::string p = realproc + "/" + guarded;
        if (access(p.c_str(), F_OK) == 0 && !s.bind(p, p, true)) return false;
    }
    std::string proc = root + "/proc";
    if (!s.mount("quorl-preview-proc", proc, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0555")) return false;
    const auto controlled = proc_files(box);
    DIR* d = opendir(realproc.c_str());
    if (!d) return s.fail("open " + realproc);
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || all_digits(e->d_name) ||
            std::find(controlled.begin(), controlled.end(), name) != controlled.end())
            continue;
        if (!s.link("/run/realproc/" + name, proc + "/" + name)) {
            closedir(d);
            return false;
        }
    }
    closedir(d);
    for (const auto& name : controlled) {
        if (!s.empty_file(proc + "/" + name) || !s.bind(box.state + "/proc/" + name, proc + "/" + name)) return false;
    }
    return true;
}

bool mount_sys(Setup& s, const Sandbox& box, const std::string& root) {
    std::string sys = root + "/sys";
    if (box.own_sys) return s.bind(box.state + "/sys", sys);
    if (!s.mount("/sys", sys, nullptr, MS_BIND | MS_REC)) return false;
    // Read-only all the way down, the firmware variables included.
    struct {
        uint64_t attr_set, attr_clr, propagation, userns_fd;
    } attr = {1 /* MOUNT_ATTR_RDONLY */, 0, 0, 0};
    if (syscall(SYS_mount_setattr, AT_FDCWD, sys.c_str(), 0x8000 /* AT_RECURSIVE */, &attr, sizeof attr) != 0)
        return s.fail("make " + sys + " read-only");
    // Deepest first, so that a tree inside another goes before it.
    // The mount table spells the stage as the kernel resolved it.
    char* resolved = realpath(sys.c_str(), nullptr);
    if (!resolved) return s.fail("resolve " + sys);
    const auto trees = kernel_trees_below(read_text("/proc/self/mountinfo"), resolved);
    free(resolved);
    for (auto tree = trees.rbegin(); tree != trees.rend(); ++tree) {
        if (umount2(tree->c_str(), MNT_DETACH) != 0 && errno != EINVAL) return s.fail("hide " + *tree);
    }
    return s.bind(box.state + "/sys/module", sys + "/module", true);
}

bool mount_dev(Setup& s, const std::string& root, const std::string& size) {
    std::string dev = root + "/dev";
    if (!s.mount("quorl-preview-dev", dev, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755")) return false;
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        if (!s.empty_file(dev + "/" + name) || !s.bind(std::string("/dev/") + name, dev + "/" + name)) return false;
    }
    return s.link("/proc/self/fd", dev + "/fd") && s.link("/proc/self/fd/0", dev + "/stdin") &&
           s.link("/proc/self/fd/1", dev + "/stdout") && s.link("/proc/self/fd/2", dev + "/stderr") &&
           // A devpts instance of the view's own: no terminal of this machine is in it.
           s.dir(dev + "/pts", 0755) &&
           s.mount("devpts", dev + "/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620") &&
           s.link("pts/ptmx", dev + "/ptmx") && s.dir(dev + "/shm", 01777) &&
           s.mount("quorl-preview-shm", dev + "/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777," + size);
}

bool mount_run(Setup& s, const Sandbox& box, const std::string& root) {
    std::string run = root + "/run";
    if (!s.mount("quorl-preview-run", run, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755," + size_option(box)) ||
        !s.dir(run + "/lock", 01777))
        return false;
    // /run starts each time with what the seed holds (say a journal socket)
    // and forgets what the run added.
    std::string error;
    if (!box.run_seed.empty() && file_exists(box.run_seed) && !copy_tree(box.run_seed, run, &error)) {
        s.failure = "fill /run: " + error;
        return false;
    }
    return s.dir(root + run_state_dir, 0755) && s.bind(box.state + "/run", root + run_state_dir);
}

// Runs as pid 1 of the new pid namespace: puts the view together and plays
// the kernel for the command.
[[noreturn]] void become_init(Setup& s, const Sandbox& box) {
    const std::string stage = box.stage;
    const std::string root = stage + "/root";
    // Extra lower layers on the same file system as this machine's root are
    // refused by overlayfs, so they are copied into a tmpfs first.
    if (!s.mount("quorl-preview-stage", stage, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755," + size_option(box))) s.die();
    std::string error;
    for (size_t i = 0; i < box.layers.size(); ++i) {
        if (!copy_tree(box.layers[i], stage + "/layer" + std::to_string(i), &error)) {
            s.failure = "copy a layer: " + error;
            s.die();
        }
    }
    if (!s.dir(root, 0755) || !mount_overlays(s, plan(box), stage, root) || !mount_run(s, box, root) ||
        !mount_proc(s, box, root) || !mount_sys(s, box, root) || !mount_dev(s, root, size_option(box)))
        s.die();
    if (box.tmp.empty() ? !s.mount("quorl-preview-tmp", root + "/tmp", "tmpfs", MS_NOSUID | MS_NODEV,
                                   "mode=1777," + size_option(box))
                        : !s.bind(box.tmp, root + "/tmp"))
        s.die();
    for (size_t i = 0; i < box.kept_visible.size(); ++i) {
        const std::string& dir = box.kept_visible[i];
        std::string base = box.changes + "/visible/" + std::to_string(i);
        if (!s.dirs(root + dir) || !s.dirs(base + "/upper") || !s.dirs(base + "/work") ||
            !s.mount("quorl-preview", root + dir, "overlay", 0,
                     "lowerdir=" + option_path(dir) + ",upperdir=" + option_path(base + "/upper") +
                         ",workdir=" + option_path(base + "/work") + ",redirect_dir=off,metacopy=off,index=off"))
            s.die();
    }
    for (const auto& [from, to] : box.binds) {
        if (!s.bind(from, root + to)) s.die();
    }
    Command command;
    command.root = root;
    command.cwd = box.cwd;
    command.uid = box.uid;
    command.gid = box.gid;
    command.argv = box.argv;
    command.env = box.env;
    command.cgroup = box.cgroup;
    // The setup went well: nothing more is said on the error pipe.
    close(s.error_fd);
    _exit(serve_as_kernel(box.state, box.answer_kernel, command));
}

// Set in the outer child, which holds the namespaces: when a run overstays
// its time, pid 1 is killed and the whole sandbox goes with it.
int timeout_fd = -1;
pid_t timeout_init = 0;

void on_timeout(int) {
    static const char text[] = "the command did not end in time and was killed";
    (void)!write(timeout_fd, text, sizeof text - 1);
    kill(timeout_init, SIGKILL);
}

int decode(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 125;
}

bool prepare_state(const Sandbox& box, std::string* error) {
    for (const char* sub : {"/proc", "/sys/module", "/kernel", "/run/calls"}) {
        std::string path = box.state + sub, sofar;
        for (const auto& part : split(path)) {
            sofar += "/" + part;
            if (mkdir(sofar.c_str(), 0755) != 0 && errno != EEXIST) {
                *error = "mkdir " + sofar + ": " + std::strerror(errno);
                return false;
            }
        }
    }
    for (const char* name : {"/proc/modules", "/proc/cmdline"}) {
        int fd = open((box.state + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) close(fd);
    }
    return true;
}

}  // namespace

View view_of(const Sandbox& box, bool with_writes) {
    View view;
    for (const auto& o : plan(box)) {
        View::Mount m{split(o.at), {}};
        if (with_writes && !o.upper.empty()) m.layers.push_back(o.upper);
        for (size_t i : o.layers) m.layers.push_back(box.layers[i] + (o.at == "/" ? "" : o.at));
        m.layers.push_back(o.at);
        view.mounts.push_back(m);
    }
    view.fresh = {{"proc"}, {"dev"}};
    for (const auto& name : proc_files(box)) view.mounts.push_back({{"proc", name}, {box.state + "/proc/" + name}});
    if (box.own_sys) {
        view.mounts.push_back({{"sys"}, {box.state + "/sys"}});
    } else {
        view.mounts.push_back({{"sys"}, {"/sys"}});
        view.mounts.push_back({{"sys", "module"}, {box.state + "/sys/module"}});
    }
    if (box.run_seed.empty())
        view.fresh.push_back({"run"});
    else
        view.mounts.push_back({{"run"}, {box.run_seed}});
    view.mounts.push_back({split(run_state_dir), {box.state + "/run"}});
    if (box.tmp.empty())
        view.fresh.push_back({"tmp"});
    else
        view.mounts.push_back({{"tmp"}, {box.tmp}});
    for (size_t i = 0; i < box.kept_visible.size(); ++i) {
        View::Mount m{split(box.kept_visible[i]), {}};
        if (with_writes) m.layers.push_back(box.changes + "/visible/" + std::to_string(i) + "/upper");
        m.layers.push_back(box.kept_visible[i]);
        view.mounts.push_back(m);
    }
    for (const auto& [from, to] : box.binds) view.mounts.push_back({split(to), {from}});
    return view;
}

std::vector<Upper> uppers_of(const Sandbox& box) {
    std::vector<Upper> uppers;
    for (const auto& o : plan(box)) {
        if (!o.upper.empty()) uppers.push_back({split(o.at), o.upper});
    }
    return uppers;
}

std::vector<Difference> changes_of(const Sandbox& box) {
    auto all = differences(uppers_of(box), view_of(box, false));
    const auto points = private_points(box);
    std::erase_if(all, [&](const Difference& d) {
        for (const auto& p : points) {
            if (d.path == p || d.path.rfind(p + "/", 0) == 0) return true;
        }
        return false;
    });
    return all;
}

std::string written_at(const Sandbox& box, const std::string& path) {
    const auto overlays = plan(box);
    const Overlay* deepest = nullptr;
    for (const auto& o : overlays) {
        bool holds = o.at == "/" || path == o.at || path.rfind(o.at + "/", 0) == 0;
        if (holds && (!deepest || o.at.size() > deepest->at.size())) deepest = &o;
    }
    if (!deepest || deepest->upper.empty()) return "";
    return deepest->upper + (deepest->at == "/" ? path : path.substr(deepest->at.size()));
}

int run_sandboxed(const Sandbox& box, std::string* error) {
    if (!prepare_state(box, error)) return 125;
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return 125;
    }
    const pid_t parent = getpid();
    const std::string cgroup = make_limited_cgroup(box.limits);
    pid_t outer = fork();
    if (outer < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        if (!cgroup.empty()) remove_cgroup(cgroup);
        return 125;
    }
    if (outer == 0) {
        close(pipefd[0]);
        Setup s{pipefd[1], ""};
        die_with(parent);
        // Every process of the sandbox, pid 1 first, is born in its cgroup.
        if (!cgroup.empty() && !join_cgroup(cgroup)) {
            s.fail("join " + cgroup);
            s.die();
        }
        const int fds[] = {box.stdin_fd, box.stdout_fd, box.stderr_fd};
        for (int i = 0; i < 3; ++i) {
            if (fds[i] >= 0 && dup2(fds[i], i) < 0) {
                s.fail("dup2");
                s.die();
            }
        }
        int flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC | (box.network ? 0 : CLONE_NEWNET);
        if (unshare(flags) != 0) {
            s.fail("unshare");
            s.die();
        }
        // Nothing mounted from here on may reach this machine's namespace.
        if (!s.mount("none", "/", nullptr, MS_REC | MS_PRIVATE)) s.die();
        if (!box.hostname.empty() && sethostname(box.hostname.c_str(), box.hostname.size()) != 0) {
            s.fail("sethostname");
            s.die();
        }
        // pid 1 cannot name its parent, which lies outside its pid namespace:
        // it learns that the parent ended from this pipe, whose other end
        // only the parent holds.
        int alive[2];
        if (pipe2(alive, O_CLOEXEC) != 0) {
            s.fail("pipe");
            s.die();
        }
        pid_t init = fork();
        if (init < 0) {
            s.fail("fork");
            s.die();
        }
        if (init == 0) {
            close(alive[1]);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            pollfd ended{alive[0], POLLIN, 0};
            if (poll(&ended, 1, 0) != 0) _exit(125);
            close(alive[0]);
            become_init(s, box);
        }
        close(alive[0]);
        if (box.timeout) {
            timeout_fd = s.error_fd;
            timeout_init = init;
            signal(SIGALRM, on_timeout);
            alarm(box.timeout);
        }
        int status;
        while (waitpid(init, &status, 0) < 0 && errno == EINTR) {
        }
        _exit(decode(status));
    }
    close(pipefd[1]);
    std::string failure;
    char buf[512];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof buf)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        failure.append(buf, static_cast<size_t>(n));
    }
    close(pipefd[0]);
    int status;
    while (waitpid(outer, &status, 0) < 0 && errno == EINTR) {
    }
    if (!cgroup.empty()) remove_cgroup(cgroup);
    if (!failure.empty()) {
        *error = failure;
        return 125;
    }
    return decode(status);
}

void die_with(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A parent that ended before the request was made is not seen by it.
    if (getppid() != parent) _exit(125);
}

std::string sandbox_obstacle() {
    if (geteuid() != 0) return "not run as root";
    if (read_text("/proc/filesystems").find("\toverlay\n") == std::string::npos) return "no overlayfs in this kernel";
    if (read_text("/proc/sys/kernel/seccomp/actions_avail").find("user_notif") == std::string::npos)
        return "no seccomp user notification in this kernel";
    pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWNET) != 0) _exit(1);
        // A process that another supervisor already answers cannot get a listener of its own.
        sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
        sock_fprog prog{1, &allow};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &prog) < 0)
            _exit(2);
        _exit(0);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) < 0 || !WIFEXITED(status)) return "cannot start a sandbox";
    if (WEXITSTATUS(status) == 1) return "cannot make mount, pid, uts, ipc and network namespaces";
    if (WEXITSTATUS(status) == 2) return "no seccomp user notification for this process (another supervisor answers it)";
    return "";
}

}  // namespace preview
