#!/usr/bin/env bash
# Installs into a staging prefix and lets a private session bus start the service
# on demand through the installed activation file.
set -u
build=$1
work=$(mktemp -d)
bus_pid=""
cleanup() {
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null
  pkill -f "^$work/stage/bin/SharedFilesXpcService" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; exit 1; }

cmake --install "$build" --prefix "$work/stage" >/dev/null || fail "install failed"
activation=$work/stage/share/dbus-1/services/Quentara.SharedFilesXpcService.service
unit=$work/stage/lib/systemd/user/SharedFilesXpcService.service
[ -x "$work/stage/bin/SharedFilesXpcService" ] || fail "service not installed"
grep -qx "Name=Quentara.SharedFilesXpcService" "$activation" || fail "activation file: no name"
grep -qx "Exec=$work/stage/bin/SharedFilesXpcService" "$activation" || fail "activation file: $(cat "$activation")"
grep -qx "BusName=Quentara.SharedFilesXpcService" "$unit" || fail "unit: no bus name"
grep -qx "ExecStart=$work/stage/bin/SharedFilesXpcService" "$unit" || fail "unit: $(cat "$unit")"

cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=$work</listen>
  <servicedir>$work/stage/share/dbus-1/services</servicedir>
  <policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>
CONF
export XDG_CONFIG_HOME=$work/config
dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/address" 2>/dev/null &
bus_pid=$!
for _ in $(seq 100); do [ -s "$work/address" ] && break; sleep 0.05; done
export DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$work/address")

pgrep -f "^$work/stage/bin/SharedFilesXpcService" >/dev/null && fail "service running before the call"
dbus-send --session --print-reply --dest=Quentara.SharedFilesXpcService --type=method_call \
  /Quentara/SharedFilesXpcService Quentara.SharedFilesXpcServiceProtocol.SharedFile >/dev/null ||
  fail "SharedFile through activation failed"
pgrep -f "^$work/stage/bin/SharedFilesXpcService" >/dev/null || fail "the bus did not start the service"

gdbus introspect --session --dest Quentara.SharedFilesXpcService \
  --object-path /Quentara/SharedFilesXpcService >"$work/introspection" || fail "introspection failed"
awk '/interface Quentara.SharedFilesXpcServiceProtocol/,/};/' "$work/introspection" >"$work/ours"
grep -q "SharedFile();" "$work/ours" || fail "no SharedFile method: $(cat "$work/introspection")"
[ "$(grep -c ');' "$work/ours")" -eq 1 ] || fail "more than one method: $(cat "$work/ours")"
echo "install and activation: all checks passed"
