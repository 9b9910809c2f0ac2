#!/usr/bin/env bash
# Builds the Debian package from a build tree and checks it: the files it
# carries, that it installs (as root: installed and removed again), and the
# systemd user unit.
#   scripts/check-package.sh BUILD_DIR
set -euo pipefail
build=${1:?build directory}
cd "$build"
rm -f device-service_*.deb
cpack -G DEB >/dev/null
deb=$(ls device-service_*.deb)
contents=$(dpkg -c "$deb" | awk '{print $6}')
for f in ./usr/bin/device-service ./usr/bin/device-service-ctl \
         ./usr/lib/systemd/user/device-service.service \
         ./usr/share/dbus-1/interfaces/com.fernwick.DeviceService.xml \
         ./usr/share/dbus-1/interfaces/com.fernwick.SystemService.xml \
         ./usr/share/dbus-1/interfaces/com.fernwick.ZorvService.xml \
         ./usr/share/dbus-1/interfaces/com.fernwick.VelmoriaService.xml; do
  grep -qx "$f" <<<"$contents" || { echo "package: $f missing from $deb" >&2; exit 1; }
done
if grep -q 'libsnap7' <<<"$contents" || ! ldd ./src/device-service | grep -q snap7; then :; else
  echo "package: the daemon links Snap7 but the package lacks it" >&2; exit 1
fi
verify_unit() { # unit file; prints what systemd finds wrong, ignoring a binary not installed
  local rt; rt=$(mktemp -d)
  XDG_RUNTIME_DIR=$rt SYSTEMD_LOG_LEVEL=err systemd-analyze --user verify "$1" 2>&1 \
    | grep -v -E 'is not executable: No such file' || true
  rm -rf "$rt"
}
have_analyze=$(command -v systemd-analyze || true)
if [ "$(id -u)" -eq 0 ]; then
  dpkg -i "$deb" >/dev/null
  { /usr/bin/device-service-ctl 2>&1 || true; } | grep -q usage
  if ldd /usr/bin/device-service | grep -q 'not found'; then
    dpkg -r device-service >/dev/null
    echo "package: the installed daemon misses a library" >&2; exit 1
  fi
  problems=""
  [ -n "$have_analyze" ] && problems=$(verify_unit /usr/lib/systemd/user/device-service.service)
  dpkg -r device-service >/dev/null
  [ -z "$problems" ] || { echo "package: the unit file does not verify: $problems" >&2; exit 1; }
  echo "package: $deb lists its files, installs, verifies its unit and removes cleanly"
else
  if [ -n "$have_analyze" ]; then
    problems=$(verify_unit "$(dirname "$0")/../packaging/device-service.service")
    [ -z "$problems" ] || { echo "package: the unit file does not verify: $problems" >&2; exit 1; }
  fi
  echo "package: $deb lists its files (install check needs root)"
fi
