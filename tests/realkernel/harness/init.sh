#!/bin/busybox sh
# Process 1 of the guest, run by busybox from the initramfs.
#
# It reaches the host's root over virtio-9p (read-only), and for each scenario
# of the plan lays a fresh tmpfs overlay on it, so that whatever a scenario
# writes lands in guest memory and the next scenario starts from the host as
# it is. Kernel state is shared by the scenarios of one boot; modules that a
# scenario left loaded are unloaded before the next one starts.
#
# The host judges the boot by the marker lines written here on the serial
# console, never by how qemu ended:
#   RK-SCENARIO-START name
#   RK-SCENARIO name EXIT status
#   RK-BOOT-END                      (all scenarios ran)
#   RK-BOOT-FAILED reason            (the guest could not be set up)

/bin/busybox --install -s /bin
export PATH=/bin

# devtmpfs is not mounted by this kernel by itself, and /init starts with no
# console open; everything below writes to the serial console.
mount -t devtmpfs devtmpfs /dev
exec 0</dev/console 1>/dev/console 2>&1
mount -t proc proc /proc
mount -t sysfs sysfs /sys

power_off() {
    sync
    poweroff -f
    reboot -f
}

fail() {
    printf '\nRK-BOOT-FAILED %s\n' "$*"
    power_off
}

release=$(cat /release)
for module in $(cat /modules/order); do
    insmod "/modules/$module" || fail "insmod $module"
done

mkdir -p /host /share /base /layer /newroot
mount -t 9p -o ro,trans=virtio,version=9p2000.L,msize=524288,cache=loose rkroot /host ||
    fail "mount of the host root"
# The share carries results back; without a cache every write reaches the
# host at once, and nothing is lost when the guest powers off.
mount -t 9p -o trans=virtio,version=9p2000.L,msize=524288 rkshare /share ||
    fail "mount of the results share"

# RK_RELEASE, RK_MODULES_TREE, RK_MODULES_MOUNT, RK_HARNESS and the test's own variables.
. /share/env
[ "$RK_RELEASE" = "$release" ] || fail "initramfs for $release, host prepared $RK_RELEASE"

# A fresh root: the host read-only below, guest memory above.
enter_root() {
    mount -t tmpfs -o mode=0755 tmpfs /layer || fail "tmpfs for a scenario"
    mkdir -p /layer/upper /layer/work /layer/mupper /layer/mwork
    mount -t overlay overlay -o lowerdir=/host,upperdir=/layer/upper,workdir=/layer/work /newroot ||
        fail "overlay root"
    mount -t proc proc /newroot/proc
    mount -t sysfs sysfs /newroot/sys
    # cgroup v2 where systemd mounts it on a host, the root cgroup able to
    # hand its controllers on (the preview bounds its sandbox there).
    mount -t cgroup2 cgroup2 /newroot/sys/fs/cgroup
    mount -t devtmpfs devtmpfs /newroot/dev
    mkdir -p /newroot/dev/pts /newroot/dev/shm
    mount -t devpts devpts /newroot/dev/pts
    mount -t tmpfs tmpfs /newroot/dev/shm
    # The links that udev makes on a host; bash's <(...), which dkms uses,
    # needs /dev/fd. devtmpfs is one file system for all its mounts, so the
    # links may be there from an earlier scenario.
    ln -sfn /proc/self/fd /newroot/dev/fd
    ln -sfn /proc/self/fd/0 /newroot/dev/stdin
    ln -sfn /proc/self/fd/1 /newroot/dev/stdout
    ln -sfn /proc/self/fd/2 /newroot/dev/stderr
    # Nothing of the host's run time state (its systemd, its journal) shows,
    # but for what the harness needs there: it is bound from the overlay's
    # own view, so that a scenario's writes there stay in its layer too.
    i=0
    for path in $RK_REVEAL; do
        i=$((i + 1))
        mkdir -p "/layer/reveal/$i"
        mount --bind "/newroot$path" "/layer/reveal/$i" || fail "bind of $path"
    done
    mount -t tmpfs -o mode=0755 tmpfs /newroot/run
    mount -t tmpfs -o mode=1777 tmpfs /newroot/tmp
    i=0
    for path in $RK_REVEAL; do
        i=$((i + 1))
        mkdir -p "/newroot$path"
        mount --bind "/layer/reveal/$i" "/newroot$path" || fail "bind of $path"
    done
}

leave_root() {
    # Whatever a scenario left running goes before its root is taken away.
    kill -9 -1 2>/dev/null
    umount -l /newroot
    umount -l /layer
}

# The pruned module tree, with the indexes that depmod makes for it, once per
# boot; each scenario then sees it through an overlay of its own.
mount -t tmpfs -o mode=0755 tmpfs /base || fail "tmpfs for the module tree"
cp -a "/host$RK_MODULES_TREE" /base/modules || fail "copy of the module tree"
enter_root
mount --bind /base/modules "/newroot$RK_MODULES_MOUNT" || fail "bind of the module tree"
# Through the root's own env: busybox would otherwise run its own depmod applet.
chroot /newroot /usr/bin/env PATH=/usr/sbin:/usr/bin:/sbin:/bin depmod -a "$release" ||
    fail "depmod of the module tree"
leave_root

while read -r name script; do
    [ -n "$name" ] || continue
    enter_root
    mount -t overlay overlay -o "lowerdir=/base/modules,upperdir=/layer/mupper,workdir=/layer/mwork" \
        "/newroot$RK_MODULES_MOUNT" || fail "overlay of the module tree"
    mkdir -p "/share/out/$name" /newroot/rk/out /newroot/rk/upper /newroot/rk/modules-upper /newroot/rk/modules-lower
    mount --bind "/share/out/$name" /newroot/rk/out
    # What the scenario has written so far, as the overlays hold it: the
    # exact list of what it changed on the host and in the module tree.
    mount --bind /layer/upper /newroot/rk/upper
    mount --bind /layer/mupper /newroot/rk/modules-upper
    mount -o remount,bind,ro /newroot/rk/upper
    mount -o remount,bind,ro /newroot/rk/modules-upper
    # The module tree as it was, for telling a file written again as it was.
    mount --bind /base/modules /newroot/rk/modules-lower
    mount -o remount,bind,ro /newroot/rk/modules-lower
    cp /share/env /newroot/rk/env
    cut -d' ' -f1 /proc/modules > /modules.before

    printf '\nRK-SCENARIO-START %s\n' "$name"
    # The scenario's root is the root of a mount namespace of its own, as a
    # machine's is: under a chroot no program may make a user namespace.
    unshare -m sh -c 'cd /newroot && mount --move . / && exec chroot . /usr/bin/env -i /bin/bash "$0" "$1"' \
        "$RK_HARNESS/guest-run.sh" "$script"
    status=$?
    printf '\nRK-SCENARIO %s EXIT %s\n' "$name" "$status"

    leave_root
    # Newest first, so that a module goes before the one it depends on.
    for module in $(cut -d' ' -f1 /proc/modules); do
        grep -qx "$module" /modules.before 2>/dev/null || rmmod "$module" ||
            printf 'realkernel: module %s left by %s stays loaded\n' "$module" "$name"
    done
done < /share/plan

printf '\nRK-BOOT-END\n'
power_off
