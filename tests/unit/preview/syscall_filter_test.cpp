#include "preview/syscall_filter.hpp"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

// Every call is tried in a child under a second, older filter that turns it
// into ESRCH, so that what the view's filter lets through never reaches this
// machine's kernel and shows as ESRCH.  The module calls go to a thread that
// answers ENOTRECOVERABLE for pid 1.
constexpr int passed = ESRCH, answered = ENOTRECOVERABLE;

struct Row {
    const char* what;
    std::function<long()> call;
    int expected;  // the errno
};

long sys(long nr, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0) { return syscall(nr, a, b, c, d, e, 0); }

// Refused whatever their arguments: the older filter stops them all the same.
const char* const refused[] = {
    "mount", "umount2", "pivot_root", "setns", "unshare", "open_tree", "move_mount", "fsopen", "fsconfig", "fsmount",
    "fspick", "mount_setattr", "name_to_handle_at", "open_by_handle_at", "bpf", "perf_event_open", "add_key",
    "request_key", "keyctl", "swapon", "swapoff", "quotactl", "quotactl_fd", "syslog", "acct", "fanotify_init",
    "ptrace", "process_vm_writev", "clock_settime", "clock_adjtime", "settimeofday", "adjtimex", "kexec_load",
    "kexec_file_load", "reboot", "iopl", "ioperm"};

const Row rows[] = {
    {"ioctl TIOCSTI", [] { return sys(SYS_ioctl, 0, TIOCSTI); }, EPERM},
    {"ioctl TIOCSTI with high bits", [] { return sys(SYS_ioctl, 0, 0xffffffff00000000L | TIOCSTI); }, EPERM},
    {"ioctl TCGETS", [] { return sys(SYS_ioctl, 0, TCGETS); }, passed},
    {"socket AF_UNIX", [] { return sys(SYS_socket, AF_UNIX, SOCK_STREAM); }, passed},
    {"socket AF_INET", [] { return sys(SYS_socket, AF_INET, SOCK_STREAM); }, passed},
    {"socket AF_INET6", [] { return sys(SYS_socket, AF_INET6, SOCK_DGRAM); }, passed},
    {"socket netlink route", [] { return sys(SYS_socket, AF_NETLINK, SOCK_RAW, NETLINK_ROUTE); }, passed},
    {"socket netlink kobject events", [] { return sys(SYS_socket, AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT); },
     passed},
    {"socket netlink audit", [] { return sys(SYS_socket, AF_NETLINK, SOCK_RAW, NETLINK_AUDIT); }, EPROTONOSUPPORT},
    {"socket AF_UNSPEC", [] { return sys(SYS_socket, AF_UNSPEC, SOCK_STREAM); }, EAFNOSUPPORT},
    {"socket AF_ALG", [] { return sys(SYS_socket, AF_ALG, SOCK_SEQPACKET); }, EAFNOSUPPORT},
    {"socket AF_PACKET", [] { return sys(SYS_socket, AF_PACKET, SOCK_RAW); }, EAFNOSUPPORT},
    {"socket AF_KEY", [] { return sys(SYS_socket, AF_KEY, SOCK_RAW); }, EAFNOSUPPORT},
    {"socket AF_ALG with high bits", [] { return sys(SYS_socket, 0x100000000L | AF_ALG, SOCK_SEQPACKET); }, EAFNOSUPPORT},
    {"socket netlink audit with high bits",
     [] { return sys(SYS_socket, AF_NETLINK, SOCK_RAW, 0x100000000L | NETLINK_AUDIT); }, EPROTONOSUPPORT},
    {"socketpair AF_UNIX", [] { return sys(SYS_socketpair, AF_UNIX, SOCK_STREAM, 0, 0); }, passed},
    {"socketpair AF_BLUETOOTH", [] { return sys(SYS_socketpair, AF_BLUETOOTH, SOCK_STREAM); }, EAFNOSUPPORT},
    {"init_module", [] { return sys(SYS_init_module); }, answered},
    {"finit_module", [] { return sys(SYS_finit_module, -1); }, answered},
    {"delete_module", [] { return sys(SYS_delete_module); }, answered},
    {"uname", [] { return sys(SYS_uname); }, answered},
};

// The older filter: ESRCH for every call a row makes but the module calls.
void load_stop_filter() {
    scmp_filter_ctx ctx = seccomp_init(SCMP_ACT_ALLOW);
    for (const char* name : refused) seccomp_rule_add(ctx, SCMP_ACT_ERRNO(ESRCH), seccomp_syscall_resolve_name(name), 0);
    for (int call : {SCMP_SYS(socket), SCMP_SYS(socketpair)}) seccomp_rule_add(ctx, SCMP_ACT_ERRNO(ESRCH), call, 0);
    for (scmp_datum_t request : {scmp_datum_t{TIOCSTI}, scmp_datum_t{TCGETS}})
        seccomp_rule_add(ctx, SCMP_ACT_ERRNO(ESRCH), SCMP_SYS(ioctl), 1, SCMP_A1_64(SCMP_CMP_MASKED_EQ, 0xffffffff, request));
    seccomp_attr_set(ctx, SCMP_FLTATR_CTL_NNP, 1);
    if (seccomp_load(ctx) != 0) _exit(3);
    seccomp_release(ctx);
}

// In a child: the errno of each row, one per line, on `out`.
[[noreturn]] void try_rows(int out) {
    load_stop_filter();
    std::atomic<int> listener{-1};
    std::thread answering([&] {
        while (listener.load() < 0) {
        }
        seccomp_notif* req;
        seccomp_notif_resp* resp;
        if (seccomp_notify_alloc(&req, &resp) != 0) return;
        for (;;) {
            std::memset(req, 0, sizeof *req);
            if (seccomp_notify_receive(listener, req) != 0) continue;
            std::memset(resp, 0, sizeof *resp);
            resp->id = req->id;
            resp->error = -answered;
            seccomp_notify_respond(listener, resp);
        }
    });
    answering.detach();
    int fd = preview::load_syscall_filter(true);
    if (fd < 0) _exit(4);
    listener = fd;
    std::string text;
    for (const char* name : refused) text += std::to_string(sys(seccomp_syscall_resolve_name(name), -1) < 0 ? errno : 0) + "\n";
    for (const auto& row : rows) text += std::to_string(row.call() < 0 ? errno : 0) + "\n";
    (void)!write(out, text.data(), text.size());
    _exit(0);
}

TEST(SyscallFilter, RefusesWhatReachesBeyondTheViewAndHandsOverTheModuleCalls) {
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t child = fork();
    if (child == 0) try_rows(pipefd[1]);
    close(pipefd[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(pipefd[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    std::vector<Row> expected;
    for (const char* name : refused) expected.push_back({name, nullptr, EPERM});
    expected.insert(expected.end(), std::begin(rows), std::end(rows));
    size_t at = 0;
    for (const auto& row : expected) {
        size_t end = text.find('\n', at);
        ASSERT_NE(end, std::string::npos) << row.what;
        const int got = std::stoi(text.substr(at, end - at));
        EXPECT_EQ(got, row.expected) << row.what << ": " << std::strerror(got);
        at = end + 1;
    }
}

long i386_getpid() {
    long ret;
    asm volatile("int $0x80" : "=a"(ret) : "a"(20L) : "memory");
    return ret;
}

TEST(SyscallFilter, AnotherArchitecturesEntryKillsTheProcess) {
    const struct {
        const char* what;
        std::function<long()> call;
        int signal;  // 0: the child ends normally
    } cases[] = {
        {"native getpid", [] { return sys(SYS_getpid); }, 0},
        {"i386 getpid", [] { return i386_getpid(); }, SIGSYS},
        {"x32 getpid", [] { return sys(0x40000000L | SYS_getpid); }, SIGSYS},
    };
    for (const auto& c : cases) {
        pid_t child = fork();
        if (child == 0) {
            if (preview::load_syscall_filter(false) < 0) _exit(4);
            // From a second thread, so that killing only the thread would show.
            std::thread(c.call).join();
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (c.signal)
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == c.signal) << c.what << ": " << status;
        else
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c.what << ": " << status;
    }
}

}  // namespace
