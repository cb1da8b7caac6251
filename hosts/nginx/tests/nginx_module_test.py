#!/usr/bin/env python3
# ngx_http_kyr_module end to end: the stock nginx loads the module, routes through the example
# cell to backend.py processes and answers as the library decides. Everything listens on
# 127.0.0.1 on free ports, lives in a temporary directory and ends by itself; every wait is
# bounded. Exits with 77 (CTest's skip) when nginx or the module is not there.
# Usage: nginx_module_test.py MODULE_SO SOURCE_DIR CASE
#   CASE: routing, rules, failover, timeout, config_errors, two_workers, publisher
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SKIP = 77
HERE = os.path.dirname(os.path.abspath(__file__))
NGINX = shutil.which("nginx") or "/usr/sbin/nginx"
LIFETIME = "120"  # seconds a helper process lives at most


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def read_port(process, what):
    line = process.stdout.readline().strip()
    check(line.isdigit(), "%s did not say its port" % what)
    return int(line)


class Cell:
    """A temporary directory with backends, a routing document and nginx."""

    def __init__(self, module, src, names=("s1", "s2", "s3"), delays=None):
        self.module = module
        self.src = src
        self.dir = tempfile.mkdtemp(prefix="kyr-nginx-")
        # Workers that drop root for nobody must reach the socket directory inside.
        os.chmod(self.dir, 0o755)
        self.processes = []
        self.expected_alerts = []  # texts of [alert] lines a case provokes on purpose
        self.backends = {}
        for name in names:
            delay = str((delays or {}).get(name, 0))
            p = self.spawn([sys.executable, os.path.join(HERE, "backend.py"), name, LIFETIME,
                            delay])
            self.backends[name] = (p, read_port(p, "backend " + name))
        self.port = free_port()
        self.nginx = None

    def spawn(self, argv, **kwargs):
        p = subprocess.Popen(argv, stdout=subprocess.PIPE, text=True, **kwargs)
        self.processes.append(p)
        return p

    def path(self, name):
        return os.path.join(self.dir, name)

    def document(self):
        """The example cell with its http endpoints on the backends (s1..s3 by clone c1..c3)
        and its virtual host on nginx's port; https endpoints point at a closed port."""
        with open(os.path.join(self.src, "examples/cell/cell.json")) as f:
            doc = json.load(f)
        closed = free_port()

        def walk(o):
            if isinstance(o, dict):
                props = o.get("props", {})
                if o.get("type") == "transport":
                    server = re.search(r"app(\d)\.example\.com", props["host"]).group(1)
                    backend = self.backends.get("s" + server)
                    props["host"] = "127.0.0.1"
                    http = props["protocol"] == "http" and backend is not None
                    props["port"] = backend[1] if http else closed
                if o.get("type") == "vHost" and props.get("port") == 80:
                    props["port"] = self.port
                for v in o.values():
                    walk(v)
            elif isinstance(o, list):
                for v in o:
                    walk(v)

        walk(doc)
        path = self.path("cell.json")
        with open(path, "w") as f:
            json.dump(doc, f)
        return path

    def config(self, http_lines, workers=1, upstream="kyr_upstream;", listen="", catalogue=None,
               proxy="http://cell", read_timeout="5s"):
        d = self.dir
        catalogue = catalogue or os.path.join(self.src, "data/kyr-trace.xml")
        text = """load_module %(module)s;
daemon off;
master_process on;
worker_processes %(workers)d;
pid %(d)s/nginx.pid;
error_log %(d)s/error.log notice;
events { worker_connections 128; }
http {
  access_log %(d)s/access.log;
  client_body_temp_path %(d)s/body;
  proxy_temp_path %(d)s/proxy;
  fastcgi_temp_path %(d)s/fastcgi;
  uwsgi_temp_path %(d)s/uwsgi;
  scgi_temp_path %(d)s/scgi;
  kyr_trace_catalogue %(catalogue)s;
  kyr_server_name shop_n1_webserver1;
%(http)s
  upstream cell { %(upstream)s }
  server {
    listen 127.0.0.1:%(port)d%(listen)s;
    ignore_invalid_headers off;
    location /kyr-status { kyr_status; }
    location / {
      kyr_route on;
      proxy_pass %(proxy)s;
      proxy_http_version 1.1;
      proxy_set_header Host $http_host;
      proxy_set_header Connection "";
      add_header X-Kyr-Server $kyr_server;
      proxy_connect_timeout 2s;
      proxy_read_timeout %(read_timeout)s;
    }
  }
}
""" % {"module": self.module, "workers": workers, "d": d, "catalogue": catalogue,
       "http": "\n".join("  " + line for line in http_lines), "upstream": upstream,
       "port": self.port, "listen": listen, "proxy": proxy,
       "read_timeout": read_timeout}
        path = self.path("nginx.conf")
        with open(path, "w") as f:
            f.write(text)
        return path

    def test_config(self):
        r = subprocess.run([NGINX, "-t", "-p", self.dir, "-c", self.path("nginx.conf")],
                           capture_output=True, text=True, timeout=60)
        return r.returncode, r.stderr

    def launch(self):
        rc, err = self.test_config()
        check(rc == 0, "nginx -t failed:\n" + err)
        self.nginx = subprocess.Popen([NGINX, "-p", self.dir, "-c", self.path("nginx.conf")],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def stop(self):
        if self.nginx is not None and self.nginx.poll() is None:
            self.nginx.send_signal(signal.SIGTERM)
            try:
                self.nginx.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.nginx.kill()
                self.nginx.wait(timeout=10)
        self.nginx = None

    def wait_for_log(self, text, seconds=10):
        deadline = time.monotonic() + seconds
        while text not in self.log_tail(200):
            check(time.monotonic() < deadline, "the error log never said %r:\n%s" %
                  (text, self.log_tail()))
            time.sleep(0.1)

    def start(self, ready_path="/shop/catalog", ready_count=5):
        self.launch()
        # Ready once the routing data has reached whichever worker answers.
        deadline = time.monotonic() + 20
        ok = 0
        while ok < ready_count:
            check(self.nginx.poll() is None, "nginx ended: " + self.log_tail())
            check(time.monotonic() < deadline, "nginx did not route within 20 s: " +
                  self.log_tail())
            try:
                ok = ok + 1 if self.get(ready_path)[0] == 200 else 0
            except OSError:
                ok = 0
            if ok == 0:
                time.sleep(0.1)

    def get(self, path, headers=None):
        """One request on a connection of its own: (status, headers, body)."""
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        try:
            conn.request("GET", path, headers=headers or {})
            resp = conn.getresponse()
            return resp.status, resp.getheaders(), resp.read().decode(errors="replace")
        finally:
            conn.close()

    def backend_of(self, path, headers=None):
        status, hdrs, body = self.get(path, headers)
        check(status == 200, "%s gave %d: %s" % (path, status, body))
        return body.strip()

    def log_tail(self, lines=30):
        try:
            with open(self.path("error.log")) as f:
                return "".join(f.readlines()[-lines:])
        except OSError:
            return "(no error log)"

    def alerts(self):
        """The error log's alerts and crits (a worker that crashed, a socket left open at exit)
        that the case did not provoke."""
        try:
            with open(self.path("error.log")) as f:
                lines = f.readlines()
        except OSError:
            return []
        return [line for line in lines if ("[alert]" in line or "[crit]" in line) and
                not any(text in line for text in self.expected_alerts)]

    def close(self):
        self.stop()
        for p in self.processes:
            if p.poll() is None:
                p.terminate()
                try:
                    p.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    p.kill()
        shutil.rmtree(self.dir, ignore_errors=True)


def header(headers, name):
    values = [v for k, v in headers if k.lower() == name.lower()]
    return values[0] if values else None


def case_routing(cell):
    cell.config(["kyr_routing_document %s;" % cell.document()])
    cell.start()
    # New sessions are balanced over every server of the cluster.
    seen = {cell.backend_of("/shop/catalog") for _ in range(12)}
    check(seen == {"s1", "s2", "s3"}, "new sessions reached %s, not every server" % sorted(seen))
    # The proxied request carries the private headers for this server's own connection.
    status, hdrs, _ = cell.get("/shop/catalog")
    check(header(hdrs, "X-Got-ZQSC") == "http", "no $ZQSC header reached the backend")
    check(header(hdrs, "X-Got-ZQSP") == str(cell.port), "$ZQSP is not nginx's port")
    check(header(hdrs, "X-Got-ZQRA") == "127.0.0.1", "$ZQRA is not the client's address")
    server = header(hdrs, "X-Kyr-Server") or ""
    check(server.endswith("/server/" + header(hdrs, "X-Backend")),
          "$kyr_server is %r for the answer of %s" % (server, header(hdrs, "X-Backend")))
    # Session affinity: the clone ID in the session cookie, or in the path, keeps the server.
    for _ in range(6):
        got = cell.backend_of("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c2"})
        check(got == "s2", "the session of clone c2 went to %s" % got)
        got = cell.backend_of("/shop/cart;jsessionid=0001abc:c3")
        check(got == "s3", "the session of clone c3 (in the path) went to %s" % got)
    # A sticky permit: the response carries the affinity cookie for the server that answered.
    status, hdrs, body = cell.get("/shop/catalog", {"X-Beta": "yes"})
    clone = "c" + body.strip()[1:]
    cookie = header(hdrs, "Set-Cookie")
    check(cookie == "ZQJESSIONID=aa:%s; Path=/shop" % clone,
          "sticky response from %s set the cookie %r" % (body.strip(), cookie))
    # Partition tables: learnt from the response, removed from it, sent back as a version.
    status, hdrs, _ = cell.get("/shop/catalog?partition=1")
    names = {k.lower() for k, _ in hdrs}
    check("$zqpt" not in names and "_zq_haprt_wlmversion" not in names,
          "partition headers reached the client: %s" % sorted(names))
    status, hdrs, _ = cell.get("/shop/catalog")
    check(header(hdrs, "X-Got-ZQ_HAPRT_WLMVERSION") == "7",
          "the partition table version was not sent on: %r" %
          header(hdrs, "X-Got-ZQ_HAPRT_WLMVERSION"))
    # A client cannot speak for this web server.
    status, _, _ = cell.get("/shop/catalog", {"$ZQRA": "192.0.2.1"})
    check(status == 400, "a client's own $ZQRA header got %d, not 400" % status)


def case_rules(cell):
    cell.config(["kyr_routing_document %s;" % cell.document()])
    cell.start()
    status, _, _ = cell.get("/bank/account?maintenance=yes")
    check(status == 503, "the bank's maintenance rule gave %d, not 503" % status)
    status, hdrs, _ = cell.get("/shop/old/index.html")
    check(status == 302, "the shop's redirect rule gave %d, not 302" % status)
    check(header(hdrs, "Location") == "https://shop.example.com/shop/",
          "redirected to %r" % header(hdrs, "Location"))
    status, _, _ = cell.get("/nowhere")
    check(status == 404, "a URL no module serves gave %d, not 404" % status)
    check(cell.backend_of("/bank/account") in ("s1", "s2", "s3"), "the bank is not served")


def case_failover(cell):
    cell.config(["kyr_routing_document %s;" % cell.document()])
    cell.start()
    p, port = cell.backends["s1"]
    p.terminate()
    p.wait(timeout=5)
    # The first requests still go to s1, fail to connect, and nginx's retry asks the library
    # again, which then leaves s1 out.
    seen = [cell.backend_of("/shop/catalog") for _ in range(12)]
    check("s1" not in seen and set(seen) == {"s2", "s3"},
          "after s1 died the requests went to %s" % seen)
    got = cell.backend_of("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c1"})
    check(got in ("s2", "s3"), "the session of the dead s1 went to %s" % got)
    check("kyr: connect failed at endpoint 127.0.0.1:%d" % port in cell.log_tail(200),
          "no connect failure was reported to the library:\n" + cell.log_tail())


def case_timeout(cell):
    # s1 answers after nginx stopped waiting: the library hears of the time-out and nginx's
    # retry goes elsewhere.
    cell.config(["kyr_routing_document %s;" % cell.document()], read_timeout="1s")
    cell.start(ready_count=1)
    seen = [cell.backend_of("/shop/catalog") for _ in range(6)]
    check("s1" not in seen, "a request was answered by the slow s1: %s" % seen)
    port = cell.backends["s1"][1]
    check("kyr: response timed out at endpoint 127.0.0.1:%d" % port in cell.log_tail(200),
          "no response time-out was reported to the library:\n" + cell.log_tail())


def case_config_errors(cell):
    doc = cell.document()
    bad_json = cell.path("bad.json")
    with open(bad_json, "w") as f:
        f.write('{"version": 1, "add": ')
    missing = "/nonexistent/kyr-trace.xml"
    not_a_catalogue = cell.path("catalogue.xml")
    with open(not_a_catalogue, "w") as f:
        f.write("<groups")
    cases = [
        (["kyr_routing_document %s;" % doc], "kyr_upstream;", missing,
         r'cannot open "/nonexistent/kyr-trace.xml"'),
        (["kyr_routing_document %s;" % bad_json], "kyr_upstream;", None, r"bad.json\" is not JSON"),
        (["kyr_routing_document %s;" % doc], "kyr_upstream;", not_a_catalogue,
         r'is ".*catalogue.xml" a trace catalogue'),
        (["kyr_routing_document /nonexistent/cell.json;"], "kyr_upstream;", None,
         r'cannot open "/nonexistent/cell.json"'),
        ([], "kyr_upstream;", None, r"no routing data"),
        (["kyr_routing_document %s;" % doc, "kyr_trace_spec 'control:LOUD';"], "kyr_upstream;",
         None, r"is not a trace specification"),
        (["kyr_connector_group g http://127.0.0.1:1;", "kyr_group_property g colour blue;"],
         "kyr_upstream;", None, r"kyr_group_property g colour"),
        (["kyr_group_property g waitTime 10;"], "kyr_upstream;", None, r'no connector group "g"'),
        (["kyr_connector_group g ftp://127.0.0.1:1;"], "kyr_upstream;", None,
         r"not an http:// URL"),
        (["kyr_routing_document %s;" % doc, "kyr_property NoSuchProperty 1;"], "kyr_upstream;",
         None, r"kyr_property NoSuchProperty"),
        (["kyr_routing_document %s;" % doc], "kyr_upstream; server 127.0.0.1:1;", None,
         r'remove its "server" lines'),
    ]
    for lines, upstream, catalogue, pattern in cases:
        cell.config(lines, upstream=upstream, catalogue=catalogue)
        rc, err = cell.test_config()
        check(rc != 0, "nginx -t accepted %s" % lines)
        check(re.search(pattern, err), "nginx -t for %s said:\n%s" % (lines, err))
    cell.config(["kyr_routing_document %s;" % doc])
    rc, err = cell.test_config()
    check(rc == 0, "nginx -t refused the good configuration:\n" + err)


def roles(cell, connections=40):
    """The X-Kyr-Process of the workers that answered, one connection each."""
    seen = set()
    for _ in range(connections):
        status, hdrs, _ = cell.get("/kyr-status")
        check(status == 200, "/kyr-status gave %d" % status)
        seen.add(header(hdrs, "X-Kyr-Process"))
    return seen


def case_two_workers(cell):
    # The kernel spreads new connections over both workers (reuseport). The proxy follows the
    # endpoint's protocol and keeps connections to the endpoints open. The master creates the
    # socket's directory for the workers.
    cell.config(["kyr_routing_document %s;" % cell.document(),
                 "kyr_socket %s;" % cell.path("run/kyr.sock")],
                workers=2, listen=" reuseport", proxy="$kyr_scheme://cell",
                upstream="kyr_upstream; keepalive 8;")
    cell.start(ready_count=10)
    seen = roles(cell)
    check(seen == {"server worker 0", "client worker 1"}, "the workers answered as %s" % seen)
    answers = [cell.get("/shop/catalog") for _ in range(30)]
    check(all(status == 200 for status, _, _ in answers), "two workers answered %s" %
          sorted({status for status, _, _ in answers}))
    backends = {body.strip() for _, _, body in answers}
    check(backends == {"s1", "s2", "s3"}, "two workers reached %s" % sorted(backends))
    reused = [h for _, h, _ in answers if header(h, "X-Connection-Request") != "1"]
    check(reused, "no connection to an endpoint was used twice (keepalive)")
    for _ in range(10):
        got = cell.backend_of("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c2"})
        check(got == "s2", "with two workers the session of c2 went to %s" % got)
    # A reload starts a new worker 0 on the same socket while the old one winds down.
    cell.nginx.send_signal(signal.SIGHUP)
    cell.wait_for_log("reconfiguring")
    check(roles(cell) == {"server worker 0", "client worker 1"}, "after a reload the roles are "
          "%s" % roles(cell))
    backends = {cell.backend_of("/shop/catalog") for _ in range(30)}
    check(backends == {"s1", "s2", "s3"}, "after a reload two workers reached %s" %
          sorted(backends))
    if os.geteuid() == 0:
        # Workers run as nobody: a socket directory they cannot write stops worker 0 with a
        # message that says so, instead of clients that wait for it forever.
        cell.stop()
        cell.config(["kyr_routing_document %s;" % cell.document(),
                     "kyr_socket %s;" % cell.path("kyr.sock")], workers=2)
        cell.expected_alerts.append("exited with fatal code 2 and cannot be respawned")
        cell.launch()
        cell.wait_for_log("worker 0 cannot create the socket")


def case_publisher(cell):
    # Worker 0 alone asks the publisher; worker 1 learns the cell over the socket.
    doc = cell.document()
    stub = os.path.join(cell.src, "tests/tools/stub_publisher.py")
    log = open(cell.path("publisher.log"), "w")
    p = cell.spawn([sys.executable, stub, doc,
                    os.path.join(cell.src, "examples/cell/maintenance-delta.json"), LIFETIME],
                   stderr=log)
    publisher = "http://127.0.0.1:%d" % read_port(p, "the publisher")
    cell.config(["kyr_connector_group shopfront %s;" % publisher,
                 "kyr_group_property shopfront waitTime 30;",
                 "kyr_socket %s;" % cell.path("run/kyr.sock")], workers=2, listen=" reuseport")
    cell.start(ready_count=10)
    seen = roles(cell)
    check(seen == {"server worker 0", "client worker 1"}, "the workers answered as %s" % seen)
    for _ in range(20):
        got = cell.backend_of("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c1"})
        check(got == "s1", "with a publisher the session of c1 went to %s" % got)
    log.flush()
    with open(cell.path("publisher.log")) as f:
        text = f.read()
    # Route changes are POSTs too; the stub names them.
    initial = text.count('"POST /brisvane?name=shopfront&') - text.count("route change")
    check(initial == 1, "the publisher got %d initial requests, not one:\n%s" % (initial, text))


CASES = {
    "routing": case_routing,
    "rules": case_rules,
    "failover": case_failover,
    "timeout": case_timeout,
    "config_errors": case_config_errors,
    "two_workers": case_two_workers,
    "publisher": case_publisher,
}


def main():
    if len(sys.argv) != 4 or sys.argv[3] not in CASES:
        sys.stderr.write("usage: %s MODULE_SO SOURCE_DIR {%s}\n" %
                         (sys.argv[0], ",".join(CASES)))
        return 2
    module, src, name = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3]
    if not os.access(NGINX, os.X_OK):
        print("SKIPPED: nginx is not installed (make nginx installs nginx and nginx-dev)")
        return SKIP
    if not os.path.exists(module):
        print("SKIPPED: %s is not built (make nginx builds it)" % module)
        return SKIP
    cell = Cell(module, src, delays={"s1": 3} if name == "timeout" else None)
    try:
        CASES[name](cell)
        cell.stop()
        alerts = cell.alerts()
        check(not alerts, "nginx alerted:\n" + "".join(alerts))
    except (Failure, OSError, subprocess.TimeoutExpired) as e:
        print("FAIL %s: %s" % (name, e))
        print("--- error log ---\n" + cell.log_tail())
        return 1
    finally:
        cell.close()
    print("ok %s" % name)
    return 0


if __name__ == "__main__":
    sys.exit(main())
