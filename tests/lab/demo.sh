#!/bin/bash
# demo.sh BUILD_DIR
#
# The whole life of the sample driver package in a simulated host: first
# quorl-driver-preview tells what the installation would change, then the
# installer runs for real, quorl-driver-status reports the installation
# intact, the installed quorl-driver-uninstaller removes it, and the status
# report tells that nothing is installed any more.  The host is the default
# one (this machine's release with a kernel tree for it, one card with good
# firmware, the driver package as the build assembled it).  It stays on disk
# afterwards, under BUILD_DIR/lab-hosts/demo, for a closer look.
#
# Builds nothing itself: build the project first (cmake --build BUILD_DIR).
# Needs root, as every run of the lab does; this machine is left untouched.
set -eu
build=${1:?usage: demo.sh BUILD_DIR}
lab_run=$build/tests/lab/lab-run
if [[ ! -x $lab_run ]]; then
    echo "demo.sh: $lab_run is not built; run cmake --build $build first" >&2
    exit 2
fi
exec "$lab_run" --name demo --preview --life
