# A package whose kernel build tries every way out of the preview's view, and
# the ways that would change this kernel, each with a harmless action; the
# escapes leave /escaped-NAME (or their file outside the view). Afterwards the
# guest must hold no marker, the same modules, keys, settings, kernel log,
# cgroups and mounts as before, and nothing of the preview may still run.
. "$RK_LIB"
rk_join_kernel_headers
rk_unpack_package /root/quorl-driver
cd /root/quorl-driver
cp "$RK_ESCAPE_ATTEMPTS" kernel/
cat > kernel/kernel_attempts.sh <<'SH'
mark() { touch "/escaped-$1"; }
python3 -c 'import socket; socket.socket(38, 5, 0)' 2>/dev/null && mark af-alg
ip link add quorl-bait type dummy 2>/dev/null && mark dummy-link
mount -t cramfs /dev/null /var/tmp 2>/dev/null && mark cramfs
dmesg -C 2>/dev/null && mark dmesg-clear
echo 61 > /run/realproc/sys/vm/swappiness 2>/dev/null && mark sysctl
mkdir /sys/fs/cgroup/escaped-cgroup 2>/dev/null && mark cgroup
# init_module(NULL, 0, "") through the 32-bit entry, and any call as x32:
# the filter kills the process (SIGSYS, 159 in the shell) before either runs.
printf '%s\n' 'int main(void) { long r = 128; __asm__ volatile("int $0x80" : "+a"(r) : "b"(0), "c"(0), "d"(0)); return 0; }' |
    gcc -x c -o /var/tmp/i386-call - && { /var/tmp/i386-call; [ $? = 159 ] || mark i386-entry; }
printf '%s\n' '#include <unistd.h>' 'int main(void) { syscall(0x40000000 | 39); return 0; }' |
    gcc -x c -o /var/tmp/x32-call - && { /var/tmp/x32-call; [ $? = 159 ] || mark x32-entry; }
# The limits of the sandbox's cgroup, as its build sees them.
cat /sys/fs/cgroup/quorl-sandbox-*/pids.max /proc/self/cgroup > /var/tmp/limits
exit 0
SH
sed -i 's|^\(all:.*\)$|\1\nmodules: attempts\nattempts:\n\tbash $(CURDIR)/escape_attempts.sh; bash $(CURDIR)/kernel_attempts.sh|' kernel/Makefile
kernel_state() {
    cut -d" " -f1 /proc/modules
    cat /proc/key-users /proc/sys/vm/swappiness
    dmesg | head -n 3
    find /sys/fs/cgroup -mindepth 1 -maxdepth 1 -type d | sort
    # The mounts and the mount namespaces that any process holds.
    wc -l < /proc/self/mountinfo
    readlink /proc/[0-9]*/ns/mnt | sort -u | wc -l
}
rk_fact kernel_before "$(kernel_state)"
rk_snapshot before
rk_run preview ./quorl-driver-preview --json --disable-dkms --keep /tmp/kept
rk_fact kernel_after "$(kernel_state)"
rk_snapshot after
rk_fact markers "$(find / -xdev -name 'escaped*' 2>/dev/null)"
rk_fact left_running "$(ps -e -o comm= | grep -E '^(make|gcc|cc1|quorl-driver-)')"
rk_save limits /tmp/kept/upper/var/tmp/limits
