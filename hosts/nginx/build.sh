#!/bin/bash
# Builds ngx_http_kyr_module.so for Debian's nginx from a copy of nginx-dev's sources, configured
# with the installed binary's own flags (so the module loads into /usr/sbin/nginx), warnings as
# errors, linked to the libkyr.so of a CMake build directory (found again at run time through
# its rpath).
#
# Usage: build.sh KYR_LIB_DIR [OUT_DIR [NGINX_BUILD_DIR]]
#   KYR_LIB_DIR      the CMake build directory holding libkyr.so
#   OUT_DIR          where ngx_http_kyr_module.so is written (default: KYR_LIB_DIR/hosts/nginx)
#   NGINX_BUILD_DIR  the configured copy of the nginx sources, reused while the module's
#                    configuration is unchanged (default: /tmp/ngx-build-<user>-<hash of OUT_DIR>)
set -euo pipefail

NGINX_SRC=/usr/share/nginx/src
here=$(cd "$(dirname "$0")" && pwd)
api=$(cd "$here/../../api" && pwd)

if [ $# -lt 1 ]; then
  echo "usage: $0 KYR_LIB_DIR [OUT_DIR [NGINX_BUILD_DIR]]" >&2
  exit 2
fi
if [ ! -f "$NGINX_SRC/conf_flags" ]; then
  echo "build.sh: $NGINX_SRC not found: install nginx-dev (apt-get install nginx nginx-dev)" >&2
  exit 1
fi
lib=$(cd "$1" && pwd)
if [ ! -e "$lib/libkyr.so" ]; then
  echo "build.sh: no libkyr.so in $lib: build the kyrlib target first" >&2
  exit 1
fi
out=${2:-$lib/hosts/nginx}
mkdir -p "$out"
out=$(cd "$out" && pwd)
ngx=${3:-/tmp/ngx-build-$(id -un)-$(printf '%s' "$out" | md5sum | cut -c1-8)}

# NGX_CONF_FLAGS: the package's configure flags, --with-compat among them.
# shellcheck disable=SC1091
. "$NGINX_SRC/conf_flags"
cc_opt="-g -O2 -fstack-protector-strong -fPIC -Wall -Werror -Wformat -Werror=format-security"
ld_opt="-Wl,-z,relro -Wl,-z,now -fPIC"

# Configure again only when what configure reads has changed: the flags, the module's config
# file and the library's location.
stamp=$(printf '%s\n' "${NGX_CONF_FLAGS[@]}" "$cc_opt" "$ld_opt" "$lib" "$api" "$here" |
        cat - "$here/config" | md5sum | cut -c1-32)
if [ ! -f "$ngx/objs/Makefile" ] || [ "$(cat "$ngx/.kyr-stamp" 2>/dev/null)" != "$stamp" ]; then
  rm -rf "$ngx"
  mkdir -p "$ngx"
  cp -r "$NGINX_SRC"/. "$ngx"
  (cd "$ngx" && KYR_API_DIR="$api" KYR_LIB_DIR="$lib" \
     ./configure "${NGX_CONF_FLAGS[@]}" --with-cc-opt="$cc_opt" --with-ld-opt="$ld_opt" \
                 --add-dynamic-module="$here") >"$ngx/configure.log" 2>&1 || {
    tail -30 "$ngx/configure.log" >&2
    echo "build.sh: nginx configure failed (log: $ngx/configure.log)" >&2
    exit 1
  }
  echo "$stamp" >"$ngx/.kyr-stamp"
fi
make -s -C "$ngx" -f objs/Makefile modules
cp "$ngx/objs/ngx_http_kyr_module.so" "$out/ngx_http_kyr_module.so.tmp"
mv "$out/ngx_http_kyr_module.so.tmp" "$out/ngx_http_kyr_module.so"
echo "build.sh: $out/ngx_http_kyr_module.so"
