// bench-own-usage OUT COMMAND [ARG...]
//
// Runs COMMAND and writes to OUT what the command's own process cost, without
// the processes it started: its wall time, its CPU time and its peak resident
// memory. wait4 and RUSAGE_CHILDREN fold the children in, and once the process
// is gone its memory figures are gone too, so the numbers are read while the
// process is held at its exit: a tracer stops it there (PTRACE_O_TRACEEXIT)
// and reads /proc/PID/schedstat, stat and status before letting it go.
//
// COMMAND runs in this very process rather than in a child, so that it keeps
// the place the simulated host gave the command it started: its pid and the
// /proc/self/cgroup shown to it alone. The tracer is a child of ours that
// seizes us before we exec. Its children are not traced (no TRACEFORK or
// TRACECLONE), so nothing the command runs is slowed down or counted.
//
// OUT holds key=value lines:
//   status   exit status of the command (128+signal when killed)
//   wall_ns  from the exec to the exit stop
//   cpu_ns   on-CPU time of the process, user and system (schedstat)
//   utime_ticks, stime_ticks, clk_tck   the same split in clock ticks (stat)
//   hwm_kib  peak resident set (VmHWM; the exec starts it afresh)
//   children SIGCHLD signals the command received: about the number of
//            commands it ran, each of which ends with one
// The exit status of bench-own-usage is the command's.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

long long now_ns() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

// In a simulated host /proc holds links made before the command started, so
// a later process is found in the namespace's own proc under /run/realproc.
std::string proc_file(pid_t pid, const char* name) {
    for (const char* root : {"/proc/", "/run/realproc/"}) {
        std::ifstream in(root + std::to_string(pid) + "/" + name);
        if (in) {
            std::ostringstream text;
            text << in.rdbuf();
            return text.str();
        }
    }
    return "";
}

struct Usage {
    long long cpu_ns = -1;
    long long utime_ticks = -1, stime_ticks = -1;
    long long hwm_kib = -1;
};

Usage read_usage(pid_t pid) {
    Usage usage;
    std::istringstream(proc_file(pid, "schedstat")) >> usage.cpu_ns;

    // Fields 14 and 15; the command name in field 2 may hold blanks, so count
    // from the parenthesis that closes it.
    const std::string stat = proc_file(pid, "stat");
    const size_t close = stat.rfind(')');
    if (close != std::string::npos) {
        std::istringstream fields(stat.substr(close + 2));
        std::string field;
        for (int number = 3; fields >> field; ++number) {
            if (number == 14) usage.utime_ticks = std::stoll(field);
            if (number == 15) {
                usage.stime_ticks = std::stoll(field);
                break;
            }
        }
    }

    std::istringstream status(proc_file(pid, "status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) usage.hwm_kib = std::stoll(line.substr(6));
    }
    return usage;
}

int status_code(int wait_status) {
    if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
    if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
    return -1;
}

// The tracer's whole life: seize the command, let it exec, pass its signals
// on, and report at the exit stop. Never returns.
[[noreturn]] void trace(pid_t command, int go, const char* out_path) {
    if (ptrace(PTRACE_SEIZE, command, nullptr, reinterpret_cast<void*>(PTRACE_O_TRACEEXIT)) != 0) {
        std::fprintf(stderr, "bench-own-usage: cannot trace %d: %s\n", command, std::strerror(errno));
        _exit(1);  // the command sees the pipe close without a word and gives up
    }
    // What we spent ourselves before the exec (starting up, forking the
    // tracer) is not the command's: it is taken off at the end.
    const Usage before = read_usage(command);
    const long long start = now_ns();
    if (write(go, "g", 1) != 1) _exit(1);
    close(go);

    long children = 0;
    for (;;) {
        int wait_status = 0;
        if (waitpid(command, &wait_status, __WALL) < 0) {
            if (errno == EINTR) continue;
            _exit(1);
        }
        if (!WIFSTOPPED(wait_status)) _exit(1);  // gone without an exit stop (SIGKILL)
        const int event = wait_status >> 16;
        if (event == PTRACE_EVENT_EXIT) {
            const long long wall = now_ns() - start;
            const Usage usage = read_usage(command);
            unsigned long exit_status = 0;
            ptrace(PTRACE_GETEVENTMSG, command, nullptr, &exit_status);
            FILE* out = std::fopen(out_path, "w");
            if (out != nullptr) {
                std::fprintf(out,
                             "status=%d\nwall_ns=%lld\ncpu_ns=%lld\nutime_ticks=%lld\nstime_ticks=%lld\n"
                             "clk_tck=%ld\nhwm_kib=%lld\nchildren=%ld\n",
                             status_code(static_cast<int>(exit_status)), wall, usage.cpu_ns - before.cpu_ns,
                             usage.utime_ticks - before.utime_ticks, usage.stime_ticks - before.stime_ticks,
                             sysconf(_SC_CLK_TCK), usage.hwm_kib, children);
                std::fclose(out);
            }
            // The report is on disk before the command may end, and with it the host.
            ptrace(PTRACE_DETACH, command, nullptr, nullptr);
            _exit(0);
        }
        if (event == PTRACE_EVENT_STOP) {
            // A group stop of a seized process: leave it stopped as it asked.
            ptrace(PTRACE_LISTEN, command, nullptr, nullptr);
            continue;
        }
        // A signal on its way to the command (mostly SIGCHLD of its commands): deliver it.
        const int signal = WSTOPSIG(wait_status);
        if (signal == SIGCHLD) ++children;
        ptrace(PTRACE_CONT, command, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench-own-usage OUT COMMAND [ARG...]\n");
        return 2;
    }
    int go[2];
    if (pipe2(go, O_CLOEXEC) != 0) return 1;
    const pid_t self = getpid();
    const pid_t tracer = fork();
    if (tracer < 0) return 1;
    if (tracer == 0) {
        close(go[0]);
        trace(self, go[1], argv[1]);
    }
    close(go[1]);
    char byte = 0;
    if (read(go[0], &byte, 1) != 1) {
        std::fprintf(stderr, "bench-own-usage: the tracer did not start\n");
        return 1;
    }
    close(go[0]);
    execvp(argv[2], argv + 2);
    std::fprintf(stderr, "bench-own-usage: cannot run %s: %s\n", argv[2], std::strerror(errno));
    return 127;
}
