#!/bin/sh
# kyrroute run as a process on the example cell: each case checks the exit status and what the
# tool printed. The publisher cases learn the cell from a scripted publisher on 127.0.0.1
# (stub_publisher.py), which serves the cell and then examples/cell/maintenance-delta.json.
# Usage: kyrroute_cases.sh KYRROUTE SOURCE_DIR CASE
set -u
tool=$1
src=$2
case_name=$3
cell="$src/examples/cell/cell.json"
delta="$src/examples/cell/maintenance-delta.json"
requests="$src/examples/cell/requests.txt"
dir=$(mktemp -d)
out="$dir/out"
stub=""
trap '[ -n "$stub" ] && kill "$stub" 2>/dev/null; rm -rf "$dir"' EXIT

# expect STATUS PATTERN... -- COMMAND...: runs the command, checks status and that the output
# has a line matching each pattern (grep -E).
expect() {
  want_status=$1
  shift
  patterns=""
  while [ "$1" != -- ]; do
    patterns="$patterns$1
"
    shift
  done
  shift
  "$@" >"$out" 2>&1
  status=$?
  if [ "$status" -ne "$want_status" ]; then
    echo "FAIL: exit status $status, expected $want_status: $*"
    cat "$out"
    exit 1
  fi
  printf %s "$patterns" | while IFS= read -r pattern; do
    grep -Eq -- "$pattern" "$out" && continue
    echo "FAIL: output lacks /$pattern/: $*"
    cat "$out"
    exit 1
  done || exit 1
  # Bad input gets one line naming the problem, never a trace or a sanitizer report.
  if grep -Eq "Sanitizer|runtime error|terminate called|Aborted" "$out"; then
    echo "FAIL: crashed: $*"
    cat "$out"
    exit 1
  fi
}

fail() {
  echo "FAIL: $*"
  for f in "$dir"/*; do
    echo "--- $(basename "$f")"
    cat "$f"
  done
  exit 1
}

# start_publisher [REST_PATH]: the scripted publisher in the background; sets publisher to its
# URL.
start_publisher() {
  python3 --version >/dev/null 2>&1 || fail "the publisher cases need python3"
  python3 "$src/tests/tools/stub_publisher.py" "$cell" "$delta" 20 "${1:-/brisvane}" \
    >"$dir/port" 2>"$dir/publisher.log" &
  stub=$!
  wait_for_port
}

# within SECONDS COMMAND...: until the command succeeds, at most SECONDS; whether it did.
within() {
  limit=$(($1 * 10))
  shift
  n=0
  until "$@"; do
    [ $n -ge $limit ] && return 1
    sleep 0.1
    n=$((n + 1))
  done
}

wait_for_port() {
  within 10 test -s "$dir/port" || fail "the publisher did not start"
  publisher="http://127.0.0.1:$(head -n 1 "$dir/port")"
}

# A publisher that takes connections and never answers; sets publisher to its URL.
start_silent_publisher() {
  python3 -c 'import socket, time
s = socket.socket()
s.bind(("127.0.0.1", 0))
s.listen(8)
print(s.getsockname()[1], flush=True)
time.sleep(20)' >"$dir/port" &
  stub=$!
  wait_for_port
}

# A port on 127.0.0.1 nobody listens on: bound and released again.
closed_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Requests whose decisions depend neither on chance (the shop sends a share of requests to its
# edition 2.0 at random) nor on the delta (affinity maintenance keeps sessions): affinity by
# cookie and by path, a redirect, a rule's reject, no mapping.
fixed_requests() {
  cat >"$dir/requests" <<EOF
GET https://shop.example.com/bank/account | Cookie: JSESSIONID=0001abc:c3
GET http://shop.example.com/bank/account;jsessionid=0001abc:c2
GET https://shop.example.com/shop/old/index.html
GET https://shop.example.com/bank/account?maintenance=yes
GET https://shop.example.com/nowhere
EOF
}

ws="--server-name shop_n1_webserver1"
# route ARGS...: the tool routing with the example cell as the web server shop_n1_webserver1.
route() { "$tool" $ws route --doc "$cell" "$@"; }
case "$case_name" in
  route)
    expect 0 "decision  permit" "endpoint  https://app[123].example.com:9443" -- \
      route GET https://shop.example.com/shop/catalog ;;
  affinity)
    expect 0 "server    /cell/shop/node/n2/server/s3 \(clone c3\)" -- \
      route GET https://shop.example.com/shop/catalog -H "Cookie: JSESSIONID=0001abc:c3"
    expect 0 "clone c2" -- route GET "http://shop.example.com/shop/cart;jsessionid=0001abc:c2" ;;
  reject)
    expect 0 "reject 404 \(no mapping found\)" -- route GET https://shop.example.com/nowhere
    expect 0 "reject 503 \(matched reject edition routing rule\)" -- \
      route GET "https://shop.example.com/bank/account?maintenance=yes" ;;
  editions)
    expect 0 "edition 2.0\)" "ZQJESSIONID=aa:c[123]; Path=/shop" -- \
      route GET https://shop.example.com/shop/catalog -H "X-Beta: yes"
    expect 0 "decision  redirect https://shop.example.com/shop/" -- route GET https://shop.example.com/shop/old/x ;;
  requests)
    expect 0 "reject 404" -- route --requests "$requests"
    # Requests without a random rule on standard input, with service times set among them, are
    # decided as from a file, each as its line arrives.
    fixed_requests
    expect 0 "reject 404" -- route --requests "$dir/requests"
    grep -E '^(GET|  )' "$out" >"$dir/from-file"
    { echo "service-time 1"; sed '1a service-time s2=2' "$dir/requests"; } >"$dir/timed"
    expect 0 "reject 404" -- route --requests - <"$dir/timed"
    grep -E '^(GET|  )' "$out" | cmp -s "$dir/from-file" - || fail "the decisions differ" ;;
  delta)
    # Affinity maintenance takes s3 out of load balancing; it still keeps its sessions.
    expect 0 "150  +50.0%  /cell/shop/node/n1/server/s2" -- \
      route --delta "$delta" GET https://shop.example.com/bank/account --repeat 300
    expect 0 "clone c3" -- \
      route --delta "$delta" GET https://shop.example.com/shop/catalog -H "Cookie: JSESSIONID=0001abc:c3" ;;
  json)
    expect 0 '"server": "/cell/shop/node/' -- "$tool" --json $ws route --doc "$cell" GET https://shop.example.com/shop/catalog ;;
  state)
    expect 0 '"clusters"' -- "$tool" $ws state --doc "$cell" ;;
  validate_clean)
    expect 0 "no problems found" -- "$tool" $ws validate --doc "$cell" ;;
  validate_broken)
    expect 1 "no object handler for type planet" "parent for /cell/shop/node/n9/server/lost was not found" \
      "Rule expression 'header.X-Debug = 'yes' and and' failed to parse" "^      \^$" -- \
      "$tool" $ws validate --doc "$cell" --delta "$src/tests/data/broken-delta.json" ;;
  bad_input)
    expect 2 "^kyrroute: cannot read /nonexistent.json" -- "$tool" route --doc /nonexistent.json GET http://a/
    expect 2 "^kyrroute: .*README.md is not valid JSON" -- "$tool" route --doc "$src/README.md" GET http://a/
    expect 2 "^kyrroute: .*--bogus" -- "$tool" route --doc "$cell" --bogus
    expect 2 "^kyrroute: URL 'shop.example.com' has no scheme" -- "$tool" route --doc "$cell" GET shop.example.com
    expect 2 "^kyrroute: .*requests.txt:2: request line" -- "$tool" route --doc "$cell" --requests "$src/tests/data/bad-requests.txt"
    expect 2 "^kyrroute: service time 's1=soon' is not '\[SERVER=\]MS'" -- "$tool" route --doc "$cell" \
      --service-time s1=soon GET http://a/
    printf 'GET https://shop.example.com/nowhere\nservice-time =5\n' >"$dir/bad-time"
    expect 2 "^kyrroute: standard input:2: service time '=5' is not" -- "$tool" route --doc "$cell" \
      --requests - <"$dir/bad-time"
    expect 2 "^kyrroute: --repeat needs the requests in advance" -- "$tool" route --doc "$cell" \
      --requests - --repeat 2 </dev/null
    expect 2 "^kyrroute: .*subcommand" -- "$tool" ;;
  publisher_group)
    # The group's name and settings reach the publisher: its REST path and the name it is sent.
    start_publisher /elsewhere
    expect 2 "^kyrroute: every publisher failed: $publisher\$" -- timeout 30 "$tool" $ws route \
      --publisher "$publisher" GET https://shop.example.com/nowhere
    expect 0 "reject 404" -- timeout 30 "$tool" $ws route --publisher "$publisher" \
      --group shopfront --group-property uri=/elsewhere GET https://shop.example.com/nowhere
    grep -q '"POST /elsewhere?name=shopfront&server=shop_n1_webserver1 ' "$dir/publisher.log" ||
      fail "the publisher was not asked as the group shopfront"
    expect 2 "^kyrroute: the connector group refuses the property 'colour=blue'\$" -- \
      "$tool" route --publisher "$publisher" --group-property colour=blue GET https://shop.example.com/
    expect 2 "^kyrroute: group property 'waitTime' is not NAME=VALUE\$" -- \
      "$tool" route --publisher "$publisher" --group-property waitTime GET https://shop.example.com/ ;;
  publisher_silent)
    # No answer: the wait ends at --timeout, and stopping does not wait for the request.
    start_silent_publisher
    expect 2 "^kyrroute: no publisher delivered the routing data within 1 s: $publisher\$" -- \
      timeout 30 "$tool" $ws state --publisher "$publisher" --timeout 1
    expect 2 "^kyrroute: no document from the publishers within 1 s: $publisher\$" -- \
      timeout 30 "$tool" $ws watch --publisher "$publisher" --timeout 1 ;;
  publisher_refused)
    # Every publisher failed: one line naming them, exit 2, well before the time-out kills it.
    refused="http://127.0.0.1:$(closed_port)"
    expect 2 "^kyrroute: every publisher failed: $refused\$" -- timeout 30 "$tool" $ws route \
      --publisher "$refused" --timeout 5 GET https://shop.example.com/shop/catalog
    expect 2 "^kyrroute: .*publisher 'shop.example.com' is not an http://HOST:PORT URL" -- \
      "$tool" route --publisher shop.example.com GET https://shop.example.com/
    expect 2 "^kyrroute: --doc excludes --publisher" -- \
      "$tool" route --doc "$cell" --publisher http://127.0.0.1:1 GET https://shop.example.com/ ;;
  watch)
    # The complete document first, then the delta, each once; watch ends by itself after two.
    start_publisher
    expect 0 "^document complete version 1: [0-9]{2,} added, 0 deleted, 0 set, from $publisher\$" -- \
      timeout 30 "$tool" $ws watch --publisher "$publisher" --count 2
    [ "$(grep '^document' "$out" | sed 's/:.*//' | tr '\n' ,)" = \
      "document complete version 1,document delta version 2," ] || fail "documents out of order"
    grep -q "^document delta version 2: 0 added, 0 deleted, 1 set, from $publisher\$" "$out" ||
      fail "the delta's line is wrong"
    grep -q "^state STARTED (all connector groups are started)\$" "$out" || fail "no state line" ;;
  watch_json)
    start_publisher
    expect 0 '^\{"document":"delta","version":2,"added":0,"deleted":0,"set":1,"publisher":"'"$publisher"'"\}$' -- \
      timeout 30 "$tool" $ws watch --publisher "$publisher" --count 2 --json ;;
  watch_signal)
    # SIGTERM while the long poll waits at the publisher: watch stops and exits 0 at once.
    start_publisher
    : >"$out"
    "$tool" $ws watch --publisher "$publisher" >"$out" 2>&1 &
    watcher=$!
    within 10 grep -q "^document delta" "$out"
    kill -TERM $watcher
    if ! within 10 eval "! kill -0 $watcher 2>/dev/null"; then
      kill -KILL $watcher
      fail "watch did not end on SIGTERM"
    fi
    wait $watcher || fail "watch ended with status $? on SIGTERM"
    # The answers to route changes carry no document and get no line.
    [ "$(grep -c '^document' "$out")" -eq 2 ] || fail "watch printed other documents" ;;
  *)
    echo "unknown case $case_name"
    exit 1 ;;
esac
echo "PASS $case_name"
