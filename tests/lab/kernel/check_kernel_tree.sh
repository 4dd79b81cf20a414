#!/bin/bash
# check_kernel_tree.sh: checks the fake kernel tree and the sample package's
# kernel sources together, writing only into a temporary directory.
# Prints one line per check and exits non-zero when any failed.
#
# With Debian kernel headers installed (linux-headers-*-amd64), the sample
# sources are also built with the real kbuild; without them that check is
# reported as skipped.
set -u

here=$(cd "$(dirname "$0")" && pwd)
package=$(cd "$here/../package" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/check_kernel_tree.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0

pass() { echo "ok - $1"; }
fail() { echo "FAIL - $1"; failures=$((failures + 1)); }
# check NAME COMMAND...: passes when the command succeeds
check() {
	local name=$1
	shift
	if "$@"; then pass "$name"; else fail "$name"; fi
}
# expect NAME EXPECTED ACTUAL
expect() {
	if [ "$2" = "$3" ]; then pass "$1"; else fail "$1: expected '$2', got '$3'"; fi
}
field() { modinfo -F "$1" "$2" 2>&1; }

release=6.1.0-77-lab
tree=$work/tree
"$here/make_kernel_tree.sh" "$tree" "$release" 'CONFIG_VFIO=m' >"$work/gen.log" 2>&1 ||
	fail "make_kernel_tree.sh for $release: $(cat "$work/gen.log")"

# --- the generated tree -------------------------------------------------
for f in include/linux/kernel.h include/linux/module.h include/linux/init.h \
	include/generated/utsrelease.h Module.symvers Makefile .config; do
	check "tree has $f" test -f "$tree/$f"
done
check "tree has executable scripts/sign-file" test -x "$tree/scripts/sign-file"
expect "utsrelease.h names the release" "#define UTS_RELEASE \"$release\"" \
	"$(cat "$tree/include/generated/utsrelease.h")"
expect "Module.symvers is empty" 0 "$(wc -c <"$tree/Module.symvers")"

nohash=$work/nohash
"$here/make_kernel_tree.sh" "$nohash" 5.15.0-91-generic 'CONFIG_MODULE_SIG_FORCE=y' \
	'CONFIG_MODULE_SIG_HASH=' '# CONFIG_MODULE_UNLOAD is not set' 'CONFIG_MODULES=m' \
	>"$work/gen.log" 2>&1 || fail "make_kernel_tree.sh with overrides: $(cat "$work/gen.log")"
sha512=$work/sha512
"$here/make_kernel_tree.sh" "$sha512" 6.8.0-1-lab 'CONFIG_MODULE_SIG_HASH="sha512"' >/dev/null 2>&1 ||
	fail "make_kernel_tree.sh with another hash"

# option, tree, expected lines of .config holding the option
while read -r option dir expected; do
	expect ".config of $(basename "$dir"): $option" "$expected" \
		"$(grep -E "^(# )?${option}[= ]" "$dir/.config" | tr '\n' '|')"
done <<TABLE
CONFIG_MODULE_SIG_HASH $tree CONFIG_MODULE_SIG_HASH="sha256"|
CONFIG_MODULE_SIG_FORCE $tree # CONFIG_MODULE_SIG_FORCE is not set|
CONFIG_VFIO $tree CONFIG_VFIO=m|
CONFIG_MODULE_SIG_HASH $nohash
CONFIG_MODULE_SIG_FORCE $nohash CONFIG_MODULE_SIG_FORCE=y|
CONFIG_MODULE_UNLOAD $nohash # CONFIG_MODULE_UNLOAD is not set|
CONFIG_MODULES $nohash CONFIG_MODULES=m|
CONFIG_MODULE_SIG_HASH $sha512 CONFIG_MODULE_SIG_HASH="sha512"|
TABLE

"$here/make_kernel_tree.sh" "$work/bad" 1.0 'MODULE_SIG=y' >/dev/null 2>&1
expect "a line that is no .config line is refused" 2 $?
"$here/make_kernel_tree.sh" "$work/bad" >/dev/null 2>&1
expect "a missing release is refused" 2 $?
make -C "$tree" modules >/dev/null 2>&1
expect "the tree refuses a build without M=" 2 $?

# --- the main module, as the installer builds it ----------------------
src=$work/pkg/kernel
mkdir -p "$work/pkg" && cp -R "$package/kernel" "$src"
find "$src" | sort >"$work/sources.list"

make -C "$src" KERNELDIR="$tree" >"$work/build.log" 2>&1 ||
	fail "make -C kernel KERNELDIR=tree: $(tail -n 5 "$work/build.log")"
ko=$src/vantoria.ko
check "vantoria.ko is left in the source directory" test -f "$ko"
# field, expected value
while IFS='|' read -r name expected; do
	expect "modinfo $name of vantoria.ko" "$expected" "$(field "$name" "$ko")"
done <<TABLE
version|3.2.1
name|vantoria
license|GPL
vermagic|$release SMP mod_unload 
alias|pci:v00001F5Dd00000002sv*sd*bc*sc*i*
vgpu|
TABLE
expect "srcversion follows version in modinfo, as with kbuild" "version:srcversion:" \
	"$(modinfo "$ko" | grep 'version:' | cut -d' ' -f1 | tr -d '\n')"
expect "vantoria.ko is an ELF relocatable object" "REL (Relocatable file)" \
	"$(readelf -h "$ko" 2>&1 | sed -n 's/^ *Type: *//p')"
check "vantoria.ko has a .modinfo section" grep -q ' \.modinfo ' <(readelf -S "$ko" 2>&1)

# Like kbuild, a second build with other variables rebuilds what they change.
make -C "$src" KERNELDIR="$tree" VGPU_ENABLE=1 >"$work/build.log" 2>&1 ||
	fail "make VGPU_ENABLE=1: $(tail -n 5 "$work/build.log")"
expect "VGPU_ENABLE=1 marks the module" 1 "$(field vgpu "$ko")"
make -C "$src" KERNELDIR="$tree" >"$work/build.log" 2>&1 || fail "make without VGPU_ENABLE"
expect "a build without VGPU_ENABLE drops the mark again" "" "$(field vgpu "$ko")"

make -C "$src" KERNELDIR="$tree" clean >/dev/null 2>&1 || fail "make clean"
expect "make clean leaves the sources only" "$(cat "$work/sources.list")" "$(find "$src" | sort)"

# --- the peer-memory module -------------------------------------------
peer=$src/vnt_peer_mem
make -C "$peer" KERNELDIR="$tree" >"$work/build.log" 2>&1 ||
	fail "make -C vnt_peer_mem: $(tail -n 5 "$work/build.log")"
expect "modinfo name of vnt_peer_mem_drv.ko" vnt_peer_mem_drv "$(field name "$peer/vnt_peer_mem_drv.ko")"
expect "modinfo version of vnt_peer_mem_drv.ko" 3.2.1 "$(field version "$peer/vnt_peer_mem_drv.ko")"

# --- the build as dkms runs it -----------------------------------------
make -C "$src" KERNELDIR="$tree" clean >/dev/null 2>&1
sed 's/QUORLPLACEHOLDER//' "$src/dkms.conf" >"$work/dkms.conf"
make_line=$(kernel_source_dir=$tree bash -c '. "$1"; echo "${MAKE[0]}"' _ "$work/dkms.conf")
(cd "$src" && eval "${make_line/#make/make -j2 KERNELRELEASE=$release}") >"$work/build.log" 2>&1 ||
	fail "dkms make line '$make_line': $(tail -n 5 "$work/build.log")"
for ko in vantoria.ko vnt_peer_mem/vnt_peer_mem_drv.ko; do
	check "dkms make line builds $ko" test -f "$src/$ko"
done
expect "dkms.conf holds the marker once" 1 "$(grep -c QUORLPLACEHOLDER "$package/kernel/dkms.conf")"

# --- signing ---------------------------------------------------------------
openssl req -new -x509 -newkey rsa:2048 -days 7300 -nodes -subj "/CN=check signing key/" \
	-keyout "$work/key.pem" -outform DER -out "$work/pub.der" >/dev/null 2>&1 ||
	fail "openssl req made no key pair"
openssl req -new -x509 -newkey rsa:2048 -nodes -subj "/CN=other key/" \
	-keyout "$work/other.pem" -outform DER -out "$work/other.der" >/dev/null 2>&1
ko=$src/vantoria.ko
cp "$ko" "$work/unsigned.ko"
"$tree/scripts/sign-file" '"sha256"' "$work/key.pem" "$work/pub.der" "$ko" >"$work/sign.log" 2>&1 ||
	fail "sign-file with a quoted hash: $(cat "$work/sign.log")"
while IFS='|' read -r name expected; do
	expect "signed module: modinfo $name" "$expected" "$(field "$name" "$ko")"
done <<TABLE
sig_id|PKCS#7
signer|check signing key
sig_hashalgo|sha256
version|3.2.1
TABLE
expect "signature trailer ends the file" "~Module signature appended~" "$(tail -c 28 "$ko")"
peer_ko=$peer/vnt_peer_mem_drv.ko
"$tree/scripts/sign-file" sha512 "$work/key.pem" "$work/pub.der" "$peer_ko" >/dev/null 2>&1 ||
	fail "sign-file with sha512"
expect "sign-file sha512: modinfo sig_hashalgo" sha512 "$(field sig_hashalgo "$peer_ko")"

# case, arguments, expected status (non-zero written as 1)
cp "$work/unsigned.ko" "$work/victim.ko"
while IFS='|' read -r name args; do
	eval "set -- $args"
	"$tree/scripts/sign-file" "$@" >/dev/null 2>"$work/err"
	status=$?
	check "sign-file fails with a message: $name (status $status)" \
		test $status -ne 0 -a -s "$work/err"
done <<TABLE
missing module|sha256 "$work/key.pem" "$work/pub.der" "$work/missing.ko"
key of another certificate|sha256 "$work/other.pem" "$work/pub.der" "$work/victim.ko"
certificate given as key|sha256 "$work/pub.der" "$work/pub.der" "$work/victim.ko"
missing key|sha256 "$work/none.pem" "$work/pub.der" "$work/victim.ko"
unknown hash|nohash "$work/key.pem" "$work/pub.der" "$work/victim.ko"
too few arguments|sha256 "$work/key.pem" "$work/pub.der"
TABLE
check "a failed signing leaves the module as it was" cmp -s "$work/unsigned.ko" "$work/victim.ko"

# --- kernel_test.sh, called the way the installer calls it -------------
# tree, test words, expected status, expected output
script="$src//vnt/kernel_test.sh"
while IFS='|' read -r dir words status output; do
	actual_output=$(eval "sh \"$script\" \"gcc\" \"x86_64\" \"$dir\" \"$dir\"  $words 2>&1")
	actual_status=$?
	[ "$actual_status" -ne 0 ] && [ "$status" = 1 ] && actual_status=1
	expect "kernel_test.sh $words on '$(basename "$dir")'" "$status|$output" "$actual_status|$actual_output"
done <<TABLE
$tree|test_configuration_option CONFIG_MODULES|0|
$tree|test_configuration_option CONFIG_VFIO|0|
$tree|test_configuration_option CONFIG_MODULE_SIG_FORCE|1|
$tree|test_configuration_option CONFIG_NOT_IN_CONFIG|1|
$tree|test_configuration_option CONFIG_MODULE_SIG|0|
$nohash|test_configuration_option CONFIG_MODULE_SIG_FORCE|0|
$nohash|test_configuration_option CONFIG_MODULE_UNLOAD|1|
$tree|guess_module_signing_hash|0|sha256
$sha512|guess_module_signing_hash|0|sha512
$nohash|guess_module_signing_hash|1|
TABLE
sh "$script" "gcc" "x86_64" "" ""  guess_module_signing_hash >/dev/null 2>&1
check "kernel_test.sh without a tree fails" test $? -ne 0
sh "$script" "gcc" "x86_64" "$tree" "$tree"  no_such_test >/dev/null 2>&1
check "kernel_test.sh refuses an unknown test" test $? -ne 0

# --- the real kbuild ---------------------------------------------------------
headers=
for d in /usr/src/linux-headers-*-amd64; do
	[ -f "$d/Makefile" ] && headers=$d && break
done
if [ -z "$headers" ]; then
	echo "skip - real kbuild build: no Debian kernel headers installed"
else
	real=$work/real
	cp -R "$package/kernel" "$real"
	if make -C "$real" KERNELDIR="$headers" VGPU_ENABLE=1 all peer_mem >"$work/real.log" 2>&1; then
		expect "real kbuild ($(basename "$headers")): vantoria.ko version" 3.2.1 "$(field version "$real/vantoria.ko")"
		expect "real kbuild: vGPU mark" 1 "$(field vgpu "$real/vantoria.ko")"
		expect "real kbuild: vnt_peer_mem_drv.ko name" vnt_peer_mem_drv \
			"$(field name "$real/vnt_peer_mem/vnt_peer_mem_drv.ko")"
		expect "real kbuild builds without warnings" "" "$(grep -i warning "$work/real.log" | head -n 3)"
	else
		fail "real kbuild build against $headers: $(tail -n 5 "$work/real.log")"
	fi
fi

if [ $failures -ne 0 ]; then
	echo "$failures check(s) failed"
	exit 1
fi
echo "all checks passed"
