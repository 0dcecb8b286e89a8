#!/usr/bin/env python3
"""Scripted, recording HTTP(S) server for the tests; standard library only.

    http_test_server.py --script FILE --record-dir DIR --port-file FILE
                        [--tls --cert FILE --key FILE [--openssl PATH]] [--no-body-files]
                        [--idle-timeout SECONDS]

Started by tests/support/TestHttpServer.cpp. Listens on an ephemeral 127.0.0.1 port and
writes it to --port-file once listening; SIGTERM stops it. A connection silent for
--idle-timeout seconds (default 120) is dropped. With --tls and no certificate file yet,
a self-signed one for 127.0.0.1 is made with openssl.

Script (JSON read as Latin-1, so every string goes out as the same bytes):
    {"routes": [{"path": "/a", "method": "POST", "responses": [STEP, ...]}, ...]}
The first route whose method (if given) and path match answers ("*" matches any path; a
path with "?" is compared with the whole target); its steps are used in order, the last
repeating. No route: 404 "no route for <method> <target>\n".

STEP keys, all optional (tests/support/HttpScript.h builds them):
    status, headers [[name, value]...] ("{base}"/"{port}" expanded), body
    framing      "length" (default: Content-Length) or "chunked" (chunk_size bytes a chunk, 0: one)
    read_body    "all" (default), "none" (answer after the head, drain, close), or N
                 (read at most N body bytes)
    continue     "send" (default: answer Expect: 100-continue) or "skip"
    auth         {"user", "password", "challenges", "body"}: without these Basic
                 credentials answer 401 with one WWW-Authenticate per challenge; such a
                 challenge does not use the step up
    fault        "close" / "reset" (no answer), "truncate" (send truncate_at body bytes
                 of the announced length), "drop_last_chunk"
    hold_at      stop reading after N body bytes ("held R N") until DIR/release exists
                 ("released R") or hold_limit seconds pass ("hold-expired R")

Record of request N (numbered in order of arrival of the heads): DIR/N.head (as received),
DIR/N.body (de-chunked; not with --no-body-files), DIR/N.meta ("key value" lines written
last: request connection tls chunked body_length body_complete body_sha256 continue_sent
status). DIR/events: "open C", "close C", "tls-failed C why",
"drained C bytes", "error C what" (bad request or server bug), "io-error C what", and the
hold events.
"""

import argparse
import hashlib
import http
import json
import os
import signal
import socket
import socketserver
import ssl
import subprocess
import sys
import threading
import time
import traceback
from base64 import b64decode

IO_BLOCK = 1024 * 1024


def to_bytes(text):
    return text.encode("latin-1")


class ScriptError(Exception):
    pass


class Route:
    def __init__(self, definition):
        self.path = definition.get("path", "*")
        self.method = definition.get("method")
        self.steps = definition.get("responses") or [{}]
        self.next = 0
        self.lock = threading.Lock()

    def matches(self, method, target):
        if self.method and self.method != method:
            return False
        return self.path in ("*", target if "?" in self.path else target.split("?", 1)[0])

    def take(self, request):
        """The step that answers `request`; a challenge leaves the sequence where it is."""
        with self.lock:
            step = self.steps[min(self.next, len(self.steps) - 1)]
            auth = step.get("auth")
            if auth is not None:
                scheme, _, token = (request.header(b"authorization") or b"").partition(b" ")
                expected = to_bytes(auth.get("user", "") + ":" + auth.get("password", ""))
                try:
                    accepted = scheme.lower() == b"basic" and b64decode(token.strip(), validate=True) == expected
                except ValueError:
                    accepted = False
                if not accepted:
                    challenge = {"status": 401, "body": auth.get("body", "Authentication required\n"),
                                 "headers": [["WWW-Authenticate", c] for c in auth.get("challenges", [])]}
                    challenge.update({k: step[k] for k in ("read_body", "continue") if k in step})
                    return challenge
            self.next = min(self.next + 1, len(self.steps) - 1)
            return step


class Recorder:
    def __init__(self, directory, store_bodies):
        self.directory = directory
        self.store_bodies = store_bodies
        self.lock = threading.Lock()
        self.requests = self.connections = 0
        os.makedirs(directory, exist_ok=True)
        self.events = open(os.path.join(directory, "events"), "a", encoding="latin-1")

    def new_connection(self):
        with self.lock:
            self.connections += 1
            number = self.connections
        self.event("open %d" % number)
        return number

    def event(self, line):
        with self.lock:
            self.events.write(line.replace("\n", " ") + "\n")
            self.events.flush()

    def new_request(self, head):
        with self.lock:  # head N exists before number N + 1 is given out
            self.requests += 1
            with open(self.path(self.requests, "head"), "wb") as f:
                f.write(head)
            return self.requests

    def path(self, number, suffix):
        return os.path.join(self.directory, "%d.%s" % (number, suffix))


class BodySink:
    """Streams request body bytes to the body file and the digest; holds where told to."""

    def __init__(self, recorder, number, step):
        self.file = open(recorder.path(number, "body"), "wb") if recorder.store_bodies else None
        self.digest = hashlib.sha256()
        self.length = 0
        self.recorder = recorder
        self.number = number
        self.hold_at = None if step.get("hold_at") is None else int(step["hold_at"])
        self.hold_limit = float(step.get("hold_limit", 30))

    def write(self, data):
        if self.hold_at is not None and self.length + len(data) >= self.hold_at:
            cut = self.hold_at - self.length
            self.store(data[:cut])
            data = data[cut:]
            self.hold()
        self.store(data)

    def store(self, data):
        if self.file:
            self.file.write(data)
        self.digest.update(data)
        self.length += len(data)

    def hold(self):
        self.hold_at = None
        self.recorder.event("held %d %d" % (self.number, self.length))
        deadline = time.monotonic() + self.hold_limit
        while not os.path.exists(os.path.join(self.recorder.directory, "release")):
            if time.monotonic() >= deadline:
                self.recorder.event("hold-expired %d" % self.number)
                return
            time.sleep(0.01)
        self.recorder.event("released %d" % self.number)


class Request:
    def __init__(self, line):
        parts = line.decode("latin-1").strip().split(" ")
        if len(parts) != 3:
            raise ScriptError("bad request line %r" % line)
        self.method, self.target, self.version = parts
        self.headers = []  # (lower-case name, value) in arrival order
        self.chunked = False
        self.length = 0
        self.body_complete = True
        self.continue_sent = False
        self.sink = None

    def header(self, name):
        return next((v for k, v in self.headers if k == name), None)

    def has_body(self):
        return self.chunked or self.length > 0

    def wants_close(self):
        tokens = [t.strip().lower() for t in (self.header(b"connection") or b"").split(b",")]
        return b"keep-alive" not in tokens if self.version == "HTTP/1.0" else b"close" in tokens


class Connection:
    def __init__(self, server, sock, number):
        self.server = server
        self.sock = sock
        self.number = number
        self.rfile = sock.makefile("rb", buffering=256 * 1024)

    def readline(self):
        line = self.rfile.readline(65537)
        if len(line) > 65536:
            raise ScriptError("line too long")
        return line

    def read_head(self):
        """(raw head, Request), or None when the peer closed between requests."""
        raw = self.readline()
        if not raw:
            return None
        request = Request(raw)
        while True:
            line = self.readline()
            if not line:
                raise ScriptError("connection closed inside the request head")
            raw += line
            if line in (b"\r\n", b"\n"):
                break
            name, sep, value = line.partition(b":")
            if not sep or len(request.headers) > 200:
                raise ScriptError("bad header line %r" % line)
            request.headers.append((name.strip().lower(), value.strip()))
        encoding = request.header(b"transfer-encoding")
        if encoding is not None and encoding.lower().split(b",")[-1].strip() == b"chunked":
            request.chunked = True
        elif request.header(b"content-length") is not None:
            request.length = int(request.header(b"content-length"))
        return raw, request

    def copy(self, request, count, limit):
        """Moves `count` body bytes (fewer at `limit`) to the sink; False when they did not all come."""
        sink = request.sink
        while count > 0:
            want = min(count, IO_BLOCK, limit - sink.length)
            data = self.rfile.read1(want) if want > 0 else b""
            if not data:
                request.body_complete = False
                return False
            sink.write(data)
            count -= len(data)
        return True

    def read_body(self, request, limit=float("inf")):
        if not request.chunked:
            self.copy(request, request.length, limit)
            return
        while request.sink.length < limit:
            line = self.readline()
            try:
                size = int(line.split(b";", 1)[0].strip(), 16)
            except ValueError:
                if not line:
                    request.body_complete = False
                    return
                raise ScriptError("bad chunk size line %r" % line)
            if size == 0:
                break
            if not self.copy(request, size, limit):
                return
            if self.readline() not in (b"\r\n", b"\n"):
                raise ScriptError("chunk not followed by CRLF")
        else:
            request.body_complete = False
            return
        while (line := self.readline()) not in (b"\r\n", b"\n"):  # trailers are skipped
            if not line:
                request.body_complete = False
                return

    def drain(self):
        """Discards what the client still sends after an early answer, for at most 2 s, so
        that closing does not reset the connection under the answer."""
        drained = 0
        try:
            self.sock.shutdown(socket.SHUT_WR)
            self.sock.settimeout(2.0)
            while data := self.rfile.read1(IO_BLOCK):
                drained += len(data)
        except (OSError, ValueError):
            pass
        self.server.recorder.event("drained %d %d" % (self.number, drained))

    def answer(self, request, step, closing):
        """Sends the step's answer; returns False when the connection must close."""
        status = int(step.get("status", 200))
        try:
            reason = http.HTTPStatus(status).phrase
        except ValueError:
            reason = "Status"
        body = to_bytes(step.get("body", ""))
        fault = step.get("fault")
        framing = "chunked" if fault == "drop_last_chunk" else step.get("framing", "length")
        port = str(self.server.server_address[1])
        base = "%s://127.0.0.1:%s" % ("https" if self.server.tls else "http", port)
        headers = [(to_bytes(n), to_bytes(v.replace("{base}", base).replace("{port}", port)))
                   for n, v in step.get("headers", [])]
        names = {n.lower() for n, _ in headers}
        if framing == "length" and b"content-length" not in names and status not in (204, 304):
            headers.append((b"Content-Length", b"%d" % len(body)))
        elif framing == "chunked" and b"transfer-encoding" not in names:
            headers.append((b"Transfer-Encoding", b"chunked"))
        keep = not closing and fault is None
        if not keep and b"connection" not in names and fault is None:
            headers.append((b"Connection", b"close"))
        out = b"HTTP/1.1 %d %s\r\n" % (status, reason.encode())
        out += b"".join(n + b": " + v + b"\r\n" for n, v in headers) + b"\r\n"
        if request.method == "HEAD" or status in (204, 304) or 100 <= status < 200:
            pass
        elif framing == "chunked":
            size = int(step.get("chunk_size", 0)) or max(len(body), 1)
            for offset in range(0, len(body), size):
                out += b"%x\r\n" % len(body[offset:offset + size]) + body[offset:offset + size] + b"\r\n"
            out += b"" if fault == "drop_last_chunk" else b"0\r\n\r\n"
        else:
            out += body[:int(step.get("truncate_at", len(body) // 2))] if fault == "truncate" else body
        self.sock.sendall(out)
        return keep

    def handle_one(self):
        """Serves one request; returns False when the connection is finished."""
        parsed = self.read_head()
        if parsed is None:
            return False
        raw, request = parsed
        number = self.server.recorder.new_request(raw)
        step = next((r.take(request) for r in self.server.routes if r.matches(request.method, request.target)),
                    {"status": 404, "body": "no route for %s %s\n" % (request.method, request.target)})
        request.sink = BodySink(self.server.recorder, number, step)
        policy = step.get("read_body", "all")
        if ((request.header(b"expect") or b"").lower() == b"100-continue" and request.has_body()
                and request.version == "HTTP/1.1" and policy != "none"
                and step.get("continue", "send") == "send"):
            self.sock.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
            request.continue_sent = True
        try:
            if policy == "all" or isinstance(policy, int):
                self.read_body(request, float("inf") if policy == "all" else policy)
            elif request.has_body():
                request.body_complete = False
        except (OSError, ValueError, ScriptError):
            request.body_complete = False  # the client went silent or away: record what came
            self.finish_record(number, request, 0)
            raise
        fault = step.get("fault")
        if fault in ("close", "reset"):
            self.finish_record(number, request, 0)
            if fault == "reset":
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            else:
                try:
                    self.sock.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
            return False
        self.finish_record(number, request, int(step.get("status", 200)))
        unread = request.has_body() and not request.body_complete
        keep = self.answer(request, step, request.wants_close() or unread)
        if unread and fault is None:
            self.drain()
            return False
        return keep

    def finish_record(self, number, request, status):
        if request.sink.file:
            request.sink.file.close()
        recorder = self.server.recorder
        fields = [("request", number), ("connection", self.number), ("tls", int(self.server.tls is not None)),
                  ("chunked", int(request.chunked)), ("body_length", request.sink.length),
                  ("body_complete", int(request.body_complete)), ("body_sha256", request.sink.digest.hexdigest()),
                  ("continue_sent", int(request.continue_sent)), ("status", status)]
        with open(recorder.path(number, "meta.tmp"), "w") as f:
            f.write("".join("%s %s\n" % field for field in fields))
        os.replace(recorder.path(number, "meta.tmp"), recorder.path(number, "meta"))


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        server = self.server
        number = server.recorder.new_connection()
        sock = self.request
        sock.settimeout(server.idle_timeout)
        try:
            if server.tls:
                try:
                    sock = server.tls.wrap_socket(sock, server_side=True)
                except (ssl.SSLError, OSError) as error:
                    server.recorder.event("tls-failed %d %s" % (number, error))
                    return
            connection = Connection(server, sock, number)
            while connection.handle_one():
                pass
        except ScriptError as error:
            server.recorder.event("error %d %s" % (number, error))
        except (OSError, ValueError) as error:
            server.recorder.event("io-error %d %s" % (number, error))
        except Exception as error:  # a server bug: keep serving, leave a trace for the test log
            server.recorder.event("error %d %r" % (number, error))
            traceback.print_exc()
        finally:
            server.recorder.event("close %d" % number)
            sock.close()


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    block_on_close = False
    allow_reuse_address = True
    request_queue_size = 64


def main():
    parser = argparse.ArgumentParser()
    for flag in ("--script", "--record-dir", "--port-file"):
        parser.add_argument(flag, required=True)
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--openssl", default="openssl")
    parser.add_argument("--no-body-files", action="store_true")
    parser.add_argument("--idle-timeout", type=float, default=120.0)
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))

    with open(args.script, "rb") as f:
        script = json.loads(f.read().decode("latin-1"))
    tls = None
    if args.tls:
        if not os.path.exists(args.cert):  # self-signed for 127.0.0.1, ::1 and localhost
            subprocess.run([args.openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                            "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1/O=Orvane Test",
                            "-addext", "subjectAltName=IP:127.0.0.1,IP:::1,DNS:localhost",
                            "-keyout", args.key, "-out", args.cert], check=True, timeout=30)
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.cert, args.key)

    server = Server(("127.0.0.1", 0), Handler)
    server.routes = [Route(r) for r in script.get("routes", [])]
    server.recorder = Recorder(args.record_dir, not args.no_body_files)
    server.tls = tls
    server.idle_timeout = args.idle_timeout if args.idle_timeout > 0 else 120.0
    with open(args.port_file + ".tmp", "w") as f:
        f.write("%d\n" % server.server_address[1])
    os.replace(args.port_file + ".tmp", args.port_file)
    try:
        server.serve_forever(poll_interval=0.2)
    finally:
        server.server_close()


if __name__ == "__main__":
    main()
