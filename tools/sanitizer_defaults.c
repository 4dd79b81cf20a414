/* Linked into every program of a sanitized build (QUORL_SANITIZE=ON). A
 * report ends the program with status 86, which no step of the installer
 * returns, so that a test that looks at the exit status fails on it, also in
 * the simulated host, whose environment is the lab's own and carries no
 * ASAN_OPTIONS. Options set in the environment still come on top. */
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

/* LeakSanitizer stops the threads of the process through /proc/PID/task. The
 * simulated host's /proc shows no process directories, so that inside it the
 * leak check cannot run and is left out; the address and undefined-behaviour
 * checks stay. Asked by raw system calls, as the runtime is not set up yet. */
static int leak_check_can_run(void) {
    long pid = syscall(SYS_getpid);
    char path[32] = "/proc/";
    char digits[16];
    int count = 0;
    do {
        digits[count++] = (char)('0' + pid % 10);
        pid /= 10;
    } while (pid > 0);
    int at = 6;
    while (count > 0) path[at++] = digits[--count];
    const char* tail = "/task";
    while (*tail) path[at++] = *tail++;
    path[at] = '\0';
    return syscall(SYS_faccessat, AT_FDCWD, path, F_OK) == 0;
}

const char* __asan_default_options(void) {
    return leak_check_can_run() ? "exitcode=86:detect_leaks=1:strict_string_checks=1"
                                : "exitcode=86:detect_leaks=0:strict_string_checks=1";
}

const char* __ubsan_default_options(void) { return "exitcode=86:halt_on_error=1:print_stacktrace=1"; }

const char* __lsan_default_options(void) { return "exitcode=86"; }
