#!/usr/bin/env bash
# Builds everything and runs every test: the regular build, then the
# AddressSanitizer + UndefinedBehaviorSanitizer build, then a short run of
# each fuzz target (20000 inputs or one minute, whichever ends first).  The
# Release configuration (library, tools and tests) is built as well, with
# warnings as errors, so that a warning only the optimiser sees can never
# break a user's build; QMX_RUN_RELEASE_TESTS=1 also runs its tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" test
jobs=${JOBS:-2}
out=${BUILD_ROOT:-$root/build}

build_suite() {  # name, extra cmake args...
  local name=$1; shift
  local dir=$out/$name
  echo "=== $name build"
  cmake -S "$root" -B "$dir" -DQMX_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
}

run_suite() {  # name, extra cmake args...
  build_suite "$@"
  echo "=== $1 tests"
  ctest --test-dir "$out/$1" -j"$((jobs * 2))" --output-on-failure --timeout 600
}

run_suite release -DCMAKE_BUILD_TYPE=RelWithDebInfo
if [ "${QMX_RUN_RELEASE_TESTS:-0}" = 1 ]; then
  run_suite optimized -DCMAKE_BUILD_TYPE=Release -DQMX_BUILD_BENCH=OFF
else
  build_suite optimized -DCMAKE_BUILD_TYPE=Release -DQMX_BUILD_BENCH=OFF
fi
run_suite sanitize -DCMAKE_BUILD_TYPE=Debug -DQMX_SANITIZE=ON -DQMX_BUILD_BENCH=OFF

if [ -f "$root/fuzz/CMakeLists.txt" ]; then
  echo "=== fuzz smoke"
  fdir=$out/fuzz
  CC=clang CXX=clang++ cmake -S "$root" -B "$fdir" -DQMX_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DQMX_BUILD_FUZZ=ON \
    -DQMX_BUILD_TESTS=OFF -DQMX_BUILD_BENCH=OFF >/dev/null
  cmake --build "$fdir" -j"$jobs"
  for f in "$fdir"/fuzz/fuzz_*; do
    [ -x "$f" ] || continue
    name=$(basename "$f")
    corpus=$fdir/corpus/$name
    mkdir -p "$corpus"
    if [ -d "$root/fuzz/corpus/$name" ]; then cp -r "$root/fuzz/corpus/$name/." "$corpus/"; fi
    echo "--- $name"
    "$f" -runs=20000 -max_total_time=60 -max_len=65536 "$corpus" 2>&1 | tail -n 2
  done
fi
echo "all suites passed"
