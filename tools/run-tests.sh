#!/bin/bash
# Installs what is missing, builds, and runs every test: unit tests, the
# scenarios in the simulated host, and the real-kernel tier.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/packages.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j2
cd build
ctest -j2 --output-on-failure --timeout 900
