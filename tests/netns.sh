#!/bin/sh
# Launcher of the tests that bind UDP port 6800: runs the test in a private
# network namespace with only loopback up, so that a paramd serving on the
# machine (make run) and concurrent test runs never meet it. Root gets a
# plain network namespace, other users one inside a user namespace. Where
# neither can be made the test runs on the shared port, queued by the port
# lock in /tmp, and stops at once when a process outside the tests holds it.
# PARA_NO_NETNS=1 asks for the shared port even where a namespace could be made.
#   netns.sh COMMAND [ARG...]   run one test
#   netns.sh --check            exit 0 when port tests can run here, else say why
set -u

private_flags() {
    for f in -n -rn; do
        if [ "$f" = -n ] && [ "$(id -u)" != 0 ]; then continue; fi
        if unshare $f sh -c 'ip link set lo up' >/dev/null 2>&1; then
            printf "%s\n" "$f"
            return 0
        fi
    done
    return 1
}

port_holder() {
    ss -Hulpn 'sport = :6800' 2>/dev/null
}

if [ -z "${PARA_NO_NETNS:-}" ] && flags=$(private_flags); then
    [ "${1:-}" = --check ] && exit 0
    exec unshare $flags sh -c 'ip link set lo up && PARA_PRIVATE_NET=1 exec "$@"' netns.sh "$@"
fi

holder=$(port_holder)
if [ -n "$holder" ]; then
    echo "netns.sh: UDP port 6800 is taken and no private network namespace can be made here" \
         "(run as root or allow unprivileged user namespaces); holder:" >&2
    echo "$holder" >&2
    exit 1
fi
[ "${1:-}" = --check ] && exit 0
exec "$@"
