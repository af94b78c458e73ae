#!/bin/sh
# Installs the build tree into a fresh prefix and builds a small consumer
# from it twice: through pkg-config and through find_package(para).
# Usage: install_consumer.sh <build dir> <source dir> <C compiler> [extra C flags]
# (a sanitizer build passes its -fsanitize flags: the consumer must carry the same runtime)
set -eu
build=$1 src=$2 cc=$3 extra=${4:-}
command -v cmake >/dev/null 2>&1 || { echo "cmake not found, skipping"; exit 77; }

work=$(mktemp -d "${TMPDIR:-/tmp}/para-install.XXXXXX")
trap '[ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }

fail() { echo "FAIL: $*"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'libpara.so' | head -n 1)")
[ -n "$libdir" ] && [ "$libdir" != . ] || fail "libpara.so not installed"
for lib in para dov_common; do
    [ -L "$libdir/lib$lib.so" ] || fail "lib$lib.so is not a link"
    soname=$(readlink "$libdir/lib$lib.so")
    [ "$soname" = "lib$lib.so.1" ] || fail "lib$lib.so points to $soname"
    [ -L "$libdir/$soname" ] && [ -f "$libdir/$(readlink "$libdir/$soname")" ] ||
        fail "lib$lib.so.1 does not lead to the library"
done
for h in para.h dov_common.h; do
    [ -f "$prefix/include/$h" ] || fail "$h not installed"
done

# pkg-config
export PKG_CONFIG_PATH="$libdir/pkgconfig"
flags=$(pkg-config --cflags --libs para) || fail "pkg-config does not know para"
# shellcheck disable=SC2086
"$cc" $extra -o "$work/consumer-pc" "$src/tests/install/consumer.c" $flags || fail "pkg-config build"
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" || fail "pkg-config consumer"

# CMake package
cmake -S "$src/tests/install" -B "$work/cm" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$extra" -DCMAKE_EXE_LINKER_FLAGS="$extra" >"$work/cm.log" 2>&1 || { cat "$work/cm.log"; fail "find_package(para)"; }
cmake --build "$work/cm" >"$work/cmb.log" 2>&1 || { cat "$work/cmb.log"; fail "CMake build"; }
"$work/cm/consumer" || fail "CMake consumer"
echo "install ok"
