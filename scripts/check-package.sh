#!/usr/bin/env bash
# Builds the Debian package from a built tree and checks it: the files it
# carries and, as root, that it installs on this machine, that the installed
# daemon finds every library, that its user unit verifies, and that it
# removes cleanly.
#   scripts/check-package.sh BUILD_DIR
set -euo pipefail
build=$(cd "${1:?build directory}" && pwd)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
deb=$(ls "$out"/device-service_*.deb)
# Regular files only: a file added to or dropped from the package on purpose
# belongs in this list.
contents=$(dpkg -c "$deb" | awk '/^-/ {print $6}' | sort)
expected=$(sort <<'LIST'
./usr/bin/device-service
./usr/bin/device-service-ctl
./usr/bin/device-service-bridge
./usr/lib/systemd/user/device-service-bridge.service
./usr/share/device-service/bridge.conf
./usr/lib/device-service/libsnap7.so
./usr/lib/systemd/user/device-service.service
./usr/share/dbus-1/interfaces/com.fernwick.DeviceService.xml
./usr/share/dbus-1/interfaces/com.fernwick.SystemService.xml
./usr/share/dbus-1/interfaces/com.fernwick.ZorvService.xml
./usr/share/dbus-1/interfaces/com.fernwick.VelmoriaService.xml
./usr/share/doc/device-service/README.md
./usr/share/doc/device-service/plant.json
./usr/share/doc/device-service/snap7-LICENSE.txt
LIST
)
if [ "$contents" != "$expected" ]; then
  echo "package: $(basename "$deb") holds other files than expected:" >&2
  diff <(echo "$expected") <(echo "$contents") >&2 || true
  exit 1
fi
depends=$(dpkg-deb -f "$deb" Depends)
want="libglib2.0-0, libsqlite3-0, libprotobuf-c1, libmodbus5, libjson-glib-1.0-0, libmosquitto1, libstdc++6, libgcc-s1, libc6"
[ "$depends" = "$want" ] || { echo "package: Depends: $depends, expected $want" >&2; exit 1; }
# Unpacked anywhere, the daemon finds the package's own Snap7.
dpkg-deb -x "$deb" "$out/root"
libs=$(ldd "$out/root/usr/bin/device-service" 2>&1)
grep -qF "libsnap7.so => $out/root/usr/bin/../lib/device-service/libsnap7.so" <<<"$libs" ||
  { echo "package: the daemon does not find its own Snap7: $libs" >&2; exit 1; }
if [ "$(id -u)" -ne 0 ]; then
  echo "package: $(basename "$deb") lists its files (the install check needs root)"
  exit 0
fi
if dpkg -s device-service >/dev/null 2>&1; then
  echo "package: device-service is already installed here; not touching it" >&2; exit 1
fi
dpkg -i "$deb" >/dev/null
problems=""
# Outputs are taken whole before they are searched: with pipefail, a grep -q
# that stops at the first match would fail the pipeline when the writer is
# still writing (SIGPIPE).
usage=$(/usr/bin/device-service-ctl --help 2>&1) || problems+=" client exits $?;"
grep -q '^usage: device-service-ctl' <<<"$usage" || problems+=" client;"
bhelp=$(/usr/bin/device-service-bridge --help 2>&1) || problems+=" bridge exits $?;"
grep -q 'device-service-bridge' <<<"$bhelp" || problems+=" bridge;"
libs=$(ldd /usr/bin/device-service /usr/bin/device-service-ctl /usr/bin/device-service-bridge 2>&1) || problems+=" ldd;"
if grep -q 'not found' <<<"$libs"; then problems+=" missing library;"; fi
if command -v systemd-analyze >/dev/null; then
  rt=$(mktemp -d)
  v=$(XDG_RUNTIME_DIR=$rt systemd-analyze --user verify \
        /usr/lib/systemd/user/device-service.service \
        /usr/lib/systemd/user/device-service-bridge.service 2>&1 || echo failed)
  rm -rf "$rt"
  [ -z "$v" ] || problems+=" unit: $v;"
fi
dpkg -r device-service >/dev/null
[ ! -e /usr/bin/device-service ] || problems+=" left behind after removal;"
[ -z "$problems" ] || { echo "package:$problems" >&2; exit 1; }
echo "package: $(basename "$deb") installs, runs its client and bridge, finds its libraries, verifies its units and removes cleanly"
