"""The benchmarks' peer: one nginx on a free loopback port, its configuration, pid and logs in the
run's scratch directory, stopped by its own process id. It answers sign-in and the upload with
fixed XML and serves the project pages as files; it answers an upload at once, reads the body to
its end, discarding it, and logs the upload then."""

import hashlib
import os
import socket
import subprocess
import time

SITE_ID = "bench-site"
TOKEN = "bench-token"
PAGE_SIZE = 100
PROJECTS = 10000
UPLOAD_PROJECT = "Bench Uploads"  # on page 1
LOOKUP_PROJECT = "Bench Target"  # on page 100
LOOKUP_PAGES = 100
NAMED = {1: UPLOAD_PROJECT, (LOOKUP_PAGES - 1) * PAGE_SIZE + 50: LOOKUP_PROJECT}  # the others: "Project %05d" % index
PAYLOAD = '<qsRequest><datasource name="%s" ><project id="%s" /></datasource></qsRequest>'  # an upload's XML part
LOG_FIELDS = ("method", "uri", "status", "content_length", "content_type", "expect", "user_agent", "accept", "auth")

CONF = r"""
daemon off; master_process off; worker_processes 1;
pid {prefix}/nginx.pid; error_log {prefix}/error.log warn;
events {{ worker_connections 64; }}
http {{
    log_format bench '$request_method\t$uri\t$status\t$content_length\t$content_type\t$http_expect\t'
                     '$http_user_agent\t$http_accept\t$http_x_orvane_auth';
    access_log {prefix}/access.log bench;
    client_body_temp_path {prefix}/tmp_body; proxy_temp_path {prefix}/tmp_proxy;
    fastcgi_temp_path {prefix}/tmp_fastcgi; uwsgi_temp_path {prefix}/tmp_uwsgi; scgi_temp_path {prefix}/tmp_scgi;
    default_type text/xml; sendfile on; keepalive_timeout 60s;
    # Upload bodies of any size are read to their end and dropped, after the reply.
    client_max_body_size 0; lingering_time 1h; lingering_timeout 60s;
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
            return 201 '<?xml version="1.0" encoding="UTF-8"?><qsResponse><datasource id="bench-ds" name="bench-extract"><project id="p"/><owner id="bench-user"/><tags/></datasource></qsResponse>';
        }}
    }}
}}
"""


def project_id(index):
    d = hashlib.sha1(b"project-%d" % index).hexdigest()
    return f"{d[:8]}-{d[8:12]}-{d[12:16]}-{d[16:20]}-{d[20:32]}"


class Nginx:
    def __init__(self, workdir):
        self.prefix = os.path.join(workdir, "nginx")
        self.pages = os.path.join(self.prefix, "www/pages")
        os.makedirs(self.pages)  # nginx makes its tmp/ directories itself
        for page in range(1, PROJECTS // PAGE_SIZE + 1):
            items = "".join('<project id="%s" name="%s" description="Benchmark project %d"/>'
                            % (project_id(i), NAMED.get(i, "Project %05d" % i), i)
                            for i in range((page - 1) * PAGE_SIZE + 1, page * PAGE_SIZE + 1))
            with open(os.path.join(self.pages, "%d.xml" % page), "w") as f:
                f.write('<?xml version="1.0" encoding="UTF-8"?>\n<qsResponse><pagination pageNumber="%d" pageSize='
                        '"%d" totalAvailable="%d"/><projects>%s</projects></qsResponse>\n'
                        % (page, PAGE_SIZE, PROJECTS, items))
        self.process = None
        for _ in range(5):  # a port taken between probe and listen: try another
            with socket.socket() as s:
                s.bind(("127.0.0.1", 0))
                port = s.getsockname()[1]
            self.url = "http://127.0.0.1:%d" % port
            conf = os.path.join(self.prefix, "nginx.conf")
            with open(conf, "w") as f:
                f.write(CONF.format(prefix=self.prefix, port=port, token=TOKEN, site=SITE_ID, page_size=PAGE_SIZE))
            argv = ["nginx", "-p", self.prefix + "/", "-c", conf, "-e", self.prefix + "/error.log"]
            self.process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                            stderr=subprocess.DEVNULL)
            for _ in range(100):
                try:
                    with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                        return
                except OSError:
                    if self.process.poll() is not None:
                        break
                    time.sleep(0.05)
            self.stop()
        with open(os.path.join(self.prefix, "error.log")) as f:
            raise RuntimeError("nginx did not start: " + f.read()[-2000:])

    def stop(self):
        if self.process is not None:
            self.process.terminate()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
            self.process = None

    def uploads(self):
        with open(os.path.join(self.prefix, "access.log")) as f:
            entries = [dict(zip(LOG_FIELDS, line.rstrip("\n").split("\t"))) for line in f]
        return [e for e in entries if e["method"] == "POST" and e["uri"].endswith("/datasources")]

    def checked_upload(self, before, who, streamed, needed, body_size=None, like=None):
        """Upload number before + 1 from the log, once nginx has written it (when it has read the
        body, maybe a moment after the client is done), checked: status 201, at least `needed` bytes
        streamed by the client, the body length and, `like` another entry, the same header lines."""
        for _ in range(400):
            if len(entries := self.uploads()) > before:
                break
            time.sleep(0.025)
        else:
            raise RuntimeError("nginx logged no upload within 10 s")
        entry = entries[before]
        if entry["status"] != "201" or streamed < needed or body_size not in (None, int(entry["content_length"])):
            raise RuntimeError(f"{who} upload incomplete ({streamed} of {needed} bytes streamed): {entry}")
        for key in LOG_FIELDS[4:] if like else ():
            if entry[key] != like[key]:
                raise RuntimeError(f"{who} sent {key} {entry[key]!r}, the library {like[key]!r}")
        return entry
