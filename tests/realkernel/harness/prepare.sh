#!/bin/bash
# Finds the Debian kernel that the guests boot and builds, once per build
# directory and kernel release, what every boot needs:
#   CACHE/RELEASE/vmlinux          the unpacked kernel, booted directly (PVH)
#   CACHE/RELEASE/initramfs.cpio   busybox, /init and the modules that reach the host root
#   CACHE/RELEASE/lib-modules/     a pruned copy of /lib/modules/RELEASE for the guest
#   CACHE/RELEASE/mok.key, mok.pub a module signing pair that the guest hands to dkms
#   CACHE/RELEASE/guest.env        facts about all of the above for the guest
#
# Usage: prepare.sh [--check] CACHE
# Prints the directory CACHE/RELEASE on its last line. Exits 77 with a reason
# when this machine cannot run the guests (not root, no qemu, no kernel image
# or headers, no static busybox), so that ctest can report a skip.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
check_only=0
if [ "${1:-}" = --check ]; then
    check_only=1
    shift
fi
cache=$(realpath -m "${1:?usage: prepare.sh [--check] CACHE}")

# Under CI nothing skips: a guest that cannot start fails the run, with its reason.
skip() {
    if [ "${CI:-}" = true ]; then
        echo "realkernel: cannot boot under CI: $*" >&2
        exit 1
    fi
    echo "realkernel: skipped: $*" >&2
    exit 77
}

# The modules the initramfs loads to reach the host's root over virtio-9p and
# to lay a tmpfs overlay on it; the kernel's own dependency list orders them.
boot_modules="virtio_pci 9pnet_virtio 9p overlay"
# Stock modules with no dependencies and no side effects, for scenarios that
# need some other module loaded after theirs; and the ones that a socket or a
# link of some kind makes the kernel load by itself, so that a preview that
# let such a request through would show it in /proc/modules.
spare_modules="crc7 crc8 algif_hash dummy"

[ "$(id -u)" = 0 ] || skip "the guests are started as root (run ctest as root)"
for tool in qemu-system-x86_64 timeout modprobe xz flock cpio openssl; do
    command -v "$tool" >/dev/null 2>&1 || skip "'$tool' is not installed"
done

# The newest installed kernel image that has its modules and headers. CI may
# install a newer release than this machine has, so nothing names one.
release=
for image in $(ls -1 /boot/vmlinuz-* 2>/dev/null | sort -rV); do
    candidate=${image#/boot/vmlinuz-}
    if [ -d "/lib/modules/$candidate/kernel" ] && [ -f "/lib/modules/$candidate/build/Makefile" ]; then
        release=$candidate
        break
    fi
done
[ -n "$release" ] || skip "no /boot/vmlinuz-* with its /lib/modules tree and headers (linux-image-amd64, linux-headers-amd64)"

busybox=/bin/busybox
[ -x "$busybox" ] || skip "busybox-static is not installed"
if LC_ALL=C readelf -l "$busybox" 2>/dev/null | grep -q 'program interpreter'; then
    skip "$busybox is not statically linked (install busybox-static)"
fi

dir=$cache/$release
if [ "$check_only" = 1 ]; then
    echo "$dir"
    exit 0
fi

mkdir -p "$dir"
# Two boots that start side by side share the cache; the second waits here.
exec 9>"$cache/.lock"
flock 9

image=/boot/vmlinuz-$release

extract_vmlinux() {
    # The bzImage's setup header says where the compressed kernel lies.
    local setup_sects payload_offset payload_length start magic
    setup_sects=$(od -An -tu1 -j 497 -N1 "$image" | tr -d ' ')
    [ "$setup_sects" = 0 ] && setup_sects=4
    payload_offset=$(od -An -tu4 -j 584 -N4 "$image" | tr -d ' ')
    payload_length=$(od -An -tu4 -j 588 -N4 "$image" | tr -d ' ')
    start=$(( (setup_sects + 1) * 512 + payload_offset ))
    magic=$(od -An -tx1 -j "$start" -N6 "$image" | tr -d ' \n')
    payload() {
        dd if="$image" iflag=skip_bytes,count_bytes bs=64K skip="$start" count="$payload_length" status=none
    }
    # The payload ends in the kernel's four-byte size, which the
    # decompressors must be told to ignore or left to shrug off.
    case "$magic" in
        fd377a585a00) payload | xz -dc --single-stream ;;
        28b52ffd*) payload | zstd -dcq ;;
        1f8b*) payload | gzip -dc 2>/dev/null || [ $? = 2 ] ;;
        *) echo "realkernel: $image holds a payload that this harness cannot unpack (magic $magic)" >&2; return 1 ;;
    esac
}

if [ ! -s "$dir/vmlinux" ] || [ "$image" -nt "$dir/vmlinux" ]; then
    extract_vmlinux > "$dir/vmlinux.tmp"
    if [ "$(od -An -c -N4 "$dir/vmlinux.tmp" | tr -d ' ')" != '177ELF' ]; then
        echo "realkernel: unpacking $image gave no ELF image" >&2
        exit 1
    fi
    mv "$dir/vmlinux.tmp" "$dir/vmlinux"
fi

# The initramfs and the module tree change when the harness changes.
stamp=$( (echo "$release $boot_modules $spare_modules"; cat "$0" "$here/init.sh"; stat -c %Y "$image") | md5sum | cut -d' ' -f1)
if [ "$(cat "$dir/stamp" 2>/dev/null)" != "$stamp" ]; then
    rm -rf "$dir/initramfs.d" "$dir/lib-modules" "$dir/initramfs.cpio" "$dir/stamp"

    # Pruned module tree: the guest's depmod walks it in about a second,
    # where the whole tree through 9p under emulation takes most of a minute.
    tree=$dir/lib-modules
    mkdir -p "$tree"
    cp -P "/lib/modules/$release/build" "$tree/build"
    [ -e "/lib/modules/$release/source" ] && cp -P "/lib/modules/$release/source" "$tree/source"
    for f in modules.builtin modules.builtin.modinfo; do
        cp "/lib/modules/$release/$f" "$tree/$f"
    done
    : > "$tree/modules.order"
    # modprobe takes one module a call; the words after it are parameters.
    ko_paths() {
        local module
        for module in "$@"; do
            modprobe -S "$release" --show-depends "$module" | awk '$1 == "insmod" { print $2 }'
        done
    }
    for ko in $(ko_paths $boot_modules $spare_modules); do
        rel=${ko#/lib/modules/$release/}
        if [ ! -e "$tree/$rel" ]; then
            mkdir -p "$tree/$(dirname "$rel")"
            cp "$ko" "$tree/$rel"
            echo "$rel" >> "$tree/modules.order"
        fi
    done

    # The initramfs: busybox, /init, and the boot modules in load order.
    staging=$dir/initramfs.d
    mkdir -p "$staging/bin" "$staging/modules" "$staging/dev" "$staging/proc" "$staging/sys"
    cp "$busybox" "$staging/bin/busybox"
    cp "$here/init.sh" "$staging/init"
    chmod 0755 "$staging/init"
    loaded=" "
    for ko in $(ko_paths $boot_modules); do
        # --show-depends repeats shared dependencies; load each once.
        base=$(basename "$ko")
        case "$loaded" in *" $base "*) continue ;; esac
        loaded="$loaded$base "
        cp "$ko" "$staging/modules/$base"
        echo "$base" >> "$staging/modules/order"
    done
    echo "$release" > "$staging/release"
    (cd "$staging" && find . | sort | cpio -o -H newc --quiet > "$dir/initramfs.cpio.tmp")
    mv "$dir/initramfs.cpio.tmp" "$dir/initramfs.cpio"
    rm -rf "$staging"
    echo "$stamp" > "$dir/stamp"
fi

# A signing pair for dkms, made on the host in a second rather than by dkms
# under emulation at every build.
if [ ! -s "$dir/mok.key" ] || [ ! -s "$dir/mok.pub" ]; then
    openssl req -new -x509 -nodes -days 36500 -subj "/CN=realkernel dkms signing key/" \
        -newkey rsa:2048 -keyout "$dir/mok.key.tmp" -outform DER -out "$dir/mok.pub.tmp" >/dev/null 2>&1
    mv "$dir/mok.key.tmp" "$dir/mok.key"
    mv "$dir/mok.pub.tmp" "$dir/mok.pub"
fi

# /lib is a link into /usr on a merged-usr host; the guest mounts onto the real directory.
modules_mount=$(realpath "/lib/modules/$release")
cat > "$dir/guest.env.tmp" <<EOF
RK_RELEASE=$release
RK_MODULES_TREE=$dir/lib-modules
RK_MODULES_MOUNT=$modules_mount
RK_DKMS_MOK_KEY=$dir/mok.key
RK_DKMS_MOK_PUB=$dir/mok.pub
EOF
mv "$dir/guest.env.tmp" "$dir/guest.env"

echo "$dir"
