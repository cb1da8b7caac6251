#!/usr/bin/env python3
# An application server stand-in for the nginx module's tests, on 127.0.0.1 only: it prints the
# port it listens on, answers every GET with its name, echoes each private routing header it
# received as "X-Got-<name>" (without the leading "$" or "_"), and on ?partition=1 answers with
# a partition table ("$ZQPT") and its version; X-Connection-Request counts the requests of
# the connection. It answers DELAY seconds late, and ends by itself after LIFETIME seconds.
# Usage: backend.py NAME [LIFETIME [DELAY]]
import http.server
import sys
import threading
import time
import urllib.parse


def main():
    name = sys.argv[1]
    lifetime = float(sys.argv[2]) if len(sys.argv) > 2 else 120.0
    delay = float(sys.argv[3]) if len(sys.argv) > 3 else 0.0

    class Backend(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        # Headers and body are two writes: with Nagle's algorithm the body waits for nginx's
        # delayed ACK (40 ms) on a keepalive connection.
        disable_nagle_algorithm = True

        # One handler serves one connection.
        served = 0

        def do_GET(self):
            self.served += 1
            time.sleep(delay)
            body = (name + "\n").encode()
            query = urllib.parse.parse_qs(urllib.parse.urlsplit(self.path).query)
            try:
                self.send_response(200)
                self.send_header("Content-Type", "text/plain")
                self.send_header("Content-Length", str(len(body)))
                self.send_header("X-Backend", name)
                self.send_header("X-Connection-Request", str(self.served))
                for key, value in self.headers.items():
                    if key.startswith("$ZQ") or key.startswith("_ZQ_"):
                        self.send_header("X-Got-" + key.lstrip("$_"), value)
                if query.get("partition") == ["1"]:
                    self.send_header("$ZQPT", "p1:c1;p2:c2")
                    self.send_header("_ZQ_HAPRT_WLMVERSION", "7")
                self.end_headers()
                self.wfile.write(body)
            except (BrokenPipeError, ConnectionResetError):
                # nginx gave up waiting for a slow answer.
                self.close_connection = True

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Backend)
    server.daemon_threads = True
    print(server.server_address[1], flush=True)
    threading.Timer(lifetime, server.shutdown).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
