#!/bin/sh
# Checks of the qmxsim launcher itself: exit statuses, kept state, the
# maximum-configuration scenario.
#   launcher_checks.sh <qmxsim> <scenario directory>
set -u
QMXSIM=$1
SCN=$2
. "$(dirname "$0")/check.sh"

"$QMXSIM" -- sh -c 'exit 3'
check "exit status of the command" 3 $?
"$QMXSIM" -- sh -c 'kill -TERM $$'
check "command killed by a signal" 143 $?
"$QMXSIM" -- /nonexistent/command 2>/dev/null
check "command that cannot run" 127 $?
"$QMXSIM" --bogus -- true 2>/dev/null
check "unknown option" 125 $?
"$QMXSIM" --scenario /nonexistent.json -- true 2>/dev/null
check "missing scenario" 125 $?

# A scenario may name the host.
named=$(mktemp -d)
printf '{"hostname": "qmxsim-test-host", "ports": [{"devno": 5}]}' > "$named/host.json"
check "host name from the scenario" "qmxsim-test-host /dev/qmxldd5" \
    "$("$QMXSIM" --scenario "$named/host.json" -- sh -c 'echo $(uname -n) /dev/qmxldd*')"
rm -rf "$named"

# The temporary state directory is removed afterwards.
dir=$("$QMXSIM" -- sh -c 'echo $QMXSIM_STATE')
check "temporary state removed" no "$( [ -e "$dir" ] && echo yes || echo no)"

# A kept state directory carries the host from one run to the next.
state=$(mktemp -d)
"$QMXSIM" --state "$state" -- sh -c 'printf "qmx0_queue_depth=9:" > /etc/qmxldd.conf; echo kept > /opt/kestrel/drivers/hba/note.txt'
check "config file kept" "qmx0_queue_depth=9:" "$("$QMXSIM" --state "$state" -- cat /etc/qmxldd.conf)"
check "tool directory file kept" kept "$("$QMXSIM" --state "$state" -- cat /opt/kestrel/drivers/hba/note.txt)"
check "a scenario starts the host afresh" no \
    "$("$QMXSIM" --state "$state" --scenario "$SCN/default.json" -- sh -c '[ -e /opt/kestrel/drivers/hba/note.txt ] && echo yes || echo no')"
rm -rf "$state"

# The maximum configuration: 256 ports, generated maps, a small state.
if [ -f "$SCN/max.json" ]; then
    out=$("$QMXSIM" --scenario "$SCN/max.json" -- sh -c 'ls /dev/qmxldd* | wc -l; ls /sys/class/scsi_host | wc -l; wc -c < $QMXSIM_STATE/state.json')
    set -- $out
    check "maximum configuration devices" 256 "$1"
    check "maximum configuration SCSI hosts" 256 "$2"
    check "maximum configuration state stays small" yes "$( [ "$3" -lt 1000000 ] && echo yes || echo no)"
fi
exit $fail
