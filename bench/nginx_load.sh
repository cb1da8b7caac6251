#!/bin/bash
# Load benchmark of the nginx module (make bench-nginx): wrk on loopback against
#   (a) kyr     nginx, 2 workers, kyr_route with the example cell (static routing document)
#   (b) nginx   the same nginx, an upstream of the same backends with least_conn
#   (c) haproxy HAProxy, 2 threads, balance leastconn with cookie affinity
# The backends are server blocks of a second nginx answering with their server's name. The
# variants run interleaved (a, b, c, a, b, c, ...) for ROUNDS rounds of SECONDS each; each
# reports requests/s and p99 latency as the median of its rounds. A separate short check sends
# requests with an affinity cookie to (a) and (c): the server that answers must be the cookie's.
# Everything listens on free ports of 127.0.0.1 and is stopped when the script ends.
# Usage: bench/nginx_load.sh [BUILD_DIR]   (env: ROUNDS=3 SECONDS_PER_RUN=10 CONNECTIONS=32,
#        PERF_DIR=DIR to profile the front nginx's workers during each run)
# With INSTRUCTIONS=N, no load rounds: the front runs as one process under callgrind, and N
# requests on one connection to (a) and then to (b) give the front's instructions per request
# for each, a figure that, unlike requests/s and CPU time, does not move with the machine; with
# PERF_DIR the two profiles are kept there (callgrind_annotate reads them).
set -euo pipefail

src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$src/build}" && pwd)
module=$build/hosts/nginx/ngx_http_kyr_module.so
rounds=${ROUNDS:-3}
seconds=${SECONDS_PER_RUN:-10}
connections=${CONNECTIONS:-32}
instructions=${INSTRUCTIONS:-}
# One process under callgrind: of two workers' reuseport sockets, the connections that the
# kernel hands to the second one would never be accepted.
front_workers=2
if [ -n "$instructions" ]; then front_workers=1; fi
nginx=$(command -v nginx || echo /usr/sbin/nginx)
for f in "$module" "$nginx" "$(command -v wrk || echo wrk)" "$(command -v haproxy || echo haproxy)"; do
  [ -e "$f" ] || { echo "nginx_load: $f is missing (make bench-nginx installs and builds it)" >&2; exit 1; }
done

dir=$(mktemp -d /tmp/kyr-nginx-load-XXXXXX)
chmod 755 "$dir"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  done
  rm -rf "$dir"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

read -r pa pb pc p1 p2 p3 < <(python3 -c '
import socket
socks = [socket.socket() for _ in range(6)]
for s in socks:
    s.bind(("127.0.0.1", 0))
print(" ".join(str(s.getsockname()[1]) for s in socks))')

# The example cell with each server's http endpoint on its backend and the port-80 virtual host
# on (a)'s port.
python3 - "$src/examples/cell/cell.json" "$dir/cell.json" "$pa" "$p1" "$p2" "$p3" <<'EOF'
import json, re, sys
source, target, front, ports = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:]
doc = json.load(open(source))
def walk(o):
    if isinstance(o, dict):
        o["objects"] = [c for c in o.get("objects", [])
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
json.dump(doc, open(target, "w"))
EOF

common() {
  cat <<EOF
daemon off;
worker_rlimit_nofile 8192;
error_log $dir/$1-error.log warn;
pid $dir/$1.pid;
events { worker_connections 4096; }
EOF
}
temp_paths() {
  for t in client_body proxy fastcgi uwsgi scgi; do printf '  %s_temp_path %s/%s-%s;\n' "$t" "$dir" "$1" "$t"; done
}

{
  common backends
  echo "worker_processes 1;"
  echo "http {"
  echo "  access_log off;"
  temp_paths backends
  for i in 1 2 3; do
    port_var=p$i
    printf '  server { listen 127.0.0.1:%s; keepalive_requests 100000;\n' "${!port_var}"
    printf '           location / { default_type text/plain; return 200 "s%s\\n"; } }\n' "$i"
  done
  echo "}"
} >"$dir/backends.conf"

{
  echo "load_module $module;"
  common front
  echo "worker_processes $front_workers;"
  cat <<EOF
http {
  access_log off;
$(temp_paths front)
  kyr_trace_catalogue $src/data/kyr-trace.xml;
  kyr_server_name shop_n1_webserver1;
  kyr_routing_document $dir/cell.json;
  kyr_socket $dir/run/kyr.sock;
  upstream cell { kyr_upstream; keepalive 32; }
  upstream plain {
    least_conn;
    server 127.0.0.1:$p1; server 127.0.0.1:$p2; server 127.0.0.1:$p3;
    keepalive 32;
  }
  server {
    listen 127.0.0.1:$pa reuseport;
    keepalive_requests 100000;
    location / {
      kyr_route on;
      proxy_pass http://cell;
      proxy_http_version 1.1;
      proxy_set_header Host \$http_host;
      proxy_set_header Connection "";
    }
  }
  server {
    listen 127.0.0.1:$pb reuseport;
    keepalive_requests 100000;
    location / {
      proxy_pass http://plain;
      proxy_http_version 1.1;
      proxy_set_header Host \$http_host;
      proxy_set_header Connection "";
    }
  }
}
EOF
} >"$dir/front.conf"

cat >"$dir/haproxy.cfg" <<EOF
global
  nbthread 2
  maxconn 8192
defaults
  mode http
  timeout connect 2s
  timeout client 30s
  timeout server 30s
  option http-keep-alive
frontend front
  bind 127.0.0.1:$pc
  default_backend cell
backend cell
  balance leastconn
  cookie SERVERID insert indirect nocache
  http-reuse always
  server s1 127.0.0.1:$p1 cookie c1
  server s2 127.0.0.1:$p2 cookie c2
  server s3 127.0.0.1:$p3 cookie c3
EOF

for conf in backends front; do
  run_nginx=("$nginx")
  if [ "$conf" = front ] && [ -n "$instructions" ]; then
    run_nginx=(valgrind -q --tool=callgrind --callgrind-out-file="$dir/callgrind.out" "$nginx"
      -g 'master_process off;')
  fi
  "$nginx" -t -q -p "$dir" -c "$dir/$conf.conf"
  "${run_nginx[@]}" -p "$dir" -c "$dir/$conf.conf" 2>>"$dir/$conf-error.log" &
  pids+=($!)
done
haproxy -c -q -f "$dir/haproxy.cfg"
haproxy -db -f "$dir/haproxy.cfg" >"$dir/haproxy.log" 2>&1 &
haproxy_pid=$!
pids+=($!)

# check: every variant answers, and an affinity cookie lands on its clone in (a) and (c).
python3 - "$pa" "$pb" "$pc" "${instructions:+120}" <<'EOF'
import http.client, sys, time
pa, pb, pc = (int(p) for p in sys.argv[1:4])
wait = int(sys.argv[4] or 15)  # seconds to start in; longer under callgrind
def body(port, headers={}):
    c = http.client.HTTPConnection("127.0.0.1", port, timeout=5)
    c.request("GET", "/shop/catalog", headers=headers)
    r = c.getresponse()
    text = r.read().decode().strip()
    c.close()
    return r.status, text
deadline = time.monotonic() + wait
for port in (pa, pb, pc):
    while True:
        try:
            if body(port)[0] == 200:
                break
        except OSError:
            pass
        if time.monotonic() > deadline:
            sys.exit("nginx_load: 127.0.0.1:%d does not answer" % port)
        time.sleep(0.1)
bad = []
for clone in ("c1", "c2", "c3"):
    server = "s" + clone[1]
    for variant, port, cookie in (("kyr", pa, "JSESSIONID=0001abc:" + clone),
                                  ("haproxy", pc, "SERVERID=" + clone)):
        got = [body(port, {"Cookie": cookie})[1] for _ in range(20)]
        if set(got) != {server}:
            bad.append("%s: Cookie %s reached %s" % (variant, cookie, sorted(set(got))))
spread = {v: sorted({body(p)[1] for _ in range(30)}) for v, p in (("kyr", pa), ("nginx", pb),
                                                                    ("haproxy", pc))}
print("affinity: 20 requests per clone with its cookie: %s" %
      ("every one on its clone (kyr, haproxy)" if not bad else "; ".join(bad)))
print("new sessions reach: %s" % ", ".join("%s %s" % (v, " ".join(s)) for v, s in spread.items()))
sys.exit(1 if bad or any(len(s) != 3 for s in spread.values()) else 0)
EOF

# instructions_per_request PORT DUMP: the front's instructions (callgrind's Ir) for each of N
# requests sent to PORT on one connection, counted from zero to the DUMP-th dump (callgrind
# numbers them).
instructions_per_request() {
  local front=${pids[1]}
  callgrind_control -z "$front" >/dev/null 2>&1
  python3 - "$1" "$instructions" <<'EOF'
import http.client, sys
c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]), timeout=60)
for _ in range(int(sys.argv[2])):
    c.request("GET", "/shop/catalog")
    r = c.getresponse()
    r.read()
    if r.status != 200:
        sys.exit("nginx_load: status %d from port %s" % (r.status, sys.argv[1]))
EOF
  callgrind_control -d "$front" >/dev/null 2>&1
  awk -v n="$instructions" '/^(summary|totals):/ { printf "%.0f\n", $2 / n; exit }' \
    "$dir/callgrind.out.$2"
}
if [ -n "$instructions" ]; then
  echo "front instructions per request ($instructions requests each, callgrind):" \
    "(a) nginx + kyr_route $(instructions_per_request "$pa" 1)," \
    "(b) nginx least_conn $(instructions_per_request "$pb" 2)"
  if [ -n "${PERF_DIR:-}" ]; then
    cp "$dir/callgrind.out.1" "$PERF_DIR/kyr.callgrind"
    cp "$dir/callgrind.out.2" "$PERF_DIR/nginx.callgrind"
  fi
  exit 0
fi

url_a=http://127.0.0.1:$pa/shop/catalog
url_b=http://127.0.0.1:$pb/shop/catalog
url_c=http://127.0.0.1:$pc/shop/catalog
# The CPU time (user + system, in clock ticks) the given processes have used so far.
cpu_ticks() {
  local pid total=0
  for pid in "$@"; do
    # Fields 14 and 15 of /proc/PID/stat, counted after the command name's closing parenthesis.
    total=$((total + $(sed 's/.*) //' "/proc/$pid/stat" | awk '{ print $12 + $13 }')))
  done
  echo "$total"
}
# The processes that do the front's work for a variant: (a) and (b) share the nginx workers,
# (c) is HAProxy.
front_pids() {
  if [ "$1" = haproxy ]; then echo "$haproxy_pid"; else pgrep -P "$(cat "$dir/front.pid")"; fi
}

# run NAME URL: one wrk run; appends "NAME requests/s p99-ms non-2xx front-cpu-us" to
# $dir/results, the last being the front's CPU time per request: on a machine that wrk and the
# backends share, it shows what each front costs even where requests/s is noisy. With PERF_DIR
# set, the front nginx's workers are profiled meanwhile (perf record -g) into
# PERF_DIR/NAME-N.data, N counting that variant's runs.
run() {
  local out perf_pid='' fronts before
  if [ -n "${PERF_DIR:-}" ]; then
    local workers n=1
    workers=$(front_pids nginx | paste -sd,)
    while [ -e "$PERF_DIR/$1-$n.data" ]; do n=$((n + 1)); done
    perf record -q -g -p "$workers" -o "$PERF_DIR/$1-$n.data" -- sleep "$seconds" 2>/dev/null &
    perf_pid=$!
  fi
  fronts=$(front_pids "$1")
  # shellcheck disable=SC2086 # one pid per word
  before=$(cpu_ticks $fronts)
  out=$(wrk -t2 -c"$connections" -d"${seconds}s" --latency "$2")
  # shellcheck disable=SC2086
  local used=$(($(cpu_ticks $fronts) - before))
  if [ -n "$perf_pid" ]; then wait "$perf_pid" || true; fi
  echo "$out" >>"$dir/wrk-$1.log"
  awk -v name="$1" -v ticks="$used" -v hz="$(getconf CLK_TCK)" '
    function ms(v) { if (v ~ /us$/) return v / 1000; if (v ~ /ms$/) return v + 0;
                     if (v ~ /s$/) return v * 1000; return v }
    /Requests\/sec:/ { rps = $2 }
    $1 == "99%" { p99 = ms($2) }
    /Non-2xx/ { bad = $NF }
    / requests in / { n = $1 }
    END { printf "%s %.0f %.3f %d %.2f\n", name, rps, p99, bad, n ? ticks / hz * 1e6 / n : 0 }
  ' <<<"$out" >>"$dir/results"
}

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores"
echo "wrk -t2 -c$connections -d${seconds}s --latency, $rounds rounds of kyr, nginx, haproxy (interleaved)"
for url in "$url_a" "$url_b" "$url_c"; do # warm-up: connections to the backends, caches
  wrk -t2 -c"$connections" -d2s "$url" >/dev/null
done
for round in $(seq "$rounds"); do
  run kyr "$url_a"
  run nginx "$url_b"
  run haproxy "$url_c"
  echo "round $round: $(tail -3 "$dir/results" |
    awk '{ printf "%s %s req/s p99 %s ms front %s us/req; ", $1, $2, $3, $5 }')"
done
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"

python3 - "$dir/results" <<'EOF'
import statistics, sys
runs = {}
for line in open(sys.argv[1]):
    name, rps, p99, bad, cpu = line.split()
    runs.setdefault(name, []).append((float(rps), float(p99), int(bad), float(cpu)))
med = {n: (statistics.median(r[0] for r in v), statistics.median(r[1] for r in v),
           sum(r[2] for r in v), statistics.median(r[3] for r in v)) for n, v in runs.items()}
labels = {"kyr": "(a) nginx + kyr_route", "nginx": "(b) nginx least_conn",
          "haproxy": "(c) HAProxy leastconn+cookie"}
print("%-30s %12s %10s %8s %16s" % ("median of rounds", "requests/s", "p99 ms", "non-2xx",
                                     "front us/request"))
for n in ("kyr", "nginx", "haproxy"):
    print("%-30s %12.0f %10.2f %8d %16.2f" % (labels[n], *med[n]))
a, b, c = med["kyr"], med["nginx"], med["haproxy"]
print("(a)/(b) requests/s %.3f (goal >= 0.95), (a)/(c) %.3f (goal > 1), "
      "p99 (a)/(b) %.3f (goal <= 1.10)" % (a[0] / b[0], a[0] / c[0], a[1] / b[1]))
print("front CPU per request (a)/(b) %.3f" % (a[3] / b[3]))
EOF
if grep -E '\[(alert|emerg)\]|exited on signal' "$dir"/*-error.log; then
  echo "nginx_load: nginx reported problems (above)" >&2
  exit 1
fi
