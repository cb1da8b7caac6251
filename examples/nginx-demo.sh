#!/bin/bash
# The nginx module at work (make demo): kyrpublish serves a copy of the example cell, one nginx
# runs three backends (server blocks that answer with their server's name) and the front server
# that routes through ngx_http_kyr_module with two workers; a handful of requests show
# affinity, editions, a reject, a redirect, and a live edit of the cell changing the answers.
# Everything listens on free ports of 127.0.0.1, lives in a temporary directory and is stopped
# when the script ends, however it ends.
# Usage: examples/nginx-demo.sh [BUILD_DIR]   (default: build; needs nginx_module and kyrpublish)
set -euo pipefail

src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$src/build}" && pwd)
module=$build/hosts/nginx/ngx_http_kyr_module.so
kyrpublish=$build/tools/kyrpublish/kyrpublish
nginx=$(command -v nginx || echo /usr/sbin/nginx)
for f in "$module" "$kyrpublish" "$nginx"; do
  [ -x "$f" ] || [ -f "$f" ] || { echo "nginx-demo: $f is missing (make demo builds it)" >&2; exit 1; }
done

dir=$(mktemp -d /tmp/kyr-nginx-demo-XXXXXX)
chmod 755 "$dir" # nginx's workers drop root for nobody and must reach the socket inside
pids=()
cleanup() {
  echo "stopping nginx and kyrpublish"
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  done
  rm -rf "$dir"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Four free loopback ports: the front and the backends s1..s3.
read -r front p1 p2 p3 < <(python3 - <<'EOF'
import socket
socks = [socket.socket() for _ in range(4)]
for s in socks:
    s.bind(("127.0.0.1", 0))
print(" ".join(str(s.getsockname()[1]) for s in socks))
EOF
)

# The demo's cell: the example cell with each server's http endpoint on its backend (the
# backends speak http only) and its port-80 virtual host on the front's port. kyrpublish
# watches the cell's directory, so the cell has one of its own.
mkdir "$dir/cell"
cell=$dir/cell/cell.json
python3 - "$src/examples/cell/cell.json" "$cell" "$front" "$p1" "$p2" "$p3" <<'EOF'
import json, re, sys
source, target, front, ports = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:]
doc = json.load(open(source))
def walk(o):
    if isinstance(o, dict):
        objects = o.get("objects", [])
        o["objects"] = [c for c in objects
                        if not (c.get("type") == "transport" and c["props"]["protocol"] != "http")]
        props = o.get("props", {})
        if o.get("type") == "transport":
            n = int(re.search(r"app(\d)\.", props["host"]).group(1))
            props["host"], props["port"] = "127.0.0.1", int(ports[n - 1])
        if o.get("type") == "vHost" and props.get("port") == 80:
            props["port"] = front
        for c in o["objects"]:
            walk(c)
        if not o["objects"]:
            del o["objects"]
for o in doc["add"]["objects"]:
    walk(o)
json.dump(doc, open(target, "w"), indent=1)
EOF

"$kyrpublish" --listen 127.0.0.1:0 --cell "$cell" 2>"$dir/kyrpublish.log" &
pids+=($!)
publisher=
for _ in $(seq 100); do
  publisher=$(grep -o 'listening on http://127\.0\.0\.1:[0-9]*' "$dir/kyrpublish.log" | cut -d' ' -f3) || true
  [ -n "$publisher" ] && break
  sleep 0.1
done
[ -n "$publisher" ] || { echo "nginx-demo: kyrpublish did not start:" >&2; cat "$dir/kyrpublish.log" >&2; exit 1; }

backend() {
  printf '  server { listen 127.0.0.1:%s; access_log off;\n' "$2"
  printf '           location / { default_type text/plain; return 200 "%s\\n"; } }\n' "$1"
}
cat >"$dir/nginx.conf" <<EOF
load_module $module;
daemon off;
worker_processes 2;
pid $dir/nginx.pid;
error_log $dir/error.log notice;
events { worker_connections 256; }
http {
  access_log off;
  client_body_temp_path $dir/body;
  proxy_temp_path $dir/proxy;
  fastcgi_temp_path $dir/fastcgi;
  uwsgi_temp_path $dir/uwsgi;
  scgi_temp_path $dir/scgi;
  kyr_trace_catalogue $src/data/kyr-trace.xml;
  kyr_server_name shop_n1_webserver1;
  kyr_connector_group shopfront $publisher;
  kyr_socket $dir/run/kyr.sock;
  upstream cell { kyr_upstream; keepalive 16; }
  server {
    listen 127.0.0.1:$front reuseport;
    location / {
      kyr_route on;
      proxy_pass http://cell;
      proxy_http_version 1.1;
      proxy_set_header Host \$http_host;
      proxy_set_header Connection "";
    }
  }
$(backend s1 "$p1")
$(backend s2 "$p2")
$(backend s3 "$p3")
}
EOF
"$nginx" -t -q -p "$dir" -c "$dir/nginx.conf"
"$nginx" -p "$dir" -c "$dir/nginx.conf" 2>>"$dir/error.log" &
pids+=($!)

# The client, one process per line of output: "client.py PORT N PATH [HEADER...]" sends N
# requests, each on a connection of its own, and prints the backends that answered (N > 1) or
# "status body" with any Location and Set-Cookie headers (N = 1); "client.py PORT ready SECONDS"
# waits until nginx routes; "client.py PORT until TEXT SECONDS PATH SINCE" asks until an answer
# holds TEXT and prints how long after SINCE (a time.time()) that was.
cat >"$dir/client.py" <<'EOF'
import http.client, sys, time
port = int(sys.argv[1])
def ask(path, headers=()):
    c = http.client.HTTPConnection("127.0.0.1", port, timeout=5)
    c.request("GET", path, headers=dict(h.split(": ", 1) for h in headers))
    r = c.getresponse()
    body = r.read().decode(errors="replace").strip()
    extra = "".join("  %s: %s" % (k, r.getheader(k)) for k in ("Location", "Set-Cookie")
                    if r.getheader(k))
    c.close()
    return r.status, body, "%d %s%s" % (r.status, body if r.status == 200 else "", extra)
if sys.argv[2] == "until":
    text, seconds, path, since = sys.argv[3], float(sys.argv[4]), sys.argv[5], float(sys.argv[6])
    while text not in ask(path)[2]:
        if time.time() - since > seconds:
            sys.exit("no answer held %r within %g s" % (text, seconds))
        time.sleep(0.005)
    print("%.0f ms" % (1000 * (time.time() - since)))
elif sys.argv[2] == "ready":
    ok, deadline = 0, time.monotonic() + float(sys.argv[3])
    while ok < 6 and time.monotonic() < deadline:
        try:
            ok = ok + 1 if ask("/shop/catalog")[0] == 200 else 0
        except OSError:
            ok = 0
        time.sleep(0.05 if ok == 0 else 0)
    sys.exit(0 if ok >= 6 else 1)
else:
    n, path, headers = int(sys.argv[2]), sys.argv[3], sys.argv[4:]
    answers = [ask(path, headers) for _ in range(n)]
    print(answers[0][2] if n == 1 else " ".join(a[1] if a[0] == 200 else str(a[0])
                                                 for a in answers))
EOF
ask() { python3 "$dir/client.py" "$front" 1 "$@"; }
servers() { python3 "$dir/client.py" "$front" "$@"; }

python3 "$dir/client.py" "$front" ready 10 ||
  { echo "nginx-demo: nginx did not route within 10 s:" >&2; tail -20 "$dir/error.log" >&2; exit 1; }

echo "kyrpublish $publisher serving $cell"
echo "nginx (2 workers, kyr_route) on http://127.0.0.1:$front; backends s1 :$p1, s2 :$p2, s3 :$p3"
echo
echo "new sessions spread over the cluster:      $(servers 8 /shop/catalog)"
echo "affinity (Cookie JSESSIONID=0001abc:c2):    $(servers 4 /shop/catalog 'Cookie: JSESSIONID=0001abc:c2')"
echo "affinity (;jsessionid=0001abc:c3 in path):  $(servers 4 '/shop/cart;jsessionid=0001abc:c3')"
echo "edition 2.0 (X-Beta: yes, sticky):          $(ask /shop/catalog 'X-Beta: yes')"
echo "reject (GET /bank/account?maintenance=yes): $(ask '/bank/account?maintenance=yes')"
echo "redirect (GET /shop/old/index.html):        $(ask /shop/old/index.html)"
echo "a URL no module serves (GET /nowhere):      $(ask /nowhere)"
echo

echo "editing $cell: s3 into maintenance, /shop/old/ redirected to /shop/new/"
written=$(python3 - "$cell" <<'EOF'
import json, os, sys, time
path = sys.argv[1]
doc = json.load(open(path))
def walk(o):
    if isinstance(o, dict):
        props = o.get("props", {})
        if o.get("type") == "server" and o.get("name") == "/server/s3":
            props["server.maintenancemode"] = "affinity"
        if props.get("action", "").startswith("redirect:"):
            props["action"] = "redirect:https://shop.example.com/shop/new/"
        for c in o.get("objects", []):
            walk(c)
for o in doc["add"]["objects"]:
    walk(o)
json.dump(doc, open(path + ".new", "w"), indent=1)
os.replace(path + ".new", path)
print(time.time())
EOF
)
took=$(python3 "$dir/client.py" "$front" until /shop/new/ 5 /shop/old/index.html "$written") ||
  { echo "nginx-demo: the edit did not arrive" >&2; exit 1; }
echo "nginx answered with the edit $took after the file was written"
echo "redirect (GET /shop/old/index.html):        $(ask /shop/old/index.html)"
echo "new sessions leave s3:                      $(servers 8 /shop/catalog)"
echo "s3's own sessions stay (JSESSIONID ...:c3): $(servers 4 /shop/catalog 'Cookie: JSESSIONID=0001abc:c3')"
echo
grep -o 'edit of .*' "$dir/kyrpublish.log" | sed 's/^/kyrpublish: /'
if grep -E '\[(alert|emerg)\]|exited on signal' "$dir/error.log"; then
  echo "nginx-demo: nginx reported problems (above)" >&2
  exit 1
fi
