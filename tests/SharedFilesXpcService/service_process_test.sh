#!/usr/bin/env bash
# The service program as the desktop application and an operator meet it.
set -u
service=$1
work=$(mktemp -d)
bus_pid=""
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }
export XDG_CONFIG_HOME=$work/config

# On AppKit 1138 the legacy runner serves a socket in the runtime folder, with no
# bus at all; SIGTERM ends it cleanly and takes the socket away.
mkdir -m 700 "$work/run"
socket=$work/run/Quentara.SharedFilesXpcService.xpc
for version in 1138 1138.5; do
  env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR="$work/run" TALLOWBOX_APPKIT_VERSION=$version \
    "$service" --log-stderr 2>"$work/err" &
  service_pid=$!
  for _ in $(seq 100); do [ -S "$socket" ] && break; sleep 0.05; done
  [ -S "$socket" ] || fail "no socket on $version: $(cat "$work/err")"
  [ "$(stat -c %a "$socket")" = 600 ] || fail "socket mode $(stat -c %a "$socket") on $version"
  # A second service finds the socket served: it says so and exits 1, leaving the socket be.
  env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR="$work/run" TALLOWBOX_APPKIT_VERSION=$version \
    "$service" --log-stderr 2>"$work/second"
  status=$?
  [ "$status" -eq 1 ] || fail "a second service exited $status on $version"
  why="SharedFilesXpcService stopped: refused to listen at $socket: another process serves it"
  [ "$(head -n1 "$work/second")" = "$why" ] ||
    fail "a second service gave no reason on $version: $(cat "$work/second")"
  [ -S "$socket" ] || fail "a second service took the socket away on $version"
  kill -TERM "$service_pid"; wait "$service_pid"; status=$?; service_pid=""
  [ "$status" -eq 0 ] || fail "exit $status after SIGTERM on $version: $(cat "$work/err")"
  [ -e "$socket" ] && fail "socket left behind on $version"
done

# Without a bus the service says why and exits non-zero.
DBUS_SESSION_BUS_ADDRESS=unix:path=$work/nobus "$service" --log-stderr 2>"$work/err" &&
  fail "exit 0 without a bus"
grep -q "^SharedFilesXpcService stopped: Cannot serve on the session bus" "$work/err" ||
  fail "no reason without a bus: $(cat "$work/err")"

# Any other version serves on the session bus.
dbus-daemon --session --nofork --print-address=3 3>"$work/address" 2>/dev/null &
bus_pid=$!
for _ in $(seq 100); do [ -s "$work/address" ] && break; sleep 0.05; done
export DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$work/address")
XDG_RUNTIME_DIR="$work/run" TALLOWBOX_APPKIT_VERSION=1139 "$service" --log-stderr 2>"$work/err" &
service_pid=$!
call() {
  dbus-send --session --print-reply --dest=Quentara.SharedFilesXpcService --type=method_call \
    /Quentara/SharedFilesXpcService Quentara.SharedFilesXpcServiceProtocol.SharedFile "$@"
}
for _ in $(seq 100); do call >/dev/null 2>&1 && break; sleep 0.05; done
call >/dev/null || fail "SharedFile was not answered"
[ -z "$(ls -A "$work/run")" ] || fail "a socket was made beside the bus: $(ls -A "$work/run")"
call string:extra 2>"$work/call-err" && fail "a call with arguments was answered"
grep -q "InvalidArgs" "$work/call-err" || fail "wrong error: $(cat "$work/call-err")"
call >/dev/null || fail "the service did not carry on after a bad call"

# When the bus goes away the service ends, saying why.
kill "$bus_pid"; wait "$bus_pid" 2>/dev/null; bus_pid=""
for _ in $(seq 100); do kill -0 "$service_pid" 2>/dev/null || break; sleep 0.05; done
kill -0 "$service_pid" 2>/dev/null && fail "service outlived its bus"
wait "$service_pid"; status=$?; service_pid=""
[ "$status" -ne 0 ] || fail "exit 0 after losing the bus"
grep -q "^SharedFilesXpcService stopped: Lost the session bus" "$work/err" ||
  fail "no reason after losing the bus: $(cat "$work/err")"
echo "service process: all checks passed"
