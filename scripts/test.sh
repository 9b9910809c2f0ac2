#!/usr/bin/env bash
# Builds device-service and runs its whole test suite:
#   1. a warnings-as-errors build and every test (ctest -j2);
#   2. the same under AddressSanitizer + UndefinedBehaviorSanitizer;
#   3. the concurrency tests under ThreadSanitizer;
#   and builds and checks the Debian package (install and removal as root);
#   4. each fuzz target for a bounded time under ASan + UBSan (clang).
# Does its own set-up first. Build trees live under build/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/setup.sh

jobs=${JOBS:-2}
stage() { echo "== $1 (at ${SECONDS}s)"; }
configure_and_build() { # dir, extra cmake args...
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDS_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

stage "build and test"
# Line tables are enough here, and build about a quarter faster than full
# debug info.
configure_and_build build/ci -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG"
ctest --test-dir build/ci -j "$jobs" --output-on-failure

stage "the Debian package"
bash scripts/check-package.sh build/ci

stage "AddressSanitizer + UBSan"
# The test programs and what they run: the benchmarks are built in the
# plain build only.
cmake -S "$root" -B build/ci-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDS_WERROR=ON -DDS_SANITIZE=address >/dev/null
# shellcheck disable=SC2046
cmake --build build/ci-asan -j "$jobs" \
  --target $(cmake --build build/ci-asan --target help | sed -n 's/^\.\.\. \(test_[a-z0-9_]*\)$/\1/p')
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/ci-asan -j "$jobs" --output-on-failure

stage "ThreadSanitizer (the daemon under TSan, driven by the concurrency tests)"
# The test programs stay uninstrumented (TSan does not survive their fork of
# dbus-daemon from a threaded process); the daemon they start is the TSan one.
cmake -S "$root" -B build/ci-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDS_WERROR=ON \
  -DDS_SANITIZE=thread >/dev/null
cmake --build build/ci-tsan -j "$jobs" --target device-service-test
TSAN_OPTIONS="halt_on_error=1 exitcode=66 suppressions=$root/tests/tsan.supp" \
DS_TEST_DAEMON_BINARY="$root/build/ci-tsan/tests/device-service-test" \
  ctest --test-dir build/ci -j "$jobs" --output-on-failure -R 'Loop|Concurrency'

stage "fuzzing"
FUZZ_BUILD=build/ci-fuzz bash scripts/fuzz.sh
stage "all tests passed"
