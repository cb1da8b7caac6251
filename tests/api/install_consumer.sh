#!/bin/sh
# Installs the build into a scratch prefix and builds the example host against the installed
# tree alone, once through pkg-config and once through find_package(kyrlib), then runs both:
# the installed headers, library, catalogue, kyrlib.pc and CMake package must be enough.
# Usage: install_consumer.sh <cmake> <generator> <build dir> <cc> <pkg-config> <host source>
#                            [<sanitizer flags>]
set -eu

cmake=$1
generator=$2
build=$3
cc=$4
pkg_config=$5
source=$6
flags=${7:-}

prefix=$(mktemp -d "${TMPDIR:-/tmp}/kyr-install.XXXXXX")
trap 'rm -rf "$prefix"' EXIT

"$cmake" --install "$build" --prefix "$prefix" >"$prefix/install.log" ||
  { cat "$prefix/install.log" >&2; exit 1; }

pc=$(find "$prefix" -name kyrlib.pc)
if [ -z "$pc" ]; then
  echo "kyrlib.pc not installed" >&2
  exit 1
fi
PKG_CONFIG_PATH=$(dirname "$pc")${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
export PKG_CONFIG_PATH
libdir=$("$pkg_config" --variable=libdir kyrlib)
catalogue=$("$pkg_config" --variable=traceCatalogue kyrlib)
for installed in "$libdir/libkyr.so.1" "$catalogue"; do
  [ -e "$installed" ] || { echo "not installed: $installed" >&2; exit 1; }
done

check_run() { # <label> <command>...: the host must exit 0 after printing every step
  label=$1
  shift
  if ! "$@" >"$prefix/$label.out" 2>&1 || ! grep -q '^kyrDestroy: done$' "$prefix/$label.out"
  then
    echo "$label: the installed example host failed:" >&2
    cat "$prefix/$label.out" >&2
    exit 1
  fi
  echo "$label: ok"
}

# pkg-config: same include spelling as in-tree, library found through LD_LIBRARY_PATH.
# shellcheck disable=SC2046,SC2086  # flag lists are meant to split into words
"$cc" -std=c99 -Wall -Wextra -Werror $flags -o "$prefix/host_pkgconfig" "$source" \
  $("$pkg_config" --cflags --libs kyrlib)
check_run pkg-config env LD_LIBRARY_PATH="$libdir" "$prefix/host_pkgconfig" "$catalogue"

# find_package: the catalogue path comes from the package and is compiled in.
mkdir "$prefix/consumer"
cat >"$prefix/consumer/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(kyrlib_consumer C)
find_package(kyrlib 1 REQUIRED CONFIG)
add_executable(host "$source")
target_link_libraries(host PRIVATE kyrlib::kyrlib)
target_compile_definitions(host PRIVATE KYR_TRACE_CATALOGUE="\${KYRLIB_TRACE_CATALOGUE}")
EOF
"$cmake" -S "$prefix/consumer" -B "$prefix/consumer/build" -G "$generator" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$flags" \
  >"$prefix/consumer.log" 2>&1 &&
  "$cmake" --build "$prefix/consumer/build" >>"$prefix/consumer.log" 2>&1 ||
  { cat "$prefix/consumer.log" >&2; exit 1; }
check_run find_package "$prefix/consumer/build/host"
