#!/bin/bash
# Run by a package's build inside a preview: tries each way out of the view
# with a harmless action, and leaves /escaped-NAME where one works (or its
# file outside the view, where the way out is a write).  The real-kernel
# tier adds the attempts that, if they worked, would change the kernel.
mark() { touch "/escaped-$1"; }
proc=/run/realproc
touch /var/tmp/inside-the-view

# Writes through pid 1's root, working directory and descriptors.
echo x > $proc/1/root/escaped-proc1-root
echo x > $proc/1/cwd/escaped-proc1-cwd
for fd in $proc/1/fd/*; do [ -d "$fd" ] && echo x > "$fd/escaped-proc1-fd"; done
head -c 1 $proc/1/environ > /dev/null && mark proc1-environ
cat $proc/1/maps > /dev/null && mark proc1-maps
cat $proc/1/mountinfo > /dev/null && mark proc1-mountinfo

# Out of a chroot by the old descriptor: outside the view, the file written
# first is not there.
python3 - <<'PY'
import os
os.makedirs("/var/tmp/jail", exist_ok=True)
top = os.open("/", os.O_RDONLY)
os.chroot("/var/tmp/jail")
os.fchdir(top)
for _ in range(64):
    os.chdir("..")
os.chroot(".")
if not os.path.exists("/var/tmp/inside-the-view"):
    open("/escaped-chroot", "w").close()
PY

# The read-only trees, fresh kernel file systems, and a setting written back unchanged.
umount $proc/sys && mark umount-proc-sys
umount -l /sys && mark umount-sys
mkdir -p /var/tmp/m
for type in proc sysfs devtmpfs cgroup2 binfmt_misc tmpfs; do
    mount -t $type none /var/tmp/m && { mark mount-$type; umount /var/tmp/m; }
done
swappiness=$(cat $proc/sys/vm/swappiness) && echo "$swappiness" > $proc/sys/vm/swappiness && mark sysctl
unshare -m true && mark unshare

# pid 1 traced, a key, a BPF map, a system-wide counter, a character pushed into the terminal.
python3 - <<'PY'
import ctypes, fcntl, os, termios
libc = ctypes.CDLL(None, use_errno=True)
def mark(name):
    open("/escaped-" + name, "w").close()
log = ctypes.create_string_buffer(4096)
if libc.klogctl(3, log, 4096) >= 0:  # the kernel log, read
    mark("syslog")
if libc.ptrace(0x4206, 1, 0, 0) == 0:  # PTRACE_SEIZE
    libc.ptrace(17, 1, 0, 0)
    mark("ptrace")
if libc.syscall(248, b"user", b"quorl-escape", b"x", 1, -4) >= 0:  # add_key to the user keyring
    mark("add_key")
attr = (ctypes.c_uint32 * 18)(2, 4, 4, 1)  # an array map of one entry
if libc.syscall(321, 0, attr, 72) >= 0:
    mark("bpf")
perf = (ctypes.c_uint32 * 32)(1, 128)  # a software clock counter
if libc.syscall(298, perf, -1, 0, -1, 0) >= 0:
    mark("perf")
try:
    tty = os.open("/dev/tty", os.O_RDWR)
    fcntl.ioctl(tty, termios.TIOCSTI, b"#")
    mark("tiocsti")
except OSError:
    pass
PY
exit 0
