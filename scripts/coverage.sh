#!/usr/bin/env bash
# Line and branch coverage of the library (src/) by the unit and end-to-end
# suites, printed with gcovr.  Builds its own tree with gcc --coverage in
# ${BUILD_ROOT:-<repo>/build}/coverage, runs the suites through ctest and
# prints gcovr's summary, the per-file line table and the per-file branch
# table.  Extra arguments go to ctest (e.g. -R 'Binding').
#
# The end-to-end tests load the library inside the virtual host, whose /tmp,
# /etc, /opt, /dev and /usr/lib are overlays or tmpfs that vanish with it: a
# build tree under one of them would lose the counters the library writes
# there, so such a build root is refused.  Elsewhere the sandbox writes
# straight into the build tree; the script checks that the run really left
# the library's counters behind.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" coverage
jobs=${JOBS:-2}
out=${BUILD_ROOT:-$root/build}
mkdir -p "$out"
out=$(cd "$out" && pwd -P)
dir=$out/coverage
case "$dir/" in
  /tmp/*|/etc/*|/opt/*|/dev/*|/usr/lib/*|/sys/*)
    echo "coverage.sh: $dir is hidden by the virtual host's overlays; set BUILD_ROOT elsewhere" >&2
    exit 2 ;;
esac

echo "=== coverage build ($dir)"
cmake -S "$root" -B "$dir" -DQMX_WERROR=ON -DCMAKE_BUILD_TYPE=Debug -DQMX_COVERAGE=ON \
  -DQMX_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j"$jobs"

# Counters of an earlier run would be added to this one's.
find "$dir" -name '*.gcda' -delete
lib_gcda() { find "$dir/CMakeFiles/qmxvlib_objects.dir" -name '*.gcda' | wc -l; }

status=0
echo "=== tests (unit and end-to-end, both in the virtual host)"
ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600 "$@" || status=1
if [ "$(lib_gcda)" -eq 0 ]; then
  echo "coverage.sh: the tests left no library counters in $dir" >&2
  exit 1
fi

echo "=== coverage of src/"
common=(-r "$root" --object-directory "$dir" --filter "$root/src/"
        --exclude-throw-branches --exclude-unreachable-branches -j "$jobs")
gcovr "${common[@]}"
gcovr "${common[@]}" --branches
# (gcovr checks that it can write its output file and then removes it: never
# point -o at /dev/null, which it would delete and then write as a plain file.)
gcovr "${common[@]}" --print-summary -o "$dir/coverage.txt" | tail -n 2
[ "$status" -eq 0 ] || echo "coverage.sh: some tests failed; the figures above count what ran" >&2
exit "$status"
