#!/bin/sh
# Fails when the shared library's dynamic symbol table differs from the public API: every
# defined symbol must be a function declared with KYR_EXPORT in the public headers (no C++
# symbol, no internal helper, nothing pulled in from a static dependency), and every such
# function must be there.
# Usage: check_exports.sh <nm> <libkyr.so> <header>...
set -eu

nm_tool=$1
library=$2
shift 2

work=$(mktemp -d "${TMPDIR:-/tmp}/kyr-exports.XXXXXX")
trap 'rm -rf "$work"' EXIT

# A declaration names its function on the KYR_EXPORT line: the identifier before the first "(".
sed -n 's/^[[:space:]]*KYR_EXPORT[^(]*[^[:alnum:]_(]\([[:alpha:]_][[:alnum:]_]*\)[[:space:]]*(.*/\1/p' \
  "$@" | sort -u >"$work/declared"

# Symbols that linkers may add to any shared object are not the library's own.
"$nm_tool" -D --defined-only "$library" | awk '{ print $NF }' |
  grep -Ev '^(_init|_fini|_edata|_end|__bss_start|_DYNAMIC|_GLOBAL_OFFSET_TABLE_)$' |
  sed 's/@.*//' | sort -u >"$work/exported"

if [ ! -s "$work/declared" ]; then
  echo "no KYR_EXPORT declarations found in: $*" >&2
  exit 1
fi

status=0
mangled=$(grep '^_Z' "$work/exported" || true)
if [ -n "$mangled" ]; then
  echo "C++ symbols exported:" >&2
  echo "$mangled" >&2
  status=1
fi
extra=$(comm -13 "$work/declared" "$work/exported" | grep -v '^_Z' || true)
if [ -n "$extra" ]; then
  echo "exported but not declared with KYR_EXPORT in the public headers:" >&2
  echo "$extra" >&2
  status=1
fi
missing=$(comm -23 "$work/declared" "$work/exported")
if [ -n "$missing" ]; then
  echo "declared with KYR_EXPORT but not exported (undefined, or defined without C linkage):" >&2
  echo "$missing" >&2
  status=1
fi
echo "$(wc -l <"$work/exported") exported symbols, $(wc -l <"$work/declared") declared"
exit $status
