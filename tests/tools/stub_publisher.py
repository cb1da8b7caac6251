#!/usr/bin/env python3
# A scripted routing-data publisher for kyrroute's tests, on 127.0.0.1 only. It prints its port,
# answers the initial request (a POST of the interest specification) with the complete document,
# the first long poll for version 1 with the delta, and holds every later long poll until it
# ends by itself after LIFETIME seconds. Each request it gets is written to standard error.
# Usage: stub_publisher.py COMPLETE.json DELTA.json [LIFETIME [REST_PATH]]
import http.server
import os
import sys
import threading
import time
import urllib.parse


def main():
    complete = open(sys.argv[1], "rb").read()
    delta = open(sys.argv[2], "rb").read()
    lifetime = float(sys.argv[3]) if len(sys.argv) > 3 else 20.0
    rest_path = sys.argv[4] if len(sys.argv) > 4 else "/brisvane"
    ending = threading.Event()
    delta_sent = threading.Lock()
    state = {"delta_sent": False}

    class Publisher(http.server.BaseHTTPRequestHandler):
        # The library keeps one connection open for its requests.
        protocol_version = "HTTP/1.1"

        def answer(self, status, body):
            try:
                self.send_response(status)
                self.send_header("Content-Type", "application/json")
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)
            except (BrokenPipeError, ConnectionResetError):
                # kyrroute may end before a route change is answered.
                self.close_connection = True

        def query(self):
            url = urllib.parse.urlsplit(self.path)
            return url.path, urllib.parse.parse_qs(url.query)

        def do_POST(self):
            body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
            path, query = self.query()
            # Anything but the REST path with a group name is a fault of the caller.
            if path != rest_path or not query.get("name"):
                return self.answer(404, b"{}")
            if body.startswith(b"{'interests'"):
                return self.answer(200, complete)
            sys.stderr.write("stub publisher: route change %s\n" % body.decode(errors="replace"))
            return self.answer(200, b"{}")

        def do_GET(self):
            path, query = self.query()
            if path != rest_path or not query.get("name") or not query.get("vid"):
                return self.answer(404, b"{}")
            with delta_sent:
                first = query["vid"] == ["1"] and not state["delta_sent"]
                state["delta_sent"] = state["delta_sent"] or first
            if first:
                return self.answer(200, delta)
            # Nothing changes any more: the poll waits as long as the publisher lives.
            ending.wait(lifetime)
            self.close_connection = True

        def log_message(self, format, *args):
            sys.stderr.write("stub publisher: %s\n" % (format % args))

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Publisher)
    server.daemon_threads = True
    print(server.server_address[1], flush=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    time.sleep(lifetime)
    ending.set()
    sys.stderr.flush()
    os._exit(0)


if __name__ == "__main__":
    main()
