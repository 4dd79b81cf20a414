#include "sandbox.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "layers.hpp"

namespace lab::detail {

namespace {

// Everything below runs in the forked children, where a failure can only be
// told through the error pipe before the child ends.
struct Setup {
    int error_fd;
    std::string failure;

    bool fail(const std::string& what)
    {
        failure = what + ": " + std::strerror(errno);
        return false;
    }
    bool mount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
               const std::string& data = "")
    {
        if (::mount(source.c_str(), target.c_str(), type, flags, data.empty() ? nullptr : data.c_str()) != 0)
            return fail("mount " + target);
        return true;
    }
    bool bind(const std::string& source, const std::string& target)
    {
        return mount(source, target, nullptr, MS_BIND);
    }
    bool dir(const std::string& path, mode_t mode)
    {
        if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
            return fail("mkdir " + path);
        chmod(path.c_str(), mode);
        return true;
    }
    bool empty_file(const std::string& path)
    {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            return fail("create " + path);
        close(fd);
        return true;
    }
    bool link(const std::string& target, const std::string& path)
    {
        if (::symlink(target.c_str(), path.c_str()) != 0)
            return fail("symlink " + path);
        return true;
    }
    [[noreturn]] void die()
    {
        std::string text = failure.empty() ? "unknown failure" : failure;
        (void)!write(error_fd, text.data(), text.size());
        _exit(125);
    }
};

bool all_digits(const char* s)
{
    for (; *s; ++s) {
        if (!std::isdigit(static_cast<unsigned char>(*s)))
            return false;
    }
    return true;
}

// /proc is a tmpfs of links into a fresh proc of the namespace, so that the
// module list and the kernel command line can be plain files that the test
// writes and that outlive the run.
bool mount_proc(Setup& s, const Sandbox& box, const std::string& root)
{
    std::string realproc = root + "/run/realproc";
    if (!s.dir(realproc, 0555) || !s.mount("proc", realproc, "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC))
        return false;
    // The host shares this machine's kernel: its tunables, sysrq and the
    // hardware listings stay read-only, as container runtimes keep them.
    for (const char* guarded : {"sys", "sysrq-trigger", "irq", "bus"}) {
        std::string p = realproc + "/" + guarded;
        if (access(p.c_str(), F_OK) != 0)
            continue;
        if (!s.bind(p, p) || !s.mount("none", p, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY))
            return false;
    }
    std::string proc = root + "/proc";
    if (!s.mount("lab-proc", proc, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0555"))
        return false;
    const char* controlled[] = {"modules", "cmdline", "version"};
    DIR* d = opendir(realproc.c_str());
    if (!d)
        return s.fail("open " + realproc);
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || all_digits(e->d_name) || name == "modules" || name == "cmdline" ||
            name == "version")
            continue;
        if (!s.link("/run/realproc/" + name, proc + "/" + name)) {
            closedir(d);
            return false;
        }
    }
    closedir(d);
    for (const char* name : controlled) {
        if (!s.empty_file(proc + "/" + name) || !s.bind(box.scratch + "/proc/" + name, proc + "/" + name))
            return false;
    }
    return true;
}

bool mount_dev(Setup& s, const std::string& root)
{
    std::string dev = root + "/dev";
    if (!s.mount("lab-dev", dev, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755"))
        return false;
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        if (!s.empty_file(dev + "/" + name) || !s.bind(std::string("/dev/") + name, dev + "/" + name))
            return false;
    }
    return s.link("/proc/self/fd", dev + "/fd") && s.link("/proc/self/fd/0", dev + "/stdin") &&
           s.link("/proc/self/fd/1", dev + "/stdout") && s.link("/proc/self/fd/2", dev + "/stderr") &&
           s.dir(dev + "/pts", 0755) && s.bind("/dev/pts", dev + "/pts") && s.link("pts/ptmx", dev + "/ptmx") &&
           s.dir(dev + "/shm", 01777) &&
           s.mount("lab-shm", dev + "/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
}

// Runs as pid 1 of the new pid namespace: builds the root and becomes the
// launcher.
[[noreturn]] void become_init(Setup& s, const Sandbox& box)
{
    const std::string rt = box.scratch + "/rt";
    const std::string root = rt + "/root";
    // Extra lower layers on the same filesystem as / are refused by
    // overlayfs, so the fixture and tools layers are copied into a tmpfs.
    if (!s.mount("lab-layers", rt, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"))
        s.die();
    std::string error;
    if (!copy_layer(box.scratch + "/fixture", rt + "/f", &error) || !copy_layer(box.tools, rt + "/t", &error)) {
        s.failure = "copy a layer: " + error;
        s.die();
    }
    // redirect_dir and metacopy stay off so that upper/ holds whole files
    // and plain whiteouts, which the reading side understands.
    std::string options = "lowerdir=" + rt + "/f:" + rt + "/t:/,upperdir=" + box.scratch + "/upper,workdir=" +
                          box.scratch + "/work,redirect_dir=off,metacopy=off,index=off";
    if (!s.dir(root, 0755) || !s.mount("lab-root", root, "overlay", 0, options))
        s.die();
    if (!s.mount("lab-run", root + "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") ||
        !s.dir(root + "/run/lock", 01777))
        s.die();
    // /run starts each boot with what the test put there (say a journal
    // socket) and forgets what the run added.
    struct stat st;
    if (lstat((box.scratch + "/fixture/run").c_str(), &st) == 0 &&
        !copy_layer(box.scratch + "/fixture/run", root + "/run", &error)) {
        s.failure = "fill /run: " + error;
        s.die();
    }
    if (!s.dir(root + "/run/lab", 0755) ||
        !s.bind(box.scratch + "/lab", root + "/run/lab") || !mount_proc(s, box, root) ||
        !s.bind(box.scratch + "/sys", root + "/sys") || !mount_dev(s, root) ||
        !s.bind(box.scratch + "/tmp", root + "/tmp"))
        s.die();

    std::vector<std::string> args = {box.launcher, "--root", root, "--state", box.scratch, "--cwd", box.cwd,
                                     "--uid", std::to_string(box.uid), "--gid", std::to_string(box.gid)};
    if (box.cgroup)
        args.insert(args.end(), {"--cgroup", *box.cgroup});
    args.push_back("--");
    args.insert(args.end(), box.argv.begin(), box.argv.end());
    std::vector<char*> argv, envp;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env = box.env;
    for (auto& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    execve(box.launcher.c_str(), argv.data(), envp.data());
    s.fail("exec " + box.launcher);
    s.die();
}

bool redirect(Setup& s, const std::string& file, int fd, int flags)
{
    if (file.empty())
        return true;
    int f = open(file.c_str(), flags | O_CLOEXEC, 0644);
    if (f < 0)
        return s.fail("open " + file);
    if (dup2(f, fd) < 0)
        return s.fail("dup2");
    close(f);
    return true;
}

// Set in the outer child, which holds the namespaces: when a run overstays
// its time, pid 1 is killed and the whole host goes with it.
int timeout_fd = -1;
pid_t timeout_init = 0;

void on_timeout(int)
{
    static const char text[] = "the command did not end in time and was killed";
    (void)!write(timeout_fd, text, sizeof text - 1);
    kill(timeout_init, SIGKILL);
}

int decode(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return 125;
}

}  // namespace

int run_sandboxed(const Sandbox& box, std::string* error)
{
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return 125;
    }
    pid_t outer = fork();
    if (outer < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        return 125;
    }
    if (outer == 0) {
        close(pipefd[0]);
        Setup s{pipefd[1], ""};
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!redirect(s, box.stdin_file, 0, O_RDONLY) || !redirect(s, box.stdout_file, 1, O_WRONLY | O_CREAT | O_TRUNC) ||
            !redirect(s, box.stderr_file, 2, O_WRONLY | O_CREAT | O_TRUNC))
            s.die();
        int flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC | (box.network ? 0 : CLONE_NEWNET);
        if (unshare(flags) != 0) {
            s.fail("unshare");
            s.die();
        }
        // Nothing mounted from here on may reach this machine's namespace.
        if (!s.mount("none", "/", nullptr, MS_REC | MS_PRIVATE))
            s.die();
        if (sethostname("lab", 3) != 0) {
            s.fail("sethostname");
            s.die();
        }
        pid_t init = fork();
        if (init < 0) {
            s.fail("fork");
            s.die();
        }
        if (init == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            become_init(s, box);
        }
        if (box.timeout) {
            timeout_fd = pipefd[1];
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
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            break;
        failure.append(buf, static_cast<size_t>(n));
    }
    close(pipefd[0]);
    int status;
    while (waitpid(outer, &status, 0) < 0 && errno == EINTR) {
    }
    if (!failure.empty()) {
        *error = failure;
        return 125;
    }
    return decode(status);
}

}  // namespace lab::detail
