"""The opt-in profile of the project lookup (--profile): callgrind's instruction counts for the library's publish
call and for the plain-libcurl reference, a warm round each (a 2-round run minus a 1-round run, one-time set-up
excluded), and where a page's instructions go inside the library."""

import os
import re
import shutil
import subprocess

import peers
from report import stats


def callgrind(b, argv, out, toggle):
    if not shutil.which("valgrind"):
        raise RuntimeError("valgrind is missing: bash tools/install-deps.sh --valgrind")
    b.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, "--toggle-collect=" + toggle] + argv,
          timeout=1800)
    with open(out) as f:
        return next(int(line.split()[1]) for line in f if line.startswith(("summary:", "totals:")))


def inclusive(out):
    """symbol -> the largest inclusive cost callgrind_annotate reports for a function holding it."""
    text = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", out], capture_output=True,
                          text=True, timeout=600).stdout
    costs = [(int(m.group(1).replace(",", "")), m.group(2))
             for m in re.finditer(r"^\s*([\d,]+)\s+\(\s*[\d.]+%\)\s+(.*)$", text, re.M)]
    return lambda symbol: max([c for c, name in costs if symbol in name] or [0])


def run(b, argv):
    """argv: who -> the argument vector of a run of n rounds, as the lookup benchmark runs it."""
    outdir = b.args.profile_dir or b.workdir
    os.makedirs(outdir, exist_ok=True)
    toggle = {"lib": "OrvServerConnectionPublishExtract", "ref": "RunPages*"}
    ir = {}
    for who in toggle:
        one, two = (callgrind(b, argv[who](n), os.path.join(outdir, f"callgrind.lookup-{who}-{n}"), toggle[who])
                    for n in (1, 2))
        ir[who] = [(two - one) / peers.LOOKUP_PAGES / 1e3]
    b.row("Lookup", "instructions per page (callgrind)", "kIr", stats(ir["lib"]), stats(ir["ref"]),
          "warm round: 2-round run minus 1-round run; deterministic")
    if not shutil.which("callgrind_annotate"):
        return
    lib, ref = (inclusive(os.path.join(outdir, f"callgrind.lookup-{who}-2")) for who in ("lib", "ref"))
    parse, handlers, transport = lib("XmlReplyParser::Parse"), lib("(anonymous namespace)::OnStart"), \
        lib("CurlNetwork::Send")
    parts = [
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
    b.tables.append(["", "Lookup profile: instructions per page (callgrind, inclusive, 2-round runs / 200 pages)",
                     "", "| Part | kIr per page |", "|---|---|"]
                    + ["| %s | %.0f |" % (label, v / (2.0 * peers.LOOKUP_PAGES) / 1e3) for label, v in parts])
