#!/bin/bash
# assemble.sh PAYLOAD OUT INSTALLER PREVIEW UNINSTALLER STATUS
#
# Makes OUT the driver package: a copy of PAYLOAD with the installer and the
# preview at its root and the uninstaller and the status report in quorl/bin.
# OUT is made anew each time, so that nothing of an earlier payload lingers.
set -euo pipefail
payload=$1 out=$2
[[ -f $payload/.manifest && -d $payload/kernel ]] || { echo "assemble.sh: $payload is no driver payload (no .manifest or kernel/)" >&2; exit 1; }
rm -rf "$out.new"
cp -a "$payload" "$out.new"
install -m 0755 "$3" "$out.new/quorl-driver-installer"
install -m 0755 "$4" "$out.new/quorl-driver-preview"
install -D -m 0755 "$5" "$out.new/quorl/bin/quorl-driver-uninstaller"
install -D -m 0755 "$6" "$out.new/quorl/bin/quorl-driver-status"
rm -rf "$out"
mv "$out.new" "$out"
