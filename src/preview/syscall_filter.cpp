#include "preview/syscall_filter.hpp"

#include <linux/netlink.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>

namespace preview {

namespace {

using Filter = std::unique_ptr<void, decltype(&seccomp_release)>;

// Calls that reach beyond the view through the kernel it shares.  Mounts and
// namespaces are refused for good once the view is set up; the file handle
// calls open files by number, past any root directory.
const int refused_calls[] = {
    SCMP_SYS(mount), SCMP_SYS(umount2), SCMP_SYS(pivot_root), SCMP_SYS(setns), SCMP_SYS(unshare),
    SCMP_SYS(open_tree), SCMP_SYS(move_mount), SCMP_SYS(fsopen), SCMP_SYS(fsconfig), SCMP_SYS(fsmount),
    SCMP_SYS(fspick), SCMP_SYS(mount_setattr), SCMP_SYS(name_to_handle_at), SCMP_SYS(open_by_handle_at),
    SCMP_SYS(bpf), SCMP_SYS(perf_event_open), SCMP_SYS(add_key), SCMP_SYS(request_key), SCMP_SYS(keyctl),
    SCMP_SYS(swapon), SCMP_SYS(swapoff), SCMP_SYS(quotactl), SCMP_SYS(quotactl_fd), SCMP_SYS(syslog),
    SCMP_SYS(acct), SCMP_SYS(fanotify_init), SCMP_SYS(ptrace), SCMP_SYS(process_vm_writev),
    SCMP_SYS(clock_settime), SCMP_SYS(clock_adjtime), SCMP_SYS(settimeofday), SCMP_SYS(adjtimex),
    SCMP_SYS(kexec_load), SCMP_SYS(kexec_file_load), SCMP_SYS(reboot), SCMP_SYS(iopl), SCMP_SYS(ioperm),
};

// The module calls, which pid 1 answers as the kernel would.
const int module_calls[] = {SCMP_SYS(init_module), SCMP_SYS(finit_module), SCMP_SYS(delete_module)};

// Socket families an installation uses: local, IPv4 and IPv6, and netlink for
// routes and kobject events.  Any other family could make the kernel load its
// module by itself, outside the view.
constexpr unsigned allowed_families[] = {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK};
constexpr unsigned allowed_netlink[] = {NETLINK_ROUTE, NETLINK_KOBJECT_UEVENT};
// Above every family and netlink protocol the kernel knows: it refuses
// those itself, before it looks for a module.
constexpr unsigned family_limit = 64, netlink_limit = 32;

// The low 32 bits of an argument: the kernel takes these as an int and drops
// the others, which a caller may set to pass a plain comparison.
scmp_arg_cmp low_bits(unsigned arg, scmp_datum_t value) { return SCMP_CMP(arg, SCMP_CMP_MASKED_EQ, 0xffffffff, value); }

bool listed(const unsigned* first, const unsigned* last, unsigned value) {
    for (; first != last; ++first) {
        if (*first == value) return true;
    }
    return false;
}

// The family (argument 0) of socket() and socketpair(), and the protocol
// (argument 2) of netlink.
bool refuse_families(scmp_filter_ctx ctx, int call) {
    for (unsigned f = 0; f < family_limit; ++f) {
        if (listed(std::begin(allowed_families), std::end(allowed_families), f)) continue;
        if (seccomp_rule_add(ctx, SCMP_ACT_ERRNO(EAFNOSUPPORT), call, 1, low_bits(0, f)) != 0) return false;
    }
    for (unsigned p = 0; p < netlink_limit; ++p) {
        if (listed(std::begin(allowed_netlink), std::end(allowed_netlink), p)) continue;
        if (seccomp_rule_add(ctx, SCMP_ACT_ERRNO(EPROTONOSUPPORT), call, 2, low_bits(0, AF_NETLINK), low_bits(2, p)) != 0)
            return false;
    }
    return true;
}

bool confine(scmp_filter_ctx ctx) {
    for (int call : refused_calls) {
        if (seccomp_rule_add(ctx, SCMP_ACT_ERRNO(EPERM), call, 0) != 0) return false;
    }
    // Characters pushed into a terminal are read by whoever reads it next.
    if (seccomp_rule_add(ctx, SCMP_ACT_ERRNO(EPERM), SCMP_SYS(ioctl), 1, low_bits(1, TIOCSTI)) != 0)
        return false;
    return refuse_families(ctx, SCMP_SYS(socket)) && refuse_families(ctx, SCMP_SYS(socketpair));
}

}  // namespace

int load_syscall_filter(bool answer_uname) {
    Filter ctx(seccomp_init(SCMP_ACT_ALLOW), seccomp_release);
    if (!ctx) {
        errno = ENOMEM;
        return -1;
    }
    // Only the native entry: the 32-bit and x32 entries of this machine
    // number the calls otherwise, and would pass every rule below.
    int rc = seccomp_attr_set(ctx.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
    if (rc == 0) rc = seccomp_attr_set(ctx.get(), SCMP_FLTATR_CTL_NNP, 1);
    if (rc == 0 && !confine(ctx.get())) rc = -EINVAL;
    for (int call : module_calls) rc = rc ? rc : seccomp_rule_add(ctx.get(), SCMP_ACT_NOTIFY, call, 0);
    if (rc == 0 && answer_uname) rc = seccomp_rule_add(ctx.get(), SCMP_ACT_NOTIFY, SCMP_SYS(uname), 0);
    if (rc == 0) rc = seccomp_load(ctx.get());
    if (rc != 0) {
        errno = -rc;
        return -1;
    }
    return seccomp_notify_fd(ctx.get());
}

}  // namespace preview
