"""Reference server for libOrvaneServer: a peer to try the library against.

It answers the three REST calls the library makes under "/api/2.0" (sign-in,
the project list, the extract upload) and lists what has been published. The
library puts values into its XML requests unescaped, so request documents are
read leniently, attribute values taken verbatim; replies are strict XML in the
shape the library's parsers accept. The upload is streamed: the file part goes
to a staging file chunk by chunk and is renamed into place once complete.
The launcher is tools/orvane-reference-server.
"""

import argparse
import hashlib
import hmac
import http.server
import json
import os
import re
import secrets
import shutil
import signal
import socket
import socketserver
import sys
import tempfile
import threading
import traceback
import urllib.parse
import uuid

AUTH_HEADER = "X-Orvane-Auth"
PAYLOAD_PART = "request_payload"
FILE_PART = "orvane_datasource"
SUFFIX = ".qrx"
STAGING = ".incoming"
CHUNK = 256 * 1024
SMALL_BODY_MAX = 1 << 20  # the sign-in document
PAYLOAD_MAX = 64 * 1024  # the request_payload part
MAX_NAME_BYTES = 255 - len(SUFFIX)
PAGE_SIZE_MAX = 1000

# Fixed, so that derived ids stay the same from one run to the next.
ID_NAMESPACE = uuid.UUID("6f1c3a52-9d4e-4b1a-8c6e-2f0d7a9b3e51")
DEFAULT_USER, DEFAULT_PASSWORD = "demo", "demo-password"
DEFAULT_CONFIG = {
    "users": [{"name": DEFAULT_USER, "password": DEFAULT_PASSWORD}],
    # "Samples" between Project 250 and Project 251: page 3 of 100, so a publish pages.
    "sites": [{"contentUrl": "", "projects": ["Project %03d" % n for n in range(1, 251)] + ["Samples"]
               + ["Project %03d" % n for n in range(251, 351)]}],
}

HELP_EPILOG = """\
defaults (without --config): user "demo", password "demo-password"; one site,
  the default one (content URL ""); 351 projects "Project 001" .. "Project 250",
  "Samples", "Project 251" .. "Project 350", so "Samples" is on page 3 of 100.

config file (JSON); ids left out are derived from the names, stable across runs:
  {"users": [{"name": "alice", "password": "pw", "id": "optional"}],
   "sites": [{"contentUrl": "", "id": "optional",
              "projects": ["Default", {"name": "Sales", "id": "optional"}]}]}

endpoints (after sign-in the token goes in the "X-Orvane-Auth" header):
  POST /api/2.0/auth/signin                                 returns a token
  POST /api/2.0/auth/signout                                204; the token is refused afterwards
  GET  /api/2.0/sites/SITE/projects?pageSize=N&pageNumber=P
  POST /api/2.0/sites/SITE/datasources[?overwrite=true]     multipart/mixed upload
  GET  /__published                                         the listing below; no token
  GET  /__stats                                             lines "sessions N", "requests N" (to /api),
                                                            "connections N" (that carried one), "open N"

storage: DATA_DIR/SITE_ID/PROJECT/NAME.qrx ('/', '%', control characters and a
  leading '.' %-encoded); uploads are staged in DATA_DIR/.incoming.

listing (/__published and --list): one line per stored file,
  project TAB name TAB size TAB sha256 TAB site content URL
  (tab, CR, LF and backslash in names written as \\t \\r \\n \\\\).
"""


# --- Configuration -----------------------------------------------------------


class ConfigError(Exception):
    pass


def derived_id(kind, *names):
    return str(uuid.uuid5(ID_NAMESPACE, kind + ":" + "\x1f".join(names)))


class Site:
    def __init__(self, content_url, site_id, projects):
        self.content_url, self.id = content_url, site_id
        self.projects = projects  # [(id, name)] in the order the list is paged
        self.names = dict(projects)  # id -> name
        if len(self.names) != len(projects) or len({n for _, n in projects}) != len(projects):
            # The library maps names to ids: a name twice could never be told apart.
            raise ConfigError(f'site "{content_url}": a project name or id appears twice')


class Config:
    def __init__(self, raw):
        try:
            self.users = {u["name"]: (u.get("id") or derived_id("user", u["name"]), u["password"])
                          for u in raw["users"]}  # name -> (id, password)
            self.sites = []
            for s in raw["sites"]:
                url = s.get("contentUrl", "")
                site_id = s.get("id") or derived_id("site", url)
                named = [(p, None) if isinstance(p, str) else (p["name"], p.get("id")) for p in s.get("projects", [])]
                projects = [(pid or derived_id("project", site_id, name), name) for name, pid in named]
                self.sites.append(Site(url, site_id, projects))
            texts = [*self.users, *(v for u in self.users.values() for v in u)]
            texts += [v for s in self.sites for v in (s.content_url, s.id, *(v for p in s.projects for v in p))]
        except (KeyError, TypeError, AttributeError) as e:
            raise ConfigError(f"expected users with name and password, sites with projects ({e!r})") from None
        if not all(isinstance(v, str) for v in texts):
            raise ConfigError("names, passwords, ids and content URLs must be strings")
        if not self.users or not self.sites:
            raise ConfigError("at least one user and one site are needed")
        self.by_url = {s.content_url: s for s in self.sites}
        self.by_id = {s.id: s for s in self.sites}


def load_config(path):
    if path is None:
        return Config(DEFAULT_CONFIG)
    try:
        with open(path, encoding="utf-8") as f:
            return Config(json.load(f))
    except OSError as e:
        raise ConfigError(f"cannot read {path}: {e.strerror}") from None
    except ValueError as e:
        raise ConfigError(f"{path} is not valid JSON: {e}") from None


# --- XML: lenient in, strict out ---------------------------------------------

_ATTR = r'[\w:.-]+\s*=\s*"[^"]*"'


def xml_attrs(text, name):
    """Attributes of the first <name ...> element, values verbatim; None if there is none."""
    m = re.search(r"<" + name + r"((?:\s+" + _ATTR + r")*)\s*/?>", text)
    return dict(re.findall(r'([\w:.-]+)\s*=\s*"([^"]*)"', m.group(1))) if m else None


_XML_INVALID = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff\ud800-\udfff]")


def xml_escape(value):
    value = _XML_INVALID.sub("\ufffd", str(value))
    for raw, entity in (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;"), ('"', "&quot;"),
                        ("\t", "&#9;"), ("\n", "&#10;"), ("\r", "&#13;")):
        value = value.replace(raw, entity)
    return value


def element(name, attrs=None, children=""):
    text = "<" + name + "".join(f' {k}="{xml_escape(v)}"' for k, v in (attrs or {}).items())
    return text + (f">{children}</{name}>" if children else "/>")


def document(inner):
    return ("<?xml version='1.0' encoding='UTF-8'?>" + element("qsResponse", None, inner)).encode("utf-8")


# --- Storage -----------------------------------------------------------------


def encode_component(name):
    """One safe path component; decode_component reverses it."""
    return re.sub(r"^\.|[/%\\\x00-\x1f\x7f\ud800-\udfff]",
                  lambda m: "".join(f"%{b:02X}" for b in m.group().encode("utf-8", "surrogatepass")), name)


def decode_component(component):
    return urllib.parse.unquote(component, errors="surrogateescape")


def extract_path(data_dir, site_id, project, name):
    return os.path.join(data_dir, encode_component(site_id), encode_component(project),
                        encode_component(name) + SUFFIX)


def name_fits(name):
    return 0 < len(os.fsencode(encode_component(name))) <= MAX_NAME_BYTES


def _subdirs(path, want_dir):
    try:
        names = sorted(os.listdir(path))
    except (FileNotFoundError, NotADirectoryError):
        return []
    return [(n, os.path.join(path, n)) for n in names
            if not n.startswith(".") and os.path.isdir(os.path.join(path, n)) == want_dir]


def file_sha256(path):
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "sha256").hexdigest()


def listing(data_dir, config):
    """project TAB name TAB size TAB sha256 TAB site content URL, a line per stored extract."""
    def tsv(value):
        return str(value).replace("\\", "\\\\").replace("\t", "\\t").replace("\n", "\\n").replace("\r", "\\r")

    lines = []
    for site_component, site_dir in _subdirs(data_dir, True):
        site_id = decode_component(site_component)
        site = config.by_id.get(site_id)
        for project_component, project_dir in _subdirs(site_dir, True):
            for file_component, path in _subdirs(project_dir, False):
                if not file_component.endswith(SUFFIX):
                    continue
                try:
                    fields = (decode_component(project_component), decode_component(file_component[: -len(SUFFIX)]),
                              os.path.getsize(path), file_sha256(path), site.content_url if site else site_id)
                except FileNotFoundError:
                    continue  # replaced or removed while listing
                lines.append("\t".join(tsv(v) for v in fields) + "\n")
    return "".join(lines)


# --- Streamed multipart bodies -----------------------------------------------


class Reply(Exception):
    """Ends a request with an error document."""

    def __init__(self, status, summary, detail):
        super().__init__(detail)
        self.status, self.summary, self.detail = status, summary, detail


class Multipart:
    """Walks a multipart body part by part, holding about one chunk of it: read() returns the next
    bytes, b"" at the end; the delimiter is found across chunk borders by keeping its length less one."""

    def __init__(self, read, boundary):
        self.read, self.delim = read, b"\r\n--" + boundary
        self.buf = bytearray(b"\r\n")  # lets the first delimiter, which has no CR LF, match like the others

    def _more(self):
        data = self.read()
        if not data:
            raise Reply(400, "Bad Request", "The multipart body ends before its closing boundary.")
        self.buf += data

    def chunks(self):
        """The current part's data in pieces; each must be used before the next is asked for."""
        keep = len(self.delim) - 1
        while (i := self.buf.find(self.delim)) < 0:
            if len(self.buf) > keep:
                yield bytes(self.buf[:-keep])
                del self.buf[:-keep]
            self._more()
        yield bytes(self.buf[:i])
        del self.buf[: i + len(self.delim)]

    def parts(self):
        """(lower-case headers, chunks) per part; read each part's chunks to their end."""
        for _ in self.chunks():  # the preamble
            pass
        while True:
            while len(self.buf) < 2:
                self._more()
            if self.buf.startswith(b"--"):  # the closing delimiter; the epilogue is dropped
                while self.read():
                    pass
                return
            while (end := self.buf.find(b"\r\n\r\n")) < 0:
                if len(self.buf) > 16384:
                    raise Reply(400, "Bad Request", "Part headers too long.")
                self._more()
            lines = bytes(self.buf[:end]).decode("utf-8", "replace").split("\r\n")
            del self.buf[: end + 4]
            # lines[0] is what follows the delimiter on its line: nothing, or blanks.
            yield {k.strip().lower(): v.strip() for k, _, v in (line.partition(":") for line in lines[1:])}, \
                self.chunks()


def multipart_boundary(content_type):
    m = re.fullmatch(r'\s*multipart/[\w.+-]+\s*;.*?\bboundary\s*=\s*(?:"([^"]{1,200})"|([^;\s"]{1,200})).*',
                     content_type or "", re.I | re.S)
    return (m.group(1) or m.group(2)).encode("latin-1", "replace") if m else None


# --- HTTP --------------------------------------------------------------------


ROUTES = [("POST", re.compile(r"/api/2\.0/auth/signin"), "sign_in"),
          ("POST", re.compile(r"/api/2\.0/auth/signout"), "sign_out"),
          ("GET", re.compile(r"/api/2\.0/sites/([^/]+)/projects"), "projects"),
          ("POST", re.compile(r"/api/2\.0/sites/([^/]+)/datasources"), "publish"),
          ("GET", re.compile(r"/__published"), "published"),
          ("GET", re.compile(r"/__stats"), "stats")]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "OrvaneReferenceServer/1.0"
    sys_version = ""
    timeout = 120  # a connection silent this long is dropped (--idle-timeout)
    disable_nagle_algorithm = True  # else a kept-alive client waits out delayed ACKs on every reply
    continue_pending = False
    counted = False  # this connection has carried an /api request

    def handle_expect_100(self):
        # Deferred until the body is wanted, so that a refused upload is never sent.
        self.continue_pending = True
        return True

    def read_body(self, limit=CHUNK):
        if self.continue_pending:
            self.continue_pending = False
            self.wfile.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        if self.remaining <= 0:
            return b""
        data = self.rfile.read1(min(limit, self.remaining))
        if not data:
            raise ConnectionError(f"the client closed the connection with {self.remaining} body bytes missing")
        self.remaining -= len(data)
        return data

    def dispatch(self):
        self.remaining = 0
        try:
            length = (self.headers.get("Content-Length") or "0").strip()
            if self.headers.get("Transfer-Encoding") or not length.isdigit():
                self.close_connection = True
                raise Reply(411, "Length Required", "Bodies must be sent with a Content-Length.")
            self.remaining = int(length)
            url = urllib.parse.urlsplit(self.path)
            if url.path.startswith("/api/"):
                self.server.count("requests", *() if self.counted else ("connections", "open"))
                self.counted = True
            for method, pattern, name in ROUTES:
                if (m := pattern.fullmatch(url.path)) and method == self.command:
                    break
            else:
                raise Reply(404, "Not Found", f"No resource at {self.command} {url.path}.")
            query = urllib.parse.parse_qs(url.query, keep_blank_values=True)
            getattr(self, "on_" + name)(query, *(urllib.parse.unquote(g) for g in m.groups()))
        except Reply as r:
            self.error(r.status, r.summary, r.detail)
        except (ConnectionError, TimeoutError) as e:
            self.close_connection = True
            self.log(f'"{self.requestline}" - connection lost: {e}')
        except Exception:  # a fault of this server or of its disk, e.g. no space left
            self.log(f'"{self.requestline}" failed:\n{traceback.format_exc().rstrip()}')
            self.close_connection = True
            try:
                self.error(500, "Internal Server Error", "See the reference server's log.")
            except OSError:
                pass
        finally:
            self.continue_pending = False

    do_GET = do_POST = do_PUT = do_DELETE = dispatch

    def finish(self):
        super().finish()
        if self.counted:
            self.server.count("open", step=-1)

    def reply(self, status, body, content_type="application/xml;charset=UTF-8", note=""):
        try:  # an unread body is read and dropped, unless the client still waits for 100 Continue
            while self.remaining and not self.continue_pending and self.read_body():
                pass
        except OSError:
            pass
        self.close_connection = self.close_connection or self.remaining > 0
        self.send_response(status)
        if status != 204:
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(len(body)))
        if self.close_connection:
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)
        self.log(f'"{self.requestline}" {status} {len(body)}' + (f" {note}" if note else ""))

    def error(self, status, summary, detail):
        inner = f"<summary>{xml_escape(summary)}</summary><detail>{xml_escape(detail)}</detail>"
        self.reply(status, document(element("error", {"code": status}, inner)), note=detail)

    def log(self, line):
        if not self.server.quiet:
            sys.stderr.write(f"{self.client_address[0]} [{self.log_date_time_string()}] {line}\n")

    def log_request(self, code="-", size="-"):
        pass  # every request is logged once, by reply()

    def session(self, site_id, forget=False):
        token = (self.headers.get(AUTH_HEADER) or "").strip()
        with self.server.lock:
            session = (self.server.sessions.pop if forget else self.server.sessions.get)(token, None)
        if session is None:
            raise Reply(401, "Unauthorized", f"The {AUTH_HEADER} token is {'unknown' if token else 'missing'}; "
                        "sign in first.")
        if forget:
            return None
        if site_id not in self.server.config.by_id:
            raise Reply(404, "Site Not Found", f'No site has the id "{site_id}".')
        if site_id != session[1].id:
            raise Reply(403, "Forbidden", "The token was issued for another site.")
        return session

    # -- the endpoints ------------------------------------------------------

    def on_sign_in(self, query):
        if self.remaining > SMALL_BODY_MAX:
            raise Reply(413, "Payload Too Large", f"The body may hold at most {SMALL_BODY_MAX} bytes.")
        text = b"".join(iter(self.read_body, b"")).decode("utf-8", "replace")
        credentials, site = xml_attrs(text, "credentials"), xml_attrs(text, "site") or {}
        if credentials is None or "name" not in credentials or "password" not in credentials:
            raise Reply(400, "Bad Request", "Expected qsRequest/credentials with name and password.")
        name, content_url = credentials["name"], site.get("contentUrl", "")
        token = self.server.sign_in(name, credentials["password"], content_url)
        if token is None:
            raise Reply(401, "Signin Error", "Wrong user name, password or site.")
        user_id, site = self.server.sessions[token][0], self.server.config.by_url[content_url]
        inner = element("site", {"id": site.id, "contentUrl": site.content_url}) + element("user", {"id": user_id})
        self.reply(200, document(element("credentials", {"token": token}, inner)), note=f'user "{name}"')

    def on_sign_out(self, query):
        self.session(None, forget=True)
        self.reply(204, b"", note="signed out")

    def on_stats(self, query):
        with self.server.lock:
            text = "".join(f"{k} {v}\n" for k, v in {"sessions": len(self.server.sessions), **self.server.counts}.items())
        self.reply(200, text.encode(), "text/plain;charset=UTF-8")

    def on_projects(self, query, site_id):
        site = self.session(site_id)[1]
        numbers = []
        for key, default, high in (("pageSize", 100, PAGE_SIZE_MAX), ("pageNumber", 1, 1 << 62)):
            text = query.get(key, [str(default)])[-1].strip()
            if not text.isdigit() or not 1 <= int(text) <= high:
                raise Reply(400, "Bad Request", f"{key} must be a whole number from 1 to {high}.")
            numbers.append(int(text))
        size, page = numbers
        items = "".join(element("project", {"id": pid, "name": name})
                        for pid, name in site.projects[(page - 1) * size: page * size])
        pagination = {"pageNumber": page, "pageSize": size, "totalAvailable": len(site.projects)}
        # An empty page still carries the (empty) projects element.
        self.reply(200, document(element("pagination", pagination) + f"<projects>{items}</projects>"))

    def on_published(self, query):
        text = listing(self.server.data_dir, self.server.config)
        self.reply(200, text.encode("utf-8", "surrogateescape"), "text/plain;charset=UTF-8")

    def on_publish(self, query, site_id):
        user_id, site = self.session(site_id)
        overwrite = query.get("overwrite", [""])[-1].strip().lower() == "true"
        boundary = multipart_boundary(self.headers.get("Content-Type"))
        if boundary is None:
            raise Reply(400, "Bad Request", "Expected a multipart Content-Type with a boundary.")
        target = staged = None
        digest, size = hashlib.sha256(), 0
        try:
            for headers, chunks in Multipart(self.read_body, boundary).parts():
                part = re.search(r'\bname="([^"]*)"', headers.get("content-disposition", ""))
                part = part and part.group(1)
                if part == PAYLOAD_PART and target is None:
                    target = self.publish_target(site, chunks)
                elif part == FILE_PART and staged is None:
                    staged = os.path.join(self.server.data_dir, STAGING, uuid.uuid4().hex + ".part")
                    with open(staged, "xb") as out:
                        for chunk in chunks:
                            out.write(chunk)
                            digest.update(chunk)
                            size += len(chunk)
                else:
                    for _ in chunks:
                        pass
            if target is None or staged is None:
                raise Reply(400, "Bad Request", f'The upload needs a "{PAYLOAD_PART}" and a "{FILE_PART}" part.')
            (project_id, project), name = target
            created = self.server.commit(staged, site, project, name, overwrite)
            staged = None
        finally:
            if staged is not None and os.path.exists(staged):
                os.unlink(staged)
        attrs = {"id": derived_id("datasource", site.id, project, name), "name": name, "type": SUFFIX[1:],
                 "size": size, "sha256": digest.hexdigest()}
        inner = element("project", {"id": project_id, "name": project}) + element("owner", {"id": user_id})
        note = f'{"created" if created else "replaced"} "{project}"/"{name}" ({size} bytes)'
        self.reply(201, document(element("datasource", attrs, inner + "<tags/>")), note=note)

    def publish_target(self, site, chunks):
        """((project id, project name), data source name) from the request_payload part."""
        payload = bytearray()
        for chunk in chunks:
            payload += chunk
            if len(payload) > PAYLOAD_MAX:
                raise Reply(400, "Bad Request", f'The "{PAYLOAD_PART}" part exceeds {PAYLOAD_MAX} bytes.')
        text = payload.decode("utf-8", "replace")
        datasource, project = xml_attrs(text, "datasource"), xml_attrs(text, "project")
        if datasource is None or project is None or "name" not in datasource or "id" not in project:
            raise Reply(400, "Bad Request", "Expected qsRequest/datasource[@name]/project[@id].")
        name, project_id = datasource["name"], project["id"]
        if project_id not in site.names:
            raise Reply(404, "Project Not Found", f'No project has the id "{project_id}".')
        if not name_fits(name) or not name_fits(site.names[project_id]):
            raise Reply(400, "Bad Request", "The data source or project name is empty or too long to be stored.")
        return (project_id, site.names[project_id]), name


class ReferenceServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 128  # one session per publishing thread: connections come in bursts

    def __init__(self, host, port, config, data_dir, quiet):
        self.address_family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.config, self.data_dir, self.quiet = config, data_dir, quiet
        self.sessions = {}  # token -> (user id, site)
        self.counts = {"requests": 0, "connections": 0, "open": 0}
        self.lock = threading.Lock()
        os.makedirs(os.path.join(data_dir, STAGING), exist_ok=True)
        super().__init__((host, port), Handler)

    def server_bind(self):
        # The stdlib version resolves the host name, which can stall without DNS.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]

    def count(self, *names, step=1):
        with self.lock:
            for name in names:
                self.counts[name] += step

    def sign_in(self, name, password, content_url):
        user, site = self.config.users.get(name), self.config.by_url.get(content_url)
        if user is None or site is None or not hmac.compare_digest(
                user[1].encode("utf-8", "surrogatepass"), password.encode("utf-8", "surrogatepass")):
            return None
        token = secrets.token_urlsafe(24)
        with self.lock:
            self.sessions[token] = (user[0], site)
        return token

    def commit(self, staged, site, project, name, overwrite):
        """Moves a complete upload into place; True when it created a new data source."""
        target = extract_path(self.data_dir, site.id, project, name)
        with self.lock:  # so that two uploads of one name cannot both find it absent
            existed = os.path.exists(target)
            if existed and not overwrite:
                raise Reply(409, "Resource Conflict",
                            f'A data source named "{name}" already exists in project "{project}".')
            os.makedirs(os.path.dirname(target), exist_ok=True)
            os.replace(staged, target)
        return not existed


# --- Command line ------------------------------------------------------------


def main(argv=None):
    p = argparse.ArgumentParser(prog="orvane-reference-server", epilog=HELP_EPILOG,
                                description="Reference data-publishing server for libOrvaneServer (REST /api/2.0).",
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--host", default="127.0.0.1", help="address to bind (default 127.0.0.1)")
    p.add_argument("--port", type=int, default=8080, help="port to bind, 0 for an ephemeral one (default 8080)")
    p.add_argument("--port-file", metavar="PATH", help="write the bound port number to PATH once listening")
    p.add_argument("--config", metavar="JSON", help="users, sites and projects (default: built in, see below)")
    p.add_argument("--data-dir", metavar="DIR",
                   help="where published extracts are stored (default: a temporary directory, removed on exit)")
    p.add_argument("--quiet", action="store_true", help="do not log requests")
    p.add_argument("--idle-timeout", type=float, default=120, metavar="S",
                   help="close a kept-alive connection silent this long (default 120)")
    p.add_argument("--list", action="store_true", help="print what is stored in --data-dir and exit")
    args = p.parse_args(argv)
    if args.list and not args.data_dir:
        p.error("--list needs --data-dir")
    if not 0 <= args.port <= 65535:
        p.error("--port must be from 0 to 65535")
    try:
        config = load_config(args.config)
    except ConfigError as e:
        print(f"orvane-reference-server: {e}", file=sys.stderr)
        return 2
    if args.list:
        try:
            sys.stdout.buffer.write(listing(args.data_dir, config).encode("utf-8", "surrogateescape"))
            sys.stdout.flush()
        except BrokenPipeError:  # the reader went away early (| head)
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0

    owned_dir = None if args.data_dir else tempfile.mkdtemp(prefix="orvane-reference-")
    data_dir = os.path.abspath(args.data_dir or owned_dir)
    Handler.timeout = args.idle_timeout
    try:
        server = ReferenceServer(args.host, args.port, config, data_dir, args.quiet)
    except OSError as e:
        print(f"orvane-reference-server: cannot start on {args.host}:{args.port}: {e}", file=sys.stderr)
        if owned_dir:
            shutil.rmtree(owned_dir, ignore_errors=True)
        return 1
    port = server.server_address[1]
    say = lambda text: print("orvane-reference-server: " + text, flush=True)  # noqa: E731
    say(f"listening on http://{f'[{args.host}]' if ':' in args.host else args.host}:{port}")
    say(f"data directory {data_dir}" + (" (removed on exit)" if owned_dir else ""))
    if args.config is None:
        say(f'sign in as "{DEFAULT_USER}" / "{DEFAULT_PASSWORD}" on the default site')

    def stop(signum, frame):
        # shutdown() waits for serve_forever, which runs on this very thread.
        threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    if args.port_file:
        with open(args.port_file + ".tmp", "w") as f:
            f.write(f"{port}\n")
        os.replace(args.port_file + ".tmp", args.port_file)  # readers never see a partial number
    try:
        server.serve_forever(poll_interval=0.05)
    finally:
        server.server_close()
        if args.port_file and os.path.exists(args.port_file):
            os.unlink(args.port_file)
        if owned_dir:
            shutil.rmtree(owned_dir, ignore_errors=True)
    say("stopped")
    return 0
