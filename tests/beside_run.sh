#!/bin/sh
# `make test` beside `make run`, as the README has it: starts `make run`
# (paramd on 127.0.0.1:6800 with a scratch read-write directory), runs
# `make test`, checks that both the suite and the serving paramd are fine
# afterwards, and stops paramd with SIGINT (it saves every module).
#   tests/beside_run.sh [MAKE_ARGS...]    e.g. tests/beside_run.sh BUILD=build
# Outside a private network namespace the paramd really holds the
# machine's port 6800 for the run.
set -eu
cd "$(dirname "$0")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/para-beside.XXXXXX")
pgid=
trap '[ -z "$pgid" ] || kill -INT "-$pgid" 2>/dev/null; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; echo "--- make run:"; tail -n 20 "$work/run.log"; exit 1; }
build=build
for a in "$@"; do case $a in BUILD=*) build=${a#BUILD=} ;; esac; done

# Its own process group, so that one signal reaches make and paramd.
setsid make --no-print-directory run RUN_DIR="$work/rw" "$@" >"$work/run.log" 2>&1 &
pgid=$!
i=0
until "$build/tools/paramctl" --timeout 200 get video0 bitRate >/dev/null 2>&1; do
    kill -0 "-$pgid" 2>/dev/null || fail "make run ended"
    i=$((i + 1)); [ $i -lt 3000 ] || fail "paramd does not answer"
done
ss -Hulpn 'sport = :6800' | grep -q '127.0.0.1:6800.*paramd' || fail "paramd is not bound to 127.0.0.1:6800"
"$build/tools/paramctl" set video0 bitRate=6100 >/dev/null || fail "set before the tests"

make --no-print-directory test "$@" || fail "make test beside make run"

"$build/tools/paramctl" get video0 bitRate | grep -q 6100 || fail "paramd lost its value during the tests"
kill -INT "-$pgid"
i=0
while kill -0 "-$pgid" 2>/dev/null; do
    i=$((i + 1)); [ $i -lt 100 ] || fail "paramd does not stop"; sleep 0.1
done
pgid=
tr -d ' \n\t\0' <"$work/rw/video_cur.json" | grep -q '"bitRate":6100' || fail "paramd did not save on stop"
echo "make test beside make run: ok"
