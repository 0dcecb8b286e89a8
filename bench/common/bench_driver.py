#!/usr/bin/env python3
"""Runs the benchmarks, each beside its reference in alternating runs, and prints one table of medians, min-max
spreads and ratios; a full run with --profile puts it, with the machine's description, into bench/RESULTS.md.
Started by tools/bench.sh. A benchmark is a function below, listed in BENCHMARKS: it runs programs through
b.alternate and adds rows with b.row. The nginx peer is peers.py's, the statistics and the report report.py's, the
opt-in profile lookup_profile.py's."""

import argparse
import hashlib
import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import peers
from longlink import longlink
import lookup_profile
import report
from report import stats

MiB, GiB = 1 << 20, 1 << 30
LOOKUP_ROUNDS = 4  # publishes per lookup process; the first is dropped
PROXY_VARIABLES = ("http_proxy", "https_proxy", "all_proxy", "no_proxy", "ftp_proxy")


def log(text):
    print(text, file=sys.stderr, flush=True)


class Bench:
    def __init__(self, args):
        self.args, self.build = args, os.path.abspath(args.build)
        self.workdir = tempfile.mkdtemp(prefix="orvane-bench-")
        self.env = {k: v for k, v in os.environ.items() if k.lower() not in PROXY_VARIABLES}
        self.env.update(ORV_SDK_LOGDIR=os.path.join(self.workdir, "logs"), TMPDIR=self.workdir, LC_ALL="C")
        os.makedirs(self.env["ORV_SDK_LOGDIR"])
        self.rows, self.tables, self._nginx = [], [], None

    @property
    def nginx(self):
        if self._nginx is None:
            self._nginx = peers.Nginx(self.workdir)
            log("%s on %s" % (report.command(["nginx", "-v"], "stderr"), self._nginx.url))
        return self._nginx

    def cleanup(self):
        if self._nginx:
            self._nginx.stop()
        shutil.rmtree(self.workdir, ignore_errors=True)

    def exe(self, name):
        return os.path.join(self.build, "bench", name)

    def run(self, argv, timeout=600, env=None):
        """Runs argv to its end: its key=value figures, its output, wall time and CPU time. (Peak memory
        comes from the programs' own VmHWM: Linux carries a forking parent's peak over into ru_maxrss.)"""
        before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
        done = subprocess.run(argv, env=env or self.env, capture_output=True, text=True, timeout=timeout)
        wall, after = time.monotonic() - start, resource.getrusage(resource.RUSAGE_CHILDREN)
        if done.returncode != 0:
            raise RuntimeError("%s failed (%d):\n%s%s" % (" ".join(argv), done.returncode, done.stdout, done.stderr))
        values = dict(re.findall(r"^(\w+)=([-+.\deE]+)$", done.stdout, re.M))
        return {"values": {k: float(v) for k, v in values.items()}, "out": done.stdout, "wall": wall,
                "cpu": after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime}

    def publish(self, path, mode="plain"):
        return self.run([self.exe("publish_bench"), self.nginx.url, peers.UPLOAD_PROJECT, path, "1", mode])["values"]

    def publish_checked(self, path, size, body_size=None):
        """One publish into the page-1 project, checked in nginx's log: its figures and the log entry."""
        before = len(self.nginx.uploads())
        v = self.publish(path)
        return v, self.nginx.checked_upload(before, "library", v["publish_read_bytes_0"], size, body_size)

    def alternate(self, repeat=1, **sides):
        """Calls every side once a run, in turns whose order flips from run to run; results by side."""
        out = {name: [] for name in sides}
        for run in range(self.args.runs * repeat):
            for name in (list(sides) if run % 2 == 0 else reversed(list(sides))):
                out[name].append(sides[name]())
        return out

    def row(self, section, label, unit, lib, ref, note="", target="", met=None):
        ratio = lib["median"] / ref["median"] if lib and ref else None
        self.rows.append((f"{section}: {label}", unit, lib, ref, ratio, target,
                          "" if met is None else "met" if met else "MISSED", note))

    def file(self, name, size):
        """A file of `size` bytes: a 16 MiB pseudo-random block repeated (nothing on the way compresses)."""
        path, block = os.path.join(self.workdir, name), hashlib.shake_256(name.encode()).digest(16 * MiB)
        with open(path, "wb") as f:
            for offset in range(0, size, len(block)):
                f.write(block[: size - offset])
        return path


# --- the benchmarks -----------------------------------------------------------


def upload(b):
    sizes = [("8 MiB", 8 * MiB), ("64 MiB", 64 * MiB)] if b.args.quick else [("64 MiB", 64 * MiB), ("1 GiB", GiB)]
    for label, size in sizes:
        extract, seen, body, body_size = prepared(b, "upload.qrx", size)
        runs = b.alternate(lib=lambda: b.publish_checked(extract, size, body_size)[0],
                           curl=lambda: curl_upload(b, body, seen, body_size),
                           copy=lambda: b.run([b.exe("loopback_copy"), body])["values"]["copy_wall_s"])
        lib_wall = [v["publish_wall_s_0"] for v in runs["lib"]]
        curl_wall = [total for total, _, _ in runs["curl"]]
        lib, ref, copy = stats(lib_wall, 1e3), stats(curl_wall, 1e3), stats(runs["copy"])
        b.row("Upload", f"publish {label} (wall)", "ms", lib, ref, "library: OrvServerConnectionPublishExtract "
              "(page-1 GET + upload); curl: the same two requests, sum of its time_total",
              "<= 1.05", lib["median"] / ref["median"] <= 1.05)
        b.row("Upload", f"throughput {label}", "MiB/s", stats([body_size / t / MiB for t in lib_wall]),
              stats([body_size / t / MiB for t in curl_wall]),
              "raw loopback copy of the same bytes: %.0f MiB/s (median; %.0f-%.0f)"
              % tuple(body_size / copy[k] / MiB for k in ("median", "max", "min")))
        b.row("Upload", f"client CPU {label}", "ms", stats([v["publish_cpu_s_0"] for v in runs["lib"]], 1e3),
              stats([cpu for _, _, cpu in runs["curl"]], 1e3),
              "library: CPU of the publish call, all threads; curl: the whole curl process, its start-up included")
        b.row("Upload", f"upload request alone {label} (curl)", "ms", None,
              stats([post for _, post, _ in runs["curl"]], 1e3),
              "curl's POST only, for scale: the page GET costs the difference")
        os.unlink(body)
        os.unlink(extract)


def prepared(b, name, size):
    """An extract of `size` bytes, published once (warming the cache, showing in nginx's log the boundary the
    library drew), and the library's multipart body byte for byte for curl: (extract, log entry, body, its size)."""
    extract = b.file(name, size)
    seen = b.publish_checked(extract, size)[1]
    boundary = seen["content_type"].split("boundary=", 1)[1]
    xml = peers.PAYLOAD % ("bench-extract", peers.project_id(1))
    body = os.path.join(b.workdir, "body.bin")
    with open(body, "wb") as out, open(extract, "rb") as src:
        out.write(('--%s\r\nContent-Disposition: form-data; name="request_payload"\r\n\r\n%s\r\n--%s\r\n'
                   'Content-Disposition: form-data; name="orvane_datasource"; filename="%s"\r\n'
                   'Content-Type: application/octet-stream\r\n\r\n' % (boundary, xml, boundary, extract)).encode())
        shutil.copyfileobj(src, out, 8 * MiB)
        out.write(("\r\n--%s--\r\n" % boundary).encode())
    body_size = os.path.getsize(body)
    if body_size != int(seen["content_length"]):
        raise RuntimeError("curl's body is %d bytes, the library sent %s" % (body_size, seen))
    return extract, seen, body, body_size


def curl_upload(b, body, seen, body_size):
    """The curl tool making a publish's two requests, the upload streamed from the body file:
    (sum of its time_totals, the POST's alone, its process's CPU time)."""
    base = b.nginx.url + "/api/2.0/sites/" + peers.SITE_ID
    common = ["-sS", "-H", "X-Orvane-Auth: " + peers.TOKEN, "-H", "User-Agent:", "-o", "/dev/null"]
    before = len(b.nginx.uploads())
    r = b.run(["curl", *common, "-H", "Content-Type: ", "-w", "time_total=%{time_total}\n",
               base + "/projects?pageSize=100&pageNumber=1", "--next", *common, "-X", "POST", "-T", body,
               "-H", "Content-Type: " + seen["content_type"],
               "-w", "time_total=%{time_total}\nsize_upload=%{size_upload}\n", base + "/datasources?overwrite=true"])
    times = [float(t) for t in re.findall(r"time_total=([0-9.]+)", r["out"])]
    b.nginx.checked_upload(before, "curl", r["values"]["size_upload"], body_size, body_size, seen)
    return sum(times), times[1], r["cpu"]


def extension(b):
    """The extension API's cost: progress and limits set against none; a 512 KiB upload buffer against curl."""
    label, size = ("64 MiB", 64 * MiB) if b.args.quick else ("1 GiB", GiB)
    extract, seen, body, n = prepared(b, "extension.qrx", size)
    runs = b.alternate(**{m: (lambda m=m: b.publish(extract, m)["publish_wall_s_0"])
                          for m in ("plain", "limits", "buffer512k")}, curl=lambda: curl_upload(b, body, seen, n)[0])
    limits, plain, buffer, curl = [stats(runs["limits"], 1e3), stats(runs["plain"], 1e3)] + \
        [stats([n / t / MiB for t in runs[k]]) for k in ("buffer512k", "curl")]
    b.row("Extension", f"progress + limits, publish {label} (wall)", "ms", limits, plain, "against the same "
          "publish with no extension call", "<= 1.02", limits["median"] / plain["median"] <= 1.02)
    b.row("Extension", f"512 KiB upload buffer, throughput {label}", "MiB/s", buffer, curl, "against the curl tool "
          "(its default buffer)", ">= 1.3", buffer["median"] / curl["median"] >= 1.3)
    os.unlink(body)
    os.unlink(extract)


def memory(b):
    sizes = [("1 MiB", MiB), ("1 GiB", GiB), ("4 GiB", 4 * GiB)]
    for _, size in sizes:
        with open(os.path.join(b.workdir, f"sparse-{size}.qrx"), "wb") as f:
            f.truncate(size)  # sparse: reads as zeros, occupies no disk
    sides = {label: (lambda size=size: b.publish_checked(os.path.join(b.workdir, f"sparse-{size}.qrx"), size)[0]
                     ["peak_rss_kib"] / 1024.0) for label, size in sizes}
    runs = b.alternate(**sides, base=lambda: b.run([b.exe("startup_lib"), "1"])["values"]["peak_rss_kib"] / 1024.0)
    for label, _ in sizes:
        s = stats(runs[label])
        b.row("Memory", "peak RSS, publish " + label, "MiB", s, stats(runs["base"]),
              "reference: a process that only starts and stops the library", "<= 32 MiB", s["max"] <= 32.0)
    medians = [stats(runs[label])["median"] for label, _ in sizes]
    worst = max(max(runs[label]) for label, _ in sizes) - min(min(runs[label]) for label, _ in sizes)
    spread = {"median": max(medians) - min(medians), "min": max(medians) - min(medians), "max": worst, "n": b.args.runs}
    b.row("Memory", "difference 1 MiB / 1 GiB / 4 GiB", "MiB", spread, None,
          "median of the medians' spread; max = largest minus smallest of every run", "<= 4 MiB", worst <= 4.0)


def lookup(b):
    extract = b.file("lookup.qrx", 4096)
    prefix = b.nginx.url + "/api/2.0/sites/%s/projects?pageSize=%d&pageNumber=" % (peers.SITE_ID, peers.PAGE_SIZE)
    pages = str(peers.LOOKUP_PAGES)
    argv = {"lib": lambda n: [b.exe("publish_bench"), b.nginx.url, peers.LOOKUP_PROJECT, extract, str(n), "plain"],
            "ref": lambda n: [b.exe("lookup_plain_curl"), prefix, pages, peers.TOKEN, str(n)],
            "parse": lambda n: [b.exe("lookup_parse_floor"), b.nginx.pages, pages, str(n)]}
    runs = b.alternate(**{who: (lambda who=who: b.run(argv[who](LOOKUP_ROUNDS))["values"]) for who in argv})

    def each(side, key):  # every round but each process's first, cold one
        return [v[f"{key}_{i}"] for v in runs[side] for i in range(1, LOOKUP_ROUNDS)]

    per_page = 1e6 / peers.LOOKUP_PAGES
    lib, ref, parse = (stats(each(s, k), per_page) for s, k in (("lib", "publish_cpu_s"), ("ref", "gets_cpu_s"),
                                                                 ("parse", "parse_cpu_s")))
    b.row("Lookup", "CPU per page, project on page 100", "us", lib, ref, "library: publish CPU (all threads) / 100, "
          "its one 4 KiB upload included; reference: the same 100 GETs with plain libcurl, fresh easy handle each, "
          "nothing parsed; first round of each process dropped; pages of %d bytes (100 projects with id, name, "
          "description)" % runs["parse"][0]["page_bytes"], "<= 1.5", lib["median"] / ref["median"] <= 1.5)
    rest = {"median": lib["median"] - parse["median"], "min": lib["min"] - parse["max"],
            "max": lib["max"] - parse["min"], "n": lib["n"]}
    b.row("Lookup", "CPU per page less the expat parse", "us", rest, ref, "expat alone on the same pages (fresh "
          "parser per page, one final XML_Parse, empty handlers, no HTTP): %s us/page; subtracted from the "
          "library's figure" % report.cell(parse))
    b.row("Lookup", "wall per page", "us", stats(each("lib", "publish_wall_s"), per_page),
          stats(each("ref", "gets_wall_s"), per_page))
    if b.args.profile:
        lookup_profile.run(b, argv)


def logging(b):
    # Two rounds a process, the second with the order swapped.
    runs = [b.run([b.exe("logging_spdlog_bench"), "2"])["values"] for _ in range(b.args.runs)]
    for key, label, unit, factor, note in (
            ("queue1", "caller cost per QueueMessage, 1 thread", "ns", 1e4,
             "reference: spdlog async logger, flush per line"),
            ("queue8", "caller cost per QueueMessage, 8 threads", "ns", 1e4,
             "8 threads share the 100,000 calls; wall time / calls"),
            ("drain", "100,000 lines on disk, first call to writer joined", "ms", 1e3, "")):
        lib, ref = ([v[f"{who}_{key}_s_{i}"] for v in runs for i in (0, 1)] for who in ("lib", "spdlog"))
        b.row("Logging", label, unit, stats(lib, factor), stats(ref, factor), note)


def startup(b):
    def cycles(program):
        v = b.run([b.exe(program), "20"])["values"]
        return v["first_wall_s"], v["warm_median_wall_s"], b.run([b.exe(program), "1"])["wall"]

    runs = b.alternate(2, lib=lambda: cycles("startup_lib"), ref=lambda: cycles("startup_curl"))
    for i, label, unit, factor, note in (
            (0, "first Initialize+Cleanup in a process", "us", 1e6,
             "reference: curl_global_init + curl_global_cleanup"),
            (1, "later Initialize+Cleanup (median of 19)", "us", 1e6, ""),
            (2, "whole process: exec, one cycle, exit", "ms", 1e3, "")):
        b.row("Start-up", label, unit, stats([r[i] for r in runs["lib"]], factor),
              stats([r[i] for r in runs["ref"]], factor), note)


BENCHMARKS = {"upload": upload, "extension": extension, "memory": memory, "lookup": lookup, "logging": logging,
              "startup": startup, "longlink": longlink}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="release build directory")
    parser.add_argument("--runs", type=int, default=5, help="alternating runs per benchmark (default 5)")
    parser.add_argument("--only", default=",".join(BENCHMARKS), help="comma-separated, of " + ",".join(BENCHMARKS))
    parser.add_argument("--quick", action="store_true", help="small uploads, for trying the script")
    parser.add_argument("--profile", action="store_true", help="also profile the lookup under callgrind")
    parser.add_argument("--profile-dir", help="keep the callgrind output files here (implies --profile)")
    parser.add_argument("--results", help="markdown file whose measured section a full run replaces")
    args = parser.parse_args()
    args.profile = args.profile or bool(args.profile_dir)
    only = args.only.split(",")
    if not 1 <= args.runs <= 50 or not set(only) <= set(BENCHMARKS):
        parser.error("--runs must be 1..50 and --only a subset of " + ",".join(BENCHMARKS))

    bench, load_before = Bench(args), os.getloadavg()
    signal.signal(signal.SIGTERM, lambda signum, _: sys.exit("interrupted by signal %d" % signum))
    try:
        for name, benchmark in BENCHMARKS.items():
            if name in only:
                log("running %s (%d runs)..." % (name, args.runs))
                started = time.monotonic()
                benchmark(bench)
                log("  %s done in %.1f s" % (name, time.monotonic() - started))
    finally:
        bench.cleanup()

    lines = ["## Figures", ""] + report.machine(load_before, args.runs, args.quick) + [""] + report.table(bench.rows)
    lines += [line for t in bench.tables for line in t]
    print("\n".join(lines))
    # The profile's figures are part of the file, so only a full, profiled run replaces them.
    if args.results and not args.quick and set(only) == set(BENCHMARKS) and args.profile:
        report.write_results(args.results, lines)
        log("wrote " + args.results)
    elif args.results:
        log("%s left as it is: only a full run with --profile replaces its figures" % args.results)


if __name__ == "__main__":
    main()
