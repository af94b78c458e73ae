#!/bin/sh
# The Debian packages of this build: names and contents of libpara1,
# libpara-dev and para-tools; installed into a scratch root, where the
# tools run without LD_LIBRARY_PATH, the systemd unit verifies, and the
# header compiles as C99/C11/C17 (-pedantic) and C++11 to C++20.
# usage: packages.sh BUILD_DIR C_COMPILER CXX_COMPILER
set -eu
build=$1 cc=$2 cxx=$3
for t in cpack dpkg-deb; do
    command -v $t >/dev/null 2>&1 || { echo "$t not found, skipping"; exit 77; }
done
work=$(mktemp -d "${TMPDIR:-/tmp}/para-deb.XXXXXX")
trap '[ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

cpack --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
root=$work/root
for pkg in libpara1 libpara-dev para-tools; do
    deb=$(ls "$work/out/${pkg}_"*.deb 2>/dev/null) || fail "no package $pkg"
    dpkg-deb -I "$deb" >/dev/null || fail "$deb is not a Debian package"
    dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$work/$pkg.list"
    dpkg-deb -x "$deb" "$root"
done
has() { grep -Eq "$2" "$work/$1.list" || fail "$1 lacks $2"; }
lacks() { ! grep -Eq "$2" "$work/$1.list" || fail "$1 holds $2"; }
has libpara1 '/usr/lib/.*libpara\.so\.1\.' ; has libpara1 '/usr/lib/.*libdov_common\.so\.1$'
for pkg in libpara1 libpara-dev para-tools; do has $pkg "/usr/share/doc/$pkg/copyright$"; done
if command -v lintian >/dev/null 2>&1; then
    lintian "$work/out"/*.deb >"$work/lintian" 2>&1 || true
    ! grep -q '^E:' "$work/lintian" || fail "lintian errors: $(grep '^E:' "$work/lintian")"
else
    echo "lintian not found: packages not checked by it"
fi
lacks libpara1 '\.so$|/include/|/bin/'
has libpara-dev '/usr/include/para\.h$'; has libpara-dev '/usr/lib/.*libpara\.so$'
has libpara-dev '/pkgconfig/para\.pc$'; has libpara-dev '/cmake/para/paraConfig\.cmake$'
lacks libpara-dev '\.so\.1|/bin/'
has para-tools '/usr/bin/paramd$'; has para-tools '/usr/bin/paramctl$'
has para-tools '/usr/share/man/man1/paramctl\.1\.gz$'; has para-tools '/usr/share/man/man8/paramd\.8\.gz$'
has para-tools '/usr/lib/systemd/system/paramd\.service$'; has para-tools '^/etc/default/paramd$'
has para-tools '/usr/share/para/device/www2json\.json$'
tools_deb=$(ls "$work/out/para-tools_"*.deb)
dpkg-deb -f "$tools_deb" Depends | grep -q 'libpara1 (= ' || fail "para-tools does not depend on libpara1"
dpkg-deb -I "$tools_deb" conffiles | grep -qx /etc/default/paramd || fail "/etc/default/paramd is no conffile"
grep -q '^PARAMD_OPTS=.*--conf-save' "$root/etc/default/paramd" || fail "the packaged service would not save .conf modules"

# Run paths: the unpacked tools find their libraries beside them.
"$root/usr/bin/paramctl" --help >"$work/help" || fail "installed paramctl --help"
grep -q '^Usage: paramctl' "$work/help" || fail "paramctl --help: $(cat "$work/help")"
"$root/usr/bin/paramd" --help >/dev/null || fail "installed paramd --help"

unit=$root/usr/lib/systemd/system/paramd.service
if command -v systemd-analyze >/dev/null 2>&1; then
    # Verified on this system with its paths led into the scratch root.
    mkdir "$work/unit"
    sed -e "s|/usr/bin/paramd|$root/usr/bin/paramd|" -e "s|/etc/default/|$root/etc/default/|" \
        "$unit" >"$work/unit/paramd.service"
    systemd-analyze verify --man=no "$work/unit/paramd.service" || fail "systemd-analyze verify paramd.service"
    # The sandbox keeps the exposure low (0 best, 10 worst).
    score=$(systemd-analyze security --offline=true "$work/unit/paramd.service" 2>/dev/null | sed -n 's/.*Overall exposure level for paramd.service: \([0-9.]*\).*/\1/p')
    [ -n "$score" ] && awk "BEGIN { exit !($score <= 4.0) }" || fail "systemd-analyze security exposure '$score' over 4.0"
else
    echo "systemd-analyze not found: unit not verified"
fi
grep -q '^ExecReload=/bin/kill -HUP \$MAINPID$' "$unit" ||
    fail "reload is not SIGHUP"

inc="-I$root/usr/include $(pkg-config --cflags libcjson 2>/dev/null || true)"
printf '#include <para.h>\nint main(void) { return para_profile.client; }\n' >"$work/h.c"
for std in c99 c11 c17; do
    # shellcheck disable=SC2086
    "$cc" -std=$std -pedantic -Werror -fsyntax-only $inc "$work/h.c" || fail "para.h as $std"
done
for std in c++11 c++14 c++17 c++20; do
    # shellcheck disable=SC2086
    "$cxx" -x c++ -std=$std -pedantic -Werror -fsyntax-only $inc "$work/h.c" || fail "para.h as $std"
done
echo "packages ok: $(ls "$work/out" | tr '\n' ' ')"
