#!/usr/bin/env python3
"""A bulk-document gateway that misbehaves on purpose, on loopback only.
Usage: hostile_gateway.py PORT-FILE MODE-FILE UPSTREAM-FILE. It writes its port to PORT-FILE and
acts per request as MODE-FILE says: silent (never answer), reset (half a reply, then a reset),
garbage (201 with neither gzip nor JSON), plain (forward to the base URL in UPSTREAM-FILE, answer
uncompressed) or forward (forward, answer as it came)."""
import gzip
import http.client
import os
import socket
import socketserver
import struct
import sys
import threading
import time
import urllib.parse

port_file, mode_file, upstream_file = sys.argv[1], sys.argv[2], sys.argv[3]


def mode():
    try:
        with open(mode_file) as f:
            return f.read().strip()
    except OSError:
        return "forward"


def read_request(rfile):
    line = rfile.readline(65536)
    if not line:
        return None
    method, path, _ = line.decode("latin-1").split(" ", 2)
    headers = {}
    while True:
        h = rfile.readline(65536).decode("latin-1")
        if h in ("\r\n", "\n", ""):
            break
        k, v = h.split(":", 1)
        headers[k.strip().lower()] = v.strip()
    body = rfile.read(int(headers.get("content-length", "0")))
    return method, path, headers, body


def forward(method, path, headers, body):
    with open(upstream_file) as f:
        upstream = urllib.parse.urlparse(f.read().strip())
    conn = http.client.HTTPConnection(upstream.hostname, upstream.port, timeout=30)
    keep = {k: v for k, v in headers.items() if k in ("cookie", "content-type", "content-encoding", "accept-encoding")}
    conn.request(method, path, body=body, headers=keep)
    r = conn.getresponse()
    data = r.read()
    encoding = r.getheader("Content-Encoding", "")
    conn.close()
    return r.status, data, encoding


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        request = read_request(self.rfile)
        if request is None:
            return
        m = mode()
        out = self.wfile
        if m == "silent":
            time.sleep(3600)
            return
        if m == "reset":
            out.write(b"HTTP/1.1 201 Created\r\nContent-Encoding: gzip\r\nContent-Length: 5000\r\n\r\n")
            out.write(gzip.compress(b'[{"id":"con_00000001","rev":"9-x"}]')[:10])
            out.flush()
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return
        if m == "garbage":
            data, encoding = b"\x00\x01not json at all<<<>>>", ""
            status = 201
        else:
            status, data, encoding = forward(*request)
            if m == "plain" and encoding == "gzip":
                data, encoding = gzip.decompress(data), ""
        head = "HTTP/1.1 %d X\r\nContent-Length: %d\r\nConnection: close\r\n" % (status, len(data))
        if encoding:
            head += "Content-Encoding: %s\r\n" % encoding
        out.write(head.encode() + b"\r\n" + data)


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True


server = Server(("127.0.0.1", 0), Handler)
with open(port_file + ".tmp", "w") as f:
    f.write(str(server.server_address[1]))
os.rename(port_file + ".tmp", port_file)
server.serve_forever()
