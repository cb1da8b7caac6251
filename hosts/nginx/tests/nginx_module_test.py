#!/usr/bin/env python3
# ngx_http_kyr_module end to end: the stock nginx loads the module, routes through the example
# cell to backend.py processes and answers as the library decides. Everything listens on
# 127.0.0.1 on free ports, lives in a temporary directory and ends by itself; every wait is
# bounded. Without nginx or the module a case fails and says what is missing: these tests are
# part of the suite (make test installs nginx and builds the module), never skipped.
# Usage: nginx_module_test.py MODULE_SO SOURCE_DIR CASE [KYRPUBLISH]
#   CASE: routing, identity, rules, failover, timeout, foreign_upstream, config_errors, two_workers,
#         publisher, publisher_edit (needs KYRPUBLISH), bad_traffic
import base64
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
               proxy="http://cell", read_timeout="5s", location_lines=()):
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
      add_header X-Worker $pid always;
      proxy_connect_timeout 2s;
      proxy_read_timeout %(read_timeout)s;
%(location)s
    }
  }
}
""" % {"module": self.module, "workers": workers, "d": d, "catalogue": catalogue,
       "http": "\n".join("  " + line for line in http_lines), "upstream": upstream,
       "port": self.port, "listen": listen, "proxy": proxy,
       "read_timeout": read_timeout,
       "location": "\n".join("      " + line for line in location_lines)}
        self.workers = workers
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

    def start(self, ready_path="/shop/catalog", ready_count=5, headers=None):
        self.launch()
        # Ready once ready_count answers in a row were routed and every worker has routed one:
        # with reuseport one worker can take many connections in a row while the other has
        # not learned the cell yet.
        deadline = time.monotonic() + 20
        ok = 0
        routed_by = set()
        while ok < ready_count or len(routed_by) < self.workers:
            check(self.nginx.poll() is None, "nginx ended: " + self.log_tail())
            check(time.monotonic() < deadline, "nginx did not route within 20 s (workers %s "
                  "routed): %s" % (sorted(routed_by), self.log_tail()))
            try:
                status, hdrs, _ = self.get(ready_path, headers)
            except OSError:
                status = 0
            if status == 200:
                ok += 1
                routed_by.add(header(hdrs, "X-Worker"))
            else:
                ok = 0
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
        alerts = []
        for line in lines:
            if not ("[alert]" in line or "[crit]" in line):
                continue
            if any(text in line for text in self.expected_alerts):
                continue
            alerts.append(line)
        return alerts

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
    for name in ("$ZQRA", "$zqsp", "_ZQ_HAPRT_WLMVERSION"):
        status, _, _ = cell.get("/shop/catalog", {name: "1"})
        check(status == 400, "a client's own %s header got %d, not 400" % (name, status))
    check('without "kyr_upstream"' not in cell.log_tail(500),
          "kyr_upstream's requests were taken for another upstream's")


def case_identity(cell):
    """The identity the configuration names reaches the application; the SSL map mode of a
    location chooses the endpoint's protocol."""
    htpasswd = cell.path("htpasswd")
    with open(htpasswd, "w") as f:
        f.write("alice:{PLAIN}secret\n")
    cell.config(["kyr_routing_document %s;" % cell.document()], location_lines=[
        "auth_basic kyr;", "auth_basic_user_file %s;" % htpasswd, "kyr_user $remote_user;",
        "kyr_auth_type Basic;", "kyr_client_certificate $http_x_test_certificate;",
        "location /shop/secure { proxy_pass http://cell; kyr_ssl_map_mode onload; }"])
    auth = {"Authorization": "Basic " + base64.b64encode(b"alice:secret").decode()}
    cell.start(headers=auth)
    status, _, _ = cell.get("/shop/catalog")
    check(status == 401, "a request without credentials got %d, not 401" % status)
    status, hdrs, _ = cell.get("/shop/catalog", dict(auth, **{"X-Test-Certificate": "MIIBcert"}))
    check(status == 200, "an authenticated request got %d" % status)
    for name, value in (("ZQRU", "alice"), ("ZQAT", "Basic"), ("ZQCC", "MIIBcert")):
        check(header(hdrs, "X-Got-" + name) == value,
              "$%s reached the backend as %r" % (name, header(hdrs, "X-Got-" + name)))
    _, hdrs, _ = cell.get("/shop/catalog", auth)
    check(header(hdrs, "X-Got-ZQCC") is None, "an empty certificate value was forwarded")
    # Under "onload" a plain request goes to the servers' https endpoints, which are closed (the
    # failed connects then hold every server back for a while: this check comes last).
    status, _, _ = cell.get("/shop/secure/a", auth)
    check(status in (502, 503), "onload reached a plain endpoint: %d" % status)


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
    status, hdrs, body = cell.get("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c1"})
    check(status == 200 and body.strip() in ("s2", "s3"),
          "the session of the dead s1 got %d from %s" % (status, body.strip()))
    # The server that takes the session over is told, once, that its affinity was broken.
    told = [v for k, v in hdrs if k.lower() == "x-got-zqfo"]
    check(told == ["true"], "the new server got $ZQFO %s, not once true" % told)
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


def case_foreign_upstream(cell):
    # Routed, but proxied by an upstream that is not kyr_upstream: it works, and each worker
    # says once that the library will never hear how these requests end.
    s1 = cell.backends["s1"][1]
    cell.config(["kyr_routing_document %s;" % cell.document()],
                upstream="server 127.0.0.1:%d;" % s1)
    cell.start()
    for _ in range(5):
        check(cell.backend_of("/shop/catalog") == "s1", "the plain upstream did not answer")
    warning = 'went to an upstream without "kyr_upstream"'
    cell.wait_for_log(warning)
    count = cell.log_tail(500).count(warning)
    check(count == 1, "the worker warned %d times, not once" % count)


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


def start_kyrpublish(cell, kyrpublish, document):
    """kyrpublish on a free port of 127.0.0.1 serving DOCUMENT: its URL."""
    check(kyrpublish and os.access(kyrpublish, os.X_OK),
          "kyrpublish is not built (%r): build the kyrpublish target" % kyrpublish)
    log = cell.path("kyrpublish.log")
    with open(log, "w") as f:
        cell.spawn([kyrpublish, "--listen", "127.0.0.1:0", "--cell", document],
                   stderr=f)
    deadline = time.monotonic() + 10
    while True:
        with open(log) as f:
            m = re.search(r"listening on (http://127\.0\.0\.1:\d+)", f.read())
        if m:
            return m.group(1)
        check(time.monotonic() < deadline, "kyrpublish did not say its port:\n" + open(log).read())
        time.sleep(0.05)


def redirects_by_worker(cell, connections=16):
    """{worker pid: Location} of /shop/old/ answers, one new connection each."""
    seen = {}
    for _ in range(connections):
        status, hdrs, _ = cell.get("/shop/old/index.html")
        check(status == 302, "/shop/old/ gave %d, not 302" % status)
        seen.setdefault(header(hdrs, "X-Worker"), set()).add(header(hdrs, "Location"))
    return seen


def case_publisher_edit(cell):
    # Two workers learn the cell from a real kyrpublish serving a copy of it; an edit of that
    # copy reaches both within a second: the redirect rule's target changes, and s3 goes into
    # maintenance (new sessions leave it, its own sessions stay). kyrpublish watches the cell's
    # directory and reads an edit once that directory is quiet, so the cell has a directory of
    # its own, away from nginx's logs.
    os.mkdir(cell.path("published"))
    doc = cell.path("published/cell.json")
    shutil.move(cell.document(), doc)
    url = start_kyrpublish(cell, cell.kyrpublish, doc)
    cell.config(["kyr_connector_group shopfront %s;" % url,
                 "kyr_group_property shopfront waitTime 30;",
                 "kyr_socket %s;" % cell.path("run/kyr.sock")], workers=2, listen=" reuseport")
    cell.start(ready_count=10)
    old = "https://shop.example.com/shop/"
    new = "https://shop.example.com/shop/new/"
    before = redirects_by_worker(cell, 40)
    check(len(before) == 2, "only the workers %s answered" % sorted(before))
    check(all(v == {old} for v in before.values()), "before the edit: %s" % before)
    check({cell.backend_of("/shop/catalog") for _ in range(12)} == {"s1", "s2", "s3"},
          "before the edit new sessions did not reach every server")

    with open(doc) as f:
        text = json.load(f)

    def edit(o):
        if isinstance(o, dict):
            props = o.get("props", {})
            if props.get("action") == "redirect:" + old:
                props["action"] = "redirect:" + new
            if o.get("type") == "server" and o.get("name") == "/server/s3":
                props["server.maintenancemode"] = "affinity"
            for v in o.values():
                edit(v)
        elif isinstance(o, list):
            for v in o:
                edit(v)

    edit(text)
    # An editor's write: a new file renamed over the old one.
    with open(doc + ".new", "w") as f:
        json.dump(text, f)
    written = time.monotonic()
    os.replace(doc + ".new", doc)
    switched = {}  # worker pid -> seconds from the write to its first new answer
    deadline = written + 5
    while len(switched) < 2 and time.monotonic() < deadline:
        status, hdrs, _ = cell.get("/shop/old/index.html")
        check(status == 302, "during the edit /shop/old/ gave %d" % status)
        worker = header(hdrs, "X-Worker")
        if header(hdrs, "Location") == new and worker not in switched:
            switched[worker] = time.monotonic() - written
        time.sleep(0.002)
    check(len(switched) == 2, "within 5 s only the workers %s answered with the edit (%s):\n%s"
          % (sorted(switched), sorted(before), open(cell.path("kyrpublish.log")).read()))
    slowest = max(switched.values())
    print("edit to both workers: %s" % ", ".join("worker %s %.0f ms" % (w, 1000 * t)
                                                  for w, t in sorted(switched.items())))
    check(slowest < 1.0, "the edit took %.2f s to reach both workers" % slowest)
    after = redirects_by_worker(cell, 40)
    check(len(after) == 2 and all(v == {new} for v in after.values()),
          "after the edit the workers answered %s" % after)
    # Maintenance: new sessions avoid s3 on both workers, its sessions stay on it.
    seen = {}
    for _ in range(30):
        status, hdrs, body = cell.get("/shop/catalog")
        check(status == 200, "after the edit /shop/catalog gave %d" % status)
        seen.setdefault(header(hdrs, "X-Worker"), set()).add(body.strip())
    check(len(seen) == 2 and all(v == {"s1", "s2"} for v in seen.values()),
          "with s3 in maintenance new sessions went to %s" % seen)
    for _ in range(10):
        got = cell.backend_of("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c3"})
        check(got == "s3", "with s3 in maintenance its session went to %s" % got)


def read_response(sock, buf):
    """One response from a keepalive connection: (status, keeps the connection, rest of buf)."""
    while b"\r\n\r\n" not in buf:
        chunk = sock.recv(65536)
        if not chunk:
            raise ConnectionError("closed before a response")
        buf += chunk
    head, buf = buf.split(b"\r\n\r\n", 1)
    lines = head.split(b"\r\n")
    status = int(lines[0].split()[1])
    fields = {}
    for line in lines[1:]:
        k, _, v = line.partition(b":")
        fields[k.strip().lower()] = v.strip().lower()
    if fields.get(b"transfer-encoding") == b"chunked":
        while True:
            while b"\r\n" not in buf:
                buf += sock.recv(65536)
            size_line, buf = buf.split(b"\r\n", 1)
            size = int(size_line.split(b";")[0], 16)
            while len(buf) < size + 2:
                buf += sock.recv(65536)
            buf = buf[size + 2:]
            if size == 0:
                break
    else:
        length = int(fields.get(b"content-length", b"0"))
        while len(buf) < length:
            chunk = sock.recv(65536)
            if not chunk:
                raise ConnectionError("closed inside a body")
            buf += chunk
        buf = buf[length:]
    return status, fields.get(b"connection") != b"close", buf


def bad_requests(seed, count):
    """COUNT requests (bytes) with garbage cookies, huge headers and odd URIs."""
    import random
    rnd = random.Random(seed)
    junk = bytes(b for b in range(256) if b not in (10, 13))

    def garbage(n):
        return bytes(rnd.choice(junk) for _ in range(n))

    uris = [b"/shop/catalog", b"/shop/%2e%2e/%2e%2e/etc/passwd", b"/shop//catalog",
            b"//shop///cart", b"/shop/..;/bank/account", b"/shop/a/../../bank", b"/shop/%00x",
            b"/shop/%zz%", b"/bank/account?maintenance=%79es", b"/shop/old/%2e/x",
            b"/shop/cart;jsessionid=", b"/shop/cart;jsessionid=:::", b"/shop/cart;jsessionid=x:c9:",
            b"/shop/cart;jsessionid=" + b"c" * 3000, b"/shop/" + b"a/" * 2000, b"/%ff%fe/shop",
            b"/shop;/;/;", b"/shop/catalog?" + b"&" * 1000, b"/shop/catalog#frag", b"*",
            b"/shop/\xff\xfe", b"/shop/catalog?partition=1"]
    cookies = [lambda: b"JSESSIONID=" + garbage(rnd.randrange(1, 200)),
               lambda: b"JSESSIONID=" + b"x" * rnd.randrange(1000, 7900),
               lambda: b"JSESSIONID=0001abc:" + b":".join(
                   b"c%d" % rnd.randrange(-5, 50) for _ in range(rnd.randrange(0, 40))),
               lambda: b"JSESSIONID=:c2; JSESSIONID=0001:c3; JSESSIONID=;JSESSIONID",
               lambda: b"; ".join(b"JSESSIONID%d=%s:c1" % (i, garbage(5)) for i in range(100)),
               lambda: b"ZQJESSIONID=" + garbage(rnd.randrange(1, 100)),
               lambda: b"JSESSIONID=\"0001abc:c2\"",
               lambda: b"=;=;;;JSESSIONID==:=:"]
    for _ in range(count):
        uri = rnd.choice(uris)
        if rnd.random() < 0.2:
            uri += garbage(rnd.randrange(1, 40)).replace(b" ", b"%20")
        fields = [b"Host: shop.example.com", b"Cookie: " + rnd.choice(cookies)()]
        r = rnd.random()
        if r < 0.1:
            fields.append(b"X-Big: " + b"h" * rnd.randrange(6000, 8200))
        elif r < 0.2:
            fields += [b"X-Many-%d: %s" % (i, b"v" * 60) for i in range(rnd.randrange(50, 120))]
        elif r < 0.3:
            fields.append(b"X-Beta: " + garbage(rnd.randrange(1, 50)))
        elif r < 0.35:
            fields.append(b"Host: second.example.com")
        yield b"GET " + uri.replace(b" ", b"%20") + b" HTTP/1.1\r\n" + \
            b"\r\n".join(f.replace(b"\x00", b"0") if rnd.random() < 0.5 else f
                         for f in fields) + b"\r\n\r\n"


def case_bad_traffic(cell):
    # 10,000 hostile requests over keepalive connections from four client threads: whatever
    # each gets, no worker may die or alert, and normal requests route afterwards.
    import collections
    import threading
    cell.config(["kyr_routing_document %s;" % cell.document(),
                 "kyr_socket %s;" % cell.path("run/kyr.sock")], workers=2, listen=" reuseport",
                upstream="kyr_upstream; keepalive 8;")
    cell.start(ready_count=10)
    workers_before = subprocess.run(["ps", "-o", "pid=", "--ppid", str(cell.nginx.pid)],
                                    capture_output=True, text=True).stdout.split()
    statuses = collections.Counter()
    errors = []
    total, threads = 10000, 4

    def client(seed):
        sock, buf = None, b""
        try:
            for request in bad_requests(seed, total // threads):
                for attempt in range(2):
                    if sock is None:
                        sock, buf = socket.create_connection(("127.0.0.1", cell.port),
                                                             timeout=10), b""
                    try:
                        sock.sendall(request)
                        status, keep, buf = read_response(sock, buf)
                        statuses[status] += 1
                        break
                    except (ConnectionError, BrokenPipeError):
                        # nginx closes a connection after some errors before reading it all.
                        sock.close()
                        sock = None
                        if attempt:
                            statuses["closed"] += 1
                            break
                if sock is not None and not keep:
                    sock.close()
                    sock = None
        except (OSError, ValueError, IndexError) as e:
            errors.append("client %d: %r" % (seed, e))
        finally:
            if sock is not None:
                sock.close()

    started = time.monotonic()
    pool = [threading.Thread(target=client, args=(seed,)) for seed in range(threads)]
    for t in pool:
        t.start()
    for t in pool:
        t.join(timeout=100)
    check(not any(t.is_alive() for t in pool), "the clients did not finish within 100 s")
    print("%d requests in %.1f s: %s" % (sum(statuses.values()), time.monotonic() - started,
                                         dict(sorted(statuses.items(), key=str))))
    check(not errors, "clients failed: %s" % errors)
    check(sum(statuses.values()) == total, "%d answers for %d requests" %
          (sum(statuses.values()), total))
    with open(cell.path("error.log")) as f:
        text = f.read()
    check("exited on signal" not in text, "a worker died:\n" + cell.log_tail())
    workers_after = subprocess.run(["ps", "-o", "pid=", "--ppid", str(cell.nginx.pid)],
                                   capture_output=True, text=True).stdout.split()
    check(workers_after == workers_before, "the workers %s became %s" % (workers_before,
                                                                          workers_after))
    check(cell.nginx.poll() is None, "nginx ended")
    seen = {cell.backend_of("/shop/catalog") for _ in range(12)}
    check(seen == {"s1", "s2", "s3"}, "afterwards new sessions reached %s" % sorted(seen))
    for _ in range(6):
        got = cell.backend_of("/shop/catalog", {"Cookie": "JSESSIONID=0001abc:c2"})
        check(got == "s2", "afterwards the session of c2 went to %s" % got)
    status, hdrs, _ = cell.get("/shop/old/x")
    check(status == 302, "afterwards the redirect rule gave %d" % status)


CASES = {
    "routing": case_routing,
    "identity": case_identity,
    "rules": case_rules,
    "failover": case_failover,
    "timeout": case_timeout,
    "foreign_upstream": case_foreign_upstream,
    "config_errors": case_config_errors,
    "two_workers": case_two_workers,
    "publisher": case_publisher,
    "publisher_edit": case_publisher_edit,
    "bad_traffic": case_bad_traffic,
}


def main():
    if len(sys.argv) not in (4, 5) or sys.argv[3] not in CASES:
        sys.stderr.write("usage: %s MODULE_SO SOURCE_DIR {%s} [KYRPUBLISH]\n" %
                         (sys.argv[0], ",".join(CASES)))
        return 2
    module, src, name = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), sys.argv[3]
    if not os.access(NGINX, os.X_OK):
        print("FAIL %s: nginx is not installed (make test installs nginx and nginx-dev)" % name)
        return 1
    if not os.path.exists(module):
        print("FAIL %s: %s is not built: configure with -DKYR_BUILD_NGINX_MODULE=ON (make test "
              "does) and build" % (name, module))
        return 1
    cell = Cell(module, src, delays={"s1": 3} if name == "timeout" else None)
    cell.kyrpublish = sys.argv[4] if len(sys.argv) > 4 else None
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
