#!/bin/sh
# Everything of the host under /tmp stays usable inside the virtual host (a
# build tree, a script, a data file), as root and as an ordinary user, while
# the files the library writes to /tmp stay in the sandbox.
#   tmp_visible.sh <qmxsim> <end-to-end test binary> <libqmxvlib.so.1>
set -u
QMXSIM=$1
E2E=$2
LIB=$3
. "$(dirname "$0")/check.sh"

# A build tree under /tmp: the launcher with its driver and adapter tools,
# the test binary and the library it loads.
tree=$(mktemp -d /tmp/qmxsim-tmp.XXXXXX)
trap 'rm -rf "$tree"' EXIT
simdir=$(dirname "$QMXSIM")
mkdir -p "$tree/sim" "$tree/bin" "$tree/lib"
cp -r "$simdir/qmxsim" "$simdir/libqmxsimdrv.so" "$simdir/tools" "$simdir/scenarios" "$tree/sim/"
cp "$E2E" "$tree/bin/"
cp -L "$LIB" "$tree/lib/libqmxvlib.so.1"
echo "data under tmp" > "$tree/data.txt"
# Run as `sh script`: neither the working directory nor the command's folder
# leads to the tree.  The test binary writes the library's scratch files
# "/tmp/conf_modules1.hba" and "/tmp/conf_modules2.hba".
cat > "$tree/run.sh" <<EOF
cat "$tree/data.txt"
LD_LIBRARY_PATH="$tree/lib" "$tree/bin/$(basename "$E2E")" \
    --gtest_filter=ConfigStore.ModuleOptionsAreSplitAroundTheOptionsLine >/dev/null && echo test-passed
[ -f /tmp/conf_modules1.hba ] && echo scratch-inside
/opt/kestrel/drivers/hba/qmxmcref -d qmxldd0 && echo tool-ran
cat /etc/modprobe.d/other.conf 2>/dev/null
ls "/lib/modules/\$(uname -r)/kernel/drivers" 2>/dev/null
EOF
# A host as Debian with kmod and a kernel has it: /etc/modprobe.d and
# /lib/modules/<release> exist and belong to root, with files of their own.
# Made in a private mount namespace (overlays over the host's /etc and
# /usr/lib), so the host is not changed; after the command, the folders'
# entries show that nothing leaked out of the sandbox.
cat > "$tree/withdirs.sh" <<'EOF'
set -e
# The overlays' upper layers go to a tmpfs outside /tmp: a mount below /tmp
# would keep the sandbox from laying its own overlay over /tmp.
for up in /mnt /srv /media /var/tmp; do [ -d "$up" ] && break; done
rel=$(uname -r)
libdir=$(realpath /lib)
mount -t tmpfs tmpfs "$up"
mkdir -p "$up/eu" "$up/ew" "$up/lu" "$up/lw"
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$up/eu,workdir=$up/ew" /etc
mount -t overlay overlay -o "lowerdir=$libdir,upperdir=$up/lu,workdir=$up/lw" "$libdir"
mkdir -p /etc/modprobe.d "$libdir/modules/$rel/kernel/drivers"
echo "options other x=1" > /etc/modprobe.d/other.conf
echo "kernel/drivers/other.ko:" > "$libdir/modules/$rel/modules.dep"
touch "$libdir/modules/$rel/kernel/drivers/other.ko"
set +e
"$@"
rc=$?
echo left: $(ls /etc/modprobe.d) $(cat "$libdir/modules/$rel/modules.dep")
exit $rc
EOF
chmod -R a+rX "$tree"
touch "$tree/before"

run() {  # run <description> <expected extra output> [command prefix...]: the tree's launcher from /
    desc=$1
    extra=$2
    shift 2
    # A coverage build's programs, run as an ordinary user, cannot write
    # their counters into root's build tree and say so on stderr
    # ("profiling:...:Cannot open"): those lines are not the programs' output.
    out=$(cd / && "$@" "$tree/sim/qmxsim" -- sh "$tree/run.sh" 2>&1 | grep -v '^profiling:')
    check "$desc: data file, build tree and script under /tmp" "data under tmp test-passed scratch-inside tool-ran$extra" "$(echo $out)"
    check "$desc: no scratch file on the real /tmp" "" \
        "$(find /tmp -maxdepth 1 -name 'conf_modules*' -newer "$tree/before" 2>/dev/null)"
}

if [ "$(id -u)" -eq 0 ]; then
    run "as root" ""
    if command -v setpriv >/dev/null 2>&1 && id nobody >/dev/null 2>&1; then
        nobody="setpriv --reuid=$(id -u nobody) --regid=$(id -g nobody) --clear-groups"
        run "as nobody" "" $nobody
        hostdirs="unshare --mount --propagation private sh $tree/withdirs.sh"
        seen=" options other x=1 other.ko left: other.conf kernel/drivers/other.ko:"
        run "as root, with root's /etc/modprobe.d and modules tree" "$seen" $hostdirs
        run "as nobody, with root's /etc/modprobe.d and modules tree" "$seen" $hostdirs $nobody
    else
        echo "skipped: no setpriv or no user nobody to run as an ordinary user"
    fi
else
    run "as $(id -un)" ""
fi
exit $fail
