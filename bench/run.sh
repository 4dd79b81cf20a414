#!/bin/bash
# bench/run.sh [BUILD_DIR] [bench-runner options]
#
# Builds what the benchmark needs in BUILD_DIR (default: build), then measures
# the installer in simulated hosts and prints the table. Needs root, as every
# run of the simulated host does; the installer never runs on this machine
# itself. Options go to bench-runner: --runs N, --help-runs N, --only PART,
# --on-disk, --keep (see bench/README.md).
set -euo pipefail
cd "$(dirname "$0")/.."
build=build
if [[ $# -gt 0 && $1 != -* ]]; then
    build=$1
    shift
fi
if [[ $EUID -ne 0 ]]; then
    echo "bench/run.sh: the simulated host needs root" >&2
    exit 1
fi
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j2 --target bench-runner >/dev/null
exec "$build/bench/bench-runner" "$@"
