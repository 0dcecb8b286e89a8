"""The long-link benchmark: publishing through a relay that makes loopback look like a link with a
round trip of 2 x DELAY. The relay accepts TCP, charges one round trip for the connection, holds
every chunk DELAY each way, and only then terminates TLS, so every TLS handshake pays its round
trips; plain HTTP goes on to the reference server. It counts connections, full and resumed TLS
handshakes and exchanges (a client flight the server answered: a TLS hello, a request, or headers
answered by "100 Continue"); round trips = connections + exchanges is what the link charges. A last
flight nobody answers (the TLS close) costs the client no wait and is not counted."""

import asyncio
import os
import ssl
import subprocess
import sys
import threading
import time
import urllib.request

import peers
import report

DELAY = 0.025
FILES = 20
PROJECT = "Samples"  # page 3 of the reference server's defaults
USER, PASSWORD = "demo", "demo-password"
CHUNK = 1 << 16
SIGNIN = '<qsRequest><credentials name="%s" password="%s"><site contentUrl=""/></credentials></qsRequest>' % (
    USER, PASSWORD)
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


class Relay:
    def __init__(self, workdir, upstream_port):
        self.cert, key = os.path.join(workdir, "relay-cert.pem"), os.path.join(workdir, "relay-key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                        "-keyout", key, "-out", self.cert], check=True, capture_output=True, timeout=30)
        self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.tls.load_cert_chain(self.cert, key)
        self.upstream = upstream_port
        self.counts = dict.fromkeys(("connections", "handshakes", "resumed", "exchanges"), 0)
        self.writers = set()
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever, daemon=True)
        self.thread.start()
        self.url = "https://127.0.0.1:%d" % asyncio.run_coroutine_threadsafe(self._listen(), self.loop).result(10)

    async def _listen(self):
        self.servers = [await asyncio.start_server(self._terminate, "127.0.0.1", 0, ssl=self.tls),
                        await asyncio.start_server(self._link, "127.0.0.1", 0)]
        return self.servers[1].sockets[0].getsockname()[1]

    def take_counts(self):
        """The counts since the last call, then zero."""
        return asyncio.run_coroutine_threadsafe(self._take(), self.loop).result(10)

    async def _take(self):
        counts, self.counts = self.counts, dict.fromkeys(self.counts, 0)
        return counts

    def stop(self):
        async def close():
            for server in self.servers:
                server.close()
            for writer in self.writers:  # the pipes then end on their own
                writer.transport.abort()
            tasks = [t for t in asyncio.all_tasks() if t is not asyncio.current_task()]
            await asyncio.wait(tasks, timeout=5) if tasks else None

        asyncio.run_coroutine_threadsafe(close(), self.loop).result(10)
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join(10)

    async def _link(self, client_reader, client_writer):
        self.counts["connections"] += 1
        await asyncio.sleep(2 * DELAY)  # SYN, SYN-ACK
        await self._join(client_reader, client_writer, self.servers[0].sockets[0].getsockname()[1], DELAY, ["down"])

    async def _terminate(self, client_reader, client_writer):
        reused = client_writer.get_extra_info("ssl_object").session_reused
        self.counts["resumed" if reused else "handshakes"] += 1
        await self._join(client_reader, client_writer, self.upstream)

    async def _join(self, client_reader, client_writer, port, delay=0.0, last=None):
        """Pipes the client to 127.0.0.1:port and back; the link's two pipes share `last` (exchanges, below)."""
        reader, writer = await asyncio.open_connection("127.0.0.1", port)
        self.writers.update((client_writer, writer))
        await asyncio.gather(self._pipe(client_reader, writer, delay, last, "up"),
                             self._pipe(reader, client_writer, delay, last, "down"))

    async def _pipe(self, reader, writer, delay, last, direction):
        """Copies to the end, each chunk delivered `delay` after it arrived, in order; then closes. Pipes sharing
        `last`, the direction of the last chunk, count a chunk down after one up as an exchange."""
        last = last or [direction]
        held = asyncio.Queue()

        async def deliver():
            while (item := await held.get()) is not None:
                await asyncio.sleep(item[0] - self.loop.time())
                writer.write(item[1])
                await writer.drain()

        sender = asyncio.ensure_future(deliver())
        try:
            while data := await reader.read(CHUNK):
                if direction == "down" and last[0] == "up":
                    self.counts["exchanges"] += 1
                last[0] = direction
                held.put_nowait((self.loop.time() + delay, data))
        except OSError:
            pass
        held.put_nowait(None)
        try:
            await sender
        except OSError:
            pass
        writer.close()
        self.writers.discard(writer)


def reference_server(b):
    """The reference server on a free port, quiet, with its data in the run's scratch directory."""
    port_file = os.path.join(b.workdir, "reference.port")
    process = subprocess.Popen([sys.executable, os.path.join(ROOT, "tools", "orvane-reference-server"), "--port", "0",
                                "--port-file", port_file, "--data-dir", os.path.join(b.workdir, "reference"),
                                "--quiet"], stdout=subprocess.DEVNULL, env=b.env)
    for _ in range(200):
        if os.path.exists(port_file):
            with open(port_file) as f:
                return process, int(f.read())
        time.sleep(0.05)
    process.kill()
    raise RuntimeError("the reference server did not start")


def signed_in(url):
    """A token, the site id and the project's id, fetched straight from the server, off the link."""
    with urllib.request.urlopen(urllib.request.Request(url + "/api/2.0/auth/signin", SIGNIN.encode()), timeout=30) as r:
        text = r.read().decode()
    auth, site = text.split('token="')[1].split('"')[0], text.split('site id="')[1].split('"')[0]
    pages = urllib.request.Request(url + "/api/2.0/sites/%s/projects?pageSize=1000" % site,
                                   headers={"X-Orvane-Auth": auth})
    with urllib.request.urlopen(pages, timeout=30) as r:
        text = r.read().decode()
    return auth, site, text.split('name="%s"' % PROJECT)[0].rsplit('id="', 1)[1].split('"')[0]


def curl_argv(relay, auth, site, project, files, expect):
    """The curl tool on one connection: a sign-in, the three pages a lookup of "Samples" reads, the
    uploads and a sign-out, with the token and project id of signed_in."""
    base = relay.url + "/api/2.0/sites/" + site
    common = ["--cacert", relay.cert, "-sS", "-f", "-o", "/dev/null", "-H", "X-Orvane-Auth: " + auth]
    common += [] if expect else ["-H", "Expect:"]
    argv = ["curl", *common, "-H", "Content-Type: text/xml", "--data-binary", SIGNIN,
            relay.url + "/api/2.0/auth/signin"]
    for page in (1, 2, 3):
        argv += ["--next", *common, base + "/projects?pageSize=100&pageNumber=%d" % page]
    for path in files:
        stem = os.path.basename(path)[:-4]
        argv += ["--next", *common, "--form-string", "request_payload=" + peers.PAYLOAD % (stem, project),
                 "-F", "orvane_datasource=@%s;type=application/octet-stream" % path,
                 base + "/datasources?overwrite=true"]
    return argv + ["--next", *common, "-X", "POST", relay.url + "/api/2.0/auth/signout"]


PYTHON_SIDE = """
import sys, time, orvane
start = time.monotonic()
with orvane.Session(sys.argv[1], "%s", "%s", ca_file=sys.argv[2]) as session:
    for path in sys.argv[3:]:
        session.publish(path, "%s", overwrite=True)
print("wall_s=%%f" %% (time.monotonic() - start))
""" % (USER, PASSWORD, PROJECT)


def longlink(b):
    files = [b.file("link%02d.qrx" % i, 1 << 20) for i in range(FILES)]
    server, port = reference_server(b)
    relay = Relay(b.workdir, port)
    try:
        direct = "http://127.0.0.1:%d" % port
        cli = os.path.join(b.build, "tools", "orvane-publish")
        env = dict(b.env, ORVANE_PASSWORD=PASSWORD, ORVANE_LIBRARY=os.path.join(b.build, "libOrvaneServer.so"),
                   PYTHONPATH=os.path.join(ROOT, "python"))

        def timed(argv):  # the Python side times its own session, its interpreter's start-up left out
            relay.take_counts()
            done = b.run(argv, timeout=300, env=env)
            return dict(relay.take_counts(), wall=done["values"].get("wall_s", done["wall"]))

        for count in (1, FILES):
            chosen = files[:count]
            publish = [cli, "-q", "-o", "-s", relay.url, "-u", USER, "-p", PROJECT, "--cacert", relay.cert]
            sides = {"cli": lambda: timed(publish + chosen),
                     "cli --no-reuse": lambda: timed(publish + ["--no-reuse"] + chosen),
                     "python": lambda: timed([sys.executable, "-c", PYTHON_SIDE, relay.url, relay.cert, *chosen]),
                     "curl": lambda: timed(curl_argv(relay, *signed_in(direct), chosen, False)),
                     "curl with Expect": lambda: timed(curl_argv(relay, *signed_in(direct), chosen, True))}
            runs = b.alternate(**sides)
            floor = 2 * DELAY * (7 + count)  # TCP, TLS, sign-in, 3 pages, the uploads, sign-out
            curl = report.stats([r["wall"] for r in runs["curl"]])
            for name, results in runs.items():
                wall = report.stats([r["wall"] for r in results])
                counts = "; ".join("%s %s" % (k, "-".join("%g" % v for v in sorted({min(got), max(got)})))
                                   for k in relay.counts
                                   for got in [[r[k] for r in results]])
                target, met = "", None
                if name == "cli":  # the limits the work was set: 1.3 x 0.35 s and 1.3 x 1.5 s
                    limit = 1.3 * (0.35 if count == 1 else 1.5)
                    target = "<= %.2f s, <= curl" % limit
                    met = wall["median"] <= limit and wall["median"] <= curl["median"]
                b.row("Long link", "%d x 1 MiB, %s" % (count, name), "s", wall, report.stats([floor]),
                      name + ": " + counts, target, met)
    finally:
        relay.stop()
        server.terminate()
        server.wait(10)
