#!/bin/bash
# demo.sh BUILD_DIR
#
# Installs the sample driver package in a simulated host and shows what the
# installer did: its exit status, its console output, the install record it
# wrote and every path it created, changed or deleted.  The host is the
# default one (the lab's running kernel with a kernel tree for it, one card
# with good firmware, the sample package with the installer in it).  It stays
# on disk afterwards, under BUILD_DIR/lab-hosts/demo, for a closer look.
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
exec "$lab_run" --name demo --report --install
