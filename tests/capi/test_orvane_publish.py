"""orvane-publish as installed, against the reference server, through a pseudo-terminal and through pipes.

Usage: test_orvane_publish.py BUILD_DIR REFERENCE_SERVER [unittest options]
"""
import hashlib
import json
import os
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
METER = r"\r{}  +\d+%  [\d.]+ \w*B / [\d.]+ \w*B  [\d.]+ \w*B/s  ETA \d+:\d\d"


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
        deadline = time.monotonic() + 20
        while not os.path.exists(port_file) and cls.server.poll() is None and time.monotonic() < deadline:
            time.sleep(0.05)
        with open(port_file) as f:
            cls.url = "http://127.0.0.1:" + f.read().strip()
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

    def run_tool(self, *args, password="demo-password", stdin=None):
        env = dict(self.env, **({"ORVANE_PASSWORD": password} if password else {}))
        return subprocess.run([self.tool, *args], env=env, input=stdin, capture_output=True, text=True,
                              stdin=None if stdin else subprocess.DEVNULL, timeout=60, start_new_session=True)

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

    def stored(self):
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        listing = opener.open(self.url + "/__published", timeout=30).read().decode()
        return {line.split("\t")[1]: line.split("\t")[2:4] for line in listing.splitlines()}

    def test_help_version_man_page_and_usage_errors(self):
        result = self.run_tool("--help")
        self.assertEqual(0, result.returncode, result.stderr)
        for text in ("--connect-timeout S", "--password-stdin", "--json", "Exit status:", "  6    timed out", "143"):
            self.assertIn(text, result.stdout)
        self.assertRegex(self.run_tool("-V").stdout, r"^orvane-publish \d+\.\d+\.\d+ \(libOrvaneServer 1\.\d+\.\d+\)\n$")
        self.assertTrue(os.path.isfile(os.path.join(os.path.dirname(self.tool), "../share/man/man1/orvane-publish.1")))
        good = self.extract("good.qrx")
        for args, complaint in ((["--password=pw", good], "passwords are not taken from the command line"),
                                (["-j0", good], "--jobs takes a number from 1 to 64"),
                                (["-x", good], "unknown option -x"),
                                ([self.dir], f"{self.dir}: is a directory"),
                                ([good, good[:-3] + "QRX"], "QRX: No such file")):
            with self.subTest(args=args):
                result = self.run_tool("-s", self.url, "-u", "demo", "-p", "Samples", *args)
                self.assertEqual(2, result.returncode, result.stderr)
                self.assertIn(complaint, result.stderr)
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

    def test_exit_status_from_each_situation(self):
        (_, silent_url), (_, closed_url) = self.loopback_socket(True), self.loopback_socket(False)
        good = self.extract("situations.qrx")
        log = os.path.join(self.dir, "OrvaneSDKServer.log")
        for server, args, password, status, texts in (
                (self.url, [], "wrong", 3,
                 ["sign-in refused (HTTP 401): Signin Error: Wrong user name, password or site."]),
                (self.url, ["--site", "nowhere"], "demo-password", 3, ["Check the user name, the password and --site"]),
                (self.url, ["-p", "Nowhere", "-v"], "demo-password", 4,
                 ['Project "Nowhere" doesn\'t exist on server', f"the library's log: {log}"]),
                (silent_url, ["--stall-timeout", "1"], "demo-password", 6, ["timed out"]),
                (closed_url, ["--retry", "2"], "demo-password", 5,
                 ["Couldn't connect to server", "(retry 1 of 2)", "(retry 2 of 2)"]),
                (self.url, ["--dry-run", "-n", "dry"], "demo-password", 0, []),
                (self.url, ["--password-stdin", "-n", "via-stdin"], None, 0, [])):
            with self.subTest(server=server, args=args):
                result = self.run_tool("-s", server, "-u", "demo", "-p", "Samples", *args, good, password=password,
                                       stdin=None if password else "demo-password\n")
                self.assertEqual(status, result.returncode, result.stdout + result.stderr)
                for text in texts:
                    self.assertIn(text, result.stderr)
        self.assertEqual({"via-stdin"}, {"via-stdin", "dry", "situations"} & set(self.stored()))

    def test_terminal_meter_then_sigint_cancels_and_summarizes(self):
        first, big = self.extract("tty-first.qrx"), self.extract("tty-big.qrx", 1 << 30)
        master, slave = os.openpty()
        self.addCleanup(os.close, master)
        proc = self.spawn(["-s", self.url, "--json", first, big], stderr=slave)
        os.close(slave)
        terminal = self.read_terminal(master, METER.format(r"tty-big\.qrx"))
        proc.send_signal(signal.SIGINT)
        terminal += self.read_terminal(master, "orvane-publish: interrupted: 1 of 2 files published, 1 cancelled, "
                                       "0 not started")
        stdout, _ = proc.communicate(timeout=30)
        self.assertEqual(130, proc.returncode, terminal)
        summary = json.loads(stdout)
        self.assertEqual(("interrupted", 130), (summary["result"], summary["exit_code"]))
        self.assertEqual(["published", "interrupted"], [entry["result"] for entry in summary["files"]])
        self.assertEqual({"tty-first"}, {"tty-first", "tty-big"} & set(self.stored()))

    def test_sigterm_stops_a_call_that_waits_on_a_silent_server(self):
        silent, url = self.loopback_socket(True)
        silent.settimeout(30)
        proc = self.spawn(["-s", url, "--stall-timeout=0", self.extract("term.qrx")], stderr=subprocess.PIPE)
        self.addCleanup(silent.accept()[0].close)  # the sign-in is under way, and will never be answered
        proc.send_signal(signal.SIGTERM)
        _, stderr = proc.communicate(timeout=30)
        self.assertEqual(143, proc.returncode, stderr)
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
