#!/usr/bin/env python3
"""Scripted, recording HTTP(S) test server run by TestHttpServer, whose Response and Script (in
TestSupport.h) write DIR/script.json. Usage: http_test_server.py DIR OPENSSL|"" STORE_BODIES(1|0).
With OPENSSL it serves TLS with a self-signed DIR/cert.pem. Writes DIR/port once listening and records
request N as DIR/N.head, DIR/N.body and DIR/N.meta ("status length complete continued sha256", last).
"""
import hashlib, http, json, os, signal, socket, socketserver, ssl, subprocess, sys, threading, time
from base64 import b64encode

DIR, OPENSSL, STORE = sys.argv[1], sys.argv[2], sys.argv[3] == "1"
LOCK, COUNT = threading.Lock(), [0]


path = lambda name: os.path.join(DIR, name)


class Route:
    def __init__(self, d):
        self.path, self.method, self.steps, self.next = d["path"], d["method"], d["responses"], 0

    def matches(self, method, target):
        return self.method in ("", method) and self.path in ("*", target if "?" in self.path else target.split("?")[0])

    def take(self, headers):
        with LOCK:
            step = self.steps[min(self.next, len(self.steps) - 1)]
            auth = step.get("auth")
            if auth and headers.get("authorization") != "Basic " + b64encode(
                    (auth["user"] + ":" + auth["password"]).encode("latin-1")).decode():  # a challenge keeps the step
                return dict({k: step[k] for k in ("read_body", "continue") if k in step}, status=401,
                            body="Authentication required\n", headers=[["WWW-Authenticate", auth["challenge"]]])
            self.next += 1
            return step


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        try:
            self.sock = TLS.wrap_socket(self.request, server_side=True) if TLS else self.request
            self.sock.settimeout(120)
            self.rfile = self.sock.makefile("rb")
            while self.one():
                pass
        except Exception as error:  # the client went away, refused the certificate or sent nonsense
            print("error %r" % error, file=sys.stderr, flush=True)
        finally:
            self.request.close()

    def one(self):
        head = self.rfile.readline(65537)
        if not head:
            return False
        method, target, _ = head.decode("latin-1").split()
        headers = {}
        while (line := self.rfile.readline(65537)) not in (b"\r\n", b"\n", b""):
            head += line
            name, _, value = line.decode("latin-1").partition(":")
            headers.setdefault(name.strip().lower(), value.strip())
        with LOCK:
            COUNT[0] += 1
            number = COUNT[0]
            with open(path("%d.head" % number), "wb") as f:
                f.write(head + line)
        step = next((r.take(headers) for r in ROUTES if r.matches(method, target)),
                    {"status": 404, "body": "no route for %s %s\n" % (method, target)})
        length = int(headers.get("content-length", 0))
        limit = min(length, int(step.get("read_body", length)))
        continued = headers.get("expect", "").lower() == "100-continue" and limit > 0 and step.get("continue") != "skip"
        if continued:
            self.sock.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
        got, digest, view, hold_at = 0, hashlib.sha256(), memoryview(bytearray(1 << 20)), step.get("hold_at", -1)
        with open(path("%d.body" % number), "wb") if STORE else open(os.devnull, "wb") as body:
            try:
                while got < limit:
                    if got == hold_at:  # stop reading until DIR/release exists or hold_limit passes
                        open(path("held"), "a").write("%d\n" % number)
                        for _ in range(int(step.get("hold_limit", 30) * 100)):
                            if os.path.exists(path("release")):
                                break
                            time.sleep(0.01)
                        hold_at = -1
                    n = self.rfile.readinto1(view[:min(limit - got, 1 << 20, hold_at - got if got < hold_at else 1 << 20)])
                    if not n:
                        break
                    body.write(view[:n])
                    digest.update(view[:n]) if STORE else None
                    got += n
            except OSError:
                pass
        fault, status = step.get("fault"), 0 if step.get("fault") in ("close", "reset") else int(step.get("status", 200))
        with open(path("%d.meta.tmp" % number), "w") as f:
            f.write("%d %d %d %d %s\n" % (status, got, got == length, continued, digest.hexdigest()))
        os.replace(path("%d.meta.tmp" % number), path("%d.meta" % number))
        if fault == "reset":
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        if status == 0:
            return False
        time.sleep(float(step.get("answer_after", 0)))  # the server at work on the request
        keep = got == length and "close" not in headers.get("connection", "") and fault is None
        body = step.get("body", "").encode("latin-1")
        base = "%s://127.0.0.1:%d" % ("https" if TLS else "http", SERVER.server_address[1])
        lines = [(n, v.replace("{base}", base)) for n, v in step.get("headers", [])] + [("Content-Length", str(len(body)))]
        self.sock.sendall(("HTTP/1.1 %d %s\r\n" % (status, http.HTTPStatus(status).phrase) + "".join(
            "%s: %s\r\n" % line for line in lines + ([] if keep else [("Connection", "close")])) + "\r\n").encode("latin-1") +
            (body[:step["truncate_at"]] if fault == "truncate" else b"" if "drip" in step else body))
        for i in range(len(body) if "drip" in step else 0):  # one body byte every `drip` seconds
            time.sleep(float(step["drip"]))
            self.sock.sendall(body[i:i + 1])
        if got < length:  # drain what the client still sends, so closing does not reset the answer
            self.sock.shutdown(socket.SHUT_WR)
            self.sock.settimeout(2)
            while self.rfile.read1(1 << 20):
                pass
        return keep


signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
ROUTES = [Route(r) for r in json.loads(open(path("script.json"), "rb").read().decode("latin-1"))]
TLS = None
if OPENSSL:  # self-signed for 127.0.0.1, ::1 and localhost
    subprocess.run([OPENSSL, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
                    "2", "-subj", "/CN=127.0.0.1/O=Orvane Test", "-addext", "subjectAltName=IP:127.0.0.1,IP:::1,DNS:localhost",
                    "-keyout", path("key.pem"), "-out", path("cert.pem")], check=True, capture_output=True, timeout=30)
    TLS = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    TLS.load_cert_chain(path("cert.pem"), path("key.pem"))
socketserver.ThreadingTCPServer.allow_reuse_address = socketserver.ThreadingTCPServer.daemon_threads = True
SERVER = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
open(path("port.tmp"), "w").write("%d\n" % SERVER.server_address[1])
os.replace(path("port.tmp"), path("port"))
SERVER.serve_forever(poll_interval=0.2)
