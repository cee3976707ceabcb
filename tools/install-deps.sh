#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: tools/install-deps.sh [--fuzz]   (--fuzz adds clang for the fuzz target)
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev libbenchmark-dev libarchive-dev libtomlplusplus-dev nlohmann-json3-dev)
[[ "${1:-}" == "--fuzz" ]] && packages+=(clang libclang-rt-14-dev)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
((${#missing[@]})) || exit 0

run_as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "install-deps: please install as root: apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  run_as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${run_as_root[@]}" apt-get update
"${run_as_root[@]}" apt-get install -y "${missing[@]}"
