#!/usr/bin/env bash
# Demo of libqmxvlib: builds the library, the virtual host and qmxmgr (no
# tests, no benchmarks), then runs a short qmxmgr session against the default
# virtual host (two simulated adapters of two ports each).  Works from a
# clone in any folder, /tmp included.
#
#   scripts/demo.sh            build into <clone>/build/release and run the session
#   BUILD_DIR=/path scripts/demo.sh
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build/release}
# The virtual host has its own /opt/kestrel: the build must live elsewhere.
case "$BUILD" in
    /opt/kestrel|/opt/kestrel/*) echo "demo: BUILD_DIR must not be under /opt/kestrel" >&2; exit 2 ;;
esac

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

# --- 1. Dependencies (installed only when something is missing) -------------
"$ROOT/scripts/install-deps.sh"

# --- 2. Build -----------------------------------------------------------------
say "Building the library, the virtual host and qmxmgr in $BUILD"
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Only what the session runs: qmxmgr (with the library) and qmxsim (with the
# simulated driver and the adapter tools it depends on).
cmake --build "$BUILD" -j2 --target qmxmgr qmxsim

QMXSIM="$BUILD/sim/qmxsim"
QMXMGR="$BUILD/tools/qmxmgr/qmxmgr"
for f in "$QMXSIM" "$QMXMGR"; do
    [ -x "$f" ] || { echo "demo: $f was not built" >&2; exit 1; }
done

# --- 3. The session, inside one virtual host -----------------------------------
# Everything below runs in a private sandbox: the files under /etc, /dev and
# /opt that the commands read and change are the simulated host's, not this
# machine's.
SESSION=$(mktemp "$BUILD/demo-session.XXXXXX")
trap 'rm -f "$SESSION"' EXIT
cat >"$SESSION" <<'SESSION_EOF'
set -u
QMXMGR=$1
say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
note() { printf '   %s\n' "$@"; }
run() {
    printf '\033[36m$ %s\033[0m\n' "$*"
    "$@"
    local rc=$?
    [ $rc -eq 0 ] || printf '   (exit status %d)\n' "$rc"
    return 0
}
qmxmgr() { "$QMXMGR" "$@"; }
# A pipeline, shown as typed.
runp() { printf '\033[36m$ %s\033[0m\n' "$1"; eval "$1"; }

say "1. The Fibre Channel ports the driver has registered"
note "Each port has a device file /dev/qmxlddN, an adapter number N and a World Wide Name."
run qmxmgr ports

say "2. All parameters of port qmxldd0"
note "CURRENT is what the driver runs with now; SETTING is what is stored for"
note "its next load ('-' = nothing stored, the driver default applies)."
run qmxmgr show qmxldd0

say "3. Change a setting: the queue depth of qmxldd0 becomes 64"
note "A port can be named by device (qmxldd0), adapter number (0) or WWN."
run qmxmgr set qmxldd0 queue_depth 64
run qmxmgr get 0 queue_depth

say "4. The stored setting in /etc/qmxldd.conf"
note "The whole file is one line of key=value: items. qmxl0-wwpn ties adapter"
note "number 0 to the port's WWN; qmx0_queue_depth is the new setting."
run cat /etc/qmxldd.conf
echo

say "5. A value out of range is refused, and nothing is stored"
note "The message names the library call, the reason code and the library's own words."
run qmxmgr set qmxldd0 queue_depth 999
run qmxmgr get 0 queue_depth

say "6. Adapter numbering: as the driver has it, and as the file fixes it"
run qmxmgr numbering
run qmxmgr numbering --configured

say "7. The same data as JSON, for scripts"
run qmxmgr get --json qmxldd0 queue_depth

say "8. Multipath: every LU path, by path group and LUN (first lines)"
runp "qmxmgr mp paths | head -6"

say "9. Monitoring: isolate a port and watch it in the Prometheus metrics"
note "qmxmgr metrics is meant for the node exporter's textfile collector."
run qmxmgr isolate port qmxldd1 on
runp "qmxmgr metrics | grep -E '^qmxldd_(port_isolated|logical_target_paths)'"
run qmxmgr isolate port qmxldd1 off

say "10. Configuration as a document: export, edit, diff, apply"
note "The stored settings of a port as YAML; diff exits 2 on drift, apply writes what differs."
run qmxmgr export qmxldd0
runp "qmxmgr export --json > /tmp/host.json && sed -i 's/\"queue_depth\": 64/\"queue_depth\": 32/' /tmp/host.json"
run qmxmgr diff /tmp/host.json
run qmxmgr apply /tmp/host.json
run qmxmgr apply /tmp/host.json

say "11. The library's API trace of this session (last 15 lines, oldest first)"
note "Every library call writes START and END (or ABEND) lines to a ring file."
run qmxmgr trace --lines 15
SESSION_EOF

say "Starting the virtual host and the qmxmgr session"
"$QMXSIM" -- bash "$SESSION" "$QMXMGR"
say "Done. Try it yourself: $QMXSIM -- $QMXMGR --help"
