#!/bin/bash
# Boots one guest on the host's Debian kernel and runs scenario scripts in it,
# one after the other, each in a fresh root.
#
# Usage: boot.sh --cache DIR --run-dir DIR [--timeout SECONDS]
#                [--append KERNEL_ARGS] [--env NAME=VALUE]... SCRIPT...
#
# The run directory receives:
#   serial.log            the guest's serial console: kernel, /init, markers
#   results               one line per scenario: NAME STATUS ("none" if it never ended)
#   seconds               how long qemu ran
#   share/out/NAME/       what the scenario brought back: output.txt (its
#                         trace), dmesg.txt, proc-modules.txt, cmdline.txt,
#                         facts/, systemctl.calls, var-log-vantoriaquorl/
# Exit status: 0 when the boot ran to its end and every scenario exited 0;
# 77 when this machine cannot run guests (the reason on stderr); 1 otherwise.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
cache= run_dir= timeout_seconds=300 append=
extra_env=()
while [ $# -gt 0 ]; do
    case "$1" in
        --cache) cache=$2; shift 2 ;;
        --run-dir) run_dir=$2; shift 2 ;;
        --timeout) timeout_seconds=$2; shift 2 ;;
        --append) append="$append $2"; shift 2 ;;
        --env) extra_env+=("$2"); shift 2 ;;
        --) shift; break ;;
        -*) echo "boot.sh: unknown option $1" >&2; exit 2 ;;
        *) break ;;
    esac
done
[ -n "$cache" ] && [ -n "$run_dir" ] && [ $# -gt 0 ] || {
    echo "usage: boot.sh --cache DIR --run-dir DIR [--timeout S] [--append ARGS] [--env N=V]... SCRIPT..." >&2
    exit 2
}

status=0
prepared=$("$here/prepare.sh" "$cache") || status=$?
[ "$status" = 0 ] || exit "$status"
prepared=$(echo "$prepared" | tail -n 1)

rm -rf "$run_dir"
mkdir -p "$run_dir/share/out"
run_dir=$(cd "$run_dir" && pwd)
share=$run_dir/share

{
    cat "$prepared/guest.env"
    echo "RK_HARNESS=$here"
    echo "RK_LIB=$here/guest-lib.sh"
    for assignment in ${extra_env[@]+"${extra_env[@]}"}; do
        echo "$assignment"
    done
} > "$share/env"

# The guest mounts fresh file systems on /tmp and /run: what it needs of this
# machine there (sources, build directory) is shown to its scenarios at the
# same place (RK_REVEAL). /proc, /sys and /dev are the guest's own.
reveal=()
needs() {
    case "$1" in
        *" "*|/proc/*|/sys/*|/dev/*) echo "boot.sh: the guest cannot be shown $1" >&2; exit 2 ;;
        /tmp/*|/run/*) reveal+=("$1") ;;
    esac
}
needs "$here"
needs "$prepared"
for assignment in ${extra_env[@]+"${extra_env[@]}"}; do
    value=${assignment#*=}
    if [ -d "$value" ]; then needs "$value"; elif [ -e "$value" ]; then needs "$(dirname "$value")"; fi
done

names=()
for script in "$@"; do
    name=$(basename "$script" .sh)
    for seen in ${names[@]+"${names[@]}"}; do
        [ "$seen" != "$name" ] || { echo "boot.sh: two scenarios named $name" >&2; exit 2; }
    done
    names+=("$name")
    path=$(realpath "$script")
    needs "$(dirname "$path")"
    echo "$name $path" >> "$share/plan"
done
echo "RK_REVEAL=\"${reveal[*]+${reveal[*]}}\"" >> "$share/env"

cmdline="console=ttyS0 rdinit=/init panic=-1 quiet$append"
start=$(date +%s)
# KVM is not used even where /dev/kvm exists: on these hosts it is backed by
# another hypervisor and fails or crawls. One CPU per guest lets two guests
# share a two-core machine.
timeout --kill-after=10 "$timeout_seconds" \
    qemu-system-x86_64 -accel tcg,thread=multi -cpu qemu64 -smp 1 -m 1G \
    -nographic -no-reboot -net none \
    -kernel "$prepared/vmlinux" -initrd "$prepared/initramfs.cpio" -append "$cmdline" \
    -fsdev local,id=rkroot,path=/,security_model=none,readonly=on,multidevs=remap \
    -device virtio-9p-pci,fsdev=rkroot,mount_tag=rkroot \
    -fsdev local,id=rkshare,path="$share",security_model=none,multidevs=remap \
    -device virtio-9p-pci,fsdev=rkshare,mount_tag=rkshare \
    < /dev/null > "$run_dir/serial.log" 2>&1 || true
seconds=$(( $(date +%s) - start ))
echo "$seconds" > "$run_dir/seconds"

# qemu's own exit status says nothing about the guest: the markers do.
verdict=0
: > "$run_dir/results"
for name in "${names[@]}"; do
    result=$(tr -d '\r' < "$run_dir/serial.log" | sed -n "s/^RK-SCENARIO $name EXIT \([0-9]*\)\$/\1/p" | tail -n 1)
    [ -n "$result" ] || result=none
    echo "$name $result" >> "$run_dir/results"
    echo "realkernel: scenario $name: exit $result"
    [ "$result" = 0 ] || verdict=1
done
if ! tr -d '\r' < "$run_dir/serial.log" | grep -qx 'RK-BOOT-END'; then
    reason=$(tr -d '\r' < "$run_dir/serial.log" | sed -n 's/^RK-BOOT-FAILED //p' | tail -n 1)
    echo "realkernel: the guest did not reach its end after ${seconds}s (timeout ${timeout_seconds}s)${reason:+: $reason}"
    verdict=1
fi
echo "realkernel: boot took ${seconds}s"
if [ "$verdict" != 0 ]; then
    echo "realkernel: serial log and guest files kept in $run_dir"
fi
exit "$verdict"
