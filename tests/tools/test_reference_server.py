"""Tests of tools/orvane-reference-server: its contract with the library.

The server runs as a child process on an ephemeral loopback port and is spoken to the
way the library speaks: the same request documents, headers and multipart layout.
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
import time
import unittest
import xml.etree.ElementTree as ET

HERE = os.path.dirname(os.path.abspath(__file__))
TOOLS = os.path.normpath(os.path.join(HERE, "..", "..", "tools"))
SERVER = os.path.join(TOOLS, "orvane-reference-server")
sys.path.insert(0, TOOLS)
import orvane_reference_server as ref  # noqa: E402

TIMEOUT = 30  # only guards against a server that never comes up or answers


def signin_body(name, password, site=""):
    return (f'<qsRequest><credentials name="{name}" password="{password}" >'
            f'<site contentUrl="{site}" /> </credentials></qsRequest>').encode("utf-8")


def publish_body(boundary, name, project_id, data, path="/data/extract.qrx"):
    """The multipart body exactly as the library lays it out."""
    b = boundary.encode()
    xml = f'<qsRequest><datasource name="{name}" ><project id="{project_id}" /></datasource></qsRequest>'.encode()
    return (b"--" + b + b'\r\nContent-Disposition: form-data; name="request_payload"\r\n\r\n' + xml
            + b"\r\n--" + b + b'\r\nContent-Disposition: form-data; name="orvane_datasource"; filename="'
            + path.encode() + b'"\r\nContent-Type: application/octet-stream\r\n\r\n' + data
            + b"\r\n--" + b + b"--\r\n")


def new_boundary():
    return "-" * 28 + "%012x" % random.getrandbits(48)


class ServerProcess:
    """The server as a child process; close() always stops it."""

    def __init__(self, config=None):
        self._tmp = tempfile.TemporaryDirectory(prefix="orv-refsrv-")
        self.data_dir = os.path.join(self._tmp.name, "data")
        self.port_file = os.path.join(self._tmp.name, "port")
        self.log_path = os.path.join(self._tmp.name, "server.log")
        args = [sys.executable, SERVER, "--host", "127.0.0.1", "--port", "0", "--port-file", self.port_file,
                "--data-dir", self.data_dir]
        if config is not None:
            path = os.path.join(self._tmp.name, "config.json")
            with open(path, "w", encoding="utf-8") as f:
                json.dump(config, f)
            args += ["--config", path]
        self._log = open(self.log_path, "wb")
        self.proc = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)
        try:
            deadline = time.monotonic() + TIMEOUT
            while not os.path.exists(self.port_file):
                if self.proc.poll() is not None or time.monotonic() > deadline:
                    raise RuntimeError(f"server did not start:\n{self.log()}")
                time.sleep(0.02)
            with open(self.port_file) as f:
                self.port = int(f.read())
        except BaseException:
            self.close()
            raise

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode("utf-8", "replace")

    def stop(self):
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

    def request(self, method, path, body=None, headers=None):
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=TIMEOUT)
        try:
            conn.request(method, path, body=body, headers=headers or {})
            resp = conn.getresponse()
            return resp.status, resp.headers, resp.read()
        finally:
            conn.close()

    def sign_in(self, name=ref.DEFAULT_USER, password=ref.DEFAULT_PASSWORD, site=""):
        status, _, body = self.request("POST", "/api/2.0/auth/signin", signin_body(name, password, site),
                                       {"Content-Type": "text/xml", "X-Orvane-Auth": ""})
        if status != 200:
            raise AssertionError(f"sign-in failed with {status}: {body!r}")
        creds = ET.fromstring(body).find("credentials")
        return creds.get("token"), creds.find("site").get("id")

    def projects(self, token, site_id, page, size=100):
        return self.request("GET", f"/api/2.0/sites/{site_id}/projects?pageSize={size}&pageNumber={page}",
                            headers={"Content-Type": "", "X-Orvane-Auth": token})

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

    def publish_head(self, token, site_id, boundary, length, overwrite=False, extra=""):
        query = "?overwrite=true" if overwrite else ""
        return (f"POST /api/2.0/sites/{site_id}/datasources{query} HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                f"Content-Type: multipart/mixed; boundary={boundary}\r\nX-Orvane-Auth: {token}\r\n"
                f"Content-Length: {length}\r\n{extra}\r\n").encode()

    def publish(self, token, site_id, name, project_id, data, overwrite=False, boundary=None):
        boundary = boundary or new_boundary()
        return self.request("POST", f"/api/2.0/sites/{site_id}/datasources" + ("?overwrite=true" if overwrite else ""),
                            publish_body(boundary, name, project_id, data),
                            {"Content-Type": "multipart/mixed; boundary=" + boundary, "X-Orvane-Auth": token})

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
        with open(entries[0]["path"], "rb") as f:
            return f.read()

    def staging_leftovers(self):
        return os.listdir(os.path.join(self.data_dir, ref.STAGING_DIR))


class ReferenceServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = ServerProcess()
        cls.addClassCleanup(cls.server.close)
        cls.token, cls.site = cls.server.sign_in()
        cls.project_ids = cls.server.all_projects(cls.token, cls.site)

    def assertError(self, status, body, expected):
        self.assertEqual(status, expected, body)
        self.assertEqual(ET.fromstring(body).find("error").get("code"), str(expected))

    def test_sign_in_and_token(self):
        token, site = self.server.sign_in()
        self.assertNotEqual(token, self.token, "every sign-in issues its own token")
        self.assertEqual(site, self.site)
        for name, password, site in [("demo", "wrong", ""), ("nobody", "demo-password", ""),
                                     ("demo", "demo-password", "no-such-site")]:
            with self.subTest(name=name, password=password, site=site):
                status, _, body = self.server.request("POST", "/api/2.0/auth/signin",
                                                      signin_body(name, password, site))
                self.assertError(status, body, 401)
        status, _, body = self.server.request("POST", "/api/2.0/auth/signin", signin_body('de"mo', "x"))
        self.assertError(status, body, 400)

        for headers in [{}, {"X-Orvane-Auth": ""}, {"X-Orvane-Auth": "not-a-token"}]:
            with self.subTest(headers=headers):
                status, _, body = self.server.request(
                    "GET", f"/api/2.0/sites/{self.site}/projects?pageSize=100&pageNumber=1", headers=headers)
                self.assertError(status, body, 401)
        self.assertError(*self.server.projects(token, "no-such-site", 1)[::2], 404)
        self.assertError(*self.server.publish("bogus", self.site, "x", self.project_ids["Samples"], b"d")[::2], 401)
        self.assertIsNone(self.server.stored("Samples", "x"))

    def test_project_pages(self):
        def page(number, size=100):
            status, _, body = self.server.projects(self.token, self.site, number, size)
            self.assertEqual(status, 200, body)
            root = ET.fromstring(body)
            p = root.find("pagination")
            self.assertEqual((p.get("pageNumber"), p.get("pageSize"), p.get("totalAvailable")),
                             (str(number), str(size), "351"))
            return [(e.get("name"), e.get("id")) for e in root.find("projects").iter("project")]

        self.assertEqual(len(page(1)), 100)
        self.assertNotIn("Samples", dict(page(1)), "the demo project must cost more than one page")
        self.assertEqual(dict(page(3))["Samples"], self.project_ids["Samples"])
        self.assertEqual(len(page(4)), 51)
        self.assertEqual(page(5), [], "beyond the end: no projects, same total")
        self.assertEqual([n for n, _ in page(2, 7)], [f"Project {i:03d}" for i in range(8, 15)])
        self.assertEqual(len(set(self.project_ids.values())), 351, "ids are unique")

    def test_publish_conflict_overwrite(self):
        first, second = b"first version\x00\r\n", b"second version, longer\r\n--"
        steps = [("Project 042", False, first, 201, first), ("Project 042", False, second, 409, first),
                 ("Project 042", True, second, 201, second), ("Project 043", True, first, 201, first)]
        for project_name, overwrite, data, expected, stored in steps:
            with self.subTest(project=project_name, overwrite=overwrite, expected=expected):
                project = self.project_ids[project_name]
                status, _, body = self.server.publish(self.token, self.site, "Sales", project, data, overwrite)
                self.assertEqual(status, expected, body)
                if expected == 201:
                    ds = ET.fromstring(body).find("datasource")
                    self.assertEqual((ds.get("name"), ds.find("project").get("id")), ("Sales", project))
                self.assertEqual(self.server.stored(project_name, "Sales"), stored)
        self.assertEqual(self.server.stored("Project 042", "Sales"), second)
        self.assertEqual(self.server.staging_leftovers(), [])

    def test_stored_bytes_are_identical(self):
        boundary = new_boundary()
        rng = random.Random(7)
        big = bytearray(rng.randbytes(5 * 1024 * 1024 + 123))
        # Near-misses of the delimiter, scattered so that some straddle the server's read chunks.
        for offset in range(1000, len(big) - 100, 65536 + 17):
            near = (b"\r\n--" + boundary.encode())[:rng.randrange(1, len(boundary) + 4)]
            big[offset:offset + len(near)] = near
        for name, data in [("Empty", b""), ("Big", bytes(big)), ("CRLF", b"\r\n"), ("Dashes", b"--\r\n--")]:
            with self.subTest(name=name):
                status, _, body = self.server.publish(self.token, self.site, name, self.project_ids["Samples"],
                                                      data, boundary=boundary)
                self.assertEqual(status, 201, body)
                self.assertEqual(self.server.stored("Samples", name), data)
        self.assertEqual(self.server.staging_leftovers(), [])

    def test_publish_refusals(self):
        project = self.project_ids["Project 100"]
        b = new_boundary()
        good = publish_body(b, "Refused", project, b"payload bytes")
        cases = [
            ("unknown project", 404, b, publish_body(b, "Refused", "no-such-project", b"x")),
            ("not multipart", 400, None, good),
            ("no closing boundary", 400, b, good[: -len(b) - 6]),
            ("no file part", 400, b, good[: good.index(b"\r\n--" + b.encode())] + b"\r\n--" + b.encode() + b"--\r\n"),
            ("quote in name", 400, b, publish_body(b, 'Re"fused', project, b"x")),
        ]
        for label, expected, boundary, body in cases:
            with self.subTest(label):
                content_type = "multipart/mixed; boundary=" + boundary if boundary else "text/xml"
                status, _, reply = self.server.request("POST", f"/api/2.0/sites/{self.site}/datasources", body,
                                                       {"Content-Type": content_type, "X-Orvane-Auth": self.token})
                self.assertError(status, reply, expected)
                self.assertIsNone(self.server.stored("Project 100", "Refused"))
                self.assertEqual(self.server.staging_leftovers(), [])

    def test_expect_100_continue(self):
        b = new_boundary()
        data = os.urandom(300000)
        body = publish_body(b, "Continued", self.project_ids["Project 300"], data)
        head = self.server.publish_head(self.token, self.site, b, len(body), extra="Expect: 100-continue\r\n")
        with socket.create_connection(("127.0.0.1", self.server.port), timeout=TIMEOUT) as sock:
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

    def test_cut_upload_leaves_no_file(self):
        old = b"the complete version"
        self.assertEqual(self.server.publish(self.token, self.site, "Kept", self.project_ids["Project 150"], old)[0], 201)
        for name, overwrite, expected in [("Cut", False, None), ("Kept", True, old)]:
            with self.subTest(name=name):
                b = new_boundary()
                body = publish_body(b, name, self.project_ids["Project 150"], os.urandom(2 * 1024 * 1024))
                with socket.create_connection(("127.0.0.1", self.server.port), timeout=TIMEOUT) as sock:
                    sock.sendall(self.server.publish_head(self.token, self.site, b, len(body), overwrite)
                                 + body[: len(body) // 2])
                    sock.shutdown(socket.SHUT_WR)
                    # The answer comes after the clean-up, so reading it synchronises the test.
                    resp = http.client.HTTPResponse(sock)
                    resp.begin()
                    self.assertError(resp.status, resp.read(), 400)
                self.assertEqual(self.server.stored("Project 150", name), expected)
                self.assertEqual(self.server.staging_leftovers(), [])

    def test_listings(self):
        uploads = {("Project 250", "List A"): b"a" * 10, ("Project 251", "List B"): b""}
        for (project, name), data in uploads.items():
            self.assertEqual(self.server.publish(self.token, self.site, name, self.project_ids[project], data)[0], 201)
        status, _, text = self.server.request("GET", "/__published")
        self.assertEqual(status, 200)
        lines = text.decode().splitlines()
        for (project, name), data in uploads.items():
            self.assertIn(f"{project}\t{name}\t{len(data)}\t{hashlib.sha256(data).hexdigest()}\t", lines)
        # The command-line listing reads the data directory and agrees with the endpoint.
        out = subprocess.run([sys.executable, SERVER, "--list", "--data-dir", self.server.data_dir],
                             capture_output=True, timeout=60, check=True).stdout
        self.assertEqual(out, text)


class ConfiguredServerTest(unittest.TestCase):
    def test_users_sites_and_projects_from_the_config(self):
        server = ServerProcess({
            "users": [{"name": "alice", "password": "p&ss<w>rd", "id": "user-alice"},
                      {"name": "bob", "password": "bob", "sites": ["marketing"]}],
            "sites": [{"contentUrl": "", "id": "site-default", "projects": ["Default"]},
                      {"contentUrl": "marketing", "id": "site-marketing",
                       "projects": [{"name": "Campaigns & Co", "id": "p-campaigns"},
                                    {"pattern": "Team {:02d}", "from": 1, "to": 120}]}]})
        self.addCleanup(server.close)
        token_default, site = server.sign_in("alice", "p&ss<w>rd", "")
        self.assertEqual(site, "site-default")
        token, site = server.sign_in("alice", "p&ss<w>rd", "marketing")
        self.assertEqual(site, "site-marketing")
        with self.assertRaisesRegex(AssertionError, "401"):
            server.sign_in("bob", "bob", "")
        self.assertEqual(server.projects(token_default, "site-marketing", 1)[0], 403)
        projects = server.all_projects(token, "site-marketing")
        self.assertEqual((len(projects), projects["Campaigns & Co"]), (121, "p-campaigns"))
        status, _, body = server.publish(token, "site-marketing", "Plan", "p-campaigns", b"plan")
        self.assertEqual(status, 201, body)
        self.assertEqual(ET.fromstring(body).find("datasource/owner").get("id"), "user-alice")
        self.assertEqual(server.stored("Campaigns & Co", "Plan"), b"plan")
        self.assertEqual(server.stop(), 0, "SIGTERM stops it cleanly")


if __name__ == "__main__":
    unittest.main()
