// The system calls a command in the view may make.  The view shares this
// machine's kernel, so everything that reaches beyond the view through it is
// refused before the kernel sees it: another architecture's entry kills the
// process; mounts, namespaces, keys, BPF, perf counters, tracing, the kernel
// log, swap, quotas, accounting, fanotify, the clocks, kexec and reboot fail
// with EPERM; sockets are of the families an installation uses; TIOCSTI is
// refused.  The module calls, and uname when the view has a release of its
// own, go to pid 1 through a seccomp user notification.
#pragma once

namespace preview {

// Loads the filter into this process (setting no_new_privs), with uname
// among the calls handed over when `answer_uname`.  Returns the listener's
// descriptor, or -1 with errno set.
int load_syscall_filter(bool answer_uname);

}  // namespace preview
