#!/bin/sh
# kyrpublish run as a process on a copy of the example cell, with kyrroute processes as its web
# servers; each case checks what they learn and what the publisher logs and reports. Every
# publisher listens on a free port of 127.0.0.1, and every wait is bounded.
# Usage: kyrpublish_cases.sh KYRPUBLISH KYRROUTE SOURCE_DIR CASE
set -u
pub=$1
route=$2
src=$3
case_name=$4
dir=$(mktemp -d)
cell="$dir/cell.json"
cp "$src/examples/cell/cell.json" "$cell"
pids=""
trap 'for p in $pids; do kill -9 "$p" 2>/dev/null; done; rm -rf "$dir"' EXIT
ws="--server-name shop_n1_webserver1"

fail() {
  echo "FAIL: $*"
  for f in "$dir"/*.log "$dir"/*.out; do
    [ -f "$f" ] && echo "--- $(basename "$f")" && tail -n 30 "$f"
  done
  exit 1
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

# wait_for FILE PATTERN [SECONDS]: until a line of FILE matches (grep -E); at most SECONDS (10).
wait_for() {
  within "${3:-10}" grep -Eqs -- "$2" "$1" || fail "no /$2/ in $(basename "$1") within ${3:-10} s"
}

# Whether the process runs (an ended child the shell has not reaped yet does not).
alive() { [ -r "/proc/$1/stat" ] && [ "$(cut -d' ' -f3 "/proc/$1/stat")" != Z ]; }
ended() { ! alive "$1"; }

# wait_exit PID: until the process has ended (10 s at most), then its exit status.
wait_exit() {
  within 10 ended "$1" || fail "process $1 did not end"
  wait "$1"
}

# Every process still running is stopped as SIGTERM asks, and none may have reported a fault
# (a sanitizer build reports leaks as it ends).
finish() {
  for p in $pids; do kill -TERM "$p" 2>/dev/null; done
  for p in $pids; do
    alive "$p" && wait_exit "$p"
  done
  if grep -Eq "Sanitizer|runtime error|terminate called" "$dir"/*.log "$dir"/*.out 2>/dev/null; then
    fail "a process reported a fault"
  fi
}

# start NAME LISTEN [OPTIONS...]: a publisher on the cell in the background, logging to
# NAME.log; its URL goes to url, its process id to NAME.pid.
start() {
  name=$1
  listen=$2
  shift 2
  "$pub" --listen "$listen" --cell "$cell" "$@" 2>"$dir/$name.log" &
  echo $! >"$dir/$name.pid"
  pids="$pids $!"
  wait_for "$dir/$name.log" "listening on http://"
  url=$(sed -n 's|.*listening on \(http://[0-9.:]*\).*|\1|p' "$dir/$name.log")
}

# watch NAME ARGS...: kyrroute watch in the background, printing to NAME.out.
watch() {
  name=$1
  shift
  timeout 60 "$route" $ws watch "$@" >"$dir/$name.out" 2>&1 &
  echo $! >"$dir/$name.pid"
  pids="$pids $!"
}

# http METHOD URL [BODY]: prints the status and the body of the answer on one line.
http() {
  python3 - "$@" <<'EOF'
import http.client, sys, urllib.parse
method, url = sys.argv[1], urllib.parse.urlsplit(sys.argv[2])
body = sys.argv[3].encode() if len(sys.argv) > 3 else None
c = http.client.HTTPConnection(url.hostname, url.port, timeout=10)
c.request(method, url.path + ("?" + url.query if url.query else ""), body=body)
r = c.getresponse()
print(r.status, r.read().decode(errors="replace").strip())
EOF
}

# held URL COUNT: until the publisher holds COUNT long polls (10 s at most).
holds() { http GET "$1/status" | grep -q "\"pollsWaiting\":$2,"; }
held() { within 10 holds "$1" "$2" || fail "the publisher did not come to hold $2 polls"; }

# edit_cell PYTHON...: runs the statements on the cell's document, its "add" part as add and
# the properties of server s3 as s3, and rewrites the file in place.
edit_cell() {
  python3 - "$cell" "$@" <<'EOF'
import json, sys
doc = json.load(open(sys.argv[1]))
add = doc["add"]
node = next(o for o in add["objects"][0]["objects"] if o["name"] == "/node/n2")
s3 = next(o for o in node["objects"] if o["name"] == "/server/s3")["props"]
for statement in sys.argv[2:]:
    exec(statement)
open(sys.argv[1], "w").write(json.dumps(doc, indent=1))
EOF
}

# Where the bank's new sessions go: 300 requests, one at a time, through a new web server. Every
# server is idle when asked, so the rotation takes each in turn whatever its weight (weights
# only count between busy servers).
spread() {
  timeout 30 "$route" $ws route --publisher "$1" GET https://shop.example.com/bank/account \
    --repeat 300 >"$dir/spread.out" 2>&1 || fail "route --publisher $1 failed"
}

# health_state SERVER: what the publisher last heard of SERVER's health policy, true or false,
# or none.
health_state() {
  "$pub" status --json "$url" | python3 -c '
import json, sys
state = "none"
for t in json.load(sys.stdin)["healthTriggers"]["latest"]:
    if t["serverName"] == sys.argv[1]:
        state = "true" if t["healthPolicyTriggered"] else "false"
print(state)' "$1"
}

# feed LINE: one request to the web server reading fd 3, and until its decision is printed
# (10 s at most).
decided() { [ "$(grep -c '^  decision' "$dir/health.out")" -ge $sent ]; }
feed() {
  echo "$1" >&3
  sent=$((sent + 1))
  within 10 decided || fail "request $sent was not decided within 10 s"
}

vmrss() { awk '/^VmRSS/ {print $2}' "/proc/$1/status"; }

case "$case_name" in
  serve)
    # A web server learns the cell from the publisher and routes as with the file itself; the
    # publisher reports it, its route changes and a health policy trigger.
    start a 127.0.0.1:0
    cat >"$dir/requests" <<EOF
GET https://shop.example.com/bank/account | Cookie: JSESSIONID=0001abc:c3
GET http://shop.example.com/bank/account;jsessionid=0001abc:c2
GET https://shop.example.com/shop/old/index.html
GET https://shop.example.com/bank/account?maintenance=yes
GET https://shop.example.com/nowhere
EOF
    "$route" $ws route --doc "$cell" --requests "$dir/requests" >"$dir/file.out" 2>&1 ||
      fail "route --doc failed"
    timeout 30 "$route" $ws route --publisher "$url" --requests "$dir/requests" >"$dir/pub.out" 2>&1 ||
      fail "route --publisher failed"
    [ "$(grep -c '^  decision' "$dir/file.out")" -eq 5 ] || fail "not every request decided"
    # Only the decisions: the library's HTTP client may add a line of its own while stopping.
    grep -E '^(GET|  )' "$dir/pub.out" | cmp -s "$dir/file.out" - || fail "the decisions differ"
    wait_for "$dir/a.log" "init from 'shop_n1_webserver1' \(127.0.0.1:[0-9]+\) for group 'kyrroute': complete document version 1"
    wait_for "$dir/a.log" "route change from 'shop_n1_webserver1' for group 'kyrroute': \{\"addRoutes\""
    [ "$(http POST "$url/brisvane?name=kyrroute&server=shop_n1_webserver1" \
      '{"healthPolicyName": "/cell/shop/healthPolicy/slow", "serverName": "s2", "healthPolicyTriggered": true}')" = "200 {}" ] ||
      fail "the health policy trigger was not taken"
    "$pub" status "$url" >"$dir/status.out" 2>&1 || fail "status failed"
    grep -Eq '^\*  +1  +0  +0  ' "$dir/status.out" || fail "status lacks the group at version 1"
    grep -Eq '^shop_n1_webserver1  +kyrroute  +127.0.0.1:[0-9]+  +1  +0  ' "$dir/status.out" ||
      fail "status lacks the web server"
    grep -q "^route changes: 1 received" "$dir/status.out" || fail "status lacks the route change"
    grep -q "healthPolicyName=/cell/shop/healthPolicy/slow  serverName=s2  healthPolicyTriggered=true" \
      "$dir/status.out" || fail "status lacks the health policy trigger"
    timeout 30 "$route" $ws state --publisher "$url" | grep -q '"currentConnector": "'"$url"'"' ||
      fail "state --publisher does not name the publisher" ;;
  edit)
    # In-place writes and an editor's rename both reach a waiting web server as deltas, and
    # routing follows them.
    start a 127.0.0.1:0
    watch w --publisher "$url" --count 3
    wait_for "$dir/w.out" "^document complete version 1: "
    held "$url" 1
    edit_cell 's3["server.maintenancemode"] = "affinity"'
    wait_for "$dir/w.out" "^document delta version 2: 0 added, 0 deleted, 1 set, from $url\$"
    wait_for "$dir/a.log" "edit of $cell: version 2, delta of [0-9]+ bytes, answered 1 waiting polls"
    spread "$url"
    grep -q "150   50.0%  /cell/shop/node/n1/server/s2" "$dir/spread.out" ||
      fail "s3 still takes new sessions"
    cp "$src/examples/cell/cell.json" "$dir/cell.json.new"
    mv "$dir/cell.json.new" "$cell"
    wait_for "$dir/w.out" "^document delta version 3: "
    wait_exit "$(cat "$dir/w.pid")" || fail "watch failed"
    spread "$url"
    grep -q "100   33.3%  /cell/shop/node/n2/server/s3" "$dir/spread.out" ||
      fail "s3 did not come back"
    # Polls holding older versions are answered at once: the two edits cancel out from version
    # 1, version 2 gets the second, an unknown one the complete document; the current one waits.
    poll="$url/brisvane?name=kyrroute&server=late"
    [ "$(http GET "$poll&vid=1&wait=30")" = '200 {"version":3,"restVersion":2}' ] ||
      fail "the edits from version 1 did not cancel out"
    http GET "$poll&vid=2&wait=30" | grep -q '^200 {"delta":true,.*"version":3' ||
      fail "version 2 did not get a delta"
    http GET "$poll&vid=9&wait=30" | grep -q '^200 {"version":3,"restVersion":2,"delta":false,"add":' ||
      fail "an unknown version did not get the complete document"
    [ "$(http GET "$poll&vid=3&wait=1")" = '200 {"version":3,"restVersion":2}' ] ||
      fail "a poll that timed out did not get the version alone" ;;
  broken)
    # An edit that cannot be served is refused: the old data stays served, to waiting and to
    # new web servers alike, until a good edit follows.
    start a 127.0.0.1:0
    watch w --publisher "$url" --count 2
    wait_for "$dir/w.out" "^document complete version 1: "
    echo '{ "version": 2, broken' >"$cell"
    wait_for "$dir/a.log" "edit refused, still serving version 1: $cell: line 1: "
    cp "$src/examples/cell/cell.json" "$cell"
    printf '{"delta": false, "add": {"objects": [{"type": "planet", "name": "/planet/mars"}]}}' >"$cell"
    wait_for "$dir/a.log" "edit refused, still serving version 1: .*planet"
    http GET "$url/status" | grep -q '"version":1,.*"problem":"[^"]*planet' ||
      fail "status does not show the refused edit"
    spread "$url"
    grep -q "100   33.3%  /cell/shop/node/n2/server/s3" "$dir/spread.out" || fail "the old data is not served"
    grep -q "^document delta" "$dir/w.out" && fail "a refused edit reached the web server"
    cp "$src/examples/cell/cell.json" "$cell"
    edit_cell 's3["server.maintenancemode"] = "affinity"'
    wait_for "$dir/w.out" "^document delta version 2: 0 added, 0 deleted, 1 set"
    http GET "$url/status" | grep -q '"version":2,.*"problem":null' || fail "the problem stayed" ;;
  failover)
    # A web server with two publishers: an edit reaches it from the first; when that one stops
    # it moves to the second at once, and back to the first when it has restarted and the
    # second is killed.
    start a 127.0.0.1:0
    a=$url
    start b 127.0.0.1:0
    b=$url
    watch w --publisher "$a" --publisher "$b" --count 4
    wait_for "$dir/w.out" "^document complete version 1: .* from $a\$"
    edit_cell 's3["server.maintenancemode"] = "affinity"'
    wait_for "$dir/w.out" "^document delta version 2: .* from $a\$"
    wait_for "$dir/b.log" "edit of $cell: version 2, .* answered 0 waiting polls"
    kill -TERM "$(cat "$dir/a.pid")"
    wait_exit "$(cat "$dir/a.pid")" || fail "the publisher did not stop cleanly"
    wait_for "$dir/a.log" "stopping on SIGTERM"
    wait_for "$dir/w.out" "^document complete version 2: .* from $b\$" 5
    start a2 "${a#http://}"
    kill -KILL "$(cat "$dir/b.pid")"
    wait_for "$dir/w.out" "^document complete version 1: .* from $a\$" 5
    wait_exit "$(cat "$dir/w.pid")" || fail "watch failed"
    spread "$a"
    grep -q "150   50.0%  /cell/shop/node/n1/server/s2" "$dir/spread.out" ||
      fail "the restarted publisher lost the edit" ;;
  directory)
    # One document per connector group: each group's web servers get their own document and
    # versions, unknown groups are refused, and new files become new groups.
    mkdir "$dir/groups"
    cp "$cell" "$dir/groups/shop.json"
    cp "$cell" "$dir/groups/bank.json"
    cell="$dir/groups"
    start a 127.0.0.1:0
    watch w --publisher "$url" --group shop --count 2
    wait_for "$dir/w.out" "^document complete version 1: "
    timeout 30 "$route" route --publisher "$url" --group nosuch --timeout 5 GET https://shop.example.com/ \
      >"$dir/nosuch.out" 2>&1 && fail "an unknown group was served"
    wait_for "$dir/a.log" "refused 404 POST /brisvane from .*: unknown group 'nosuch'"
    cell="$dir/groups/bank.json"
    edit_cell 's3["weight"] = 5'
    wait_for "$dir/a.log" "edit of $cell: version 2, .* answered 0 waiting polls"
    cell="$dir/groups/shop.json"
    edit_cell 's3["server.maintenancemode"] = "affinity"'
    wait_for "$dir/w.out" "^document delta version 2: 0 added, 0 deleted, 1 set"
    cp "$cell" "$dir/groups/late.json"
    echo '{' >"$dir/groups/broken.json"
    echo 'notes' >"$dir/groups/notes.txt"
    wait_for "$dir/a.log" "new group 'late' from .*/late.json: version 1"
    wait_for "$dir/a.log" "group 'broken' cannot be served: "
    [ "$(http POST "$url/brisvane?name=broken&server=s" "{'interests': {}}" | cut -c1-3)" = 503 ] ||
      fail "a group without a servable document was not refused"
    grep -q "notes" "$dir/a.log" && fail "a file that is no group was read"
    http GET "$url/status" >"$dir/status.out"
    grep -q '"name":"bank","file":"[^"]*","version":2' "$dir/status.out" || fail "bank is not at version 2" ;;
  apply)
    # A delta pushed by hand is served like an edit, to waiting and to new web servers, until
    # the next edit of the file diffs it away.
    start a 127.0.0.1:0
    watch w --publisher "$url" --count 3
    wait_for "$dir/w.out" "^document complete version 1: "
    "$pub" apply --delta "$src/examples/cell/maintenance-delta.json" "$url" >"$dir/apply.out" 2>&1 ||
      fail "apply failed"
    grep -q "^applied as version 2$" "$dir/apply.out" || fail "apply did not say the version"
    wait_for "$dir/w.out" "^document delta version 2: 0 added, 0 deleted, 1 set"
    spread "$url"
    grep -q "150   50.0%  /cell/shop/node/n1/server/s2" "$dir/spread.out" ||
      fail "a new web server did not get the pushed delta"
    cmp -s "$cell" "$src/examples/cell/cell.json" || fail "apply changed the cell file"
    edit_cell 's3["weight"] = 2'
    wait_for "$dir/w.out" "^document delta version 3: "
    spread "$url"
    grep -q "/cell/shop/node/n2/server/s3" "$dir/spread.out" || fail "the edit did not undo the pushed delta"
    echo '{"delta": false}' >"$dir/complete.json"
    "$pub" apply --delta "$dir/complete.json" "$url" >"$dir/apply.out" 2>&1
    [ $? -eq 1 ] && grep -q "refused the delta (400): a complete document cannot be pushed" "$dir/apply.out" ||
      fail "a complete document was pushed"
    "$pub" apply --delta "$src/README.md" "$url" >"$dir/apply.out" 2>&1
    [ $? -eq 1 ] && grep -q "the delta is not a JSON object" "$dir/apply.out" || fail "a non-JSON delta was pushed" ;;
  bad_requests)
    # Each malformed request gets its 4xx and a one-line reason, and a log line.
    start a 127.0.0.1:0
    q="/brisvane?name=kyrroute&server=s"
    while IFS='|' read -r method path body want; do
      got=$(http "$method" "$url$path" "$body" | cut -c1-3)
      [ "$got" = "$want" ] || fail "$method $path $body: status $got, expected $want"
    done <<EOF
GET|/nowhere||404
DELETE|$q||405
GET|/status?x=1|x|200
GET|$q||400
GET|$q&vid=x&wait=1||400
GET|$q&vid=1&wait=-1||400
GET|$q&vid=1&wait=1&colour=blue||400
GET|$q&name=other&vid=1&wait=1||400
GET|/brisvane?server=s&vid=1&wait=1||400
POST|$q|hello|400
POST|$q|[1]|400
POST|$q|{"addRoutes": "x"}|400
POST|$q|{"healthPolicyName": "hp"}|400
POST|$q|{"colour": "blue"}|400
POST|$q&vid=1|{'interests': {}}|400
POST|/apply?name=kyrroute|{|400
POST|$q|{'interests': {}}|200
EOF
    [ "$(grep -c "kyrpublish: refused 4" "$dir/a.log")" -eq 15 ] || fail "not every refusal was logged" ;;
  abuse)
    # A huge query string, an oversize body, a client sending a byte a second, connections
    # opened and dropped and long polls abandoned: the publisher goes on serving others, and
    # its memory returns to where it was.
    start a 127.0.0.1:0
    pid=$(cat "$dir/a.pid")
    spread "$url"
    before=$(vmrss "$pid")
    timeout 60 python3 - "${url#http://}" >"$dir/abuse.out" 2>&1 <<'EOF' || fail "the publisher did not hold up"
import http.client, json, socket, sys, threading, time
host, port = sys.argv[1].split(":")
port = int(port)
q = "/brisvane?name=kyrroute&server=abuser"

def status():
    c = http.client.HTTPConnection(host, port, timeout=2)
    c.request("GET", "/status")
    r = c.getresponse()
    return r.status, json.loads(r.read())

# The answer's first bytes; a server that answers before reading everything may reset instead.
def raw(data, read=True):
    s = socket.create_connection((host, port), timeout=5)
    try:
        s.sendall(data)
        return s.recv(100) if read else b""
    except (ConnectionResetError, BrokenPipeError):
        return b"reset"
    finally:
        s.close()

huge = raw(b"GET " + q.encode() + b"&x=" + b"a" * (1 << 20) + b" HTTP/1.1\r\n\r\n")
assert huge == b"reset" or huge.startswith(b"HTTP/1.1 414"), huge
assert raw(b"POST " + q.encode() + b" HTTP/1.1\r\nContent-Length: 2000000\r\n\r\n").startswith(
    b"HTTP/1.1 413")
slow = socket.create_connection((host, port))
def trickle():
    for byte in b"GET /s":
        slow.send(bytes([byte]))
        time.sleep(1)
threading.Thread(target=trickle, daemon=True).start()
for _ in range(5):
    assert status()[0] == 200, "status refused while a client trickles"
    time.sleep(1)
for i in range(1000):
    raw(b"GET /brisvane?name=kyr"[: i % 23], read=False)
polls = []
for _ in range(300):
    s = socket.create_connection((host, port))
    s.sendall(("GET " + q + "&vid=1&wait=60 HTTP/1.1\r\nHost: x\r\n\r\n").encode())
    polls.append(s)
deadline = time.time() + 10
while status()[1]["groups"][0]["pollsWaiting"] != 300:
    assert time.time() < deadline, "the polls were not held"
    time.sleep(0.1)
for s in polls:
    s.close()
slow.close()
while status()[1]["groups"][0]["pollsWaiting"] != 0:
    assert time.time() < deadline + 5, "abandoned polls are still held"
    time.sleep(0.1)
print("ok")
EOF
    # Connections dropped in the middle of a request head are closed when their head time-out
    # (10 s) has passed.
    within 20 eval '[ "$(vmrss "$pid")" -le $((before + 1024)) ]'
    echo "VmRSS before $before kB, after $(vmrss "$pid") kB"
    # A sanitizer's allocator keeps what was freed: there the memory says nothing.
    grep -q __asan_init "$pub" || [ "$(vmrss "$pid")" -le $((before + 1024)) ] ||
      fail "VmRSS grew from $before kB to $(vmrss "$pid") kB"
    wait_for "$dir/a.log" "http: .*414"
    spread "$url" ;;
  health)
    # A web server whose server s1 answers slowly makes its publisher show the response-time
    # policy triggered for s1, and untriggered once s1 answers quickly again; s2 and s3, linked
    # to the same policy and always quick, are never reported. Requests are fed one at a time
    # and each is answered before the status is read, so no slow request waits in the pipe
    # when the times recover. The library averages a server's response times over 15 s, so
    # the recovery takes that long to be seen.
    edit_cell 'policy = {"type": "ExcessiveResponseTime", "threshold": 300}' \
      'add["objects"].append({"type": "healthPolicy", "name": "/healthPolicy/slowResponse", "props": policy})' \
      'add["relationships"]["server:healthPolicy"] = [{"server": r["server"],
          "healthPolicy": "/healthPolicy/slowResponse"} for r in add["relationships"]["cluster:server"]]'
    start a 127.0.0.1:0
    mkfifo "$dir/feed"
    timeout 100 "$route" $ws route --publisher "$url" --requests - --service-time 10 \
      --service-time s1=600 <"$dir/feed" >"$dir/health.out" 2>&1 &
    feeder=$!
    pids="$pids $feeder"
    trap '' PIPE # a web server that died shows as a missing decision, not a killed script
    exec 3>"$dir/feed"
    s1=/cell/shop/node/n1/server/s1
    sent=0
    start_time=$(date +%s)
    while [ "$(health_state $s1)" != true ]; do
      [ $(($(date +%s) - start_time)) -ge 30 ] || [ $sent -ge 30 ] &&
        fail "s1 was not reported triggered after $sent requests"
      feed "GET https://shop.example.com/bank/account"
    done
    grep -q "^  server    $s1 " "$dir/health.out" || fail "no request went to s1"
    echo "service-time s1=10" >&3
    start_time=$(date +%s)
    while [ "$(health_state $s1)" != false ]; do
      [ $(($(date +%s) - start_time)) -ge 45 ] || [ $sent -ge 2000 ] &&
        fail "s1 was not reported untriggered within 45 s of quick answers ($sent requests)"
      feed "GET https://shop.example.com/bank/account"
    done
    echo "untriggered after $(($(date +%s) - start_time)) s of quick answers, $sent requests"
    exec 3>&-
    wait_exit $feeder || fail "kyrroute route --requests - failed"
    "$pub" status --json "$url" >"$dir/status.json" || fail "status failed"
    python3 - "$dir/status.json" <<'EOF' || fail "the publisher's triggers are not s1's trigger and untrigger"
import json, sys
triggers = json.load(open(sys.argv[1]))["healthTriggers"]
seen = [(t["healthPolicyName"], t["serverName"], t["healthPolicyTriggered"], t["group"], t["server"])
        for t in triggers["latest"]]
s1 = "/cell/shop/node/n1/server/s1"
want = [("/healthPolicy/slowResponse", s1, v, "kyrroute", "shop_n1_webserver1") for v in (True, False)]
assert triggers["received"] == 2 and seen == want, seen
EOF
    "$pub" status "$url" >"$dir/status.out" 2>&1 || fail "status failed"
    grep -q "healthPolicyName=/healthPolicy/slowResponse  serverName=$s1  healthPolicyTriggered=false" \
      "$dir/status.out" || fail "the status table lacks the untrigger" ;;
  options)
    # Bad command lines and unservable cells end at once with one line and status 2.
    printf '{"add": ' >"$dir/broken.json"
    for args in "--cell $cell" "--listen nowhere --cell $cell" "--listen localhost:0 --cell $cell" \
      "--listen 127.0.0.1:0 --cell $dir/missing.json" "--listen 127.0.0.1:0 --cell $dir/broken.json" \
      "--listen 127.0.0.1:0 --cell $cell --uri /status" "--listen 127.0.0.1:0 --cell $cell --keep 0" \
      "apply --delta $dir/missing.json http://127.0.0.1:1" "status"; do
      timeout 10 "$pub" $args >"$dir/options.out" 2>&1
      status=$?
      [ $status -eq 2 ] || fail "'$args' ended with status $status"
      [ "$(grep -c . "$dir/options.out")" -eq 1 ] && grep -q "^kyrpublish: " "$dir/options.out" ||
        fail "'$args' did not print one line: $(cat "$dir/options.out")"
    done
    # The library's HTTP client says why it got no answer on a line of its own.
    timeout 10 "$pub" status http://127.0.0.1:1 >"$dir/options.out" 2>&1
    [ $? -eq 2 ] && grep -q "^kyrpublish: no answer from http://127.0.0.1:1$" "$dir/options.out" ||
      fail "status of nothing did not fail"
    start a 127.0.0.1:0
    timeout 10 "$pub" --listen "${url#http://}" --cell "$cell" >"$dir/options.out" 2>&1
    [ $? -eq 2 ] && grep -q "^kyrpublish: cannot listen on ${url#http://}" "$dir/options.out" ||
      fail "a port in use was not refused" ;;
  *)
    echo "unknown case $case_name"
    exit 1 ;;
esac
finish
echo "PASS $case_name"
