#!/bin/sh
# The init script with stand-ins for the service: with the shell and start-stop-daemon of this machine,
# whose new processes begin late when a library that does so is the argument; or with BusyBox's when
# "busybox" is.
set -eu
here=$(cd "$(dirname "$0")/../.." && pwd)
folder=$(mktemp -d)
trap 'SERVICE=$folder/service PIDFILE=$folder/pid $run stop >/dev/null 2>&1; rm -rf "$folder"' EXIT
cd "$folder"

fail() { echo "init-script: $*"; exit 1; }

run="sh ./S60vexadevmgr"
cp "$here/packaging/init/S60vexadevmgr" .
if test "${1:-}" = busybox; then
    mkdir applets
    for applet in sh start-stop-daemon readlink cat tr sleep mkfifo kill logger rm; do
        ln -s "$(command -v busybox)" "applets/$applet"
    done
    PATH=$folder/applets:$PATH
    sed -i "1s|.*|#!$folder/applets/sh|" S60vexadevmgr
fi

# Counts its starts; a second signal while it hands the hardware back is a fault.
cat >service <<'SERVICE'
#!/bin/sh
cd "$(dirname "$0")"
trap 'trap "echo twice >>ends" TERM; sleep 0.3; echo once >>ends; exit' TERM
echo "$$" >>starts
while :; do sleep 0.05; done
SERVICE
chmod +x service S60vexadevmgr
: >starts >ends

# All paths are relative.
export SERVICE=service PIDFILE=pid LINE_BUFFERED= PAUSE=0
await_starts() { until test "$(wc -l <starts)" -ge "$1"; do sleep 0.05; done; }

# A file that is left of an earlier life names a bystander.
sleep 60 & bystander=$!
echo $bystander >pid
$run stop | grep -q 'is not running' || fail "takes a bystander for itself"
$run start | grep -q started || fail "does not start beside a stale file"
await_starts 1
kill -0 $bystander || fail "has ended a bystander"
kill $bystander
test "$($run start)" = "VEXADevMgr is running" || fail "starts twice"

# It comes back when it ends, and is told to end once, whenever that is.
kill -KILL "$(tail -n 1 starts)"
await_starts 2
$run status >/dev/null || fail "status"
test "$($run stop)" = "VEXADevMgr stopped" || fail "does not stop"
test ! -e pid || fail "leaves its file"
for round in 1 2 3 4 5 6; do
    $run start >/dev/null
    $run stop >/dev/null || fail "does not stop at once"
done
# Nor is it lost before the service's process has begun.
if test "${1:-busybox}" != busybox; then
    LD_PRELOAD=$1 "$folder/S60vexadevmgr" run &
    until test -s pid; do sleep 0.01; done
    $run stop >/dev/null || fail "does not stop before the service runs"
fi
! grep -q twice ends || fail "the service was told twice"
for process in $(cat starts); do ! kill -0 "$process" 2>/dev/null || fail "a service is left"; done
echo "init-script: passed"
