// One run in a simulated host: the namespaces, the mounts of its root and
// the hand-over to the launcher, which plays pid 1 and the kernel.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace lab::detail {

struct Sandbox {
    // The host's scratch directory: fixture/ (the layer of the host as it
    // was made), upper/ and work/ (what runs change), rt/ (an empty mount
    // point), sys/, proc/, lab/ and tmp/.
    std::string scratch;
    std::string tools;     // the layer of stubs shared by all hosts of a build
    std::string launcher;  // lab-launcher on this machine
    std::vector<std::string> argv;
    std::vector<std::string> env;
    std::string cwd = "/";
    uid_t uid = 0;
    gid_t gid = 0;
    bool network = false;
    unsigned timeout = 0;  // seconds; 0 waits as long as it takes
    std::optional<std::string> cgroup;  // file shown as the command's /proc/self/cgroup
    // Files for the standard streams; empty shares this process's own.
    std::string stdin_file, stdout_file, stderr_file;
};

// The command's exit status, or 128+signal.  When the lab itself could not
// be set up the result is 125 and `error` says why.
int run_sandboxed(const Sandbox&, std::string* error);

}  // namespace lab::detail
