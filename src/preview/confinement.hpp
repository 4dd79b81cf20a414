// How a command enters the view, and what it keeps there.  Each step runs in
// the command's process before it executes its program, except where the
// view's pid 1 does its half.
#pragma once

#include <sys/types.h>

#include <string>

namespace preview {

// A mount namespace and a cgroup namespace of the command's own, in which
// the view (`root`, a mount point) becomes "/" and this machine's root is
// detached, so that no path, "..", chroot or descriptor opened later leads out
// of it.  pid 1 keeps its own namespace, where the kernel's state lies.
bool enter_view(const std::string& root, std::string* failed_step);

// The command leaves the first user namespace for a child of it, and waits on
// `sock` while pid 1 maps every id but one to itself (map_every_id).  Its root is then
// root for the files it writes, which are owned as a real run would own them,
// and for chown, setcap and signals within the view; but its capabilities
// reach nothing that the first namespace owns: this machine's mounts,
// modules, clocks, devices and its pid 1.  Clearing capabilities one by one
// instead would leave a root that either cannot install or can escape.
bool enter_child_user_namespace(int sock);
// The one id the child namespace leaves unmapped, which nothing in it can take.
inline constexpr unsigned unmapped_id = 4294967294u;
// pid 1's half, for the command `pid`: `proc` is a proc of the view's pid namespace.
bool map_every_id(int sock, const std::string& proc, pid_t pid);

// No inheritable or ambient capabilities, so that no program the command runs
// gets capabilities back from its file or its caller; none to make devices,
// load modules, reach raw I/O, set the clock or reboot; no core dumps.
bool drop_privileges();

// The view's console: a terminal of the view's own devpts instance
// (`pts`, on this machine), whose other end pid 1 keeps and relays.
struct Console {
    int master = -1;
    int slave = -1;     // held open by pid 1, so that the master never hangs up
    std::string path;   // of the slave, in the view
};
bool open_console(const std::string& pts, Console*);
// In the command, after setsid(): the console becomes its controlling
// terminal, and takes the place of each standard stream that is a terminal,
// which would otherwise be the administrator's own.
bool take_console(const std::string& path);

}  // namespace preview
