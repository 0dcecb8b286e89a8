"""orvane-publish, the command-line publisher, against the reference server.

Usage: test_orvane_publish.py ORVANE_PUBLISH REFERENCE_SERVER [unittest options]
"""
import hashlib
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

PUBLISH = None
REFERENCE_SERVER = None


class OrvanePublishTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="orv-publish-cli-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        port_file = os.path.join(self.dir, "port")
        self.data = os.path.join(self.dir, "data")
        self.server = subprocess.Popen(
            [sys.executable, REFERENCE_SERVER, "--host", "127.0.0.1", "--port", "0", "--port-file", port_file,
             "--data-dir", self.data, "--quiet"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.server.wait, 10)
        self.addCleanup(self.server.terminate)
        for _ in range(400):
            if os.path.exists(port_file) or self.server.poll() is not None:
                break
            time.sleep(0.05)
        with open(port_file) as f:
            self.url = "http://127.0.0.1:" + f.read().strip()
        self.env = {k: v for k, v in os.environ.items()
                    if k.lower() not in ("http_proxy", "https_proxy", "all_proxy", "orvane_password")}
        self.env.update(no_proxy="127.0.0.1,localhost", ORV_SDK_LOGDIR=self.dir)

    def extract(self, name, data):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def publish(self, *args, password="demo-password"):
        env = dict(self.env, **({"ORVANE_PASSWORD": password} if password is not None else {}))
        return subprocess.run([PUBLISH, *args], env=env, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60, start_new_session=True)

    def stored(self):
        listing = subprocess.run([sys.executable, REFERENCE_SERVER, "--list", "--data-dir", self.data],
                                 capture_output=True, text=True, check=True, timeout=30).stdout
        return {tuple(line.split("\t")[:2]): line.split("\t")[3] for line in listing.splitlines()}

    def test_help_password_rules_and_two_jobs(self):
        result = self.publish("--help")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertTrue(result.stdout.startswith("Usage: orvane-publish --server URL"), result.stdout)
        self.assertIn("ORVANE_PASSWORD", result.stdout)
        first, second = os.urandom(2 * 1024 * 1024), os.urandom(1000)
        paths = [self.extract("first.qrx", first), self.extract("second.qrx", second)]
        # Never from the command line; without the variable and a terminal there is none.
        for args, password in ((["--password", "demo-password"], "x"), (["--password=demo-password"], "x"), ([], None)):
            result = self.publish("-s", self.url, "-u", "demo", "-p", "Samples", *args, *paths, password=password)
            self.assertEqual(2, result.returncode, result.stdout + result.stderr)
            self.assertIn("set ORVANE_PASSWORD", result.stderr)
        self.assertEqual({}, self.stored())

        result = self.publish("--server", self.url, "--user", "demo", "--project", "Samples", "--jobs", "2", *paths)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        lines = result.stdout.splitlines()
        for path in paths:
            progress = [line for line in lines if f"{path} -> Samples/" in line]
            self.assertEqual(1, len(progress), result.stdout)
            self.assertRegex(progress[0], r"^\[[12]/2\] .*: published, \d+\.\d MiB in \d+\.\d\d s$")
        self.assertRegex(lines[-1], rf'^2 of 2 files published to {self.url}, project "Samples", in \d+\.\d\d s$')
        self.assertEqual({("Samples", "first"): hashlib.sha256(first).hexdigest(),
                          ("Samples", "second"): hashlib.sha256(second).hexdigest()}, self.stored())

    def test_failures_print_code_and_text_and_exit_non_zero(self):
        good = self.extract("good.qrx", b"good")
        missing = os.path.join(self.dir, "missing.qrx")
        for args, password, expected in (
                (["Samples", good, missing], "demo-password",
                 [f'{missing}: FAILED after ', f'(code 303): File "{missing}" is either invalid or doesn\'t exist',
                  "1 of 2 files published", "some failed"]),
                (["Nowhere", good], "demo-password", ['(code 303): Project "Nowhere" doesn\'t exist on server']),
                (["Samples", good], "wrong", ["sign-in failed (code 401): Server Response Code: 401"])):
            result = self.publish("-s", self.url, "-u", "demo", "-p", *args, password=password)
            self.assertEqual(1, result.returncode, result.stdout + result.stderr)
            for text in expected:
                self.assertIn(text, result.stdout)
        self.assertEqual({("Samples", "good")}, set(self.stored()))
        result = self.publish("-s", self.url, "-u", "demo", "-p", "Samples", "-n", "renamed", good)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        self.assertEqual({("Samples", "good"), ("Samples", "renamed")}, set(self.stored()))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    PUBLISH, REFERENCE_SERVER = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
