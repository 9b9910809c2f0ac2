#!/usr/bin/env bash
# Runs device-service on a simulated plant, with no hardware and no gateway:
# a private session bus, a stand-in for the gateway's system service, the
# simulated PLCs and the daemon; configures a device of every model over the
# bus and shows the published values live until Ctrl-C, then stops every
# process and removes every link it made. Beside the daemon it runs a
# private MQTT broker (mosquitto, on loopback) and device-service-bridge, and
# prints every Sparkplug B message that reaches the broker, decoded.
#
#   scripts/demo.sh [--seconds N]     (N: stop by itself after N seconds)
#
# As root it runs the daemon itself, with its real pid file
# (/var/run/device-service.pid) and serial ports (/dev/ttymxc1, /dev/ttymxc2
# become links to the simulated lines; it refuses if real ports are there).
# As an ordinary user it runs the same daemon code with those paths moved
# into a scratch directory.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=0
if [ "${1:-}" = "--seconds" ]; then seconds=${2:?}; fi

build=${DS_DEMO_BUILD:-$root/build/demo}
if [ -z "${DS_DEMO_NO_BUILD:-}" ]; then
  bash scripts/setup.sh
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" -j "${JOBS:-2}" --target device-service device-service-test \
    device-service-standin device-service-plant device-service-ctl device-service-bridge >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/device-service-demo.XXXXXX")
pids=()
cleanup() {
  trap - EXIT INT TERM
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[$i]}" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  [ -n "${DS_DEMO_KEEP:-}" ] && cp "$work/daemon.log" "$DS_DEMO_KEEP" 2>/dev/null
  rm -rf "$work"
  echo "demo stopped; nothing left running"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

if [ "$(id -u)" -eq 0 ]; then
  tty1=/dev/ttymxc1; tty2=/dev/ttymxc2
  for t in $tty1 $tty2; do
    if [ -e "$t" ] && [ ! -L "$t" ]; then
      echo "demo: $t is a real serial port here; not replacing it" >&2; exit 1
    fi
  done
  daemon=("$build/src/device-service")
else
  tty1=$work/ttymxc1; tty2=$work/ttymxc2
  daemon=("$build/tests/device-service-test" --pid-file "$work/device-service.pid"
          --tty1 "$tty1" --tty2 "$tty2")
fi

# A private session bus, in the foreground as our child.
dbus-daemon --session --nofork --nopidfile --print-address=3 3>"$work/bus" >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/bus" ] && break; sleep 0.05; done
DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$work/bus")
export DBUS_SESSION_BUS_ADDRESS

"$build/sim/device-service-plant" --tty1 "$tty1" --tty2 "$tty2" &
pids+=($!)
"$build/sim/device-service-standin" --interval 1 >/dev/null &
pids+=($!)
(cd "$work" && exec "${daemon[@]}" >"$work/daemon.log" 2>&1) &
pids+=($!)

svc=(--session --dest com.fernwick.DeviceService --object-path /com/fernwick/DeviceService)
# A busy machine (a build, tests in parallel) can take many seconds.
for _ in $(seq 1200); do
  gdbus introspect "${svc[@]}" >/dev/null 2>&1 && break
  sleep 0.05
done

# A private MQTT broker on the first free loopback port from 18830.
mqtt_port=
for port in $(seq 18830 18899); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && continue   # taken
  printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$port" >"$work/mosquitto.conf"
  mosquitto -c "$work/mosquitto.conf" >"$work/mosquitto.log" 2>&1 &
  broker=$!
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && { mqtt_port=$port; break; }
    kill -0 "$broker" 2>/dev/null || break
    sleep 0.05
  done
  if [ -n "$mqtt_port" ]; then pids+=("$broker"); break; fi
  kill "$broker" 2>/dev/null || true; wait "$broker" 2>/dev/null || true
done
[ -n "$mqtt_port" ] || { echo "demo: no MQTT broker could be started:" >&2; cat "$work/mosquitto.log" >&2; exit 1; }

bridge=("$build/bridge/device-service-bridge" --broker "127.0.0.1:$mqtt_port")
# The watcher subscribes as soon as it is connected: once it says so, the
# bridge's first birth cannot reach the broker before the subscription.
"${bridge[@]}" --watch 2>"$work/watch.log" &
pids+=($!)
for _ in $(seq 400); do grep -q "connected to" "$work/watch.log" 2>/dev/null && break; sleep 0.05; done
"${bridge[@]}" --edge-node demo-gateway --state-dir "$work/bridge" >"$work/bridge.log" 2>&1 &
pids+=($!)

ctl=("$build/tools/device-service-ctl")
"${ctl[@]}" apply "$root/examples/plant.json"

echo "device-service is reading the simulated plant; one table per reading cycle, and the"
echo "Sparkplug B messages device-service-bridge publishes to mosquitto on 127.0.0.1:$mqtt_port (Ctrl-C stops):"
"${ctl[@]}" monitor &
pids+=($!)
if [ "$seconds" -gt 0 ]; then
  sleep "$seconds"
else
  wait "${pids[-1]}"
fi
