#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the fixture tools
# need, when any is missing. Safe to run again: it does nothing when all are
# present.
set -euo pipefail

# clang and libclang-rt-dev (libFuzzer's runtime) build the fuzz targets;
# libfuse3-dev, pkg-config and fuse3 (fusermount3) the mount command.
packages=(cmake g++ pkg-config libgtest-dev libbenchmark-dev zstd ntfs-3g sleuthkit attr clang libclang-rt-dev
          libfuse3-dev fuse3)
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
echo "== installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
