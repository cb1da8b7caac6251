#!/usr/bin/env python3
# The load side of longpoll_fanout.sh: holds N long polls on a running kyrpublish, edits its
# cell file, and measures the time from the write to the last poll answered, and the
# publisher's memory per waiting poll (VmRSS growth / N). Each round re-polls on the same
# connections with the new version, as web servers do.
# Usage: longpoll_fanout.py HOST:PORT PUBLISHER_PID CELL_FILE LOG_FILE POLLS ROUNDS
import json
import os
import select
import socket
import sys
import time
from datetime import datetime, timezone

TIMEOUT_SECS = 60


def vmrss_kb(pid):
    with open("/proc/%s/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS")


def status(host, port):
    s = socket.create_connection((host, port), timeout=10)
    s.sendall(b"GET /status HTTP/1.1\r\nHost: bench\r\nConnection: close\r\n\r\n")
    data = b""
    while True:
        chunk = s.recv(65536)
        if not chunk:
            break
        data += chunk
    s.close()
    return json.loads(data.split(b"\r\n\r\n", 1)[1])


def send_polls(socks, version):
    for i, s in enumerate(socks):
        s.sendall(("GET /brisvane?name=bench&server=ws%d&vid=%d&wait=300 HTTP/1.1\r\n"
                   "Host: bench\r\n\r\n" % (i, version)).encode())


def wait_held(host, port, count):
    deadline = time.time() + TIMEOUT_SECS
    while status(host, port)["groups"][0]["pollsWaiting"] != count:
        if time.time() > deadline:
            sys.exit("the polls were not all held")
        time.sleep(0.05)


def edit(cell, weight):
    doc = json.load(open(cell))
    server = doc["add"]["objects"][0]["objects"][0]["objects"][0]
    server["props"]["weight"] = weight
    text = json.dumps(doc, indent=1)
    written = time.time()
    with open(cell + ".tmp", "w") as f:
        f.write(text)
    os.replace(cell + ".tmp", cell)
    return written


# Reads one HTTP response from every socket; the time the last one was complete. Kept lean:
# with thousands of answers arriving at once, this loop, not the publisher, sets the pace.
def collect(socks, version):
    epoll = select.epoll()
    buffers = {}
    for s in socks:
        epoll.register(s.fileno(), select.EPOLLIN)
        buffers[s.fileno()] = b""
    left = len(socks)
    deadline = time.time() + TIMEOUT_SECS
    expected = b'"version":%d' % version
    last = None
    while left:
        if time.time() > deadline:
            sys.exit("%d polls were not answered" % left)
        for fd, _ in epoll.poll(1, len(socks)):
            data = buffers[fd] + os.read(fd, 65536)
            buffers[fd] = data
            end = data.find(b"\r\n\r\n")
            if end < 0:
                continue
            start = data.find(b"Content-Length: ") + 16
            if len(data) < end + 4 + int(data[start:data.find(b"\r\n", start)]):
                continue
            if not data.startswith(b"HTTP/1.1 200") or expected not in data:
                sys.exit("unexpected answer: %r" % data[:200])
            epoll.unregister(fd)
            left -= 1
            last = time.time()
    epoll.close()
    return last


def logged_edit(log, version):
    # The publisher's own line: when it had the new version, after the debounce and the diff.
    for line in open(log):
        if "edit of" in line and "version %d," % version in line:
            stamp = line.split()[0]
            return datetime.strptime(stamp, "%Y-%m-%dT%H:%M:%S.%fZ").replace(
                tzinfo=timezone.utc).timestamp()
    return None


def main():
    host, port = sys.argv[1].split(":")
    port = int(port)
    pid, cell, log = sys.argv[2], sys.argv[3], sys.argv[4]
    polls, rounds = int(sys.argv[5]), int(sys.argv[6])
    base = vmrss_kb(pid)
    socks = [socket.create_connection((host, port)) for _ in range(polls)]
    version = 1
    for r in range(rounds):
        send_polls(socks, version)
        wait_held(host, port, polls)
        held = vmrss_kb(pid)
        written = edit(cell, 10 + r)
        last = collect(socks, version + 1)
        version += 1
        seen = logged_edit(log, version)
        detail = ""
        if seen is not None:
            detail = " (edit seen after %.0f ms, then answered all in %.0f ms)" % (
                (seen - written) * 1000, (last - seen) * 1000)
        print("polls %d round %d: last answer %.0f ms after the write%s; "
              "VmRSS %d kB idle, %d kB holding, %.1f kB per waiting poll"
              % (polls, r + 1, (last - written) * 1000, detail, base, held,
                 (held - base) / polls))
    for s in socks:
        s.close()


main()
