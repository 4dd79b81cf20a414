#!/bin/bash
# Installs the Debian packages the build, the simulated host, the
# real-kernel tier and the fuzz targets need, when any of them is missing.
set -euo pipefail
packages=(
  cmake g++ make pkg-config libcli11-dev libgtest-dev nlohmann-json3-dev
  kmod dkms openssl libcap2-bin binutils util-linux procps file
  qemu-system-x86 linux-image-amd64 linux-headers-amd64 busybox-static xz-utils
  clang-14 libfuzzer-14-dev libclang-rt-14-dev
  libssl-dev makeself libseccomp-dev libcap-dev
  ansible-core python3-voluptuous python3-yaml python3-pycodestyle yamllint pylint
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${packages[@]}"
fi
