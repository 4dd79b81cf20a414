#!/bin/bash
# Installs what is missing, builds, and installs the sample driver package in
# a simulated host: prints the installer's console, its exit status, the
# install record and every path the run created, changed or deleted.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/packages.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2
exec bash tests/lab/demo.sh build
