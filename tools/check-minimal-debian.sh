#!/bin/sh
# The README's commands on a fresh minimal Debian: a bookworm root made by
# `mmdebstrap --variant=minbase`, holding nothing but the source tree, runs
# `./setup.sh test` as root. Needs root, mmdebstrap (installed when missing)
# and a Debian mirror; takes a while (everything is built from scratch).
#   tools/check-minimal-debian.sh [ROOT_DIR] [COMMAND]
# ROOT_DIR (default: a new directory in /var/tmp) is kept for a look
# afterwards; COMMAND defaults to "./setup.sh test". MIRROR picks the mirror.
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
root=${1:-$(mktemp -d /var/tmp/para-minbase.XXXXXX)}
cmd=${2:-./setup.sh test}
[ "$(id -u)" = 0 ] || { echo "run as root (chroot, mounts)"; exit 2; }
command -v mmdebstrap >/dev/null 2>&1 ||
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq mmdebstrap; }

[ -e "$root/etc/debian_version" ] ||
    mmdebstrap --variant=minbase bookworm "$root" ${MIRROR:-}
# Only the tree as a clone would hold it: no build directories, no git.
mkdir -p "$root/src"
tar -C "$src" --exclude='./build*' --exclude=./.git -cf - . | tar -C "$root/src" -xf -
cp /etc/resolv.conf "$root/etc/resolv.conf"

# A mount namespace of its own gives the root /proc, /dev, /sys and a fresh
# /tmp, all gone when it ends.
echo "== $cmd in $root"
unshare -m --propagation private sh -c '
    root=$1 cmd=$2
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
    mount -t sysfs sysfs "$root/sys"
    mount -t tmpfs tmpfs "$root/tmp"
    exec chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        sh -c "cd /src && $cmd"' sh "$root" "$cmd"
echo "== minimal Debian: $cmd passed"
