"""orvane-publish as installed, against the reference server, through a pseudo-terminal and through pipes.

Usage: test_orvane_publish.py BUILD_DIR REFERENCE_SERVER [unittest options]
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

BUILD = REFERENCE_SERVER = None
SCRIPTED_SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "http_test_server.py")
SIGN_IN = {"path": "/api/2.0/auth/signin", "method": "POST", "responses": [{"status": 200, "body": (
    '<qsResponse><credentials token="T0K3N"><site id="S1" contentUrl=""/><user id="U"/></credentials></qsResponse>')}]}
PROJECTS = {"path": "/api/2.0/sites/S1/projects", "method": "GET", "responses": [{"status": 200, "body": (
    '<qsResponse><pagination pageNumber="1" pageSize="100" totalAvailable="1"/>'
    '<projects><project name="Sales" id="P1"/></projects></qsResponse>')}]}
UPLOAD_PATH = "/api/2.0/sites/S1/datasources"
STORED = {"status": 201, "body": '<qsResponse><datasource name="d"><project id="P1"/></datasource></qsResponse>'}
METER = r"\r{}  +\d+%  [\d.]+ \w*B / {}  [\d.]+ \w*B/s  ETA \d+:\d\d"


def wait_for_port(server, port_file):
    """The URL of `server` once it has written its port to `port_file`, within 20 s."""
    deadline = time.monotonic() + 20
    while not os.path.exists(port_file) and server.poll() is None and time.monotonic() < deadline:
        time.sleep(0.05)
    with open(port_file) as f:
        return "http://127.0.0.1:" + f.read().strip()


class OrvanePublishTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="orv-publish-cli-")
        cls.addClassCleanup(shutil.rmtree, cls.dir, ignore_errors=True)
        prefix = os.path.join(cls.dir, "prefix")
        subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], check=True, capture_output=True, timeout=120)
        cls.tool = os.path.join(prefix, "bin", "orvane-publish")
        port_file = os.path.join(cls.dir, "port")
        cls.server = subprocess.Popen(
            [sys.executable, REFERENCE_SERVER, "--host", "127.0.0.1", "--port", "0", "--port-file", port_file,
             "--data-dir", os.path.join(cls.dir, "data"), "--quiet"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        cls.addClassCleanup(cls.server.wait, 10)
        cls.addClassCleanup(cls.server.terminate)
        cls.url = wait_for_port(cls.server, port_file)
        cls.pool = concurrent.futures.ThreadPoolExecutor(16)  # for runs at once, whose waits on limits overlap
        cls.addClassCleanup(cls.pool.shutdown)
        # The installed binary must find the installed library by itself.
        cls.env = {k: v for k, v in os.environ.items() if k.lower() not in (
            "http_proxy", "https_proxy", "all_proxy", "orvane_password", "ld_library_path")}
        cls.env.update(no_proxy="127.0.0.1,localhost", ORV_SDK_LOGDIR=cls.dir)

    def extract(self, name, size=None):
        """A random extract, or a sparse one of `size` bytes that takes a while to send."""
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(os.urandom(1000)) if size is None else f.truncate(size)
        return path

    def run_tool(self, *args, password="demo-password", stdin=None, env=None, cwd=None, user=(),
                 stdout=subprocess.PIPE):
        env = dict(env or self.env, **({"ORVANE_PASSWORD": password} if password else {}))
        return subprocess.run([*user, self.tool, *args], env=env, input=stdin, stdout=stdout, stderr=subprocess.PIPE,
                              text=True, stdin=None if stdin else subprocess.DEVNULL, timeout=60,
                              start_new_session=True, cwd=cwd)

    def spawn(self, args, stderr):
        proc = subprocess.Popen([self.tool, "-u", "demo", "-p", "Samples", *args], stdin=subprocess.DEVNULL,
                                env=dict(self.env, ORVANE_PASSWORD="demo-password"), stdout=subprocess.PIPE,
                                stderr=stderr, text=True, start_new_session=True)
        self.addCleanup(proc.wait, 30)
        self.addCleanup(proc.kill)
        return proc

    def loopback_socket(self, listen):
        """A socket that accepts connections and never answers, or (not listening) refuses them."""
        sock = socket.socket()
        self.addCleanup(sock.close)
        sock.bind(("127.0.0.1", 0))
        if listen:
            sock.listen(8)
        return sock, f"http://127.0.0.1:{sock.getsockname()[1]}"

    def scripted(self, *routes):
        """The scripted test server answering `routes` in turn; its URL and the folder where it records requests."""
        folder = tempfile.mkdtemp(dir=self.dir)
        with open(os.path.join(folder, "script.json"), "w") as f:
            json.dump(list(routes), f)
        server = subprocess.Popen([sys.executable, SCRIPTED_SERVER, folder, "", "0"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.addCleanup(server.wait, 10)
        self.addCleanup(server.terminate)
        return wait_for_port(server, os.path.join(folder, "port")), folder

    def uploads_received(self, folder):
        """How many uploads the scripted server recorded in `folder`."""
        heads = [pathlib.Path(folder, name).read_text() for name in os.listdir(folder) if name.endswith(".head")]
        return sum(head.startswith("POST " + UPLOAD_PATH) for head in heads)

    def fetch(self, path):
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        return opener.open(self.url + path, timeout=30).read().decode()

    def stored(self):
        listing = self.fetch("/__published")
        return {line.split("\t")[1]: line.split("\t")[2:4] for line in listing.splitlines()}

    def stats(self):
        """The reference server's counters: live sessions, requests and connections so far."""
        return {name: int(value) for name, value in (line.split() for line in self.fetch("/__stats").splitlines())}

    def test_help_version_man_page_and_usage_errors(self):
        result = self.run_tool("--help")
        self.assertEqual(0, result.returncode, result.stderr)
        for text in ("--connect-timeout S", "--password-stdin", "--json", "Exit status:", "  6    timed out", "143"):
            self.assertIn(text, result.stdout)
        self.assertRegex(self.run_tool("-V").stdout, r"^orvane-publish \d+\.\d+\.\d+ \(libOrvaneServer 1\.\d+\.\d+\)\n$")
        self.assertTrue(os.path.isfile(os.path.join(os.path.dirname(self.tool), "../share/man/man1/orvane-publish.1")))
        good = self.extract("good.qrx")
        os.makedirs(os.path.join(self.dir, "again"), exist_ok=True)
        twin = self.extract(os.path.join("again", "good.qrx"))
        for args, error, complaint in (
                (["--password=pw", good], "Usage", "passwords are not taken from the command line"),
                (["-j0", good], "Usage", "--jobs takes a number from 1 to 64"),
                (["-s", "ftp://127.0.0.1/", good], "Usage", "--server takes an http:// or https:// URL"),
                ([self.dir], "ExtractUnusable", f"{self.dir}: is a directory"),
                ([good, good[:-3] + "QRX"], "ExtractUnusable", "QRX: No such file"),
                ([good, twin], "Usage", f'{twin}: would be published as "good" like {good}; give each file its own'),
                (["-n", "one", good, twin], "Usage", "1 --name for 2 files")):
            with self.subTest(args=args):
                result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Samples", "--json", *args)
                self.assertEqual(2, result.returncode, result.stderr)
                self.assertIn(complaint, result.stderr)
                summary = json.loads(result.stdout)
                self.assertEqual((1, "usage-error", 2, error), (summary["format"], summary["result"],
                                                                summary["exit_code"], summary["error"]))
        self.assertNotIn("good", self.stored())

    def test_pipes_json_matches_what_the_server_stored(self):
        big, small = self.extract("pipe-big.qrx", 64 << 20), self.extract("pipe-small.qrx")
        result = self.run_tool(f"--server={self.url}", "-udemo", "-pSamples", "-oj2", "--json", "--", big, small, small)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        # No meter on a pipe: the duplicate's warning is all there is on stderr.
        self.assertEqual(f"orvane-publish: warning: {small} given more than once; published once\n", result.stderr)
        summary, stored = json.loads(result.stdout), self.stored()
        self.assertEqual(("published", 0, 2), (summary["result"], summary["exit_code"], summary["published"]))
        with open(small, "rb") as f:
            self.assertEqual(hashlib.sha256(f.read()).hexdigest(), stored["pipe-small"][1])
        for entry in summary["files"]:
            self.assertEqual(("published", 201, ""), (entry["result"], entry["status"], entry["reason"]))
            self.assertEqual(str(entry["bytes"]), stored[entry["name"]][0])
            self.assertEqual(os.path.getsize(entry["file"]), entry["bytes"])

        result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Samples", "--json", small)
        self.assertEqual(4, result.returncode, result.stderr)
        entry = json.loads(result.stdout)["files"][0]
        self.assertEqual(("refused", 409), (entry["result"], entry["status"]))
        self.assertIn('already exists in project "Samples"', entry["reason"])
        self.assertIn(entry["reason"] + " Use --overwrite to replace it.", result.stderr)

        with open("/dev/full", "w") as full:
            result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Samples", "--dry-run", "--json", small,
                                   stdout=full)
        self.assertEqual(8, result.returncode, result.stderr)
        self.assertIn("cannot write the results to standard output: No space left on device", result.stderr)

        # A missing project is told once, whichever of the two sessions met it first.
        result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Nowhere", "-j2", "--json", big, small)
        self.assertEqual(4, result.returncode, result.stderr)
        self.assertEqual(1, result.stderr.count('Project "Nowhere" doesn\'t exist'), result.stderr)
        self.assertEqual(["ProjectNotFound"] * 2, [entry["error"] for entry in json.loads(result.stdout)["files"]])

    def test_each_session_keeps_one_connection_and_signs_out(self):
        files = [self.extract(f"trip-{n}.qrx") for n in range(4)]
        for args, count, connections, requests in (
                # Sign-in, one lookup of three pages ("Samples" is on page 3), three uploads, sign-out.
                (["-j1"], 3, 1, 8),
                (["-j1", "--no-reuse"], 2, 10, 10),
                (["-j2"], 4, 2, None)):  # the second session may come too late for a file
            with self.subTest(args=args):
                before = self.stats()
                result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Samples", "-o", *args, *files[:count])
                self.assertEqual(0, result.returncode, result.stderr)
                after = self.stats()
                self.assertEqual(before["sessions"], after["sessions"])
                self.assertEqual(connections, after["connections"] - before["connections"])
                if requests is not None:
                    self.assertEqual(requests, after["requests"] - before["requests"])

    def test_a_lost_answer_to_a_whole_upload_is_never_told_as_a_failure(self):
        extract = self.extract("lost.qrx")
        running = []
        for name, answers, args, status, result_name, texts in (
                ("502, no retry", [{"status": 502}], [], 7, "uncertain", ["may or may not be published"]),
                ("502, then a conflict", [{"status": 502}, {"status": 409}], ["--retry", "1"], 7, "uncertain",
                 ["sending it again in 1 s (retry 1 of 1)", "(HTTP 409)", "may or may not be published"]),
                ("reset, then stored over", [{"fault": "reset"}, STORED], ["--retry", "1", "-o"], 0, "published",
                 ["sending it again in 1 s (retry 1 of 1)"])):
            upload = {"path": UPLOAD_PATH, "method": "POST", "responses": answers}
            url, folder = self.scripted(SIGN_IN, PROJECTS, upload)
            future = self.pool.submit(self.run_tool, "-s", url, "-u", "demo", "-p", "Sales", "-q", "--json", *args,
                                      extract)
            running.append((name, answers, status, result_name, texts, folder, future))
        for name, answers, status, result_name, texts, folder, future in running:
            with self.subTest(name):
                result = future.result()
                self.assertEqual(status, result.returncode, result.stderr)
                entry = json.loads(result.stdout)["files"][0]
                self.assertEqual((result_name, len(answers)), (entry["result"], entry["uploads"]))
                for text in texts:
                    self.assertIn(text, result.stderr)
                self.assertEqual(len(answers), self.uploads_received(folder))

    def test_exit_status_from_each_situation(self):
        (_, silent_url), (_, closed_url) = self.loopback_socket(True), self.loopback_socket(False)
        # Control characters in a file name reach the terminal escaped.
        good = self.extract("situations\x1b]0;x\x07\n.qrx")
        shown = good.replace("\x1b", "\\u001b").replace("\x07", "\\u0007").replace("\n", "\\n")
        unreadable, _ = self.scripted(dict(SIGN_IN, responses=[{"status": 200, "body": "no XML"}]))
        oversized, _ = self.scripted(dict(SIGN_IN, responses=[{"status": 200, "body": " " * (17 << 20)}]))
        elsewhere = [["Location", closed_url + "/api/2.0/auth/signin"]]
        redirecting, _ = self.scripted(dict(SIGN_IN, responses=[{"status": 307, "headers": elsewhere}]))
        tls_to_plain = self.url.replace("http://", "https://")
        running = []
        for server, args, password, status, error, texts in (
                (self.url, [], "wrong", 3, "SignInRefused",
                 ["sign-in refused (HTTP 401): Signin Error: Wrong user name, password or site."]),
                (self.url, ["--site", "nowhere"], "demo-password", 3, "SignInRefused",
                 ["Check the user name, the password and --site"]),
                (self.url, ["-p", "Nowhere", "-v"], "demo-password", 4, "ProjectNotFound",
                 ['Project "Nowhere" doesn\'t exist on server', f"{shown}: library result 303",
                  "the library's log: {log}"]),
                (unreadable, [], "demo-password", 1, "ReplyUnreadable", ["is not one a publishing server sends"]),
                (oversized, [], "demo-password", 1, "ReplyTooLarge", ["the reply is larger than a publishing server"]),
                (silent_url, ["--stall-timeout", "1"], "demo-password", 6, "StallTimeout",
                 ["timed out: nothing moved for 1 s (--stall-timeout)"]),
                (silent_url, ["--stall-timeout", "0", "--max-time", "1"], "demo-password", 6, "TotalTimeout",
                 ["timed out: the request took more than 1 s (--max-time)"]),
                (redirecting, [], "demo-password", 5, "RedirectRefused", ["unless --redirects allows them"]),
                (redirecting, ["--redirects", "any"], "demo-password", 5, "Connect", []),
                (closed_url, ["--retry", "2"], "demo-password", 5, "Connect",
                 ["Couldn't connect to server", "(retry 1 of 2)", "(retry 2 of 2)"]),
                (tls_to_plain, [], "demo-password", 5, "Tls", ["if it serves plain HTTP on this port, use an http://"]),
                (self.url, ["--dry-run", "-n", "dry"], "demo-password", 0, None, []),
                (self.url, ["--password-stdin", "-n", "via-stdin"], None, 0, None, [])):
            # Each logs in a folder of its own: a second process at once would log to a numbered sibling of the file.
            logs = tempfile.mkdtemp(dir=self.dir)
            future = self.pool.submit(self.run_tool, "-s", server, "-u", "demo", "-p", "Samples", "--json", *args, good,
                                      env=dict(self.env, ORV_SDK_LOGDIR=logs), password=password,
                                      stdin=None if password else "demo-password\n")
            running.append((server, args, status, error, texts, logs, future))
        for server, args, status, error, texts, logs, future in running:
            with self.subTest(server=server, args=args):
                result = future.result()
                self.assertEqual(status, result.returncode, result.stdout + result.stderr)
                summary = json.loads(result.stdout)
                self.assertEqual((status, error), (summary["exit_code"], summary["error"]))
                self.assertNotIn("\x1b", result.stderr)
                for text in texts:
                    self.assertIn(text.replace("{log}", os.path.join(logs, "OrvaneSDKServer.log")), result.stderr)
        self.assertEqual({"via-stdin"}, {"via-stdin", "dry"} & set(self.stored()))

    def test_log_lands_with_the_users_state_never_in_the_working_directory(self):
        os.chmod(self.dir, 0o755)  # for user nobody
        tmp = os.path.join(self.dir, "tmp")
        os.makedirs(tmp, exist_ok=True)
        os.chmod(tmp, 0o1777)
        home = os.path.join(self.dir, "home")
        state = os.path.join(self.dir, "state")
        os.makedirs(home, exist_ok=True)
        base = {k: v for k, v in self.env.items() if k not in ("ORV_SDK_LOGDIR", "XDG_STATE_HOME")}
        base.update(TMPDIR=tmp, HOME="/nonexistent")
        nobody = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")
        extract = self.extract("placed.qrx")
        root_before = set(os.listdir("/"))
        for name, env, user, log_dir, mode in (
                ("logdir", {"ORV_SDK_LOGDIR": self.dir}, (), self.dir, 0o755),
                ("xdg", {"XDG_STATE_HOME": state}, (), os.path.join(state, "orvane"), 0o700),
                ("missing logdir", {"ORV_SDK_LOGDIR": home + "/missing", "XDG_STATE_HOME": state}, (),
                 os.path.join(state, "orvane"), 0o700),
                ("home", {"HOME": home}, (), os.path.join(home, ".local", "state", "orvane"), 0o700),
                ("nobody", {}, nobody, os.path.join(tmp, "orvane-publish-65534"), 0o700)):
            with self.subTest(name):
                result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Samples", "-v", "-o", "-n", "placed-" + name,
                                       extract, env=dict(base, **env), cwd="/", user=user)
                self.assertEqual(0, result.returncode, result.stderr)
                log = os.path.join(log_dir, "OrvaneSDKServer.log")
                self.assertIn(f"the library's log: {log}\n", result.stderr)
                with open(log) as f:
                    self.assertIn("placed-" + name, f.read())
                self.assertEqual(mode, os.stat(log_dir).st_mode & 0o777)
        self.assertEqual(root_before, set(os.listdir("/")))
        self.assertLessEqual({"placed-xdg", "placed-nobody"}, set(self.stored()))

    def test_terminal_meter_then_sigint_cancels_and_summarizes(self):
        # With -j2 the first file is done before the second worker's; the meter covers the whole batch.
        names = ["tty-first", "tty-big1", "tty-big2", "tty-big3"]
        files = [self.extract(names[0] + ".qrx")] + [self.extract(name + ".qrx", 1 << 30) for name in names[1:]]
        master, slave = os.openpty()
        self.addCleanup(os.close, master)
        sessions = self.stats()["sessions"]
        proc = self.spawn(["-s", self.url, "--json", "-j2", *files], stderr=slave)
        os.close(slave)
        terminal = self.read_terminal(master, METER.format("2 running, 1 of 4 files", r"3\.0 GiB"))
        proc.send_signal(signal.SIGINT)
        terminal += self.read_terminal(master, "orvane-publish: interrupted: 1 of 4 files published, 2 cancelled, "
                                       "1 not started")
        stdout, _ = proc.communicate(timeout=30)
        self.assertEqual(130, proc.returncode, terminal)
        summary = json.loads(stdout)
        self.assertEqual(("interrupted", 130), (summary["result"], summary["exit_code"]))
        self.assertEqual(["published", "interrupted", "interrupted", "not-started"],
                         [entry["result"] for entry in summary["files"]])
        self.assertEqual({"tty-first"}, set(names) & set(self.stored()))
        self.assertEqual(sessions, self.stats()["sessions"])  # both sessions signed out

    def test_sigterm_stops_a_call_that_waits_on_a_silent_server(self):
        silent, url = self.loopback_socket(True)
        silent.settimeout(30)
        proc = self.spawn(["-s", url, "--json", "--stall-timeout=0", self.extract("term.qrx")], stderr=subprocess.PIPE)
        self.addCleanup(silent.accept()[0].close)  # the sign-in is under way, and will never be answered
        with open(f"/proc/{proc.pid}/environ", "rb") as f:
            self.assertNotIn(b"demo-password", f.read())  # read once, then gone from the process
        proc.send_signal(signal.SIGTERM)
        stdout, stderr = proc.communicate(timeout=30)
        self.assertEqual(143, proc.returncode, stderr)
        self.assertEqual(143, json.loads(stdout)["exit_code"])
        self.assertIn("orvane-publish: interrupted: 0 of 1 file published, 0 cancelled, 1 not started", stderr)

    def read_terminal(self, master, pattern):
        """What the terminal shows until `pattern` appears, within a minute."""
        text, deadline = "", time.monotonic() + 60
        while time.monotonic() < deadline and not re.search(pattern, text):
            if select.select([master], [], [], 0.5)[0]:
                text += os.read(master, 65536).decode(errors="replace")
        self.assertRegex(text, pattern)
        return text


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    BUILD, REFERENCE_SERVER = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
