#!/usr/bin/env bash
# Installs the Debian packages appsrv needs, only those that are missing, and
# without the packages they merely recommend.
# Usage: tools/install-deps.sh [--test]
#   (none)   what building the daemon, the runtime and the client needs
#   --test   also what the tests, the benchmarks and the fuzz target need
set -euo pipefail

packages=(cmake ninja-build g++ nlohmann-json3-dev)
if [[ "${1:-}" == "--test" ]]; then
  packages+=(libgtest-dev libbenchmark-dev clang libclang-rt-14-dev)
  # A real sshd and ssh for the client's SSH transport, a real Prometheus
  # parser for its metrics.
  packages+=(openssh-server openssh-client python3-prometheus-client)
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
((${#missing[@]})) || exit 0

run_as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "install-deps: please install as root: apt-get install -y --no-install-recommends ${missing[*]}" >&2
    exit 1
  fi
  run_as_root=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
echo "install-deps: installing ${missing[*]}"
"${run_as_root[@]}" apt-get update -q
"${run_as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
