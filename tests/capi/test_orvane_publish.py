"""orvane-publish, the command-line publisher, against the reference server.

Usage: test_orvane_publish.py ORVANE_PUBLISH REFERENCE_SERVER [unittest options]
"""
import hashlib
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PUBLISH = None
REFERENCE_SERVER = None


def clean_environment(**extra):
    env = {k: v for k, v in os.environ.items() if k.lower() not in ("http_proxy", "https_proxy", "all_proxy")}
    env.update(no_proxy="127.0.0.1,localhost", NO_PROXY="127.0.0.1,localhost")
    env.pop("ORVANE_PASSWORD", None)
    env.update(extra)
    return env


class OrvanePublishTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="orv-publish-cli-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        port_file = os.path.join(self.dir, "port")
        self.data = os.path.join(self.dir, "data")
        self.server = subprocess.Popen(
            [sys.executable, REFERENCE_SERVER, "--host", "127.0.0.1", "--port", "0", "--port-file", port_file,
             "--data-dir", self.data, "--quiet"],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self.addCleanup(self._stop_server)
        for _ in range(400):
            if os.path.exists(port_file) or self.server.poll() is not None:
                break
            time.sleep(0.05)
        self.assertTrue(os.path.exists(port_file), "the reference server did not start")
        with open(port_file) as f:
            self.url = "http://127.0.0.1:" + f.read().strip()

    def _stop_server(self):
        if self.server.poll() is None:
            self.server.send_signal(signal.SIGTERM)
            try:
                self.server.wait(10)
            except subprocess.TimeoutExpired:
                self.server.kill()
                self.server.wait()
        self.server.stderr.close()

    def extract(self, name, data):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def publish(self, *args, password="demo-password"):
        env = clean_environment(ORV_SDK_LOGDIR=self.dir)
        if password is not None:
            env["ORVANE_PASSWORD"] = password
        return subprocess.run([PUBLISH, *args], env=env, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60)

    def stored(self):
        listing = subprocess.run([sys.executable, REFERENCE_SERVER, "--list", "--data-dir", self.data],
                                 capture_output=True, text=True, check=True, timeout=30).stdout
        return {tuple(line.split("\t")[:2]): line.split("\t")[3] for line in listing.splitlines()}

    def test_help_exits_zero_with_the_usage(self):
        result = self.publish("--help")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertTrue(result.stdout.startswith("Usage: orvane-publish --server URL"), result.stdout)
        self.assertIn("ORVANE_PASSWORD", result.stdout)

    def test_two_files_with_two_jobs_are_published_and_summed_up(self):
        first = os.urandom(2 * 1024 * 1024)
        second = os.urandom(1000)
        paths = [self.extract("first.qrx", first), self.extract("second.qrx", second)]
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
        result = self.publish("-s", self.url, "-u", "demo", "-p", "Samples", good, missing)
        self.assertEqual(1, result.returncode, result.stdout + result.stderr)
        self.assertIn(f'{missing}: FAILED after ', result.stdout)
        self.assertIn(f'(code 303): File "{missing}" is either invalid or doesn\'t exist', result.stdout)
        self.assertIn("1 of 2 files published", result.stdout)
        self.assertIn("some failed", result.stdout)

        result = self.publish("-s", self.url, "-u", "demo", "-p", "Nowhere", good)
        self.assertEqual(1, result.returncode, result.stdout + result.stderr)
        self.assertIn('(code 303): Project "Nowhere" doesn\'t exist on server', result.stdout)

        result = self.publish("-s", self.url, "-u", "demo", "-p", "Samples", good, password="wrong")
        self.assertEqual(1, result.returncode, result.stdout + result.stderr)
        self.assertIn("sign-in failed (code 401): Server Response Code: 401", result.stdout)
        self.assertEqual({("Samples", "good")}, set(self.stored()))

    def test_password_comes_from_the_environment_only(self):
        good = self.extract("good.qrx", b"good")
        for option in (["--password", "demo-password"], ["--password=demo-password"]):
            result = self.publish("-s", self.url, "-u", "demo", "-p", "Samples", *option, good)
            self.assertEqual(2, result.returncode, result.stdout + result.stderr)
            self.assertIn("passwords are not taken from the command line; set ORVANE_PASSWORD", result.stderr)
        # Without the variable and without a terminal there is no password to be had.
        result = subprocess.run([PUBLISH, "-s", self.url, "-u", "demo", "-p", "Samples", good],
                                env=clean_environment(ORV_SDK_LOGDIR=self.dir), stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=60, start_new_session=True)
        self.assertEqual(2, result.returncode, result.stdout + result.stderr)
        self.assertIn("set ORVANE_PASSWORD", result.stderr)
        self.assertEqual({}, self.stored())

        result = self.publish("-s", self.url, "-u", "demo", "-p", "Samples", "-n", "renamed", good)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        self.assertEqual({("Samples", "renamed")}, set(self.stored()))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    PUBLISH, REFERENCE_SERVER = sys.argv[1], sys.argv[2]
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
