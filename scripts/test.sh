#!/usr/bin/env bash
# Builds everything and runs every test: the regular build, then the
# AddressSanitizer + UndefinedBehaviorSanitizer build, then a short run of
# each fuzz target.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" test
jobs=${JOBS:-2}
out=${BUILD_ROOT:-$root/build}

run_suite() {  # name, extra cmake args...
  local name=$1; shift
  local dir=$out/$name
  echo "=== $name build"
  cmake -S "$root" -B "$dir" -DQMX_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "=== $name tests"
  ctest --test-dir "$dir" -j"$((jobs * 2))" --output-on-failure --timeout 600
}

run_suite release -DCMAKE_BUILD_TYPE=RelWithDebInfo
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
    "$f" -runs=20000 -max_len=65536 "$corpus" 2>&1 | tail -n 2
  done
fi
echo "all suites passed"
