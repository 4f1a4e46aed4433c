#!/bin/sh
# Runs a command in the virtual host and checks that it saw the simulated host
# while the real /etc, /dev, /opt and /tmp stayed as they were.
#   host_untouched.sh <qmxsim> <scenario>
set -u
QMXSIM=$1
SCENARIO=$2

snapshot() {
    # Names, sizes, modes and modification times; /dev/pts and /dev/shm
    # change with every terminal and process, so only their own entries count.
    find /etc /opt -xdev -maxdepth 4 -printf '%p %s %m %T@\n' 2>/dev/null | sort
    find /dev -maxdepth 1 -printf '%p %m\n' 2>/dev/null | sort
}

before=$(snapshot)
out=$("$QMXSIM" --scenario "$SCENARIO" -- sh -c 'ls /dev/qmxldd*; cat /etc/qmxldd.conf; echo; touch /etc/qmxsim-probe /opt/qmxsim-probe /dev/qmxsim-probe /tmp/qmxsim-probe')
rc=$?
after=$(snapshot)

fail=0
if [ "$rc" -ne 0 ]; then echo "qmxsim exited with $rc"; fail=1; fi
for dev in /dev/qmxldd0 /dev/qmxldd1 /dev/qmxldd2 /dev/qmxldd3; do
    case "$out" in
        *"$dev"*) ;;
        *) echo "missing $dev in the sandbox"; fail=1 ;;
    esac
done
case "$out" in
    *"qmxl0-wwpn=0x2100001122334450:"*) ;;
    *) echo "the sandbox's /etc/qmxldd.conf is not the scenario's"; fail=1 ;;
esac
for f in /etc/qmxsim-probe /opt/qmxsim-probe /dev/qmxsim-probe /tmp/qmxsim-probe /dev/qmxldd0 /etc/qmxldd.conf; do
    if [ -e "$f" ]; then echo "$f leaked out of the sandbox"; fail=1; fi
done
if [ "$before" != "$after" ]; then
    echo "the host changed:"
    printf '%s\n' "$before" > /tmp/qmxsim-before.$$
    printf '%s\n' "$after" > /tmp/qmxsim-after.$$
    diff /tmp/qmxsim-before.$$ /tmp/qmxsim-after.$$ | head -20
    rm -f /tmp/qmxsim-before.$$ /tmp/qmxsim-after.$$
    fail=1
fi
[ "$fail" -eq 0 ] && echo "host untouched"
exit $fail
