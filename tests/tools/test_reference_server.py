"""Tests of tools/orvane-reference-server.

Most cases run the server as a child process on an ephemeral loopback port and
talk to it the way the library does: the same request documents, headers and
multipart layout. The streaming multipart reader and the lenient request parser
are also driven in-process, where chunk borders can be placed at will.
"""

import hashlib
import http.client
import json
import os
import random
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.parse
import xml.etree.ElementTree as ET

HERE = os.path.dirname(os.path.abspath(__file__))
TOOLS = os.path.normpath(os.path.join(HERE, "..", "..", "tools"))
SERVER = os.path.join(TOOLS, "orvane-reference-server")
sys.path.insert(0, TOOLS)
import orvane_reference_server as ref  # noqa: E402

START_TIMEOUT = 30  # generous: only guards against a server that never comes up
IO_TIMEOUT = 30

SIGNIN_SHAPE = {0: {"qsResponse"}, 1: {"credentials"}, 2: {"site", "user"}}
PROJECTS_SHAPE = {0: {"qsResponse"}, 1: {"pagination", "projects"}, 2: {"project"}}
PUBLISH_SHAPE = {0: {"qsResponse"}, 1: {"datasource"}, 2: {"project", "owner", "tags"}, 3: {"tag"}}
ERROR_SHAPE = {0: {"qsResponse"}, 1: {"error"}, 2: {"summary", "detail"}}


def signin_body(name, password, site=""):
    return (
        f'<qsRequest><credentials name="{name}" password="{password}" >'
        f'<site contentUrl="{site}" /> </credentials></qsRequest>'
    ).encode("utf-8")


def library_boundary():
    return "-" * 28 + "%012x" % random.getrandbits(48)


def publish_body(boundary, name, project_id, data, path="/data/extract.qrx"):
    """The multipart body exactly as the library lays it out."""
    b = boundary.encode()
    xml = f'<qsRequest><datasource name="{name}" ><project id="{project_id}" /></datasource></qsRequest>'.encode()
    body = (
        b"--" + b + b"\r\n"
        + b'Content-Disposition: form-data; name="request_payload"\r\n\r\n'
        + xml
        + b"\r\n--" + b + b"\r\n"
        + b'Content-Disposition: form-data; name="orvane_datasource"; filename="' + path.encode() + b'"\r\n'
        + b"Content-Type: application/octet-stream\r\n\r\n"
        + data
        + b"\r\n--" + b + b"--\r\n"
    )
    # The length the library announces for this layout; keeps the helper honest.
    assert len(body) == 44 + 58 + len(xml) + 46 + (96 + len("orvane_datasource") + len(path.encode())) + len(data) + 48
    return body


def multipart_type(boundary):
    return "multipart/mixed; boundary=" + boundary


class ServerProcess:
    """The server as a child process; close() always stops it."""

    def __init__(self, config=None, extra_args=(), own_data_dir=True):
        self._tmp = tempfile.TemporaryDirectory(prefix="orv-refsrv-")
        self.root = self._tmp.name
        self.data_dir = os.path.join(self.root, "data")
        self.port_file = os.path.join(self.root, "port")
        self.log_path = os.path.join(self.root, "server.log")
        self.config_path = None
        args = [sys.executable, SERVER, "--host", "127.0.0.1", "--port", "0", "--port-file", self.port_file]
        if own_data_dir:
            args += ["--data-dir", self.data_dir]
        if config is not None:
            self.config_path = os.path.join(self.root, "config.json")
            with open(self.config_path, "w", encoding="utf-8") as f:
                json.dump(config, f)
            args += ["--config", self.config_path]
        args += list(extra_args)
        self._log = open(self.log_path, "wb")
        self.proc = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)
        try:
            self.port = self._wait_for_port()
        except BaseException:
            self.close()
            raise

    def _wait_for_port(self):
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            if os.path.exists(self.port_file):
                with open(self.port_file) as f:
                    return int(f.read())
            if self.proc.poll() is not None:
                raise RuntimeError(f"server exited with {self.proc.returncode}:\n{self.log()}")
            time.sleep(0.02)
        raise RuntimeError(f"server did not start:\n{self.log()}")

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode("utf-8", "replace")

    def stop(self):
        """SIGTERM, then SIGKILL if it does not go; returns the exit status."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        return self.proc.returncode

    def close(self):
        self.stop()
        self._log.close()
        self._tmp.cleanup()

    def connect(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=IO_TIMEOUT)

    def request(self, method, path, body=None, headers=None):
        conn = self.connect()
        try:
            conn.request(method, path, body=body, headers=headers or {})
            resp = conn.getresponse()
            return resp.status, resp.headers, resp.read()
        finally:
            conn.close()

    def raw_socket(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=IO_TIMEOUT)

    # -- the library's three calls --------------------------------------------

    def sign_in(self, name=ref.DEFAULT_USER, password=ref.DEFAULT_PASSWORD, site=""):
        status, _, body = self.request(
            "POST", "/api/2.0/auth/signin", signin_body(name, password, site),
            {"Content-Type": "text/xml", "X-Orvane-Auth": ""},
        )
        if status != 200:
            raise AssertionError(f"sign-in failed with {status}: {body!r}")
        creds = ET.fromstring(body).find("credentials")
        return creds.get("token"), creds.find("site").get("id")

    def projects(self, token, site_id, page, size=100):
        return self.request(
            "GET", f"/api/2.0/sites/{site_id}/projects?pageSize={size}&pageNumber={page}",
            headers={"Content-Type": "", "X-Orvane-Auth": token},
        )

    def all_projects(self, token, site_id):
        names = {}
        for page in range(1, 100):
            status, _, body = self.projects(token, site_id, page)
            assert status == 200, body
            root = ET.fromstring(body)
            names.update((p.get("name"), p.get("id")) for p in root.iter("project"))
            if page * 100 >= int(root.find("pagination").get("totalAvailable")):
                return names
        raise AssertionError("paging never ended")

    def publish(self, token, site_id, name, project_id, data, overwrite=False, boundary=None):
        boundary = boundary or library_boundary()
        query = "?overwrite=true" if overwrite else ""
        return self.request(
            "POST", f"/api/2.0/sites/{site_id}/datasources{query}",
            publish_body(boundary, name, project_id, data),
            {"Content-Type": multipart_type(boundary), "X-Orvane-Auth": token},
        )

    def published(self):
        status, _, body = self.request("GET", "/__published?format=json")
        assert status == 200, body
        return json.loads(body)

    def stored(self, project, name):
        """The bytes stored for project/name, or None."""
        entries = [e for e in self.published() if e["project"] == project and e["name"] == name]
        if not entries:
            return None
        assert len(entries) == 1, entries
        path = os.path.realpath(entries[0]["path"])
        assert path.startswith(os.path.realpath(self.data_dir) + os.sep), path
        with open(path, "rb") as f:
            return f.read()

    def staging_leftovers(self):
        return os.listdir(os.path.join(self.data_dir, ref.STAGING_DIR))


class ServerTestCase(unittest.TestCase):
    CONFIG = None

    @classmethod
    def setUpClass(cls):
        cls.server = ServerProcess(cls.CONFIG)
        cls.addClassCleanup(cls.server.close)

    def run(self, result=None):
        # Show the server's log next to a failure: it names the refused request.
        before = result.failures[:] + result.errors[:] if result else []
        outcome = super().run(result)
        if result and len(result.failures) + len(result.errors) > len(before):
            sys.stderr.write(f"\n--- server log ---\n{self.server.log()[-4000:]}\n")
        return outcome

    def assertShape(self, body, shape):
        """The reply parses as XML and every element is one the library's parser accepts at its depth."""
        root = ET.fromstring(body)

        def walk(elem, depth):
            self.assertIn(elem.tag, shape.get(depth, set()), f"<{elem.tag}> at depth {depth} in {body!r}")
            for child in elem:
                walk(child, depth + 1)

        walk(root, 0)
        return root

    def assertError(self, status, body, expected):
        self.assertEqual(status, expected, body)
        root = self.assertShape(body, ERROR_SHAPE)
        self.assertEqual(root.find("error").get("code"), str(expected))


class DefaultServerTest(ServerTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.token, cls.site = cls.server.sign_in()
        cls.project_ids = cls.server.all_projects(cls.token, cls.site)

    def test_sign_in(self):
        status, _, body = self.server.request(
            "POST", "/api/2.0/auth/signin", signin_body("demo", "demo-password"),
            {"Content-Type": "text/xml", "X-Orvane-Auth": ""},
        )
        self.assertEqual(status, 200, body)
        creds = self.assertShape(body, SIGNIN_SHAPE).find("credentials")
        self.assertTrue(creds.get("token"))
        self.assertNotEqual(creds.get("token"), self.token, "every sign-in issues its own token")
        self.assertEqual(creds.find("site").get("id"), self.site)
        self.assertTrue(creds.find("user").get("id"))

        for name, password, site in [
            ("demo", "wrong", ""),
            ("nobody", "demo-password", ""),
            ("demo", "demo-password", "no-such-site"),
            ("Demo", "demo-password", ""),
        ]:
            with self.subTest(name=name, password=password, site=site):
                status, _, body = self.server.request(
                    "POST", "/api/2.0/auth/signin", signin_body(name, password, site), {"Content-Type": "text/xml"}
                )
                self.assertError(status, body, 401)

        # A quote in a value breaks the document the library builds; the server cannot read it.
        for body in [signin_body('de"mo', "demo-password"), b"", b"<qsRequest><credentials name='demo'/>",
                     b"<other/>", "<qsRequest>\xff</qsRequest>".encode("latin-1")]:
            with self.subTest(body=body):
                status, _, reply = self.server.request("POST", "/api/2.0/auth/signin", body)
                self.assertError(status, reply, 400)

        status, headers, body = self.server.request("GET", "/api/2.0/auth/signin")
        self.assertError(status, body, 405)
        self.assertEqual(headers["Allow"], "POST")
        status, _, body = self.server.request("GET", "/api/2.0/nothing-here")
        self.assertError(status, body, 404)

    def test_token_checked_after_sign_in(self):
        path = f"/api/2.0/sites/{self.site}/projects?pageSize=100&pageNumber=1"
        for headers in [{}, {"X-Orvane-Auth": ""}, {"X-Orvane-Auth": "not-a-token"}]:
            with self.subTest(headers=headers):
                status, _, body = self.server.request("GET", path, headers=headers)
                self.assertError(status, body, 401)
        status, _, body = self.server.projects(self.token, "no-such-site", 1)
        self.assertError(status, body, 404)
        status, _, body = self.server.publish("bogus", self.site, "x", self.project_ids["Samples"], b"data")
        self.assertError(status, body, 401)
        self.assertIsNone(self.server.stored("Samples", "x"))

        token, _ = self.server.sign_in()
        self.assertEqual(self.server.projects(token, self.site, 1)[0], 200)
        status, _, _ = self.server.request("POST", "/api/2.0/auth/signout", b"", {"X-Orvane-Auth": token})
        self.assertEqual(status, 204)
        status, _, body = self.server.projects(token, self.site, 1)
        self.assertError(status, body, 401)
        self.assertEqual(self.server.projects(self.token, self.site, 1)[0], 200, "other tokens stay valid")

    def test_project_pages(self):
        def page(number, size=100):
            status, _, body = self.server.projects(self.token, self.site, number, size)
            self.assertEqual(status, 200, body)
            root = self.assertShape(body, PROJECTS_SHAPE)
            pagination = root.find("pagination")
            self.assertEqual(
                (pagination.get("pageNumber"), pagination.get("pageSize"), pagination.get("totalAvailable")),
                (str(number), str(size), "351"),
            )
            self.assertIsNotNone(root.find("projects"))
            return [(p.get("name"), p.get("id")) for p in root.iter("project")]

        first = page(1)
        self.assertEqual(len(first), 100)
        self.assertEqual(first[0][0], "Project 001")
        self.assertNotIn("Samples", dict(first), "the demo project must cost more than one page")
        self.assertEqual(dict(page(3))["Samples"], self.project_ids["Samples"])
        self.assertEqual(len(page(4)), 51)
        self.assertEqual(page(5), [], "beyond the end: no projects, same total")
        self.assertEqual([n for n, _ in page(2, 7)], [f"Project {i:03d}" for i in range(8, 15)])

        self.assertEqual(len(self.project_ids), 351)
        self.assertEqual(len(set(self.project_ids.values())), 351, "ids are unique")

        for query in ["pageSize=0&pageNumber=1", "pageSize=1001&pageNumber=1", "pageSize=x&pageNumber=1",
                      "pageSize=100&pageNumber=0", "pageSize=100&pageNumber=-1"]:
            with self.subTest(query=query):
                status, _, body = self.server.request(
                    "GET", f"/api/2.0/sites/{self.site}/projects?{query}", headers={"X-Orvane-Auth": self.token}
                )
                self.assertError(status, body, 400)

    def test_publish_new_conflict_overwrite(self):
        project = self.project_ids["Project 042"]
        first, second = b"first version\x00\r\n", b"second version, longer\r\n--"
        status, _, body = self.server.publish(self.token, self.site, "Sales", project, first)
        self.assertEqual(status, 201, body)
        ds = self.assertShape(body, PUBLISH_SHAPE).find("datasource")
        self.assertEqual(ds.get("name"), "Sales")
        self.assertEqual(ds.find("project").get("id"), project)
        self.assertIsNotNone(ds.find("owner"))
        self.assertEqual(self.server.stored("Project 042", "Sales"), first)

        status, _, body = self.server.publish(self.token, self.site, "Sales", project, second)
        self.assertError(status, body, 409)
        self.assertEqual(self.server.stored("Project 042", "Sales"), first, "a refused upload changes nothing")

        status, _, body = self.server.publish(self.token, self.site, "Sales", project, second, overwrite=True)
        self.assertEqual(status, 201, body)
        self.assertShape(body, PUBLISH_SHAPE)
        self.assertEqual(self.server.stored("Project 042", "Sales"), second)

        # The same name in another project is another data source; overwrite also creates.
        status, _, body = self.server.publish(
            self.token, self.site, "Sales", self.project_ids["Project 043"], first, overwrite=True
        )
        self.assertEqual(status, 201, body)
        self.assertEqual(self.server.stored("Project 043", "Sales"), first)
        self.assertEqual(self.server.stored("Project 042", "Sales"), second)
        self.assertEqual(self.server.staging_leftovers(), [])

    def test_stored_bytes_are_identical(self):
        boundary = library_boundary()
        rng = random.Random(7)
        big = bytearray(rng.randbytes(5 * 1024 * 1024 + 123))
        # Near-misses of the delimiter, scattered so some straddle the server's read chunks.
        for offset in range(1000, len(big) - 100, 65536 + 17):
            cut = rng.randrange(1, len(boundary) + 4)
            near = (b"\r\n--" + boundary.encode())[:cut]
            big[offset : offset + len(near)] = near
        big = bytes(big)
        for name, data in [("Empty", b""), ("Big", big), ("CRLF", b"\r\n"), ("Dashes", b"--\r\n--")]:
            with self.subTest(name=name):
                status, _, body = self.server.publish(
                    self.token, self.site, name, self.project_ids["Samples"], data, boundary=boundary
                )
                self.assertEqual(status, 201, body)
                self.assertEqual(self.server.stored("Samples", name), data)
                entry = [e for e in self.server.published() if e["name"] == name and e["project"] == "Samples"][0]
                self.assertEqual((entry["size"], entry["sha256"]), (len(data), hashlib.sha256(data).hexdigest()))
        self.assertEqual(self.server.staging_leftovers(), [])

    def test_publish_refusals(self):
        project = self.project_ids["Project 100"]
        b = library_boundary()
        good = publish_body(b, "Refused", project, b"payload bytes")
        file_part = good[good.index(b"\r\n--" + b.encode()) + 2 :]
        cases = [
            ("unknown project", 404, multipart_type(b), publish_body(b, "Refused", "no-such-project", b"x")),
            ("no boundary", 400, "multipart/mixed", good),
            ("not multipart", 400, "text/xml", good),
            ("no closing boundary", 400, multipart_type(b), good[: -len(b) - 6]),
            ("garbage after boundary", 400, multipart_type(b), b"--" + b.encode() + b"junk\r\n" + good[len(b) + 4 :]),
            ("no file part", 400, multipart_type(b), good[: good.index(b"\r\n--" + b.encode())]
             + b"\r\n--" + b.encode() + b"--\r\n"),
            ("no payload part", 400, multipart_type(b), file_part),
            ("quote in name", 400, multipart_type(b), publish_body(b, 'Re"fused', project, b"x")),
            ("empty name", 400, multipart_type(b), publish_body(b, "", project, b"x")),
            ("two file parts", 400, multipart_type(b), good[: -len(b) - 8] + b"\r\n--" + b.encode() + b"\r\n"
             + file_part[file_part.index(b"\r\n") + 2 :]),
        ]
        for label, expected, content_type, body in cases:
            with self.subTest(label):
                status, _, reply = self.server.request(
                    "POST", f"/api/2.0/sites/{self.site}/datasources", body,
                    {"Content-Type": content_type, "X-Orvane-Auth": self.token},
                )
                self.assertError(status, reply, expected)
                self.assertIsNone(self.server.stored("Project 100", "Refused"))
                self.assertEqual(self.server.staging_leftovers(), [])

    def test_names_are_taken_verbatim_and_kept_inside_the_data_dir(self):
        project = self.project_ids["Project 200"]
        for name in ["R&D <2024> > Q1", "../../escape", "a/b\\c", ".hidden", "100% Ünïcödé", "tab\there"]:
            with self.subTest(name=name):
                status, _, body = self.server.publish(self.token, self.site, name, project, name.encode())
                self.assertEqual(status, 201, body)
                self.assertEqual(ET.fromstring(body).find("datasource").get("name"), name)
                self.assertEqual(self.server.stored("Project 200", name), name.encode())
        status, _, text = self.server.request("GET", "/__published")
        self.assertIn("Project 200\ttab\\there\t8\t", text.decode())

    def test_expect_100_continue(self):
        project = self.project_ids["Project 300"]
        b = library_boundary()
        data = os.urandom(300000)
        body = publish_body(b, "Continued", project, data)
        head = (
            f"POST /api/2.0/sites/{self.site}/datasources HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            f"Content-Type: {multipart_type(b)}\r\nX-Orvane-Auth: {self.token}\r\n"
            f"Content-Length: {len(body)}\r\nExpect: 100-continue\r\n\r\n"
        ).encode()
        with self.server.raw_socket() as sock:
            sock.sendall(head)
            interim = b""
            while not interim.endswith(b"\r\n\r\n") and len(interim) < 1000:
                chunk = sock.recv(1)
                if not chunk:
                    break
                interim += chunk
            self.assertEqual(interim, b"HTTP/1.1 100 Continue\r\n\r\n")
            sock.sendall(body)
            resp = http.client.HTTPResponse(sock)
            resp.begin()
            self.assertEqual(resp.status, 201, resp.read())
        self.assertEqual(self.server.stored("Project 300", "Continued"), data)

        # A refused upload gets its final answer instead of 100 and is never sent.
        with self.server.raw_socket() as sock:
            sock.sendall(head.replace(self.token.encode(), b"wrong-token"))
            resp = http.client.HTTPResponse(sock)
            resp.begin()
            self.assertError(resp.status, resp.read(), 401)
            self.assertEqual(resp.getheader("Connection"), "close")
            self.assertEqual(sock.recv(100), b"", "the server closes instead of waiting for the body")

    def cut_upload(self, name, overwrite, data):
        b = library_boundary()
        body = publish_body(b, name, self.project_ids["Project 150"], data)
        query = "?overwrite=true" if overwrite else ""
        head = (
            f"POST /api/2.0/sites/{self.site}/datasources{query} HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            f"Content-Type: {multipart_type(b)}\r\nX-Orvane-Auth: {self.token}\r\n"
            f"Content-Length: {len(body)}\r\n\r\n"
        ).encode()
        with self.server.raw_socket() as sock:
            sock.sendall(head + body[: len(body) // 2])
            sock.shutdown(socket.SHUT_WR)
            # The answer comes after the server has cleaned up, so reading it synchronises the test.
            resp = http.client.HTTPResponse(sock)
            resp.begin()
            self.assertError(resp.status, resp.read(), 400)

    def test_cut_upload_leaves_no_file(self):
        self.cut_upload("Cut", False, os.urandom(2 * 1024 * 1024))
        self.assertIsNone(self.server.stored("Project 150", "Cut"))
        self.assertEqual(self.server.staging_leftovers(), [])

        old = b"the complete version"
        status, _, body = self.server.publish(self.token, self.site, "Kept", self.project_ids["Project 150"], old)
        self.assertEqual(status, 201, body)
        self.cut_upload("Kept", True, os.urandom(1024 * 1024))
        self.assertEqual(self.server.stored("Project 150", "Kept"), old, "a cut overwrite keeps the old file")
        self.assertEqual(self.server.staging_leftovers(), [])

    def test_listings(self):
        uploads = {("Project 250", "List A"): b"a" * 10, ("Project 251", "List B"): b"", ("Samples", "List C"): b"c"}
        for (project, name), data in uploads.items():
            status, _, body = self.server.publish(self.token, self.site, name, self.project_ids[project], data)
            self.assertEqual(status, 201, body)

        status, _, body = self.server.request(
            "GET", f"/api/2.0/sites/{self.site}/datasources?pageSize=1000", headers={"X-Orvane-Auth": self.token}
        )
        self.assertEqual(status, 200, body)
        root = self.assertShape(body, {0: {"qsResponse"}, 1: {"pagination", "datasources"}, 2: {"datasource"},
                                       3: {"project"}})
        listed = {(d.find("project").get("name"), d.get("name")): d for d in root.iter("datasource")}
        self.assertEqual(root.find("pagination").get("totalAvailable"), str(len(listed)))
        for (project, name), data in uploads.items():
            d = listed[(project, name)]
            self.assertEqual(d.find("project").get("id"), self.project_ids[project])
            self.assertEqual((d.get("size"), d.get("sha256")), (str(len(data)), hashlib.sha256(data).hexdigest()))
        status, _, body = self.server.request("GET", f"/api/2.0/sites/{self.site}/datasources")
        self.assertError(status, body, 401)

        status, headers, text = self.server.request("GET", "/__published")
        self.assertEqual(status, 200)
        self.assertTrue(headers["Content-Type"].startswith("text/plain"))
        lines = text.decode().splitlines()
        for (project, name), data in uploads.items():
            self.assertIn(f"{project}\t{name}\t{len(data)}\t{hashlib.sha256(data).hexdigest()}\t", lines)

        # The command-line listing reads the data directory and agrees with the endpoint.
        out = subprocess.run(
            [sys.executable, SERVER, "--list", "--data-dir", self.server.data_dir],
            capture_output=True, timeout=60, check=True,
        ).stdout
        _, _, text = self.server.request("GET", "/__published")
        self.assertEqual(out, text)
        out = subprocess.run(
            [sys.executable, SERVER, "--list", "--json", "--data-dir", self.server.data_dir],
            capture_output=True, timeout=60, check=True,
        ).stdout
        self.assertEqual(json.loads(out), self.server.published())

    def test_concurrent_publishes(self):
        project = self.project_ids["Project 333"]
        results = {}
        payloads = {f"Parallel {i}": os.urandom(512 * 1024 + i) for i in range(6)}

        def publish(key, name, data):
            try:
                results[key] = self.server.publish(self.token, self.site, name, project, data)[0]
            except Exception as e:  # reported through results
                results[key] = e

        threads = [threading.Thread(target=publish, args=(n, n, d)) for n, d in payloads.items()]
        # Two uploads of one new name without overwrite: exactly one may win.
        threads += [threading.Thread(target=publish, args=(f"race {i}", "Race", bytes([i]) * 1000)) for i in range(2)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(timeout=60)
        self.assertFalse(any(t.is_alive() for t in threads))
        for name, data in payloads.items():
            self.assertEqual(results[name], 201, name)
            self.assertEqual(self.server.stored("Project 333", name), data)
        self.assertEqual(sorted([results["race 0"], results["race 1"]]), [201, 409])
        winner = 0 if results["race 0"] == 201 else 1
        self.assertEqual(self.server.stored("Project 333", "Race"), bytes([winner]) * 1000)

    def test_conflict_found_when_the_upload_completes(self):
        project = self.project_ids["Project 222"]
        b = library_boundary()
        body = publish_body(b, "Late", project, os.urandom(256 * 1024))
        head = (
            f"POST /api/2.0/sites/{self.site}/datasources HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            f"Content-Type: {multipart_type(b)}\r\nX-Orvane-Auth: {self.token}\r\n"
            f"Content-Length: {len(body)}\r\n\r\n"
        ).encode()
        with self.server.raw_socket() as sock:
            sock.sendall(head + body[: len(body) // 2])
            # Its staging file shows that the late upload got past the name check.
            deadline = time.monotonic() + START_TIMEOUT
            while not self.server.staging_leftovers() and time.monotonic() < deadline:
                time.sleep(0.01)
            self.assertTrue(self.server.staging_leftovers(), "the upload never reached its file part")
            status, _, reply = self.server.publish(self.token, self.site, "Late", project, b"early")
            self.assertEqual(status, 201, reply)
            sock.sendall(body[len(body) // 2 :])
            resp = http.client.HTTPResponse(sock)
            resp.begin()
            self.assertError(resp.status, resp.read(), 409)
        self.assertEqual(self.server.stored("Project 222", "Late"), b"early")
        self.assertEqual(self.server.staging_leftovers(), [])

    def test_keep_alive_after_answers(self):
        # Several exchanges on one connection: every answer leaves the stream at the next request.
        conn = self.server.connect()
        try:
            b = library_boundary()
            exchanges = [
                ("GET", f"/api/2.0/sites/{self.site}/projects?pageSize=100&pageNumber=1", None, {}, 200),
                ("POST", f"/api/2.0/sites/{self.site}/datasources",
                 publish_body(b, "KeepAlive", "no-such-project", b"x" * 5000), {"Content-Type": multipart_type(b)}, 404),
                ("POST", f"/api/2.0/sites/{self.site}/datasources",
                 publish_body(b, "KeepAlive", self.project_ids["Project 007"], b"y" * 5000),
                 {"Content-Type": multipart_type(b)}, 201),
                ("POST", "/api/2.0/sites/no-such-site/datasources", b"z" * 5000, {}, 404),
                ("GET", f"/api/2.0/sites/{self.site}/projects?pageSize=1&pageNumber=2", None, {}, 200),
            ]
            for method, path, body, headers, expected in exchanges:
                with self.subTest(path=path, expected=expected):
                    conn.request(method, path, body=body, headers={"X-Orvane-Auth": self.token, **headers})
                    resp = conn.getresponse()
                    reply = resp.read()
                    self.assertEqual(resp.status, expected, reply)
                    self.assertNotEqual(resp.getheader("Connection"), "close")
        finally:
            conn.close()


class ConfiguredServerTest(ServerTestCase):
    CONFIG = {
        "users": [
            {"name": "alice", "password": 'p&ss<w>rd', "id": "user-alice"},
            {"name": "bob", "password": "bob", "sites": ["marketing"]},
        ],
        "sites": [
            {"contentUrl": "", "id": "site-default", "projects": ["Default"]},
            {
                "contentUrl": "marketing",
                "id": "site-marketing",
                "projects": [{"name": "Campaigns & Co", "id": "p-campaigns"},
                             {"pattern": "Team {:02d}", "from": 1, "to": 120}],
            },
        ],
    }

    def test_sites_and_users(self):
        token_default, site = self.server.sign_in("alice", "p&ss<w>rd", "")
        self.assertEqual(site, "site-default")
        token_marketing, site = self.server.sign_in("alice", "p&ss<w>rd", "marketing")
        self.assertEqual(site, "site-marketing")
        self.server.sign_in("bob", "bob", "marketing")
        with self.assertRaisesRegex(AssertionError, "401"):
            self.server.sign_in("bob", "bob", "")
        with self.assertRaisesRegex(AssertionError, "401"):
            self.server.sign_in("alice", "p&amp;ss&lt;w&gt;rd", "")

        status, _, body = self.server.projects(token_default, "site-marketing", 1)
        self.assertError(status, body, 403)
        status, _, body = self.server.publish(token_default, "site-marketing", "X", "p-campaigns", b"x")
        self.assertError(status, body, 403)
        self.assertEqual(len(self.server.all_projects(token_default, "site-default")), 1)
        projects = self.server.all_projects(token_marketing, "site-marketing")
        self.assertEqual(len(projects), 121)
        self.assertEqual(projects["Campaigns & Co"], "p-campaigns")

        # A project of another site is unknown here.
        status, _, body = self.server.publish(token_default, "site-default", "X", "p-campaigns", b"x")
        self.assertError(status, body, 404)
        status, _, body = self.server.publish(token_marketing, "site-marketing", "Plan", "p-campaigns", b"plan")
        self.assertEqual(status, 201, body)
        owner = ET.fromstring(body).find("datasource/owner").get("id")
        self.assertEqual(owner, "user-alice")
        self.assertEqual(self.server.stored("Campaigns & Co", "Plan"), b"plan")
        _, _, text = self.server.request("GET", "/__published")
        self.assertIn(f"Campaigns & Co\tPlan\t4\t{hashlib.sha256(b'plan').hexdigest()}\tmarketing", text.decode())


class CommandLineTest(unittest.TestCase):
    def run_tool(self, *args):
        return subprocess.run([sys.executable, SERVER, *args], capture_output=True, timeout=60)

    def test_configuration_errors_and_defaults(self):
        with tempfile.TemporaryDirectory() as tmp:
            bad = {
                "duplicate project": {"users": [{"name": "u", "password": "p"}],
                                      "sites": [{"contentUrl": "", "projects": ["A", "A"]}]},
                "no users": {"users": [], "sites": [{"contentUrl": ""}]},
                "unknown site of user": {"users": [{"name": "u", "password": "p", "sites": ["x"]}],
                                         "sites": [{"contentUrl": ""}]},
                "not json": None,
            }
            for label, config in bad.items():
                with self.subTest(label):
                    path = os.path.join(tmp, "config.json")
                    with open(path, "w") as f:
                        f.write("{not json" if config is None else json.dumps(config))
                    result = self.run_tool("--config", path, "--port", "0")
                    self.assertEqual(result.returncode, 2, result.stderr)
                    self.assertIn(b"orvane-reference-server: ", result.stderr)

        result = self.run_tool("--print-config")
        self.assertEqual(result.returncode, 0, result.stderr)
        config = json.loads(result.stdout)
        names = [p["name"] for p in config["sites"][0]["projects"]]
        self.assertEqual(len(names), 351)
        self.assertEqual(names.index("Samples"), 250)
        self.assertEqual(config["sites"][0]["contentUrl"], "")
        self.assertEqual(config["users"][0]["name"], "demo")
        self.assertEqual(self.run_tool("--print-config").stdout, result.stdout, "ids are stable across runs")

    def test_sigterm_stops_cleanly(self):
        server = ServerProcess()
        try:
            token, site = server.sign_in()
            self.assertEqual(server.projects(token, site, 1)[0], 200)
            self.assertEqual(server.stop(), 0)
            self.assertFalse(os.path.exists(server.port_file), "the port file goes with the server")
            log = server.log()
            self.assertEqual(log.count('"POST /api/2.0/auth/signin HTTP/1.1" 200'), 1, log)
            self.assertEqual(log.count('"GET /api/2.0/sites/'), 1, log)
        finally:
            server.close()

    def test_storage_failure_is_answered(self):
        server = ServerProcess()
        try:
            token, site = server.sign_in()
            project = server.all_projects(token, site)["Samples"]
            staging = os.path.join(server.data_dir, ref.STAGING_DIR)
            os.rmdir(staging)
            with open(staging, "w"):
                pass  # a file where the staging directory belongs: storing fails
            status, _, body = server.publish(token, site, "Doomed", project, os.urandom(100000))
            self.assertEqual(status, 500, body)
            self.assertEqual(server.published(), [])
            self.assertIn("Traceback", server.log())
        finally:
            server.close()

    def test_default_data_dir_is_temporary(self):
        server = ServerProcess(extra_args=["--quiet"], own_data_dir=False)
        try:
            server.sign_in()
            lines = [l for l in server.log().splitlines() if "data directory" in l]
            self.assertEqual(len(lines), 1, server.log())
            data_dir = lines[0].split("data directory ", 1)[1].split(" (removed on exit)")[0]
            self.assertTrue(os.path.isdir(data_dir))
            self.assertEqual(server.stop(), 0)
            self.assertFalse(os.path.exists(data_dir))
            self.assertNotIn("auth/signin", server.log(), "--quiet logs no requests")
        finally:
            server.close()


class ChunkedSource:
    """Hands out a byte string in pieces of the given sizes, cycling through them."""

    def __init__(self, data, sizes):
        self.data, self.sizes, self.pos, self.calls = data, sizes, 0, 0

    def __call__(self):
        size = self.sizes[self.calls % len(self.sizes)]
        self.calls += 1
        piece = self.data[self.pos : self.pos + size]
        self.pos += len(piece)
        return piece


def read_parts(body, boundary, sizes):
    reader = ref.MultipartReader(ChunkedSource(body, sizes), boundary.encode())
    parts = []
    while (headers := reader.next_part()) is not None:
        parts.append((headers, b"".join(bytes(c) for c in reader.data())))
    reader.finish()
    return parts


class MultipartReaderTest(unittest.TestCase):
    SIZES = [[1], [2], [3], [5, 1], [17], [41, 42, 43], [4096], [1 << 20]]

    def test_parts_survive_any_chunking(self):
        b = "-" * 28 + "0123456789ab"
        delim = ("\r\n--" + b).encode()
        nasty = b"".join(delim[:k] + b"x" for k in range(1, len(delim))) + b"\r\n--" + delim[:-1]
        for data in [b"", b"\r\n", nasty, os.urandom(10000)]:
            body = publish_body(b, "N", "P", data)
            for sizes in self.SIZES:
                with self.subTest(size=len(data), sizes=sizes):
                    parts = read_parts(body, b, sizes)
                    self.assertEqual(len(parts), 2)
                    self.assertEqual(ref.disposition_params(parts[0][0]["content-disposition"])["name"],
                                     "request_payload")
                    self.assertEqual(ref.disposition_params(parts[1][0]["content-disposition"]),
                                     {"name": "orvane_datasource", "filename": "/data/extract.qrx"})
                    self.assertEqual(parts[1][0]["content-type"], "application/octet-stream")
                    self.assertEqual(parts[1][1], data)

    def test_preamble_padding_epilogue_and_faults(self):
        b = "simple"
        body = b"preamble\r\n--simple  \t\r\nA: 1\r\n\r\none\r\n--simple\r\n\r\ntwo\r\n--simple--epilogue"
        for sizes in self.SIZES:
            with self.subTest(sizes=sizes):
                self.assertEqual(read_parts(body, b, sizes), [({"a": "1"}, b"one"), ({}, b"two")])
        for label, bad in [
            ("no closing delimiter", b"--simple\r\n\r\ndata"),
            ("ends after a delimiter", b"--simple\r\n\r\ndata\r\n--simple"),
            ("junk after a delimiter", b"--simple\r\n\r\ndata\r\n--simplex\r\n\r\n\r\n--simple--"),
            ("header without colon", b"--simple\r\nnot a header\r\n\r\ndata\r\n--simple--"),
            ("no delimiter at all", b"just text"),
            ("ends inside headers", b"--simple\r\nA: 1\r\n"),
        ]:
            for sizes in ([1], [4096]):
                with self.subTest(label, sizes=sizes), self.assertRaises(ref.MalformedBody):
                    read_parts(bad, b, sizes)

    def test_memory_stays_bounded(self):
        b = "-" * 28 + "feedfacecafe"
        data = b"\xab" * (8 * 1024 * 1024)
        reader = ref.MultipartReader(ChunkedSource(publish_body(b, "N", "P", data), [65536]), b.encode())
        reader.next_part()
        reader.read_all(1000)
        reader.next_part()
        total = largest = 0
        for chunk in reader.data():
            total += len(chunk)
            largest = max(largest, len(chunk))
        self.assertEqual(total, len(data))
        self.assertLessEqual(largest, 65536 + 64, "never more than one read chunk held at once")
        self.assertIsNone(reader.next_part())


class RequestDocumentTest(unittest.TestCase):
    def test_lenient_parser(self):
        doc = ref.parse_lenient_xml(signin_body("a&b<c>", "p&amp;w", "s i t e").decode())
        creds = doc.child("credentials")
        self.assertEqual((doc.name, creds.attrs), ("qsRequest", {"name": "a&b<c>", "password": "p&amp;w"}))
        self.assertEqual(creds.child("site").attrs, {"contentUrl": "s i t e"})
        for bad in [signin_body('a"b', "p"), '<a x="1" x="2"/>', "<a><b></a>", "<a>", "", "<a/><b/>", "text"]:
            with self.subTest(bad=bad), self.assertRaises(ValueError):
                ref.parse_lenient_xml(bad.decode() if isinstance(bad, bytes) else bad)

    def test_stored_names_round_trip(self):
        for name in ["Sales", "..", ".hidden", "a/b", "100%", "tab\there", "é ü 漢字", "\x01", "%2F"]:
            with self.subTest(name=name):
                component = ref.encode_component(name)
                self.assertNotIn("/", component)
                self.assertFalse(component.startswith("."))
                self.assertEqual(ref.decode_component(component), name)


if __name__ == "__main__":
    unittest.main()
