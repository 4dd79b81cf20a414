// The kernel as a sandboxed command sees it: pid 1 of the sandbox starts the
// command and answers its module system calls (and, when asked, uname)
// through a seccomp user notification, so that nothing reaches the kernel of
// this machine.  A load succeeds and puts the module on the first line of
// /proc/modules; an unload succeeds for a listed module that nobody uses;
// reboot and kexec fail with EPERM.
//
// The state it keeps lies in one directory:
//   proc/modules, proc/cmdline   shown over /proc/modules and /proc/cmdline
//   sys/module/NAME/             initstate, refcnt and holders/ of each listed module
//   kernel/release               when present, the release uname(2) reports
//   kernel/answers/NAME          "load=E" and "unload=E": an errno to give instead
//   kernel/journal               "load NAME" and "unload NAME", one line per success
//   run/kmsg                     the kernel log, numbered lines
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace preview {

struct Command {
    std::string root;  // the view, on this machine
    std::string cwd = "/";
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<std::string> argv;
    std::vector<std::string> env;
    std::string cgroup;  // a file shown as the command's own /proc/self/cgroup; empty: the real one
};

// Runs as pid 1 of the sandbox: starts the command with `command.root` as its
// root, in a session of its own whose console pid 1 relays, and, with
// `answer_kernel`, confines it and plays the kernel for it from `state`.
// Returns the command's exit status, or 128+signal.  Reaps every orphan
// meanwhile.
int serve_as_kernel(const std::string& state, bool answer_kernel, const Command& command);

// Makes `sys_module` list the modules of a /proc/modules text, as the
// kernel's /sys/module does: initstate, refcnt and holders of each.
void sync_sys_modules(const std::string& proc_modules, const std::string& sys_module);

// Adds a numbered line to the kernel log of a state.
void append_kernel_log(const std::string& state, const std::string& text);

struct ModuleJournal {
    std::vector<std::string> loaded, unloaded;  // in order
};
ModuleJournal read_module_journal(const std::string& state);

}  // namespace preview
