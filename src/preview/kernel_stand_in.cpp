#include "preview/kernel_stand_in.hpp"

#include <elf.h>
#include <fcntl.h>
#include <grp.h>
#include <seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "preview/confinement.hpp"
#include "preview/syscall_filter.hpp"
#include "preview/text_files.hpp"

extern char** environ;

namespace preview {

namespace {

namespace fs = std::filesystem;

constexpr uint64_t max_image = 256u << 20;
constexpr unsigned long long module_base = 0xffffffffc0a00000ULL;

// The kernel's side of one sandbox.
class Kernel {
public:
    explicit Kernel(std::string state) : state_(std::move(state)) {
        std::string r = read_text(state_ + "/kernel/release");
        release_ = r.substr(0, r.find('\n'));
    }

    bool answers_uname() const { return !release_.empty(); }

    long answer(const seccomp_notif& req) {
        switch (req.data.nr) {
        case SYS_init_module: return init_module(req);
        case SYS_finit_module: return finit_module(req);
        case SYS_delete_module: return delete_module(req);
        case SYS_uname: return uname(req);
        default: return ENOSYS;
        }
    }

private:
    std::string state_;
    std::string release_;

    std::string modules_path() const { return state_ + "/proc/modules"; }

    void log(const std::string& text) { append_kernel_log(state_, text); }

    // The errno chosen for loading ("load") or unloading ("unload") a module.
    int chosen_errno(const std::string& name, const std::string& what) {
        int err = 0;
        for (const auto& line : lines_of(read_text(state_ + "/kernel/answers/" + name))) {
            if (line.rfind(what + "=", 0) == 0) err = std::atoi(line.c_str() + what.size() + 1);
        }
        return err;
    }

    static std::string refusal(const std::string& name, const char* call, int err) {
        return name + ": " + call + " refused: errno " + std::to_string(err) + " (" + std::strerror(err) + ")";
    }

    int load(const std::string& name, const std::string& version, size_t image_size, const char* how) {
        std::string text = read_text(modules_path());
        int err = chosen_errno(name, "load");
        if (!err && module_line(text, name) != std::string::npos) err = EEXIST;
        if (err) {
            log(refusal(name, how, err));
            return err;
        }
        // The kernel lists the most recently loaded module first.
        unsigned long size = static_cast<unsigned long>((image_size + 4095) / 4096 * 4096);
        char line[512];
        std::snprintf(line, sizeof line, "%s %lu 0 - Live 0x%llx\n", name.c_str(), size ? size : 4096,
                      next_address(text));
        write_text(modules_path(), line + text);
        sync_sys_modules(line + text, state_ + "/sys/module");
        // As the kernel shows a module's MODULE_VERSION, for whoever compares it with what is installed.
        if (!version.empty()) write_text(state_ + "/sys/module/" + name + "/version", version + "\n");
        append_text(state_ + "/kernel/journal", "load " + name + "\n");
        log(name + ": loaded by " + how);
        return 0;
    }

    int unload(const std::string& name) {
        std::string text = read_text(modules_path());
        size_t at = module_line(text, name);
        int err = 0;
        if (at == std::string::npos) {
            err = ENOENT;
        } else {
            std::istringstream fields(text.substr(at, text.find('\n', at) - at));
            std::string module, size, users;
            fields >> module >> size >> users;
            err = users != "0" ? EBUSY : chosen_errno(name, "unload");
        }
        if (err) {
            log(refusal(name, "delete_module", err));
            return err;
        }
        size_t end = text.find('\n', at);
        text.erase(at, end == std::string::npos ? std::string::npos : end + 1 - at);
        write_text(modules_path(), text);
        sync_sys_modules(text, state_ + "/sys/module");
        append_text(state_ + "/kernel/journal", "unload " + name + "\n");
        log(name + ": unloaded");
        return 0;
    }

    // Where the line of a module starts in /proc/modules text, or npos.
    static size_t module_line(const std::string& text, const std::string& name) {
        for (size_t at = 0; at < text.size();) {
            if (text.compare(at, name.size(), name) == 0 && at + name.size() < text.size() && text[at + name.size()] == ' ')
                return at;
            size_t end = text.find('\n', at);
            if (end == std::string::npos) break;
            at = end + 1;
        }
        return std::string::npos;
    }

    static unsigned long long next_address(const std::string& text) {
        unsigned long long top = 0;
        for (size_t p = text.find(" 0x"); p != std::string::npos; p = text.find(" 0x", p + 3))
            top = std::max(top, std::strtoull(text.c_str() + p + 1, nullptr, 16));
        return top ? top + 0x10000 : module_base;
    }

    // The module's name: "name=" of .modinfo, else the name field of the
    // struct module in .gnu.linkonce.this_module; and "version=" of .modinfo, if any.
    static bool module_name(const unsigned char* img, size_t len, std::string* name, std::string* version) {
        if (len < sizeof(Elf64_Ehdr) || std::memcmp(img, ELFMAG, SELFMAG) != 0 || img[EI_CLASS] != ELFCLASS64)
            return false;
        const auto* eh = reinterpret_cast<const Elf64_Ehdr*>(img);
        if (eh->e_shoff == 0 || eh->e_shentsize != sizeof(Elf64_Shdr) ||
            eh->e_shoff + uint64_t{eh->e_shnum} * sizeof(Elf64_Shdr) > len || eh->e_shstrndx >= eh->e_shnum)
            return false;
        const auto* sh = reinterpret_cast<const Elf64_Shdr*>(img + eh->e_shoff);
        const Elf64_Shdr& strs = sh[eh->e_shstrndx];
        if (strs.sh_offset + strs.sh_size > len) return false;
        const char* names = reinterpret_cast<const char*>(img) + strs.sh_offset;
        const Elf64_Shdr *modinfo = nullptr, *this_module = nullptr;
        for (unsigned i = 0; i < eh->e_shnum; i++) {
            if (sh[i].sh_name >= strs.sh_size || sh[i].sh_offset + sh[i].sh_size > len) continue;
            std::string section(names + sh[i].sh_name, strnlen(names + sh[i].sh_name, strs.sh_size - sh[i].sh_name));
            if (section == ".modinfo") modinfo = &sh[i];
            else if (section == ".gnu.linkonce.this_module") this_module = &sh[i];
        }
        if (modinfo) {
            const char* p = reinterpret_cast<const char*>(img) + modinfo->sh_offset;
            const char* end = p + modinfo->sh_size;
            while (p < end) {
                size_t n = strnlen(p, static_cast<size_t>(end - p));
                if (n > 5 && std::strncmp(p, "name=", 5) == 0) *name = std::string(p + 5, n - 5);
                if (n > 8 && std::strncmp(p, "version=", 8) == 0) *version = std::string(p + 8, n - 8);
                p += n + 1;
            }
            if (!name->empty()) return true;
        }
        // struct module: enum state, padding, struct list_head, then char name[56].
        if (this_module && this_module->sh_type != SHT_NOBITS && this_module->sh_size >= 24 + 56) {
            const char* n = reinterpret_cast<const char*>(img) + this_module->sh_offset + 24;
            *name = std::string(n, strnlen(n, 56));
            return !name->empty();
        }
        return false;
    }

    int load_image(const unsigned char* img, size_t len, const char* how) {
        std::string name, version;
        if (!module_name(img, len, &name, &version)) {
            log(std::string(how) + ": not a module image (" + std::to_string(len) + " bytes)");
            return ENOEXEC;
        }
        return load(name, version, len, how);
    }

    static bool read_remote(pid_t pid, uint64_t addr, void* buf, size_t len) {
        for (size_t done = 0; done < len;) {
            iovec local{static_cast<char*>(buf) + done, len - done};
            iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(addr + done)), len - done};
            ssize_t r = process_vm_readv(pid, &local, 1, &remote, 1, 0);
            if (r <= 0) return false;
            done += static_cast<size_t>(r);
        }
        return true;
    }

    // A NUL-terminated string read page by page, so that a string near the
    // end of a mapping does not fault the whole read.
    static bool read_remote_string(pid_t pid, uint64_t addr, std::string* out, size_t limit) {
        char buf[4096];
        while (out->size() < limit) {
            size_t chunk = std::min<size_t>(4096 - ((addr + out->size()) & 4095), limit - out->size());
            if (!read_remote(pid, addr + out->size(), buf, chunk)) return false;
            size_t n = strnlen(buf, chunk);
            out->append(buf, n);
            if (n < chunk) return true;
        }
        return true;
    }

    int init_module(const seccomp_notif& req) {
        uint64_t addr = req.data.args[0], len = req.data.args[1];
        if (len == 0 || len > max_image) return len == 0 ? ENOEXEC : EFBIG;
        std::vector<unsigned char> img(len);
        return read_remote(static_cast<pid_t>(req.pid), addr, img.data(), len) ? load_image(img.data(), len, "init_module")
                                                                               : EFAULT;
    }

    // The caller's descriptor, through a pidfd.
    static int caller_fd(pid_t pid, int number) {
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (pidfd < 0) return -1;
        int fd = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, number, 0));
        close(pidfd);
        return fd;
    }

    int finit_module(const seccomp_notif& req) {
        int fd = caller_fd(static_cast<pid_t>(req.pid), static_cast<int>(req.data.args[0]));
        if (fd < 0) return EBADF;
        struct stat st;
        int err;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            err = EINVAL;
        } else if (st.st_size == 0 || static_cast<uint64_t>(st.st_size) > max_image) {
            err = st.st_size == 0 ? ENOEXEC : EFBIG;
        } else {
            size_t len = static_cast<size_t>(st.st_size), done = 0;
            std::vector<unsigned char> img(len);
            while (done < len) {
                ssize_t r = pread(fd, img.data() + done, len - done, static_cast<off_t>(done));
                if (r <= 0) break;
                done += static_cast<size_t>(r);
            }
            err = done < len ? EIO : load_image(img.data(), len, "finit_module");
        }
        close(fd);
        return err;
    }

    int delete_module(const seccomp_notif& req) {
        std::string name;
        if (!read_remote_string(static_cast<pid_t>(req.pid), req.data.args[0], &name, 63)) return EFAULT;
        return unload(name);
    }

    int uname(const seccomp_notif& req) {
        struct utsname u;
        std::memset(&u, 0, sizeof u);
        std::strcpy(u.sysname, "Linux");
        gethostname(u.nodename, sizeof u.nodename - 1);
        std::snprintf(u.release, sizeof u.release, "%s", release_.c_str());
        std::strcpy(u.version, "#1 SMP PREEMPT_DYNAMIC Debian (lab)");
        std::strcpy(u.machine, "x86_64");
        std::strcpy(u.domainname, "(none)");
        iovec local{&u, sizeof u};
        iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(req.data.args[0])), sizeof u};
        return process_vm_writev(static_cast<pid_t>(req.pid), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(sizeof u)
                   ? 0
                   : EFAULT;
    }
};

// One byte carrying one descriptor: the listener, handed from the command to pid 1.
struct FdMessage {
    char byte = 0;
    iovec iov{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};
    FdMessage() {
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
    }
};

bool send_fd(int sock, int fd) {
    FdMessage m;
    cmsghdr* c = CMSG_FIRSTHDR(&m.msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    return sendmsg(sock, &m.msg, 0) == 1;
}

int recv_fd(int sock) {
    FdMessage m;
    if (recvmsg(sock, &m.msg, 0) != 1) return -1;
    cmsghdr* c = CMSG_FIRSTHDR(&m.msg);
    if (!c || c->cmsg_type != SCM_RIGHTS) return -1;
    int fd;
    std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
    return fd;
}

[[noreturn]] void fail_in_command(const std::string& what, int status) {
    std::fprintf(stderr, "quorl-driver-preview: %s: %s\n", what.c_str(), std::strerror(errno));
    _exit(status);
}

// Runs in the command's process, forked from pid 1; ends in the command's
// program.  Confined, it reaches nothing outside the view; otherwise (a
// sandbox of its own, as a preview in the lab is) it keeps what building one
// needs.
[[noreturn]] void start_command(const Command& c, bool confined, bool with_uname, int sock, const std::string& console,
                                const sigset_t& oldmask) {
    if (!c.cgroup.empty()) {
        // Only the command's own process sees the chosen cgroup, as a
        // container runtime would show it; its children see the real one.
        std::string target = c.root + "/run/realproc/" + std::to_string(getpid()) + "/cgroup";
        if (mount(c.cgroup.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            fail_in_command("bind the cgroup file", 125);
    }
    std::string step;
    if (!enter_view(c.root, &step)) fail_in_command(step, 125);
    if (chdir(c.cwd.c_str()) != 0) fail_in_command("cannot enter " + c.cwd, 125);
    if (confined && !enter_child_user_namespace(sock)) fail_in_command("a user namespace of its own", 125);
    if (!drop_privileges()) fail_in_command("drop privileges", 125);
    if (setsid() < 0 || (!console.empty() && !take_console(console))) fail_in_command("a console of its own", 125);
    if (c.gid != 0 && (setgroups(0, nullptr) != 0 || setgid(c.gid) != 0)) fail_in_command("setgid", 125);
    if (c.uid != 0 && setuid(c.uid) != 0) fail_in_command("setuid", 125);
    if (confined) {
        int listener = load_syscall_filter(with_uname);
        if (listener < 0) fail_in_command("seccomp user notification", 125);
        if (!send_fd(sock, listener)) fail_in_command("hand over the listener", 125);
        close(listener);
    }
    close(sock);
    // Nothing of pid 1's or the preview's reaches the program but its streams.
    close_range(3, ~0U, 0);
    sigprocmask(SIG_SETMASK, &oldmask, nullptr);
    std::vector<std::string> env = c.env;
    std::vector<char*> argv, envp;
    for (const auto& a : c.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    environ = envp.data();  // so that the search below uses the command's PATH
    execvp(argv[0], argv.data());
    fail_in_command("cannot run " + c.argv[0], 127);
}

void write_all(int fd, const char* buf, ssize_t n) {
    for (ssize_t done = 0; done < n;) {
        ssize_t w = write(fd, buf + done, static_cast<size_t>(n - done));
        if (w <= 0) break;
        done += w;
    }
}

// Copies what there is to read from `from` to `to`; false at its end.
bool pass_on(int from, int to) {
    char buf[4096];
    ssize_t n = read(from, buf, sizeof buf);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (n <= 0) return false;
    write_all(to, buf, n);
    return true;
}

// All that `from`, a non-blocking descriptor, holds now.
void drain(int from, int to) {
    char buf[4096];
    for (ssize_t n; (n = read(from, buf, sizeof buf)) > 0;) write_all(to, buf, n);
}

int decode(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 125;
}

}  // namespace

int serve_as_kernel(const std::string& state, bool answer_kernel, const Command& command) {
    Kernel kernel(state);
    auto fail = [](const char* what) {
        std::fprintf(stderr, "quorl-driver-preview: %s: %s\n", what, std::strerror(errno));
        return 125;
    };
    // Nothing in the view may read this process's memory or trace it: it
    // holds the administrator's streams and answers for the kernel.
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    // Read from the background, the terminal gives an error instead of a stop.
    signal(SIGTTIN, SIG_IGN);
    sigset_t chld, oldmask;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, &oldmask);
    int sigfd = signalfd(-1, &chld, SFD_CLOEXEC | SFD_NONBLOCK);
    if (sigfd < 0) return fail("signalfd");
    Console console;
    if (!open_console(command.root + "/dev/pts", &console)) return fail("a console for the view");
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return fail("socketpair");
    pid_t child = fork();
    if (child < 0) return fail("fork");
    if (child == 0) {
        close(sv[0]);
        start_command(command, answer_kernel, kernel.answers_uname(), sv[1], console.path, oldmask);
    }
    close(sv[1]);
    if (answer_kernel && !map_every_id(sv[0], command.root + "/run/realproc", child)) return fail("map the user ids");
    int listener = answer_kernel ? recv_fd(sv[0]) : -1;
    close(sv[0]);

    seccomp_notif* req = nullptr;
    seccomp_notif_resp* resp = nullptr;
    if (listener >= 0 && seccomp_notify_alloc(&req, &resp) != 0) return fail("seccomp notification buffers");
    // The administrator's terminal, when standard input is one, is read here
    // and passed on to the view's console.
    int input = isatty(0) ? 0 : -1;
    fcntl(console.master, F_SETFL, O_NONBLOCK);

    for (;;) {
        pollfd fds[4] = {{sigfd, POLLIN, 0}, {console.master, POLLIN, 0}, {input, POLLIN, 0}, {listener, POLLIN, 0}};
        int n = poll(fds, 4, -1);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail("poll");
        if (fds[3].revents & POLLIN) {
            // The kernel takes only a zeroed buffer.
            std::memset(req, 0, sizeof *req);
            if (seccomp_notify_receive(listener, req) == 0) {
                long err = kernel.answer(*req);
                resp->id = req->id;
                resp->val = 0;
                resp->flags = 0;
                resp->error = err ? static_cast<int32_t>(-err) : 0;
                seccomp_notify_respond(listener, resp);
            }
        } else if (fds[3].revents & (POLLHUP | POLLERR)) {
            close(listener);
            listener = -1;
        }
        if (fds[1].revents & POLLIN) pass_on(console.master, 1);
        if ((fds[2].revents & (POLLIN | POLLHUP | POLLERR)) && !pass_on(input, console.master)) {
            // The end of the input reaches the view's console as an end of file.
            const char eof = 4;
            (void)!write(console.master, &eof, 1);
            input = -1;
        }
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo si;
            while (read(sigfd, &si, sizeof si) == sizeof si) {
            }
            int status;
            pid_t p;
            // As pid 1 we also reap every orphan of the namespace.
            while ((p = waitpid(-1, &status, WNOHANG)) > 0) {
                if (p != child) continue;
                drain(console.master, 1);
                seccomp_notify_free(req, resp);
                return decode(status);
            }
        }
    }
}

void sync_sys_modules(const std::string& proc_modules, const std::string& sys_module) {
    std::error_code ec;
    fs::create_directories(sys_module, ec);
    std::set<std::string> listed;
    for (const auto& line : lines_of(proc_modules)) {
        std::istringstream in(line);
        std::string name, size, refcnt, deps, state;
        if (!(in >> name >> size >> refcnt >> deps >> state)) continue;
        listed.insert(name);
        std::string m = sys_module + "/" + name;
        fs::create_directories(m + "/holders", ec);
        write_text(m + "/refcnt", refcnt + "\n");
        write_text(m + "/initstate", state == "Loading" ? "coming\n" : state == "Unloading" ? "going\n" : "live\n");
        std::set<std::string> holders;
        std::istringstream d(deps == "-" ? "" : deps);
        for (std::string h; std::getline(d, h, ',');) {
            if (!h.empty()) holders.insert(h);
        }
        for (const auto& e : fs::directory_iterator(m + "/holders", ec)) {
            if (!holders.count(e.path().filename().string())) fs::remove(e.path(), ec);
        }
        for (const auto& h : holders) {
            if (!fs::exists(fs::symlink_status(m + "/holders/" + h))) fs::create_symlink("../../" + h, m + "/holders/" + h, ec);
        }
    }
    for (const auto& e : fs::directory_iterator(sys_module, ec)) {
        // Built-in modules have no initstate; loaded ones no longer listed go.
        if (!listed.count(e.path().filename().string()) && fs::exists(e.path() / "initstate")) fs::remove_all(e.path(), ec);
    }
}

// Numbered lines, so that a log can be compared exactly.
void append_kernel_log(const std::string& state, const std::string& text) {
    std::string path = state + "/run/kmsg";
    std::string old = read_text(path);
    size_t n = static_cast<size_t>(std::count(old.begin(), old.end(), '\n'));
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%5zu.000000] ", n + 1);
    write_text(path, old + stamp + text + "\n");
}

ModuleJournal read_module_journal(const std::string& state) {
    ModuleJournal journal;
    for (const auto& line : lines_of(read_text(state + "/kernel/journal"))) {
        if (line.rfind("load ", 0) == 0) journal.loaded.push_back(line.substr(5));
        if (line.rfind("unload ", 0) == 0) journal.unloaded.push_back(line.substr(7));
    }
    return journal;
}

}  // namespace preview
