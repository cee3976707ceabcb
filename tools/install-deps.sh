#!/usr/bin/env bash
# Installs the Debian packages appsrv needs, only those that are missing, and
# without the packages they merely recommend.
# Usage: tools/install-deps.sh [--package | --test]
#   (none)     what building the daemon, the runtime and the client needs
#   --package  also what making the Debian package needs
#   --test     also what the tests, the benchmarks and the fuzz target need,
#              the package's included (the tests make and install it)
set -euo pipefail

packages=(cmake ninja-build g++ libarchive-dev libtomlplusplus-dev nlohmann-json3-dev)
package_packages=(scdoc dpkg-dev lintian)
# Beyond the build: a real sshd and ssh for the client's SSH transport, and a
# real Prometheus parser for its metrics.
test_packages=(libgtest-dev libbenchmark-dev clang libclang-rt-14-dev openssh-server openssh-client
               python3-prometheus-client)
case "${1:-}" in
  "") ;;
  --package) packages+=("${package_packages[@]}") ;;
  --test) packages+=("${package_packages[@]}" "${test_packages[@]}") ;;
  *) echo "usage: tools/install-deps.sh [--package | --test]" >&2; exit 2 ;;
esac

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
