#!/usr/bin/env bash
# The shared library exports exactly the C names its public header declares.
# usage: check_exports.sh LIB HEADER CXX INCLUDE_DIR...
set -euo pipefail
lib=$1 header=$2 cxx=$3
shift 3
incs=()
for d in "$@"; do incs+=(-I "$d"); done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sort -u > "$tmp/exported"
if grep '^_Z' "$tmp/exported"; then
  echo "C++ symbols are exported (above)"; exit 1
fi
# Declared names: identifiers of the preprocessed header.
echo '#include "para.h"' | "$cxx" -x c++ -E -P "${incs[@]}" - | tr -c 'A-Za-z0-9_' '\n' | sort -u > "$tmp/declared"
extra=$(comm -23 "$tmp/exported" "$tmp/declared" | grep -v -E '^(_init|_fini|__bss_start|_edata|_end|__odr_asan.*|__(a|ub|t)san.*|__sanitizer.*)$' || true)
if [ -n "$extra" ]; then
  echo "exported but not declared in para.h:"; echo "$extra"; exit 1
fi
echo "$(wc -l < "$tmp/exported") exported names, all declared in para.h"
