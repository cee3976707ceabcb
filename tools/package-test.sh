#!/usr/bin/env bash
# Makes the Debian package, has lintian review it, installs it with dpkg,
# runs the installed daemon in a scratch working directory for an upload and
# a list with the installed client, and purges the package again. Prints one
# "ok - ..." or "not ok - ..." line per check (or "skip - ..." when it cannot
# run here); the exit status is 0 when nothing failed.
# Installing needs root, or sudo without a password.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

failures=0
check() {  # check DESCRIPTION COMMAND...
  local description=$1
  shift
  if "$@"; then
    echo "ok - $description"
  else
    echo "not ok - $description"
    failures=$((failures + 1))
  fi
}

build() { cmake --preset package >/dev/null && cmake --build --preset package; }
check "the package is built" build
deb=$(ls build/package/appsrv_*_*.deb 2>/dev/null | head -n 1)
[[ -n "$deb" ]] || exit 1
echo "package: $deb"

# lintian says it should not run as root; its findings are the same.
check "lintian reports no errors" lintian --fail-on error "$deb"

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  if ! sudo -n true 2>/dev/null; then
    echo "skip - installing, running and purging the package: needs root or sudo without a password"
    exit $((failures != 0))
  fi
  as_root=(sudo -n)
fi

check "dpkg -i installs it" "${as_root[@]}" dpkg -i "$deb"

# The installed programs, in a working directory of their own.
work=$(mktemp -d)
daemon=-1
cleanup() {
  ((daemon > 0)) && kill -KILL "$daemon" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

start_daemon() {
  mkdir -p "$work/runenv/image" "$work/data"
  ln -sf /usr/libexec/appsrv/application-server-bootstrap "$work/runenv/image/application-server-bootstrap"
  for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 40000))
    (cd "$work" && exec /usr/bin/appsrv 127.0.0.1 "$port" >"$work/appsrv.log" 2>&1) &
    daemon=$!
    for _ in $(seq 50); do
      /usr/bin/appsrvctl --address "127.0.0.1:$port" --timeout 1 list >/dev/null 2>&1 && return 0
      kill -0 "$daemon" 2>/dev/null || break  # the port was taken: try another
      sleep 0.1
    done
  done
  return 1
}

upload_and_list() {
  local ctl=(/usr/bin/appsrvctl --address "127.0.0.1:$port")
  "${ctl[@]}" upload hello "$root/examples/hello.sh" && [[ $("${ctl[@]}" list) == hello ]]
}

stop_daemon() {
  kill -INT "$daemon"
  for _ in $(seq 100); do
    kill -0 "$daemon" 2>/dev/null || { wait "$daemon"; daemon=-1; return 0; }
    sleep 0.1
  done
  return 1
}

check "the installed daemon starts in a scratch working directory" start_daemon
check "the installed client uploads a stack and lists it" upload_and_list
check "the installed daemon stops on SIGINT" stop_daemon
[[ -s "$work/appsrv.log" ]] && sed 's/^/  appsrv: /' "$work/appsrv.log"

purged() { "${as_root[@]}" dpkg --purge appsrv && ! [[ -e /usr/bin/appsrv || -e /lib/systemd/system/appsrv.service ]]; }
check "dpkg --purge removes it" purged

exit $((failures != 0))
