#!/usr/bin/env bash
# Installs what device-service needs to build and test on Debian 12.
# Idempotent: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libglib2.0-dev libglib2.0-dev-bin
  libsqlite3-dev sqlite3
  libprotobuf-c-dev protobuf-c-compiler
  libmodbus-dev
  libjson-glib-dev
  libmosquitto-dev mosquitto mosquitto-clients protobuf-compiler openssl
  libgtest-dev libgmock-dev
  dbus-daemon dbus-bin
  clang libclang-rt-14-dev
  nodejs
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
# Snap7 is built from the npm registry's node-snap7 package: npm must exist.
if ! command -v npm >/dev/null 2>&1; then
  missing+=(npm)
fi

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    sudo_cmd=(sudo)
  else
    echo "setup: missing packages (${missing[*]}) and not root: run this script as root once." >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
