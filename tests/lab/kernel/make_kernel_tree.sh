#!/bin/bash
# make_kernel_tree.sh DEST RELEASE [CONFIG_LINE...]
#
# Writes a fake kernel build tree for RELEASE into DEST: the headers that the
# installer and the sample modules look for, include/generated/utsrelease.h,
# a .config, an empty Module.symvers, a Makefile that builds external modules
# (make -C DEST M=DIR modules|clean) and scripts/sign-file.
#
# Each CONFIG_LINE replaces the default of the same option:
#   CONFIG_MODULE_SIG_FORCE=y          set an option
#   "# CONFIG_MODULE_SIG is not set"   unset it, as the kernel writes it
#   CONFIG_MODULE_SIG_HASH=            leave the option out of .config entirely
set -eu

usage() {
	echo "usage: make_kernel_tree.sh DEST RELEASE [CONFIG_LINE...]" >&2
	exit 2
}
[ $# -ge 2 ] || usage
dest=$1
release=$2
shift 2
[ -n "$dest" ] && [ -n "$release" ] || usage
case $release in
*[[:space:]\"\\]*) echo "make_kernel_tree.sh: unusable release '$release'" >&2; exit 2 ;;
esac

template=$(cd "$(dirname "$0")" && pwd)/template

defaults=(
	'CONFIG_64BIT=y'
	'CONFIG_X86_64=y'
	'CONFIG_SMP=y'
	'CONFIG_PCI=y'
	'CONFIG_MODULES=y'
	'CONFIG_MODULE_UNLOAD=y'
	'CONFIG_MODULE_SIG=y'
	'# CONFIG_MODULE_SIG_FORCE is not set'
	'CONFIG_MODULE_SIG_ALL=y'
	'CONFIG_MODULE_SIG_SHA256=y'
	'CONFIG_MODULE_SIG_HASH="sha256"'
	'CONFIG_SYSTEM_TRUSTED_KEYRING=y'
)

# The option a .config line speaks of, set or "is not set".
option_of() {
	case $1 in
	CONFIG_*=*) printf '%s\n' "${1%%=*}" ;;
	'# CONFIG_'*' is not set') local o=${1#\# }; printf '%s\n' "${o%% is not set}" ;;
	*) return 1 ;;
	esac
}

config=("${defaults[@]}")
for line in "$@"; do
	option=$(option_of "$line") || {
		echo "make_kernel_tree.sh: not a .config line: '$line'" >&2
		exit 2
	}
	kept=()
	for old in "${config[@]}"; do
		[ "$(option_of "$old")" = "$option" ] || kept+=("$old")
	done
	[ "$line" = "$option=" ] || kept+=("$line")
	config=("${kept[@]}")
done

mkdir -p "$dest"
cp -R "$template/." "$dest/"
chmod 0755 "$dest/scripts/sign-file"
mkdir -p "$dest/include/generated" "$dest/include/config"
printf '#define UTS_RELEASE "%s"\n' "$release" > "$dest/include/generated/utsrelease.h"
printf '%s\n' "$release" > "$dest/include/config/kernel.release"
{
	echo '#'
	echo "# Linux/x86 $release Kernel Configuration (fake tree for tests)"
	echo '#'
	printf '%s\n' "${config[@]}"
} > "$dest/.config"
: > "$dest/Module.symvers"
