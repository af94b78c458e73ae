#!/bin/sh
# Runs examples/host in a scratch read-write directory and talks to it
# through port 6800 with paramctl: its API command answers and sets a
# member (member callback), a set request reaches its page callback, and
# SIGTERM stops it with every module saved (and says which not, when a
# save fails).
# usage: host_example.sh HOST_EXAMPLE PARAMCTL DEVICE_DIR   (run through netns.sh)
set -eu
# On the shared port (no private namespace) queue with the other port tests.
[ -n "${PARA_PRIVATE_NET:-}" ] || PARA_PRIVATE_NET=locked exec flock /tmp/para-port-6800.lock "$0" "$@"
host=$1 ctl=$2 device=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/para-host.XXXXXX")
pid=
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; echo "--- host output:"; cat "$work/out"; exit 1; }

mkdir "$work/rw"
"$host" "$device" "$work/rw" >"$work/out" 2>&1 &
pid=$!
i=0
until "$ctl" --timeout 200 --json api getStatus hostStatus >"$work/r0" 2>/dev/null; do
    i=$((i + 1)); [ $i -lt 50 ] || fail "no answer from the host"
done
grep -q '"host":[[:space:]]*"example"' "$work/r0" || fail "status: $(cat "$work/r0")"

"$ctl" --json api setStatus hostStatus gop=25 >"$work/r1" || fail "setStatus"
grep -q '"gop":[[:space:]]*25' "$work/r1" && grep -q '"memberChanges":[[:space:]]*1' "$work/r1" ||
    fail "setStatus reply: $(cat "$work/r1")"
grep -q 'host: video0 gop is now 25' "$work/out" || fail "member callback"
"$ctl" api setStatus hostStatus >/dev/null && fail "setStatus without gop accepted"

"$ctl" set video0 bitRate=6000 >/dev/null || fail "set bitRate"
"$ctl" --json api getStatus hostStatus >"$work/r2"
grep -q '"bitRate":[[:space:]]*6000' "$work/r2" && grep -q '"pageChanges":[[:space:]]*1' "$work/r2" ||
    fail "status after set: $(cat "$work/r2")"
grep -q 'host: video page changed:.*"bitRate":6000' "$work/out" || fail "page callback"

kill -TERM "$pid"
wait "$pid" || fail "host exit status $?"
pid=
grep -q 'every module saved' "$work/out" || fail "no orderly stop"
tr -d ' \n\t\0' <"$work/rw/video_cur.json" | grep -q '"gop":25,.*"bitRate":6000\|"bitRate":6000,"gop":25' ||
    fail "video_cur.json: $(cat "$work/rw/video_cur.json")"
# A stop whose save fails (the read-write directory gone) says which module
# was not saved and exits 1.
mkdir "$work/rw2"
"$host" "$device" "$work/rw2" >"$work/out" 2>&1 &
pid=$!
i=0
until "$ctl" --timeout 200 set video0 gop=26 >/dev/null 2>&1; do
    i=$((i + 1)); [ $i -lt 50 ] || fail "no answer from the second host"
done
rm -rf "$work/rw2" && touch "$work/rw2"
kill -TERM "$pid"
status=0; wait "$pid" || status=$?
pid=
[ $status = 1 ] && grep -q 'video_cur.json not written' "$work/out" && grep -q 'the final save logged [0-9]* error' "$work/out" ||
    fail "a failed stop save: status $status"
echo "host example ok"
