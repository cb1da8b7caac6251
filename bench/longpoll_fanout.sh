#!/bin/sh
# Long-poll fan-out of kyrpublish: N web servers' long polls held at once, one edit of the cell
# file, the time from the write to the last poll answered, and the publisher's memory per
# waiting poll. Everything runs on 127.0.0.1, on a free port, and ends by itself.
# Usage: bench/longpoll_fanout.sh [KYRPUBLISH [POLLS...]]
#        (default build/tools/kyrpublish/kyrpublish, 1000 and 10000 polls, 3 edits each)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
pub=${1:-$here/../build/tools/kyrpublish/kyrpublish}
[ $# -gt 0 ] && shift
counts=${*:-1000 10000}
# Each poll is a socket on both sides.
ulimit -n "$(ulimit -H -n)"
dir=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$dir"' EXIT
for n in $counts; do
  if [ "$(ulimit -n)" -lt $((n + 100)) ]; then
    echo "skipping $n polls: at most $(ulimit -n) open files"
    continue
  fi
  cp "$here/../examples/cell/cell.json" "$dir/cell.json"
  log="$dir/publisher-$n.log"
  "$pub" --listen 127.0.0.1:0 --cell "$dir/cell.json" 2>"$log" &
  pid=$!
  i=0
  while ! grep -qs "listening on" "$log" && [ $i -lt 100 ]; do
    sleep 0.1
    i=$((i + 1))
  done
  address=$(sed -n 's|.*listening on http://\([0-9.:]*\).*|\1|p' "$log")
  [ -n "$address" ] || { cat "$log"; exit 1; }
  timeout 300 python3 "$here/longpoll_fanout.py" "$address" "$pid" "$dir/cell.json" "$log" "$n" 3
  kill "$pid"
  wait "$pid" || true
  pid=""
done
