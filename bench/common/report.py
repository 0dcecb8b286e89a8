"""Statistics and the report: medians with min-max spreads, the table with its numbered notes, the machine's
description, and the measured section of bench/RESULTS.md."""

import datetime
import os
import platform
import statistics
import subprocess

BEGIN = "<!-- bench.sh: measured section, replaced on every run -->"
END = "<!-- bench.sh: end of measured section -->"
PACKAGES = ("libcurl4", "curl", "nginx-light", "libexpat1", "libqt5network5", "libssl3", "libtbb12", "libicu72",
            "libspdlog1.10", "valgrind")


def stats(values, factor=1.0):
    """Median, min, max and count of a run's figures, each times `factor`."""
    values = [v * factor for v in values]
    return {"median": statistics.median(values), "min": min(values), "max": max(values), "n": len(values)}


def fmt(value):
    return "%.0f" % value if abs(value) >= 100 else "%.1f" % value if abs(value) >= 10 else "%.2f" % value


def cell(s):
    if s is None or s["n"] <= 1 or s["min"] == s["max"]:
        return "-" if s is None else fmt(s["median"])
    return "%s [%s-%s]" % (fmt(s["median"]), fmt(s["min"]), fmt(s["max"]))


def table(rows):
    """rows: (label, unit, library stats, reference stats, ratio, target, verdict, note)."""
    out = ["| Benchmark | Unit | Library: median [min-max] | Reference: median [min-max] | Ratio lib/ref | "
           "Target | |", "|---|---|---|---|---|---|---|"]
    notes = []
    for label, unit, lib, ref, ratio, target, verdict, note in rows:
        if note and note not in notes:
            notes.append(note)
        mark = " (%d)" % (notes.index(note) + 1) if note else ""
        ratio = "-" if ratio is None else "%.3f" % ratio
        out.append(f"| {label}{mark} | {unit} | {cell(lib)} | {cell(ref)} | {ratio} | {target} | {verdict} |")
    return out + [""] + ["(%d) %s  " % (i, note) for i, note in enumerate(notes, 1)]


def command(argv, stream="stdout"):
    try:
        return getattr(subprocess.run(argv, capture_output=True, text=True, timeout=30), stream).strip()
    except OSError:
        return "missing"


def machine(load_before, runs, quick):
    with open("/proc/cpuinfo") as f:
        cpu = next((line.split(":", 1)[1].strip() for line in f if line.startswith("model name")), "unknown")
    with open("/proc/meminfo") as f:
        mem_kib = next(int(line.split()[1]) for line in f if line.startswith("MemTotal:"))
    versions = ", ".join("%s %s" % (p, command(["dpkg-query", "-W", "-f=${Version}", p]) or "not installed")
                         for p in PACKAGES)
    return [
        "- Date: %s" % datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
        "- CPU: %s, nproc %d" % (cpu, os.cpu_count()),
        "- Memory: %.1f GiB" % (mem_kib / 1024.0 / 1024.0),
        "- Kernel: %s %s" % (platform.system(), platform.release()),
        "- Compiler: g++ %s, CMAKE_BUILD_TYPE=Release" % command(["g++", "-dumpfullversion"]),
        "- Packages: %s" % versions,
        "- Load average (1, 5, 15 min) before: %.2f %.2f %.2f, after: %.2f %.2f %.2f" % (load_before + os.getloadavg()),
        "- Runs: %d alternating runs per benchmark%s" % (runs, " (quick mode: small uploads)" if quick else ""),
    ]


def write_results(path, lines):
    """Replaces the measured section of `path` with `lines`."""
    with open(path) as f:
        before, rest = f.read().split(BEGIN, 1)
    with open(path, "w") as f:
        f.write(before + "\n".join([BEGIN] + lines + [END]) + rest.split(END, 1)[1])
