#!/bin/bash
# Installs what is missing, builds, and shows the whole life of the sample
# driver package in a simulated host: the preview, the installation and its
# record, the status report, the uninstallation, and the status report again.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/packages.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2
exec bash tests/lab/demo.sh build
