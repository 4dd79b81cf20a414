#!/bin/bash
# make-run.sh MAKESELF HEADER PACKAGE STARTUP VERSION OUT
#
# Makes OUT, the self-extracting driver package: makeself's archive of the
# assembled PACKAGE with the startup script STARTUP at its root, which makeself
# runs in the unpacked directory. The archive carries a SHA256 checksum beside
# makeself's MD5 (and CRC), and checks both before it unpacks anything.
#
# HEADER is makeself's own header (Debian's /usr/share/makeself/makeself-header.sh).
# It refuses every option it does not know with "Unrecognized flag", so that
# `sh OUT --preview` or `sh OUT --disable-dkms` would end before our startup
# script saw them. OUT's header is HEADER changed in that one case: such an
# option, and all after it, go to the startup script, as a word that is no
# option already does.
set -euo pipefail
makeself=$1 header=$2 package=$3 startup=$4 version=$5 out=$6

[[ -f $package/.manifest && -x $package/quorl-driver-installer ]] ||
    { echo "make-run.sh: $package is no assembled driver package" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work" "$out.new"' EXIT

# The three lines of the unknown-flag case become one `break`. A header whose
# case reads otherwise is not one we know how to change: the build stops
# rather than ship an archive that rejects the installer's options.
sed '/^\techo Unrecognized flag : "\\\$1" >&2$/{N;N;s/^\techo Unrecognized flag : "\\\$1" >&2\n\tMS_Help\n\texit 1$/\tbreak/}' \
    "$header" > "$work/header.sh"
if grep -q 'Unrecognized flag' "$work/header.sh" ||
   (( $(wc -l < "$work/header.sh") != $(wc -l < "$header") - 2 )); then
    echo "make-run.sh: $header has no unknown-flag case of three lines (echo Unrecognized flag, MS_Help, exit 1) to change; no $out is made" >&2
    exit 1
fi

# The directory's name is where `sh OUT --keep` unpacks to.
stage=$work/quorl-driver-$version
cp -a "$package" "$stage"
install -m 0755 "$startup" "$stage/run-package.sh"

# tar, unpacking as root, gives each file the owner the archive names. The
# archive names root, whoever built it, so that no file of the package belongs
# to the builder's uid on a host.
"$makeself" --quiet --header "$work/header.sh" --sha256 --nox11 \
    --tar-extra "--owner=0 --group=0 --numeric-owner" \
    "$stage" "$out.new" "Quorl Driver for Linux-x86_64 $version" ./run-package.sh
mv "$out.new" "$out"
