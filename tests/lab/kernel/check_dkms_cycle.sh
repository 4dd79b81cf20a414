#!/bin/bash
# check_dkms_cycle.sh: runs the real dkms over the sample package's kernel
# sources against a fake kernel tree: add, build, install, status, remove,
# plus depmod and modinfo over the installed modules.
#
# Needs root and CAP_SYS_ADMIN: everything happens in a private mount and pid
# namespace, on an overlay of / whose writes land in a tmpfs, so the machine's
# /lib/modules, /var/lib/dkms, /usr/src and /etc stay untouched and nothing
# is left mounted. Exits 77 (skipped) where that is not possible.
set -u

release=6.1.0-77-lab
here=$(cd "$(dirname "$0")" && pwd)

if [ "${1:-}" != --inside ]; then
	if [ "$(id -u)" != 0 ] || ! unshare --mount --propagation private true 2>/dev/null; then
		echo "skip - the dkms cycle needs root and CAP_SYS_ADMIN"
		exit 77
	fi
	for tool in dkms depmod modinfo openssl gcc make perl; do
		command -v "$tool" >/dev/null || { echo "skip - $tool is not installed"; exit 77; }
	done
	scratch=$(mktemp -d "${TMPDIR:-/tmp}/check_dkms_cycle.XXXXXX")
	unshare --mount --pid --fork --kill-child --propagation private \
		bash "$0" --inside "$scratch"
	status=$?
	rmdir "$scratch"
	exit $status
fi

S=$2
failures=0
pass() { echo "ok - $1"; }
fail() { echo "FAIL - $1"; failures=$((failures + 1)); }
# check NAME COMMAND...: passes when the command succeeds
check() {
	local name=$1
	shift
	if "$@"; then pass "$name"; else fail "$name"; fi
}
expect() {
	if [ "$2" = "$3" ]; then pass "$1"; else fail "$1: expected '$2', got '$3'"; fi
}
# Makes an overlay lower directory hide what the layers below hold there.
opaque() {
	perl -e 'my ($path, $name, $value) = ($ARGV[0], "trusted.overlay.opaque", "y");
		syscall(188, $path, $name, $value, 1, 0) == 0 or die "setxattr $path: $!\n"' "$1"
}

# Extra lower layers must not share a filesystem with /, hence the tmpfs.
mount -t tmpfs scratch "$S"
mkdir -p "$S"/{f,u,w,m}
f=$S/f

mkdir -p "$f/usr/lib/modules/$release" "$f/usr/src" "$f/var/lib/dkms" \
	"$f/etc/dkms/framework.conf.d" "$f/opt"
for dir in usr/lib/modules usr/src var/lib/dkms; do
	opaque "$f/$dir" || { echo "FAIL - cannot hide the machine's /$dir"; exit 1; }
done
"$here/make_kernel_tree.sh" "$f/usr/src/linux-lab-$release" "$release" >/dev/null
for list in modules.order modules.builtin modules.builtin.modinfo; do
	: >"$f/usr/lib/modules/$release/$list"
done
ln -s "/usr/src/linux-lab-$release" "$f/usr/lib/modules/$release/build"
# dkms would use the host's own kbuild sign-file for a 6.1 release first.
# shellcheck disable=SC2016 # dkms expands it when it reads the file
echo 'sign_file="/lib/modules/${kernelver}/build/scripts/sign-file"' \
	>"$f/etc/dkms/framework.conf.d/lab.conf"
# Made in advance, dkms does not spend time generating them.
openssl req -new -x509 -nodes -days 36500 -subj "/CN=lab dkms signing key" \
	-newkey rsa:2048 -keyout "$f/var/lib/dkms/mok.key" \
	-outform DER -out "$f/var/lib/dkms/mok.pub" >/dev/null 2>&1
cp -R "$here/../package" "$f/opt/package"

m=$S/m
mount -t overlay overlay -o "lowerdir=$f:/,upperdir=$S/u,workdir=$S/w" "$m"
mount --rbind /dev "$m/dev"
mount -t proc proc "$m/proc"
mount -t tmpfs tmp "$m/tmp"

# Runs a command line in the throwaway root; its output goes to $S/out.
inside() {
	chroot "$m" /bin/bash -c "$1" >"$S/out" 2>&1
}

# The installer's own steps before dkms: fill the marker, copy the sources.
inside "cp -R /opt/package /tmp/plain && sed -i 's/QUORLPLACEHOLDER//' /tmp/plain/kernel/dkms.conf &&
	mkdir -p /usr/src/quorl-3.2.1 && cp -fr /tmp/plain/kernel/* /usr/src/quorl-3.2.1" ||
	fail "copy of the sources: $(cat "$S/out")"

inside "ls /usr/src /lib/modules /var/lib/dkms"
expect "the root shows the lab's trees only" \
	"/lib/modules:|$release||/usr/src:|linux-lab-$release|quorl-3.2.1||/var/lib/dkms:|mok.key|mok.pub" \
	"$(tr '\n' '|' <"$S/out" | sed 's/|$//')"

inside "dkms add -m quorl -v 3.2.1 --force"
expect "dkms add" "0" "$?"
inside "dkms build quorl/3.2.1 -k $release"
expect "dkms build -k $release" "0" "$?"
check "dkms signs with the tree's sign-file" \
	grep -q "Sign command: /lib/modules/$release/build/scripts/sign-file" "$S/out"
built=$m/var/lib/dkms/quorl/3.2.1/$release/x86_64
check "the build leaves log/make.log" test -f "$built/log/make.log"
check "the build leaves module/vantoria.ko" test -f "$built/module/vantoria.ko"

inside "dkms install quorl/3.2.1 -k $release --force"
expect "dkms install -k $release --force" "0" "$?"
installed=$m/usr/lib/modules/$release/updates/dkms
for ko in vantoria.ko vnt_peer_mem_drv.ko; do
	check "installed as updates/dkms/$ko" test -f "$installed/$ko"
done
inside "modinfo -F version -k $release vantoria; modinfo -F sig_id -k $release vantoria;
	modinfo -F signer -k $release vantoria; modinfo -F sig_hashalgo -k $release vantoria"
expect "modinfo -k finds the installed, signed module" \
	"3.2.1|PKCS#7|lab dkms signing key|sha256" "$(tr '\n' '|' <"$S/out" | sed 's/|$//')"
check "depmod run by dkms lists the module" \
	grep -q "^updates/dkms/vantoria.ko:" "$m/usr/lib/modules/$release/modules.dep"

inside "dkms status"
expect "dkms status" "quorl/3.2.1, $release, x86_64: installed" "$(cat "$S/out")"

inside "dkms remove quorl/3.2.1 --all"
expect "dkms remove quorl/3.2.1 --all" "0" "$?"
check "remove takes the installed module away" test ! -e "$installed/vantoria.ko"
check "remove unregisters quorl" test ! -e "$m/var/lib/dkms/quorl"
inside "dkms status"
expect "dkms status after remove" "" "$(cat "$S/out")"

# The same cycle with the vGPU choice filled into the marker.
inside "rm -rf /usr/src/quorl-3.2.1 && cp -R /opt/package /tmp/vgpu &&
	sed -i 's/QUORLPLACEHOLDER/VGPU_ENABLE=1/' /tmp/vgpu/kernel/dkms.conf &&
	mkdir -p /usr/src/quorl-3.2.1 && cp -fr /tmp/vgpu/kernel/* /usr/src/quorl-3.2.1 &&
	dkms add -m quorl -v 3.2.1 --force && dkms build quorl/3.2.1 -k $release &&
	dkms install quorl/3.2.1 -k $release --force && modinfo -F vgpu -k $release vantoria &&
	dkms remove quorl/3.2.1 --all >/dev/null"
expect "a vGPU build through dkms carries the mark" "0|1" "$?|$(tail -n 1 "$S/out")"

# The installer's manual path copies a plain build to kernel/drivers/misc and
# runs depmod itself.
inside "cd /tmp && cp -R /opt/package/kernel src && make -C src KERNELDIR=/lib/modules/$release/build &&
	mkdir -p /lib/modules/$release/kernel/drivers/misc &&
	cp -f src/vantoria.ko /lib/modules/$release/kernel/drivers/misc/" ||
	fail "manual build: $(tail -n 5 "$S/out")"
inside "depmod $release"
expect "depmod $release succeeds without a word" "0|" "$?|$(cat "$S/out")"
check "depmod accepts a module of the fake tree" \
	grep -q "^kernel/drivers/misc/vantoria.ko:" "$m/usr/lib/modules/$release/modules.dep"
check "depmod writes the module's PCI alias" grep -q \
	"^alias pci:v00001F5Dd00000002sv\*sd\*bc\*sc\*i\* vantoria$" "$m/usr/lib/modules/$release/modules.alias"

# Nothing of the run may reach the machine.
check "the machine saw none of it" \
	test ! -e /var/lib/dkms/quorl -a ! -e "/usr/lib/modules/$release" -a ! -e /usr/src/quorl-3.2.1

if [ $failures -ne 0 ]; then
	echo "$failures check(s) failed"
	exit 1
fi
echo "all checks passed"
