#!/usr/bin/env python3
"""Scriptable, recording HTTP(S) server for the transport tests.

Started by the C++ fixture (tests/support/TestHttpServer.cpp); standard library only.

    http_test_server.py --script FILE --record-dir DIR [--port-file FILE]
                        [--tls --cert FILE --key FILE [--openssl PATH]] [--no-body-files]
                        [--idle-timeout SECONDS]

It listens on 127.0.0.1 on an ephemeral port and, once it accepts connections, writes
that port to --port-file (atomically) or prints "PORT <n>" on stdout. SIGTERM stops it
with exit status 0. A connection that stays silent for --idle-timeout seconds (default 120)
is dropped ("io-error C timed out").

Script (JSON; strings are byte strings: the file is read as Latin-1 and every string is
sent back out as the same bytes):

    {"routes": [{"path": "/a", "method": "POST", "responses": [STEP, STEP, ...]}, ...]}

A route matches when its method (if given) equals the request's and its path equals the
request target's path; a path containing "?" is compared with the whole target, and "*"
matches anything. The first matching route answers; its steps are used in order and the
last one repeats. Requests matching no route get 404 with the body
"no route for <method> <target>\n".

STEP keys (all optional):
    status        int, default 200
    reason        reason phrase, default the standard one
    headers       [[name, value], ...] sent in this order; "{base}" and "{port}" in a value
                  become "http(s)://127.0.0.1:<port>" and the port
    body          text, or body_base64
    framing       "length" (default: Content-Length added unless given), "chunked",
                  "close" (no length, the connection closes after the body), "none"
                  (nothing added)
    chunk_size    bytes per chunk when chunked; 0 (default) sends the body as one chunk
    close         true: close the connection after this answer
    read_body     "all" (default), "none" (answer right after the head, then drain and
                  close), "after" (answer first, then read and record the body), or a
                  number N (read at most N body bytes before acting)
    continue      "send" (default) answers "Expect: 100-continue" with 100 before reading
                  the body; "skip" sends nothing and waits for the body
    auth          {"user", "password", "challenges": [...], "body"}: unless the request
                  carries "Authorization: Basic" with exactly these credentials, answer 401
                  with one WWW-Authenticate header per challenge and the body (default
                  "Authentication required\n"), reading the request body as the step
                  says; the step is then not used up, so the next request meets it again
    fault         "close" (close without answering), "reset" (same, with a TCP reset),
                  "truncate" (announce the whole body, send truncate_at bytes, close),
                  "drop_last_chunk" (chunked answer without its terminating chunk, close)
    truncate_at   bytes of body sent by "truncate", default half the body
    hold_at       int: once N body bytes have arrived, stop reading (event "held R N") until a
                  file named "release" exists in the record directory (event "released R"), at
                  most hold_limit seconds (default 30; then event "hold-expired R"), then read
                  on as read_body says; lets a test change the client's input mid-upload

Recording, for request number N (1-based, in order of arrival of the request heads; a request
whose body breaks off is recorded with what arrived and status 0):
    DIR/N.head  the request line and header lines exactly as received, through the
                blank line
    DIR/N.body  the body bytes after removing chunked framing (absent with --no-body-files)
    DIR/N.meta  "key value" lines, written last (before the answer goes out, except with
                read_body "after"): request,
                connection, tls, chunked, body_length, body_complete, body_sha256,
                continue_sent, status (0: no answer), and one "trailer Name: value"
                line per chunked trailer
    DIR/events  one line per connection event: "open C", "tls-failed C <reason>",
                "drained C <bytes discarded after an early answer>", "error C <what>",
                "io-error C <what>", "close C"; and "held R N", "released R",
                "hold-expired R" for request R (see hold_at)
"""

import argparse
import base64
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

MAX_LINE = 64 * 1024
MAX_HEADERS = 200
IO_BLOCK = 1024 * 1024
DRAIN_LIMIT_SECONDS = 2.0
IDLE_TIMEOUT_SECONDS = 120.0
HOLD_POLL_SECONDS = 0.01
RELEASE_FILE = "release"


def to_bytes(text):
    try:
        return text.encode("latin-1")
    except UnicodeEncodeError:
        return text.encode("utf-8")


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
        if self.path == "*":
            return True
        if "?" in self.path:
            return self.path == target
        return self.path == target.split("?", 1)[0]

    def take(self, request):
        """The step that answers `request`; a challenge leaves the sequence where it is."""
        with self.lock:
            step = self.steps[min(self.next, len(self.steps) - 1)]
            auth = step.get("auth")
            if auth is not None and not authorized(request, auth):
                return challenge_for(step, auth)
            if self.next < len(self.steps) - 1:
                self.next += 1
            return step


def authorized(request, auth):
    value = request.header(b"authorization") or b""
    scheme, _, token = value.partition(b" ")
    if scheme.lower() != b"basic":
        return False
    try:
        given = base64.b64decode(token.strip(), validate=True)
    except ValueError:
        return False
    return given == to_bytes(auth.get("user", "")) + b":" + to_bytes(auth.get("password", ""))


def challenge_for(step, auth):
    challenge = {
        "status": 401,
        "headers": [["WWW-Authenticate", c] for c in auth.get("challenges", ['Basic realm="orvane-test"'])],
        "body": auth.get("body", "Authentication required\n"),
    }
    for key in ("read_body", "continue"):
        if key in step:
            challenge[key] = step[key]
    return challenge


class Recorder:
    def __init__(self, directory, store_bodies):
        self.directory = directory
        self.store_bodies = store_bodies
        self.lock = threading.Lock()
        self.requests = 0
        self.connections = 0
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
        # Under the lock, so that head N exists before number N + 1 is given out.
        with self.lock:
            self.requests += 1
            number = self.requests
            with open(self.path(number, "head"), "wb") as f:
                f.write(head)
        return number

    def path(self, number, suffix):
        return os.path.join(self.directory, "%d.%s" % (number, suffix))

    def write_meta(self, number, fields, trailers):
        lines = ["%s %s" % (k, v) for k, v in fields]
        lines += ["trailer %s" % t.decode("latin-1") for t in trailers]
        temporary = self.path(number, "meta.tmp")
        with open(temporary, "w", encoding="latin-1") as f:
            f.write("\n".join(lines) + "\n")
        os.replace(temporary, self.path(number, "meta"))


class BodySink:
    """Streams request body bytes to the body file and the digest."""

    def __init__(self, recorder, number, hold_at=None, hold_limit=30.0):
        self.file = open(recorder.path(number, "body"), "wb") if recorder.store_bodies else None
        self.digest = hashlib.sha256()
        self.length = 0
        self.recorder = recorder
        self.number = number
        self.hold_at = hold_at
        self.hold_limit = hold_limit

    def write(self, data):
        if self.hold_at is not None and self.length + len(data) >= self.hold_at:
            # Split at the hold point so that the record shows where the reading stopped.
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
        """Stops reading (the caller's loop waits here) until the test releases it; bounded."""
        self.hold_at = None
        self.recorder.event("held %d %d" % (self.number, self.length))
        release = os.path.join(self.recorder.directory, RELEASE_FILE)
        deadline = time.monotonic() + self.hold_limit
        while not os.path.exists(release):
            if time.monotonic() >= deadline:
                self.recorder.event("hold-expired %d" % self.number)
                return
            time.sleep(HOLD_POLL_SECONDS)
        self.recorder.event("released %d" % self.number)

    def close(self):
        if self.file:
            self.file.close()
            self.file = None


class Request:
    def __init__(self):
        self.method = ""
        self.target = ""
        self.version = ""
        self.headers = []  # (lower-case name, value) in arrival order
        self.trailers = []
        self.chunked = False
        self.length = None
        self.body_complete = True
        self.continue_sent = False
        self.drained = 0
        self.sink = None

    def header(self, name):
        for key, value in self.headers:
            if key == name:
                return value
        return None

    def has_body(self):
        return self.chunked or (self.length or 0) > 0

    def wants_close(self):
        tokens = [t.strip().lower() for t in (self.header(b"connection") or b"").split(b",")]
        if self.version == "HTTP/1.0":
            return b"keep-alive" not in tokens
        return b"close" in tokens


class Connection:
    def __init__(self, server, sock, number):
        self.server = server
        self.sock = sock
        self.number = number
        self.rfile = sock.makefile("rb", buffering=256 * 1024)

    # ---- reading -------------------------------------------------------------------

    def readline(self):
        line = self.rfile.readline(MAX_LINE + 1)
        if len(line) > MAX_LINE:
            raise ScriptError("line too long")
        return line

    def read_head(self):
        """Returns (raw head bytes, Request) or None when the peer closed between requests."""
        raw = b""
        line = b""
        for _ in range(16):  # empty lines may precede a request line
            line = self.readline()
            if not line:
                return None
            if line.strip():
                break
            raw += line
        else:
            raise ScriptError("no request line")
        raw += line
        request = Request()
        parts = line.decode("latin-1").strip().split(" ")
        if len(parts) != 3:
            raise ScriptError("bad request line %r" % line)
        request.method, request.target, request.version = parts
        for _ in range(MAX_HEADERS + 1):
            line = self.readline()
            if not line:
                raise ScriptError("connection closed inside the request head")
            raw += line
            if line in (b"\r\n", b"\n"):
                break
            if line[:1] in (b" ", b"\t") and request.headers:
                name, value = request.headers[-1]
                request.headers[-1] = (name, value + b" " + line.strip())
                continue
            name, sep, value = line.partition(b":")
            if not sep:
                raise ScriptError("bad header line %r" % line)
            request.headers.append((name.strip().lower(), value.strip()))
        else:
            raise ScriptError("too many header lines")
        encoding = request.header(b"transfer-encoding")
        if encoding is not None and encoding.lower().split(b",")[-1].strip() == b"chunked":
            request.chunked = True
        elif request.header(b"content-length") is not None:
            request.length = int(request.header(b"content-length"))
        return raw, request

    def read_body(self, request, limit=None):
        """Reads the body into the request's sink; stops after `limit` bytes if given."""
        if request.chunked:
            self.read_chunked(request, limit)
            return
        remaining = request.length or 0
        if limit is not None:
            remaining = min(remaining, limit)
        while remaining > 0:
            data = self.rfile.read1(min(remaining, IO_BLOCK))
            if not data:
                request.body_complete = False
                return
            request.sink.write(data)
            remaining -= len(data)
        if request.sink.length < (request.length or 0):
            request.body_complete = False

    def read_chunked(self, request, limit):
        while True:
            if limit is not None and request.sink.length >= limit:
                request.body_complete = False
                return
            line = self.readline()
            if not line:
                request.body_complete = False
                return
            try:
                size = int(line.split(b";", 1)[0].strip(), 16)
            except ValueError:
                raise ScriptError("bad chunk size line %r" % line)
            if size == 0:
                break
            remaining = size
            while remaining > 0:
                want = min(remaining, IO_BLOCK)
                if limit is not None:
                    want = min(want, limit - request.sink.length)
                    if want <= 0:
                        request.body_complete = False
                        return
                data = self.rfile.read1(want)
                if not data:
                    request.body_complete = False
                    return
                request.sink.write(data)
                remaining -= len(data)
            if self.readline() not in (b"\r\n", b"\n"):
                raise ScriptError("chunk not followed by CRLF")
        for _ in range(MAX_HEADERS + 1):
            line = self.readline()
            if not line:
                request.body_complete = False
                return
            if line in (b"\r\n", b"\n"):
                return
            request.trailers.append(line.rstrip(b"\r\n"))
        raise ScriptError("too many trailer lines")

    def drain(self, request):
        """Discards what the client still sends after an early answer, for a bounded time,
        so that closing does not reset the connection under the answer."""
        try:
            self.sock.shutdown(socket.SHUT_WR)
        except OSError:
            return
        self.sock.settimeout(DRAIN_LIMIT_SECONDS)
        try:
            while True:
                data = self.rfile.read1(IO_BLOCK)
                if not data:
                    break
                request.drained += len(data)
        except (OSError, ValueError):
            pass

    # ---- writing -------------------------------------------------------------------

    def send(self, data):
        self.sock.sendall(data)

    def substitute(self, text):
        port = str(self.server.server_address[1])
        base = "%s://127.0.0.1:%s" % ("https" if self.server.tls else "http", port)
        return text.replace("{base}", base).replace("{port}", port)

    def answer(self, request, step, closing):
        """Sends the step's answer; returns False when the connection must close."""
        status = int(step.get("status", 200))
        reason = step.get("reason")
        if reason is None:
            try:
                reason = http.HTTPStatus(status).phrase
            except ValueError:
                reason = "Status"
        if "body_base64" in step:
            body = base64.b64decode(step["body_base64"])
        else:
            body = to_bytes(step.get("body", ""))
        framing = step.get("framing", "length")
        fault = step.get("fault")
        if fault == "drop_last_chunk":
            framing = "chunked"
        no_body = request.method == "HEAD" or status in (204, 304) or 100 <= status < 200
        headers = [(to_bytes(n), to_bytes(self.substitute(v))) for n, v in step.get("headers", [])]
        names = {n.lower() for n, _ in headers}
        if framing == "length" and b"content-length" not in names and status not in (204, 304):
            headers.append((b"Content-Length", str(len(body)).encode()))
        elif framing == "chunked" and b"transfer-encoding" not in names:
            headers.append((b"Transfer-Encoding", b"chunked"))
        keep = not closing and framing != "close" and not step.get("close") and fault is None
        if not keep and b"connection" not in names and fault is None:
            headers.append((b"Connection", b"close"))
        head = b"HTTP/1.1 %d %s\r\n" % (status, to_bytes(reason))
        head += b"".join(n + b": " + v + b"\r\n" for n, v in headers) + b"\r\n"
        if no_body:
            self.send(head)
            return keep
        if framing == "chunked":
            size = int(step.get("chunk_size", 0)) or max(len(body), 1)
            out = head
            for offset in range(0, len(body), size):
                piece = body[offset:offset + size]
                out += b"%x\r\n" % len(piece) + piece + b"\r\n"
            if fault != "drop_last_chunk":
                out += b"0\r\n\r\n"
            self.send(out)
        elif fault == "truncate":
            cut = int(step.get("truncate_at", len(body) // 2))
            self.send(head + body[:cut])
        else:
            self.send(head + body)
        return keep and fault is None

    def close_abruptly(self, reset):
        if reset:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        else:
            try:
                self.sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    # ---- one exchange --------------------------------------------------------------

    def choose(self, request):
        for route in self.server.routes:
            if route.matches(request.method, request.target):
                return route.take(request)
        return {"status": 404, "body": "no route for %s %s\n" % (request.method, request.target)}

    def handle_one(self):
        """Serves one request; returns False when the connection is finished."""
        parsed = self.read_head()
        if parsed is None:
            return False
        raw, request = parsed
        number = self.server.recorder.new_request(raw)
        step = self.choose(request)

        hold_at = step.get("hold_at")
        request.sink = BodySink(self.server.recorder, number, None if hold_at is None else int(hold_at),
                                float(step.get("hold_limit", 30.0)))
        read_policy = step.get("read_body", "all")
        expects_continue = (request.header(b"expect") or b"").lower() == b"100-continue"
        if expects_continue and request.has_body() and request.version == "HTTP/1.1":
            if read_policy not in ("none", "after") and step.get("continue", "send") == "send":
                self.send(b"HTTP/1.1 100 Continue\r\n\r\n")
                request.continue_sent = True

        try:
            if read_policy == "all":
                self.read_body(request)
            elif isinstance(read_policy, int):
                self.read_body(request, limit=read_policy)
            elif request.has_body():
                request.body_complete = False
        except (OSError, ValueError, ScriptError):
            # The client went silent or away inside the body: record what arrived, unanswered.
            request.body_complete = False
            self.finish_record(number, request, 0)
            raise

        fault = step.get("fault")
        status = 0 if fault in ("close", "reset") else int(step.get("status", 200))
        if read_policy != "after":
            self.finish_record(number, request, status)
        if fault in ("close", "reset"):
            self.close_abruptly(fault == "reset")
            return False
        unread = request.has_body() and not request.body_complete
        keep = self.answer(request, step, request.wants_close() or (unread and read_policy != "after"))
        if read_policy == "after":
            request.body_complete = True
            self.read_body(request)
            self.finish_record(number, request, status)
            return keep and request.body_complete
        if unread and fault is None:
            self.drain(request)
            self.server.recorder.event("drained %d %d" % (self.number, request.drained))
            return False
        return keep

    def finish_record(self, number, request, status):
        request.sink.close()
        fields = [
            ("request", number),
            ("connection", self.number),
            ("tls", int(self.server.tls is not None)),
            ("chunked", int(request.chunked)),
            ("body_length", request.sink.length),
            ("body_complete", int(request.body_complete)),
            ("body_sha256", request.sink.digest.hexdigest()),
            ("continue_sent", int(request.continue_sent)),
            ("status", status),
        ]
        self.server.recorder.write_meta(number, fields, request.trailers)


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
            try:
                sock.close()
            except OSError:
                pass


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    block_on_close = False
    allow_reuse_address = True
    request_queue_size = 64


def make_certificate(openssl, cert, key):
    """Self-signed certificate for 127.0.0.1, ::1 and localhost, valid for two days."""
    command = [
        openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
        "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1/O=Orvane Test",
        "-addext", "subjectAltName=IP:127.0.0.1,IP:::1,DNS:localhost",
        "-keyout", key, "-out", cert,
    ]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=30)
    if result.returncode != 0:
        raise SystemExit("openssl failed: " + result.stdout.decode(errors="replace"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--script", required=True)
    parser.add_argument("--record-dir", required=True)
    parser.add_argument("--port-file")
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--openssl", default="openssl")
    parser.add_argument("--no-body-files", action="store_true")
    parser.add_argument("--idle-timeout", type=float, default=IDLE_TIMEOUT_SECONDS)
    args = parser.parse_args()

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))

    with open(args.script, "rb") as f:
        script = json.loads(f.read().decode("latin-1"))
    tls = None
    if args.tls:
        if not args.cert or not args.key:
            raise SystemExit("--tls needs --cert and --key")
        if not os.path.exists(args.cert):
            make_certificate(args.openssl, args.cert, args.key)
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(args.cert, args.key)

    server = Server(("127.0.0.1", 0), Handler)
    server.routes = [Route(r) for r in script.get("routes", [])]
    server.recorder = Recorder(args.record_dir, not args.no_body_files)
    server.tls = tls
    server.idle_timeout = args.idle_timeout if args.idle_timeout > 0 else IDLE_TIMEOUT_SECONDS
    port = server.server_address[1]
    if args.port_file:
        temporary = args.port_file + ".tmp"
        with open(temporary, "w") as f:
            f.write("%d\n" % port)
        os.replace(temporary, args.port_file)
    else:
        print("PORT %d" % port, flush=True)
    try:
        server.serve_forever(poll_interval=0.2)
    finally:
        server.server_close()


if __name__ == "__main__":
    main()
