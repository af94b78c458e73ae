#!/bin/sh
# First command on a fresh Debian machine: installs make when it is missing
# (everything else comes from `make deps`), then runs make with the given
# arguments:  ./setup.sh run   ./setup.sh test   ./setup.sh deb
set -eu
cd "$(dirname "$0")"
if ! command -v make >/dev/null 2>&1; then
    if [ "$(id -u)" = 0 ]; then sudo=; else sudo=sudo; fi
    echo "setup.sh: installing make"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends make
fi
exec make "$@"
