#!/bin/sh
# The Ansible collection against a fleet: 20 paramd on 127.0.0.2 ... 127.0.0.21
# in the test's private network namespace (netns.sh), one playbook with 20 forks.
#   ansible_fleet.sh BUILD_DIR SOURCE_DIR
set -eu
build=$1 src=$2
command -v ansible-playbook >/dev/null || { echo "SKIP: ansible-playbook is missing (make deps installs ansible-core)"; exit 77; }
[ "${PARA_PRIVATE_NET:-}" = 1 ] || { echo "SKIP: no private network namespace here; this test serves 20 ports"; exit 77; }
work=$(mktemp -d)
trap 'kill $(cat "$work"/pid.* 2>/dev/null) 2>/dev/null; wait; rm -rf "$work"' EXIT
export ANSIBLE_COLLECTIONS_PATH="$src/ansible" ANSIBLE_HOME="$work/home" ANSIBLE_NOCOLOR=1 ANSIBLE_RETRY_FILES_ENABLED=0
ctl() { h=$1; shift; "$build/tools/paramctl" --host "127.0.0.$h" "$@"; }
fail() { echo "FAIL: $*"; exit 1; }

# The collection documents itself and packs.
ansible-doc para.camera.settings > "$work/doc" 2>&1 && grep -q "^= settings" "$work/doc" || fail "ansible-doc: $(cat "$work/doc")"
ansible-galaxy collection build "$src/ansible/ansible_collections/para/camera" --output-path "$work" >/dev/null ||
    fail "the collection does not build"

echo "[cameras]" > "$work/hosts"
for i in $(seq 2 21); do
    mkdir "$work/rw$i"
    "$build/tools/paramd" --ro "$src/examples/device" --rw "$work/rw$i" --bind "127.0.0.$i" --log-level 3 --conf-save \
        > "$work/log$i" 2>&1 &
    echo $! > "$work/pid.$i"
    echo "127.0.0.$i" >> "$work/hosts"
done
printf '[cameras:vars]\nansible_connection=local\nansible_python_interpreter=/usr/bin/python3\n' >> "$work/hosts"
for i in $(seq 2 21); do
    n=0
    until ctl "$i" get video0 gop >/dev/null 2>&1; do
        n=$((n + 1)); [ $n -lt 100 ] || fail "paramd on 127.0.0.$i does not answer: $(cat "$work/log$i")"; sleep 0.1
    done
done
cat > "$work/play.yml" <<'YML'
- hosts: cameras
  gather_facts: false
  tasks:
    - para.camera.settings:
        settings:
          video0: {gop: "{{ gop | default(45) }}", frameRate: 20, protocol: H264}
          netport: {http_port: 8090}
    - para.camera.info: {modules: [video0, netport]}
      register: cam
    - ansible.builtin.copy:
        content: "{{ cam.para | to_json }}"
        dest: "{{ lookup('env', 'FLEET_WORK') }}/info.{{ inventory_hostname }}"
YML
export FLEET_WORK="$work"
play() { ansible-playbook -i "$work/hosts" -f 20 "$work/play.yml" "$@" > "$work/out" 2>&1 || true; }
# recap "HOST : ok=A changed=B unreachable=C failed=D": how many hosts match a pattern
hosts_with() { grep -cE "^127\.0\.0\.[0-9]+ +: $1" "$work/out" || true; }

start=$(date +%s%N)
play
took=$((($(date +%s%N) - start) / 1000000))
[ "$(hosts_with 'ok=3 +changed=2 .* failed=0')" = 20 ] || fail "first run: $(cat "$work/out")"
for i in $(seq 2 21); do
    [ "$(ctl "$i" get video0 gop)" = "video0.gop = 45" ] && [ "$(ctl "$i" get netport http_port)" = 'netport.http_port = "8090"' ] ||
        fail "values missing on 127.0.0.$i"
done
echo "first run on 20 hosts: ${took} ms"

play
[ "$(hosts_with 'ok=3 +changed=0 .* failed=0')" = 20 ] || fail "second run changed settings: $(cat "$work/out")"

play --check --diff -e gop=46
[ "$(hosts_with 'ok=3 +changed=1 .* failed=0')" = 20 ] && grep -q '^-        "gop": 45' "$work/out" && grep -q '^+        "gop": 46' "$work/out" ||
    fail "check mode did not report the change: $(cat "$work/out")"
[ "$(ctl 7 get video0 gop)" = "video0.gop = 45" ] || fail "check mode wrote"

# A refused value fails only its host, with the range; a stopped camera only its host.
kill "$(cat "$work/pid.9")"; rm "$work/pid.9"
ansible-playbook -i "$work/hosts" -f 20 "$work/play.yml" -e '{"gop": "{{ 1000 if inventory_hostname == \"127.0.0.5\" else 44 }}"}' \
    > "$work/out" 2>&1 || true
[ "$(hosts_with 'ok=3 +changed=2 .* failed=0')" = 18 ] && [ "$(hosts_with 'ok=0 .* failed=1')" = 2 ] ||
    fail "healthy hosts failed: $(cat "$work/out")"
grep -q "127.0.0.5 refused video0.gop=1000 (accepted: 1 to 300)" "$work/out" || fail "no range in the refusal: $(cat "$work/out")"
grep -qE "127\.0\.0\.9: no reply from 127\.0\.0\.9:6800" "$work/out" || fail "stopped host not named: $(cat "$work/out")"

# What info returned is what paramctl shows.
ctl 3 --json get video0 > "$work/ctl.video0"
python3 - "$work/info.127.0.0.3" "$work/ctl.video0" <<'PY' || fail "info differs from paramctl"
import json, sys
info, ctl = json.load(open(sys.argv[1])), json.load(open(sys.argv[2]))
ctl = ctl.get("video0", ctl)
assert info["video0"] == ctl, (info["video0"], ctl)
PY
echo "ok: 20 hosts set, idempotent, check mode, refusal and a stopped host each failing only their host"
