#!/bin/sh
# kyrroute run as a process on the example cell: each case checks the exit status and what the
# tool printed. Usage: kyrroute_cases.sh KYRROUTE SOURCE_DIR CASE
set -u
tool=$1
src=$2
case_name=$3
cell="$src/examples/cell/cell.json"
requests="$src/examples/cell/requests.txt"
out=$(mktemp)
trap 'rm -f "$out"' EXIT

# expect STATUS PATTERN -- COMMAND...: runs the command, checks status and output (grep -E).
expect() {
  want_status=$1
  pattern=$2
  shift 3
  "$@" >"$out" 2>&1
  status=$?
  if [ "$status" -ne "$want_status" ]; then
    echo "FAIL: exit status $status, expected $want_status: $*"
    cat "$out"
    exit 1
  fi
  if ! grep -Eq -- "$pattern" "$out"; then
    echo "FAIL: output lacks /$pattern/: $*"
    cat "$out"
    exit 1
  fi
  # Bad input gets one line naming the problem, never a trace or a sanitizer report.
  if grep -Eq "Sanitizer|runtime error|terminate called|Aborted" "$out"; then
    echo "FAIL: crashed: $*"
    cat "$out"
    exit 1
  fi
}

ws="--server-name shop_n1_webserver1"
case "$case_name" in
  route)
    expect 0 "decision  permit" -- "$tool" $ws route --doc "$cell" GET https://shop.example.com/shop/catalog
    expect 0 "endpoint  https://app[123].example.com:9443" -- "$tool" $ws route --doc "$cell" GET https://shop.example.com/shop/catalog ;;
  affinity)
    expect 0 "server    /cell/shop/node/n2/server/s3 \(clone c3\)" -- "$tool" $ws route --doc "$cell" \
      GET https://shop.example.com/shop/catalog -H "Cookie: JSESSIONID=0001abc:c3"
    expect 0 "clone c2" -- "$tool" $ws route --doc "$cell" GET "http://shop.example.com/shop/cart;jsessionid=0001abc:c2" ;;
  reject)
    expect 0 "reject 404 \(no mapping found\)" -- "$tool" $ws route --doc "$cell" GET https://shop.example.com/nowhere
    expect 0 "reject 503 \(matched reject edition routing rule\)" -- "$tool" $ws route --doc "$cell" \
      GET "https://shop.example.com/bank/account?maintenance=yes" ;;
  editions)
    expect 0 "edition 2.0\)" -- "$tool" $ws route --doc "$cell" GET https://shop.example.com/shop/catalog -H "X-Beta: yes"
    expect 0 "ZQJESSIONID=aa:c[123]; Path=/shop" -- "$tool" $ws route --doc "$cell" GET https://shop.example.com/shop/catalog -H "X-Beta: yes"
    expect 0 "decision  redirect https://shop.example.com/shop/" -- "$tool" $ws route --doc "$cell" GET https://shop.example.com/shop/old/x ;;
  requests)
    expect 0 "reject 404" -- "$tool" $ws route --doc "$cell" --requests "$requests" ;;
  balance)
    # One request at a time: every server is idle when asked, so the rotation takes each in
    # turn whatever its weight (weights only count between busy servers).
    expect 0 "133  +33.3%  /cell/shop/node/n2/server/s3" -- "$tool" $ws route --doc "$cell" \
      GET https://shop.example.com/bank/account --repeat 399 ;;
  delta)
    # Affinity maintenance takes s3 out of load balancing; it still keeps its sessions.
    expect 0 "150  +50.0%  /cell/shop/node/n1/server/s2" -- "$tool" $ws route --doc "$cell" \
      --delta "$src/examples/cell/maintenance-delta.json" GET https://shop.example.com/bank/account --repeat 300
    expect 0 "clone c3" -- "$tool" $ws route --doc "$cell" --delta "$src/examples/cell/maintenance-delta.json" \
      GET https://shop.example.com/shop/catalog -H "Cookie: JSESSIONID=0001abc:c3" ;;
  json)
    expect 0 '"server": "/cell/shop/node/' -- "$tool" --json $ws route --doc "$cell" GET https://shop.example.com/shop/catalog ;;
  state)
    expect 0 '"clusters"' -- "$tool" $ws state --doc "$cell" ;;
  validate_clean)
    expect 0 "no problems found" -- "$tool" $ws validate --doc "$cell" ;;
  validate_broken)
    expect 1 "no object handler for type planet" -- "$tool" $ws validate --doc "$cell" --delta "$src/tests/data/broken-delta.json"
    expect 1 "parent for /cell/shop/node/n9/server/lost was not found" -- "$tool" $ws validate --doc "$cell" --delta "$src/tests/data/broken-delta.json"
    expect 1 "Rule expression 'header.X-Debug = 'yes' and and' failed to parse" -- "$tool" $ws validate --doc "$cell" --delta "$src/tests/data/broken-delta.json"
    expect 1 "^      \^$" -- "$tool" $ws validate --doc "$cell" --delta "$src/tests/data/broken-delta.json" ;;
  bad_input)
    expect 2 "^kyrroute: cannot read /nonexistent.json" -- "$tool" route --doc /nonexistent.json GET http://a/
    expect 2 "^kyrroute: .*README.md is not valid JSON" -- "$tool" route --doc "$src/README.md" GET http://a/
    expect 2 "^kyrroute: .*--bogus" -- "$tool" route --doc "$cell" --bogus
    expect 2 "^kyrroute: URL 'shop.example.com' has no scheme" -- "$tool" route --doc "$cell" GET shop.example.com
    expect 2 "^kyrroute: .*requests.txt:2: request line" -- "$tool" route --doc "$cell" --requests "$src/tests/data/bad-requests.txt"
    expect 2 "^kyrroute: .*subcommand" -- "$tool" ;;
  *)
    echo "unknown case $case_name"
    exit 1 ;;
esac
echo "PASS $case_name"
