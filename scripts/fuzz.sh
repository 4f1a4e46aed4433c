#!/usr/bin/env bash
# Runs every fuzz target for a while and keeps what it finds.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# SECONDS (or QMX_FUZZ_SECONDS) is the time per target, 600 by default.
# The corpora live in fuzz/corpus/<target> of the source tree (or in
# QMX_FUZZ_CORPUS/<target>): they survive runs and build directories, the
# next run and the test command's smoke run start from them, and the inputs
# worth keeping (a regression input for a fixed crash) are committed there.
# Each run merges its new inputs back minimised (-merge=1), so the directory
# grows by coverage, not by volume.  Crash inputs are written to
# <build>/fuzz/crashes/<target>; the script ends with status 1 if any target
# crashed.  Build: clang, -DQMX_BUILD_FUZZ=ON, in ${BUILD_ROOT:-<repo>/build}/fuzz.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
secs=${1:-${QMX_FUZZ_SECONDS:-600}}
[ $# -gt 0 ] && shift
case "$secs" in ''|*[!0-9]*) echo "usage: $0 [SECONDS] [TARGET...]" >&2; exit 2 ;; esac
jobs=${JOBS:-2}
out=${BUILD_ROOT:-$root/build}
fdir=$out/fuzz
corpora=${QMX_FUZZ_CORPUS:-$root/fuzz/corpus}

CC=clang CXX=clang++ cmake -S "$root" -B "$fdir" -DQMX_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DQMX_BUILD_FUZZ=ON \
  -DQMX_BUILD_TESTS=OFF -DQMX_BUILD_BENCH=OFF >/dev/null
cmake --build "$fdir" -j"$jobs"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in "$fdir"/fuzz/fuzz_*; do [ -x "$f" ] && targets+=("$(basename "$f")"); done
fi
crashed=()
for name in "${targets[@]}"; do
  bin=$fdir/fuzz/$name
  [ -x "$bin" ] || { echo "no fuzz target $name" >&2; exit 2; }
  corpus=$corpora/$name
  work=$fdir/work/$name
  crashes=$fdir/crashes/$name
  mkdir -p "$corpus" "$crashes"
  rm -rf "$work"; mkdir -p "$work"
  echo "=== $name (${secs}s)"
  rc=0
  "$bin" -max_total_time="$secs" -max_len=65536 -print_final_stats=1 \
    -artifact_prefix="$crashes/" "$work" "$corpus" >"$fdir/$name.log" 2>&1 || rc=$?
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added)' "$fdir/$name.log" || true
  if [ "$rc" -ne 0 ]; then
    crashed+=("$name")
    echo "!!! $name failed (status $rc); log $fdir/$name.log, inputs in $crashes" >&2
    grep -E 'ERROR|SUMMARY|Test unit written' "$fdir/$name.log" >&2 || true
  fi
  # Keep what the run found, minimised, beside what the corpus held.
  "$bin" -merge=1 "$corpus" "$work" >>"$fdir/$name.log" 2>&1 || true
  echo "corpus $corpus: $(find "$corpus" -type f | wc -l) inputs"
done
if [ ${#crashed[@]} -gt 0 ]; then
  echo "crashed: ${crashed[*]}" >&2
  exit 1
fi
