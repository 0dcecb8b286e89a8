#!/usr/bin/env python3
"""Runs every benchmark of the library beside its reference, in alternating
runs, and prints one table of medians, min-max spread and ratios; the same
table, with a description of the machine, replaces the measured section of
bench/RESULTS.md. Started by tools/bench.sh, which installs and builds first.

Peers are started here and stopped here, on loopback only: one nginx with its
own configuration, prefix, pid and logs under a temporary directory. Every
wait is bounded; the temporary directory (up to about 2.2 GiB of extract and
body files at a time, besides sparse ones) is removed at the end, also on
failure or interruption.
"""

import argparse
import datetime
import hashlib
import os
import platform
import re
import selectors
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

MiB = 1 << 20
GiB = 1 << 30

SITE_ID = "bench-site"
TOKEN = "bench-token"
DATASOURCE = "bench-extract"  # the name publish_bench gives every upload
FORM_NAME = "orvane_datasource"
PROJECTS = 10000
PAGE_SIZE = 100
UPLOAD_PROJECT = "Bench Uploads"  # on page 1
LOOKUP_PROJECT = "Bench Target"  # on page 100
LOOKUP_PAGES = 100

ALL_BENCHMARKS = ("upload", "memory", "lookup", "logging", "startup")
PROXY_VARIABLES = ("http_proxy", "https_proxy", "all_proxy", "no_proxy", "ftp_proxy")


# ---------------------------------------------------------------- helpers

def log(text):
    print(text, file=sys.stderr, flush=True)


def median(values):
    return statistics.median(values) if values else float("nan")


def stats(values):
    return {"median": median(values), "min": min(values), "max": max(values), "n": len(values)}


def parse_keys(text):
    values = {}
    for line in text.splitlines():
        if "=" in line:
            key, _, value = line.partition("=")
            try:
                values[key.strip()] = float(value)
            except ValueError:
                pass
    return values


def rounds_of(values, key, skip_first=False):
    """The values of key_0, key_1, ... in round order."""
    found = []
    for i in range(1000):
        name = "%s_%d" % (key, i)
        if name not in values:
            break
        found.append(values[name])
    return found[1:] if skip_first and len(found) > 1 else found


def child_env(workdir):
    env = {k: v for k, v in os.environ.items() if k.lower() not in PROXY_VARIABLES}
    env["ORV_SDK_LOGDIR"] = os.path.join(workdir, "logs")
    env["TMPDIR"] = workdir
    env["LC_ALL"] = "C"
    return env


def run_measured(argv, env, timeout=600):
    """Runs argv to its end; returns its output, its key=value figures, wall
    time and CPU time. (Its ru_maxrss is not used: Linux carries the forking
    process's peak over into a child's; the programs report their VmHWM.)"""
    start = time.monotonic()
    process = subprocess.Popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    out_chunks, err_chunks = [], []
    try:
        # Both pipes to their end, then wait4 for this child's own rusage.
        with selectors.DefaultSelector() as selector:
            selector.register(process.stdout, selectors.EVENT_READ, out_chunks)
            selector.register(process.stderr, selectors.EVENT_READ, err_chunks)
            open_streams = 2
            while open_streams:
                remaining = start + timeout - time.monotonic()
                if remaining <= 0:
                    raise RuntimeError("%s did not finish within %d s" % (argv[0], timeout))
                for key, _ in selector.select(timeout=min(remaining, 1.0)):
                    data = os.read(key.fileobj.fileno(), 65536)
                    if data:
                        key.data.append(data)
                    else:
                        selector.unregister(key.fileobj)
                        open_streams -= 1
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    except BaseException:
        process.kill()
        process.wait()
        raise
    finally:
        process.stdout.close()
        process.stderr.close()
    wall = time.monotonic() - start
    out = b"".join(out_chunks).decode(errors="replace")
    err = b"".join(err_chunks).decode(errors="replace")
    if process.returncode != 0:
        raise RuntimeError("%s failed (%d):\n%s%s" % (" ".join(argv), process.returncode, out, err))
    return {"out": out, "err": err, "values": parse_keys(out), "wall": wall,
            "cpu": usage.ru_utime + usage.ru_stime}


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def read_file(path, chunk=8 * MiB):
    """Reads a file once, so that its pages are in the page cache."""
    with open(path, "rb", buffering=0) as f:
        while f.read(chunk):
            pass


def write_pattern_file(path, size, seed):
    """A file of `size` bytes: a 16 MiB pseudo-random block repeated. Nothing on
    the path compresses, so the repetition changes no figure."""
    block = hashlib.shake_256(seed.encode()).digest(16 * MiB)
    with open(path, "wb") as f:
        left = size
        while left > 0:
            n = min(left, len(block))
            f.write(block[:n])
            left -= n


def project_id(index):
    digest = hashlib.sha1(b"project-%d" % index).hexdigest()
    return "%s-%s-%s-%s-%s" % (digest[:8], digest[8:12], digest[12:16], digest[16:20], digest[20:32])


def project_name(index):
    if index == 1:
        return UPLOAD_PROJECT
    if index == (LOOKUP_PAGES - 1) * PAGE_SIZE + 50:
        return LOOKUP_PROJECT
    return "Project %05d" % index


# ---------------------------------------------------------------- nginx

NGINX_CONF = r"""
daemon off;
master_process off;
worker_processes 1;
pid {prefix}/nginx.pid;
error_log {prefix}/error.log warn;
events {{ worker_connections 64; }}
http {{
    log_format bench '$request_method $uri $status $request_length $content_length "$content_type" '
                     '"$http_expect" "$http_user_agent" "$http_accept" "$http_x_orvane_auth" $request_time';
    access_log {prefix}/access.log bench;
    client_body_temp_path {prefix}/tmp/body;
    proxy_temp_path {prefix}/tmp/proxy;
    fastcgi_temp_path {prefix}/tmp/fastcgi;
    uwsgi_temp_path {prefix}/tmp/uwsgi;
    scgi_temp_path {prefix}/tmp/scgi;
    default_type text/xml;
    sendfile on;
    keepalive_timeout 60s;
    # Upload bodies of any size are read and thrown away; the reply goes out
    # at once, and the request is logged once the body has been read to its end.
    client_max_body_size 0;
    lingering_time 1h;
    lingering_timeout 60s;
    server {{
        listen 127.0.0.1:{port};
        root {prefix}/www;
        location = /api/2.0/auth/signin {{
            return 200 '<?xml version="1.0" encoding="UTF-8"?><qsResponse><credentials token="{token}"><site id="{site}" contentUrl="bench"/><user id="bench-user"/></credentials></qsResponse>';
        }}
        location = /api/2.0/sites/{site}/projects {{
            if ($arg_pageSize != "{page_size}") {{ return 400; }}
            try_files /pages/$arg_pageNumber.xml =404;
        }}
        location = /api/2.0/sites/{site}/datasources {{
            return 201 '<?xml version="1.0" encoding="UTF-8"?><qsResponse><datasource id="bench-ds" name="{datasource}"><project id="p"/><owner id="bench-user"/><tags/></datasource></qsResponse>';
        }}
    }}
}}
"""


class Nginx:
    def __init__(self, workdir):
        self.prefix = os.path.join(workdir, "nginx")
        self.process = None
        self.port = None
        for sub in ("www/pages", "tmp/body", "tmp/proxy", "tmp/fastcgi", "tmp/uwsgi", "tmp/scgi"):
            os.makedirs(os.path.join(self.prefix, sub), exist_ok=True)

    def write_pages(self):
        total_pages = PROJECTS // PAGE_SIZE
        for page in range(1, total_pages + 1):
            entries = []
            for index in range((page - 1) * PAGE_SIZE + 1, page * PAGE_SIZE + 1):
                entries.append('<project id="%s" name="%s" description="Benchmark project %d"/>'
                               % (project_id(index), project_name(index), index))
            text = ('<?xml version="1.0" encoding="UTF-8"?>\n<qsResponse>'
                    '<pagination pageNumber="%d" pageSize="%d" totalAvailable="%d"/><projects>%s</projects>'
                    '</qsResponse>\n' % (page, PAGE_SIZE, PROJECTS, "".join(entries)))
            with open(os.path.join(self.prefix, "www/pages/%d.xml" % page), "w") as f:
                f.write(text)

    def start(self):
        last_error = ""
        for _ in range(5):  # a port taken between probe and listen: try another
            self.port = free_port()
            conf = os.path.join(self.prefix, "nginx.conf")
            with open(conf, "w") as f:
                f.write(NGINX_CONF.format(prefix=self.prefix, port=self.port, token=TOKEN, site=SITE_ID,
                                          page_size=PAGE_SIZE, datasource=DATASOURCE))
            with open(os.path.join(self.prefix, "stderr.log"), "ab") as stderr:
                self.process = subprocess.Popen(
                    ["nginx", "-p", self.prefix + "/", "-c", conf, "-e", os.path.join(self.prefix, "error.log")],
                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=stderr)
            for _ in range(100):
                if self.process.poll() is not None:
                    break
                try:
                    with socket.create_connection(("127.0.0.1", self.port), timeout=0.2):
                        return
                except OSError:
                    time.sleep(0.05)
            last_error = self.stderr_text()
            self.stop()
        raise RuntimeError("nginx did not start: " + last_error)

    def stderr_text(self):
        text = ""
        for name in ("stderr.log", "error.log"):
            try:
                with open(os.path.join(self.prefix, name)) as f:
                    text += f.read()[-2000:]
            except OSError:
                pass
        return text

    def stop(self):
        """Stops the nginx this object started, by its own process id."""
        if self.process is None:
            return
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=10)
        self.process = None

    @property
    def url(self):
        return "http://127.0.0.1:%d" % self.port

    def access_lines(self):
        with open(os.path.join(self.prefix, "access.log")) as f:
            return f.read().splitlines()


LOG_LINE = re.compile(r'^(\S+) (\S+) (\d+) (\d+) (\S+) "([^"]*)" "([^"]*)" "([^"]*)" "([^"]*)" "([^"]*)" (\S+)$')


def upload_entries(nginx):
    entries = []
    for line in nginx.access_lines():
        m = LOG_LINE.match(line)
        if m and m.group(1) == "POST" and m.group(2).endswith("/datasources"):
            entries.append({"status": int(m.group(3)), "request_length": int(m.group(4)),
                            "content_length": int(m.group(5)) if m.group(5).isdigit() else -1,
                            "content_type": m.group(6), "expect": m.group(7), "user_agent": m.group(8),
                            "accept": m.group(9), "auth": m.group(10)})
    return entries


def next_upload(nginx, before):
    """The log entry of upload number `before` + 1. nginx logs an upload once it
    has read the body to its end, which may be a moment after the client is
    done (the last bytes still in the socket buffers): wait for it, bounded."""
    for _ in range(400):
        entries = upload_entries(nginx)
        if len(entries) > before:
            return entries[before]
        time.sleep(0.025)
    raise RuntimeError("nginx logged no upload within 10 s")


# ---------------------------------------------------------------- the benchmarks

class Bench:
    def __init__(self, args):
        self.args = args
        self.build = os.path.abspath(args.build)
        self.workdir = tempfile.mkdtemp(prefix="orvane-bench-", dir=args.tmpdir)
        os.makedirs(os.path.join(self.workdir, "logs"))
        self.env = child_env(self.workdir)
        self.nginx = None
        self.rows = []  # (section, label, unit, lib stats, ref stats, ratio, target, verdict, note)
        self.notes = []
        self.tables = []
        self.load_before = os.getloadavg()

    def exe(self, relative):
        path = os.path.join(self.build, "bench", relative)
        if not os.access(path, os.X_OK):
            raise RuntimeError("missing benchmark program %s (build first)" % path)
        return path

    def cleanup(self):
        if self.nginx:
            self.nginx.stop()
        shutil.rmtree(self.workdir, ignore_errors=True)

    def add(self, section, label, unit, lib, ref, ratio, target="", verdict="", note=""):
        self.rows.append((section, label, unit, lib, ref, ratio, target, verdict, note))

    def runs(self):
        return self.args.runs

    # ---- peers and files

    def start_peers(self):
        self.nginx = Nginx(self.workdir)
        self.nginx.write_pages()
        self.nginx.start()
        log("nginx %s on %s (prefix %s)" % (nginx_version(), self.nginx.url, self.nginx.prefix))

    def publish(self, path, project, rounds=1):
        return run_measured([self.exe("upload/publish_bench"), "--server", self.nginx.url, "--project", project,
                             "--file", path, "--rounds", str(rounds)], self.env)

    # ---- 1. upload

    def multipart_body(self, extract, boundary):
        xml = ('<qsRequest><datasource name="%s" ><project id="%s" /></datasource></qsRequest>'
               % (DATASOURCE, project_id(1)))
        head = ("--%s\r\nContent-Disposition: form-data; name=\"request_payload\"\r\n\r\n%s"
                "\r\n--%s\r\nContent-Disposition: form-data; name=\"%s\"; filename=\"%s\"\r\n"
                "Content-Type: application/octet-stream\r\n\r\n" % (boundary, xml, boundary, FORM_NAME, extract))
        tail = "\r\n--%s--\r\n" % boundary
        return head.encode(), tail.encode()

    def curl_upload(self, body_file, content_type):
        base = self.nginx.url + "/api/2.0/sites/%s" % SITE_ID
        # The same two requests as a publish: the project page, then the upload
        # streamed from the body file (-T reads it as libcurl asks, never whole).
        argv = ["curl", "-sS", "--no-progress-meter", "-w", "time_total=%{time_total}\n",
                "-H", "Content-Type: ", "-H", "X-Orvane-Auth: " + TOKEN, "-H", "User-Agent:",
                "-o", "/dev/null", base + "/projects?pageSize=100&pageNumber=1",
                "--next", "-sS", "--no-progress-meter", "-w", "time_total=%{time_total}\nsize_upload=%{size_upload}\n",
                "-X", "POST", "-T", body_file,
                "-H", "Content-Type: " + content_type, "-H", "X-Orvane-Auth: " + TOKEN, "-H", "User-Agent:",
                "-o", "/dev/null", base + "/datasources?overwrite=true"]
        result = run_measured(argv, self.env)
        times = [float(v) for v in re.findall(r"time_total=([0-9.]+)", result["out"])]
        if len(times) != 2:
            raise RuntimeError("curl printed no timing: " + result["out"] + result["err"])
        return times[0] + times[1], times[1], int(result["values"].get("size_upload", -1)), result["cpu"]

    def bench_upload(self):
        sizes = [("64 MiB", 64 * MiB), ("1 GiB", GiB)] if not self.args.quick else [("8 MiB", 8 * MiB),
                                                                                   ("64 MiB", 64 * MiB)]
        for label, size in sizes:
            extract = os.path.join(self.workdir, "upload-%d.qrx" % size)
            write_pattern_file(extract, size, "extract-%d" % size)
            # One publish first: it warms the cache and, through nginx's log,
            # gives the boundary the library drew, for curl's copy of the body.
            before = self.uploads_logged()
            r = self.publish(extract, UPLOAD_PROJECT)
            seen = self.check_upload(before, None, "library", r["values"]["publish_read_bytes_0"], size)
            boundary = seen["content_type"].split("boundary=", 1)[1]
            head, tail = self.multipart_body(extract, boundary)
            body = os.path.join(self.workdir, "body-%d.bin" % size)
            with open(body, "wb") as out, open(extract, "rb") as src:
                out.write(head)
                shutil.copyfileobj(src, out, 8 * MiB)
                out.write(tail)
            body_size = os.path.getsize(body)
            if body_size != seen["content_length"]:
                raise RuntimeError("curl's body is %d bytes, the library sent %d" % (body_size, seen["content_length"]))
            read_file(extract)
            read_file(body)
            lib_times, curl_times, curl_post_times, copy_times, lib_cpu, curl_cpu = [], [], [], [], [], []
            for run in range(self.runs()):
                order = ["lib", "curl", "copy"] if run % 2 == 0 else ["copy", "curl", "lib"]
                for who in order:
                    before = self.uploads_logged()
                    if who == "lib":
                        r = self.publish(extract, UPLOAD_PROJECT)
                        lib_times.append(r["values"]["publish_wall_s_0"])
                        lib_cpu.append(r["values"]["publish_cpu_s_0"])
                        self.check_upload(before, body_size, "library", r["values"]["publish_read_bytes_0"], size)
                    elif who == "curl":
                        total, post, sent, cpu = self.curl_upload(body, seen["content_type"])
                        curl_times.append(total)
                        curl_cpu.append(cpu)
                        curl_post_times.append(post)
                        self.check_upload(before, body_size, "curl", sent, body_size, seen)
                    else:
                        r = run_measured([self.exe("upload/loopback_copy"), body], self.env)
                        copy_times.append(r["values"]["copy_wall_s"])
            lib, ref, copy = stats(lib_times), stats(curl_times), stats(copy_times)
            ratio = lib["median"] / ref["median"]
            self.add("Upload", "publish %s (wall)" % label, "ms", scale(lib, 1e3), scale(ref, 1e3), ratio,
                     "<= 1.05", verdict(ratio <= 1.05),
                     "library: OrvServerConnectionPublishExtract (page-1 GET + upload); curl: the same two "
                     "requests, sum of its time_total")
            mbps = lambda s: {k: (body_size / v / MiB if k != "n" else v) for k, v in s.items()}
            flip = lambda s: {"median": s["median"], "min": s["max"], "max": s["min"], "n": s["n"]}
            self.add("Upload", "throughput %s" % label, "MiB/s", flip(mbps(lib)), flip(mbps(ref)),
                     (body_size / lib["median"]) / (body_size / ref["median"]), "", "",
                     "raw loopback copy of the same bytes: %.0f MiB/s (median; %.0f-%.0f)"
                     % (body_size / copy["median"] / MiB, body_size / copy["max"] / MiB,
                        body_size / copy["min"] / MiB))
            a, b = scale(stats(lib_cpu), 1e3), scale(stats(curl_cpu), 1e3)
            self.add("Upload", "client CPU %s" % label, "ms", a, b, a["median"] / b["median"], "", "",
                     "library: CPU of the publish call, all threads; curl: the whole curl process, its start-up "
                     "included")
            self.add("Upload", "upload request alone %s (curl)" % label, "ms", None,
                     scale(stats(curl_post_times), 1e3), None, "", "",
                     "curl's POST only, for scale: the page GET costs the difference")
            os.unlink(body)
            os.unlink(extract)

    def uploads_logged(self):
        return len(upload_entries(self.nginx))

    def check_upload(self, before, body_size, who, streamed, streamed_needed, seen=None):
        """Waits for nginx to log the upload (it does so once it has read the
        body to its end), then checks status and length at the server and, on
        the client, that the whole file was streamed: curl's own upload count,
        or for the library the bytes it read, since libcurl asks for the next
        chunk only once the previous one is sent."""
        entry = next_upload(self.nginx, before)
        if entry["status"] != 201 or (body_size is not None and entry["content_length"] != body_size) or \
                streamed < streamed_needed:
            raise RuntimeError("%s upload incomplete (%d of %d bytes streamed): %r"
                               % (who, streamed, streamed_needed, entry))
        if seen is not None:
            for key in ("content_type", "expect", "user_agent", "accept", "auth"):
                if entry[key] != seen[key]:
                    raise RuntimeError("curl sent %s %r, the library %r" % (key, entry[key], seen[key]))
        return entry

    # ---- 2. memory

    def bench_memory(self):
        sizes = [("1 MiB", MiB), ("1 GiB", GiB), ("4 GiB", 4 * GiB)]
        files = {}
        for label, size in sizes:
            path = os.path.join(self.workdir, "sparse-%d.qrx" % size)
            with open(path, "wb") as f:
                f.truncate(size)  # sparse: reads as zeros, occupies no disk
            files[label] = path
        rss = {label: [] for label, _ in sizes}
        baseline = []
        for run in range(self.runs()):
            order = sizes if run % 2 == 0 else list(reversed(sizes))
            for label, size in order:
                before = self.uploads_logged()
                r = self.publish(files[label], UPLOAD_PROJECT)
                self.check_upload(before, None, "library", r["values"]["publish_read_bytes_0"], size)
                rss[label].append(r["values"]["peak_rss_kib"] / 1024.0)
            r = run_measured([self.exe("startup/startup_lib"), "1"], self.env)
            baseline.append(r["values"]["peak_rss_kib"] / 1024.0)
        base = stats(baseline)
        for label, _ in sizes:
            s = stats(rss[label])
            self.add("Memory", "peak RSS, publish %s" % label, "MiB", s, base, s["median"] / base["median"],
                     "<= 32 MiB", verdict(s["max"] <= 32.0),
                     "reference: a process that only starts and stops the library")
        medians = [median(rss[label]) for label, _ in sizes]
        spread = max(medians) - min(medians)
        worst = max(max(v) for v in rss.values()) - min(min(v) for v in rss.values())
        self.add("Memory", "difference 1 MiB / 1 GiB / 4 GiB", "MiB", {"median": spread, "min": spread,
                 "max": worst, "n": self.runs()}, None, None, "<= 4 MiB", verdict(worst <= 4.0),
                 "median of the medians' spread; max = largest minus smallest of every run")
        for path in files.values():
            os.unlink(path)

    # ---- 3. lookup

    def bench_lookup(self):
        extract = os.path.join(self.workdir, "lookup.qrx")
        write_pattern_file(extract, 4096, "lookup")
        rounds = self.args.lookup_rounds
        lib_cpu, lib_wall, ref_cpu, ref_wall, parse_cpu = [], [], [], [], []
        prefix = self.nginx.url + "/api/2.0/sites/%s/projects?pageSize=%d&pageNumber=" % (SITE_ID, PAGE_SIZE)
        page_bytes = 0
        for run in range(self.runs()):
            for who in (["lib", "ref", "parse"] if run % 2 == 0 else ["parse", "ref", "lib"]):
                if who == "lib":
                    v = self.publish(extract, LOOKUP_PROJECT, rounds)["values"]
                    lib_cpu += rounds_of(v, "publish_cpu_s", skip_first=True)
                    lib_wall += rounds_of(v, "publish_wall_s", skip_first=True)
                elif who == "ref":
                    v = run_measured([self.exe("lookup/lookup_plain_curl"), "--url-prefix", prefix, "--pages",
                                      str(LOOKUP_PAGES), "--token", TOKEN, "--rounds", str(rounds)], self.env)["values"]
                    ref_cpu += rounds_of(v, "gets_cpu_s", skip_first=True)
                    ref_wall += rounds_of(v, "gets_wall_s", skip_first=True)
                else:
                    v = run_measured([self.exe("lookup/lookup_parse_floor"), "--pages-dir",
                                      os.path.join(self.nginx.prefix, "www/pages"), "--pages", str(LOOKUP_PAGES),
                                      "--rounds", str(rounds)], self.env)["values"]
                    parse_cpu += rounds_of(v, "parse_cpu_s", skip_first=True)
                    page_bytes = int(v["page_bytes"])
        per_page = 1e6 / LOOKUP_PAGES
        lib, ref = scale(stats(lib_cpu), per_page), scale(stats(ref_cpu), per_page)
        ratio = lib["median"] / ref["median"]
        self.add("Lookup", "CPU per page, project on page 100", "us", lib, ref, ratio, "<= 1.5", verdict(ratio <= 1.5),
                 "library: publish CPU (all threads) / 100, its one 4 KiB upload included; reference: the same 100 "
                 "GETs with plain libcurl, fresh easy handle each, nothing parsed; first round of each process "
                 "dropped; pages of %d bytes (100 projects with id, name, description)" % page_bytes)
        parse = scale(stats(parse_cpu), per_page)
        rest = {"median": lib["median"] - parse["median"], "min": lib["min"] - parse["max"],
                "max": lib["max"] - parse["min"], "n": lib["n"]}
        self.add("Lookup", "CPU per page less the expat parse", "us", rest, ref, rest["median"] / ref["median"], "", "",
                 "expat alone on the same pages (fresh parser per page, one final XML_Parse, empty handlers, "
                 "no HTTP): %s us/page; subtracted from the library's figure" % cell(parse))
        lib, ref = scale(stats(lib_wall), per_page), scale(stats(ref_wall), per_page)
        self.add("Lookup", "wall per page", "us", lib, ref, lib["median"] / ref["median"])
        if not self.args.no_profile:
            self.profile_lookup(extract, prefix)

    def callgrind(self, argv, out, toggle):
        valgrind = shutil.which("valgrind")
        if not valgrind:
            raise RuntimeError("valgrind is missing: bash tools/install-deps.sh --valgrind")
        run_measured([valgrind, "--tool=callgrind", "--callgrind-out-file=" + out, "--toggle-collect=" + toggle]
                     + argv, self.env, timeout=1800)
        with open(out) as f:
            for line in f:
                if line.startswith("summary:") or line.startswith("totals:"):
                    return int(line.split()[1])
        raise RuntimeError("no totals in " + out)

    def profile_lookup(self, extract, prefix):
        lib_argv = lambda n: [self.exe("upload/publish_bench"), "--server", self.nginx.url, "--project",
                              LOOKUP_PROJECT, "--file", extract, "--rounds", str(n)]
        ref_argv = lambda n: [self.exe("lookup/lookup_plain_curl"), "--url-prefix", prefix, "--pages",
                              str(LOOKUP_PAGES), "--token", TOKEN, "--rounds", str(n)]
        outdir = self.args.profile_dir or self.workdir
        os.makedirs(outdir, exist_ok=True)
        lib_toggle = "OrvServerConnectionPublishExtract"
        ref_toggle = "RunPages*"
        # Two rounds minus one round: the cost of a warm round, one-time set-up excluded.
        lib1 = self.callgrind(lib_argv(1), os.path.join(outdir, "callgrind.lookup-lib-1"), lib_toggle)
        lib2 = self.callgrind(lib_argv(2), os.path.join(outdir, "callgrind.lookup-lib-2"), lib_toggle)
        ref1 = self.callgrind(ref_argv(1), os.path.join(outdir, "callgrind.lookup-ref-1"), ref_toggle)
        ref2 = self.callgrind(ref_argv(2), os.path.join(outdir, "callgrind.lookup-ref-2"), ref_toggle)
        lib_ir, ref_ir = (lib2 - lib1) / LOOKUP_PAGES, (ref2 - ref1) / LOOKUP_PAGES
        one = lambda v: {"median": v, "min": v, "max": v, "n": 1}
        self.add("Lookup", "instructions per page (callgrind)", "kIr", one(lib_ir / 1e3), one(ref_ir / 1e3),
                 lib_ir / ref_ir, "", "", "warm round: 2-round run minus 1-round run; deterministic")
        self.profile_breakdown(os.path.join(outdir, "callgrind.lookup-lib-2"),
                               os.path.join(outdir, "callgrind.lookup-ref-2"))

    def profile_breakdown(self, lib_out, ref_out):
        """Where a page's instructions go, from the 2-round runs (inclusive
        costs, per page; the rounds' one-time set-up is spread over them)."""
        annotate = shutil.which("callgrind_annotate")
        if not annotate:
            return

        def inclusive(out):
            text = subprocess.run([annotate, "--inclusive=yes", "--threshold=100", out], capture_output=True,
                                  text=True, timeout=600).stdout
            costs = []
            for line in text.splitlines():
                m = re.match(r"\s*([\d,]+)\s+\(\s*[\d.]+%\)\s+(.*)$", line)
                if m:
                    costs.append((int(m.group(1).replace(",", "")), m.group(2)))
            return lambda symbol: max([c for c, name in costs if symbol in name] or [0])

        lib, ref = inclusive(lib_out), inclusive(ref_out)
        pages = 2.0 * LOOKUP_PAGES
        parse, handlers = lib("XmlReplyParser::Parse"), lib("(anonymous namespace)::OnStart")
        transport = lib("CurlNetwork::Send")
        rows = [
            ("whole publish call (100 page GETs, the small upload)", lib("ServerConnection::PublishExtract")),
            ("reply parsing: expat itself", parse - handlers),
            ("reply parsing: element handlers (attribute text, name -> id map)", handlers),
            ("  of which attribute text to wide strings", lib("XmlReplyParser::Text")),
            ("transport (CurlNetwork::Send)", transport),
            ("  of which curl_easy_perform", lib("curl_easy_perform")),
            ("  of which system proxy discovery (Qt, per request)",
             lib("QNetworkProxyFactory::systemProxyForQuery") + lib("QNetworkProxyFactory::setUseSystemConfiguration")),
            ("message conversion, reply copy and the rest of ServerConnection::Send",
             lib("ServerConnection::Send") - transport),
            ("reference: one plain GET, whole (RunPages / 100)", ref("RunPages")),
        ]
        table = ["", "Lookup profile: instructions per page (callgrind, inclusive, 2-round runs / 200 pages)", "",
                 "| Part | kIr per page |", "|---|---|"]
        for label, value in rows:
            table.append("| %s | %.0f |" % (label, value / pages / 1e3))
        self.tables.append(table)

    # ---- 4. logging

    def bench_logging(self):
        program = os.path.join(self.build, "bench/logging/logging_spdlog_bench")
        if not os.access(program, os.X_OK):
            self.notes.append("Logging: logging_spdlog_bench not built (libspdlog-dev missing); skipped.")
            return
        lib = {"queue1": [], "queue8": [], "drain": []}
        ref = {"queue1": [], "queue8": [], "drain": []}
        # Two rounds a process, the second with the order swapped. Twice the
        # runs of the other benchmarks: these figures move most with the load.
        for _ in range(self.runs()):
            v = run_measured([program, "2"], self.env)["values"]
            for key in lib:
                lib[key] += rounds_of(v, "lib_%s_s" % key)
                ref[key] += rounds_of(v, "spdlog_%s_s" % key)
        lines = 100000
        for key, label, unit, factor in (("queue1", "caller cost per QueueMessage, 1 thread", "ns", 1e9 / lines),
                                         ("queue8", "caller cost per QueueMessage, 8 threads", "ns", 1e9 / lines),
                                         ("drain", "100,000 lines on disk, first call to writer joined", "ms", 1e3)):
            a, b = scale(stats(lib[key]), factor), scale(stats(ref[key]), factor)
            self.add("Logging", label, unit, a, b, a["median"] / b["median"], "", "",
                     "reference: spdlog async logger, flush per line" if key == "queue1" else
                     ("8 threads share the 100,000 calls; wall time / calls" if key == "queue8" else ""))

    # ---- 5. start-up

    def bench_startup(self):
        keys = ("first_wall_s", "warm_median_wall_s")
        lib = {k: [] for k in keys + ("process",)}
        ref = {k: [] for k in keys + ("process",)}
        for run in range(self.runs() * 2):
            for who in (["lib", "ref"] if run % 2 == 0 else ["ref", "lib"]):
                program = "startup/startup_lib" if who == "lib" else "startup/startup_curl"
                r = run_measured([self.exe(program), "20"], self.env)
                target = lib if who == "lib" else ref
                for k in keys:
                    target[k].append(r["values"][k])
                r = run_measured([self.exe(program), "1"], self.env)
                target["process"].append(r["wall"])
        rows = (("first_wall_s", "first Initialize+Cleanup in a process", "us", 1e6),
                ("warm_median_wall_s", "later Initialize+Cleanup (median of 19)", "us", 1e6),
                ("process", "whole process: exec, one cycle, exit", "ms", 1e3))
        for key, label, unit, factor in rows:
            a, b = scale(stats(lib[key]), factor), scale(stats(ref[key]), factor)
            self.add("Start-up", label, unit, a, b, a["median"] / b["median"], "", "",
                     "reference: curl_global_init + curl_global_cleanup" if key == "first_wall_s" else "")


def scale(s, factor):
    return {k: (v * factor if k != "n" else v) for k, v in s.items()}


def verdict(ok):
    return "met" if ok else "MISSED"


# ---------------------------------------------------------------- report

def dpkg_version(package):
    try:
        out = subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], capture_output=True, text=True,
                             timeout=30).stdout.strip()
        return out or "not installed"
    except (OSError, subprocess.SubprocessError):
        return "unknown"


def nginx_version():
    try:
        return subprocess.run(["nginx", "-v"], capture_output=True, text=True, timeout=30).stderr.strip()
    except OSError:
        return "nginx missing"


def machine_description(load_before, load_after):
    cpu = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    mem_kib = 0
    with open("/proc/meminfo") as f:
        for line in f:
            if line.startswith("MemTotal:"):
                mem_kib = int(line.split()[1])
    gcc = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True, timeout=30).stdout.strip()
    packages = ["libcurl4", "curl", "nginx-light", "libexpat1", "libqt5network5", "libssl3", "libtbb12",
                "libicu72", "libspdlog1.10", "valgrind"]
    versions = ", ".join("%s %s" % (p, dpkg_version(p)) for p in packages)
    return [
        "- Date: %s" % datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
        "- CPU: %s, nproc %d" % (cpu, os.cpu_count()),
        "- Memory: %.1f GiB" % (mem_kib / 1024.0 / 1024.0),
        "- Kernel: %s %s" % (platform.system(), platform.release()),
        "- Compiler: g++ %s, CMAKE_BUILD_TYPE=Release" % gcc,
        "- Packages: %s" % versions,
        "- Load average (1, 5, 15 min) before: %.2f %.2f %.2f, after: %.2f %.2f %.2f"
        % (load_before + load_after),
    ]


def fmt(value):
    if value is None:
        return "-"
    if abs(value) >= 100:
        return "%.0f" % value
    if abs(value) >= 10:
        return "%.1f" % value
    return "%.2f" % value


def cell(s):
    if s is None:
        return "-"
    if s["n"] <= 1 or s["min"] == s["max"]:
        return fmt(s["median"])
    return "%s [%s-%s]" % (fmt(s["median"]), fmt(s["min"]), fmt(s["max"]))


def table(rows):
    out = ["| Benchmark | Unit | Library: median [min-max] | Reference: median [min-max] | Ratio lib/ref | "
           "Target | |", "|---|---|---|---|---|---|---|"]
    notes = []
    for section, label, unit, lib, ref, ratio, target, verdict_text, note in rows:
        mark = ""
        if note:
            if note not in notes:
                notes.append(note)
            mark = " (%d)" % (notes.index(note) + 1)
        out.append("| %s: %s%s | %s | %s | %s | %s | %s | %s |" % (
            section, label, mark, unit, cell(lib), cell(ref), "-" if ratio is None else "%.3f" % ratio,
            target or "", verdict_text or ""))
    out.append("")
    for i, note in enumerate(notes, 1):
        out.append("(%d) %s  " % (i, note))
    return out


BEGIN = "<!-- bench.sh: measured section, replaced on every run -->"
END = "<!-- bench.sh: end of measured section -->"


def write_results(path, lines):
    text = "\n".join([BEGIN] + lines + [END]) + "\n"
    if os.path.exists(path):
        with open(path) as f:
            old = f.read()
        if BEGIN in old and END in old:
            before, rest = old.split(BEGIN, 1)
            after = rest.split(END, 1)[1]
            text = before + text.rstrip("\n") + after
            if not text.endswith("\n"):
                text += "\n"
        else:
            text = old.rstrip("\n") + "\n\n" + text
    else:
        text = "# Benchmark results\n\n" + text
    with open(path, "w") as f:
        f.write(text)


# ---------------------------------------------------------------- main

def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="release build directory")
    parser.add_argument("--runs", type=int, default=5, help="alternating runs per benchmark (default 5)")
    parser.add_argument("--lookup-rounds", type=int, default=4, help="publishes per lookup process (first dropped)")
    parser.add_argument("--only", default=",".join(ALL_BENCHMARKS),
                        help="comma-separated subset of " + ",".join(ALL_BENCHMARKS))
    parser.add_argument("--quick", action="store_true", help="small uploads, for trying the script")
    parser.add_argument("--no-profile", action="store_true", help="skip the callgrind run of the lookup")
    parser.add_argument("--profile-dir", help="keep the callgrind output files here")
    parser.add_argument("--results", help="markdown file whose measured section is replaced")
    parser.add_argument("--tmpdir", default=None, help="where the temporary directory goes")
    args = parser.parse_args()
    if not 1 <= args.runs <= 50 or not 2 <= args.lookup_rounds <= 50:
        parser.error("--runs must be 1..50 and --lookup-rounds 2..50")
    only = set(args.only.split(","))
    unknown = only - set(ALL_BENCHMARKS)
    if unknown:
        parser.error("unknown benchmark(s): " + ", ".join(sorted(unknown)))

    bench = Bench(args)

    def interrupted(signum, _frame):
        raise KeyboardInterrupt("signal %d" % signum)

    signal.signal(signal.SIGTERM, interrupted)
    try:
        if only & {"upload", "memory", "lookup"}:
            bench.start_peers()
        steps = [("upload", bench.bench_upload), ("memory", bench.bench_memory), ("lookup", bench.bench_lookup),
                 ("logging", bench.bench_logging), ("startup", bench.bench_startup)]
        for name, step in steps:
            if name in only:
                log("running %s (%d runs)..." % (name, args.runs))
                started = time.monotonic()
                step()
                log("  %s done in %.1f s" % (name, time.monotonic() - started))
    finally:
        bench.cleanup()

    load_after = os.getloadavg()
    lines = ["## Figures", ""] + machine_description(bench.load_before, load_after) + [
        "- Runs: %d alternating runs per benchmark%s" % (args.runs, " (quick mode: small uploads)" if args.quick
                                                          else ""), ""] + table(bench.rows)
    if bench.notes:
        lines += [""] + bench.notes
    for extra in bench.tables:
        lines += extra
    print("\n".join(lines))
    if args.results:
        if args.quick or only != set(ALL_BENCHMARKS):
            log("%s left as it is: only a full run replaces its figures" % args.results)
        else:
            write_results(args.results, lines)
            log("wrote %s" % args.results)


if __name__ == "__main__":
    main()
