#!/usr/bin/env bash
# Builds the daemon, the reference stack runtime and the client (the release
# preset: no tests, no benchmarks), prepares the working directory ./var
# (runenv with the runtime as every stack's bootstrap program, stacks, data)
# and runs the daemon there on 127.0.0.1 port 7340, in the foreground.
# Ctrl-C asks the stacks to shut down; a second Ctrl-C kills them.
# Usage: tools/run-daemon.sh [HOST PORT]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build/release

tools/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target appsrv appsrvctl appsrv_runtime

mkdir -p var/runenv/image var/stacks var/data
install -m 0755 "$build/runenv/application-server-bootstrap" var/runenv/image/application-server-bootstrap
echo "appsrv: working directory $root/var"
echo "appsrv: client $build/client/appsrvctl"
echo "appsrv: for appsrvctl status, logs and metrics: export APPSRV_WORKDIR=$root/var"
cd var
exec "$build/appsrv/appsrv" "${1:-127.0.0.1}" "${2:-7340}"
