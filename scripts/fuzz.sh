#!/usr/bin/env bash
# Builds every libFuzzer target (clang, AddressSanitizer + UBSan) and runs
# each for a bounded time; any finding fails the run.
#   FUZZ_SECONDS  time per target (default 20)
#   FUZZ_BUILD    build directory (default build/fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${FUZZ_SECONDS:-20}
dir=${FUZZ_BUILD:-build/fuzz}
case $dir in /*) ;; *) dir="$root/$dir" ;; esac

CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DDS_FUZZ=ON -DDS_TESTS=OFF \
  -DDS_SANITIZE=address -DDS_WERROR=ON >/dev/null
targets=$(cd fuzz && ls *_fuzz.cpp | sed 's/\.cpp$//')
# shellcheck disable=SC2086
cmake --build "$dir" -j "${JOBS:-2}" --target $targets

# One target per core: each is a single process.
run_target() { # target
  local t=$1 work seeds
  work=$(mktemp -d)
  mkdir "$work/corpus"
  # Seeds: well-formed frames, so that the run starts past the sum checks.
  seeds="$root/fuzz/corpus/${t%_fuzz}"
  if [ -d "$seeds" ]; then cp "$seeds"/* "$work/corpus/"; fi
  if ! (cd "$work" && ASAN_OPTIONS=abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$dir/fuzz/$t" -max_total_time="$seconds" -rss_limit_mb=2048 -print_final_stats=1 \
        corpus >log 2>&1); then
    { echo "== fuzz $t"; tail -n 60 "$work/log"; echo "fuzz target $t failed"; } >&2
    rm -rf "$work"
    return 1
  fi
  echo "== fuzz $t (${seconds}s): $(grep -E "^stat::number_of_executed_units" "$work/log" || true)"
  rm -rf "$work"
}

failed=0
running=0
for t in $targets; do
  if [ "$running" -ge "${JOBS:-2}" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
  run_target "$t" &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
[ "$failed" -eq 0 ] || exit 1
echo "== fuzzing found nothing"
