#!/bin/bash
# Runs one scenario script inside the guest, in a fresh root whose writes stay
# in guest memory; only /rk/out reaches the host. Its exit status is the
# scenario's, which /init prints on the serial console.
set -u
script=$1

set -a
. /rk/env
set +a
export RK_OUT=/rk/out
export HOME=/root
export LANG=C.UTF-8
# The stubs come first: this guest has no systemd to answer systemctl, and
# an empty journal sends the installer to dmesg as on any host without one.
export PATH=$RK_HARNESS/stubs:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin

# dkms signs what it builds; a pair made on the host spares it a key
# generation under emulation.
mkdir -p /var/lib/dkms
[ -e /var/lib/dkms/mok.key ] || cp "$RK_DKMS_MOK_KEY" /var/lib/dkms/mok.key
[ -e /var/lib/dkms/mok.pub ] || cp "$RK_DKMS_MOK_PUB" /var/lib/dkms/mok.pub

# The kernel log is the boot's; a line of our own marks where this scenario's
# part of it begins (rk_kernel_log).
export RK_SCENARIO=$(basename "$script" .sh)
echo "realkernel: scenario $RK_SCENARIO begins" > /dev/kmsg

mkdir -p /root/work
cd /root/work
bash -x "$script" > "$RK_OUT/output.txt" 2>&1
status=$?

# What a reader of a failure wants first, whatever the scenario kept itself.
dmesg > "$RK_OUT/dmesg.txt" 2>&1
cat /proc/modules > "$RK_OUT/proc-modules.txt"
cat /proc/cmdline > "$RK_OUT/cmdline.txt"
if [ -d /var/log/vantoriaquorl ]; then
    cp -a /var/log/vantoriaquorl "$RK_OUT/var-log-vantoriaquorl"
fi
exit $status
