"""Reference server for libOrvaneServer.

Implements the three REST endpoints the library talks to (sign-in, project
lookup, extract publishing) under "/api/2.0", plus a listing of what has been
published. It accepts exactly what the library sends: values arrive unescaped
inside XML documents, so request documents are read with a lenient parser that
takes attribute values verbatim; replies are strict XML in the element
structure the library's parsers accept.

Uploads are streamed: the multipart body is read from the socket in chunks and
the file part goes straight to a staging file, which is renamed into place only
once the whole body has arrived. The launcher is tools/orvane-reference-server.
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
from dataclasses import dataclass, field
from datetime import datetime, timezone

AUTH_HEADER = "X-Orvane-Auth"
PAYLOAD_PART = "request_payload"
FILE_PART = "orvane_datasource"
EXTRACT_SUFFIX = ".qrx"
STAGING_DIR = ".incoming"

READ_CHUNK = 256 * 1024
SMALL_BODY_MAX = 1 << 20  # sign-in documents and other small bodies
PAYLOAD_MAX = 64 * 1024  # the request_payload part
PART_HEADERS_MAX = 16 * 1024
MAX_PAGE_SIZE = 1000
DEFAULT_PAGE_SIZE = 100
MAX_NAME_BYTES = 255 - len(EXTRACT_SUFFIX)

# Fixed so that generated ids stay the same from one run to the next.
ID_NAMESPACE = uuid.UUID("6f1c3a52-9d4e-4b1a-8c6e-2f0d7a9b3e51")

DEFAULT_USER = "demo"
DEFAULT_PASSWORD = "demo-password"
DEFAULT_CONFIG = {
    "users": [{"name": DEFAULT_USER, "password": DEFAULT_PASSWORD}],
    "sites": [
        {
            "contentUrl": "",
            "projects": [
                {"pattern": "Project {:03d}", "from": 1, "to": 250},
                "Samples",
                {"pattern": "Project {:03d}", "from": 251, "to": 350},
            ],
        }
    ],
}

HELP_EPILOG = """\
defaults (without --config):
  user "demo", password "demo-password", allowed on every site;
  one site, the default site (content URL "");
  351 projects in this order: "Project 001" .. "Project 250", "Samples",
  "Project 251" .. "Project 350" -- so "Samples" is on page 3 of 100.
  Ids are UUIDs derived from the names, the same on every run;
  --print-config shows them all.

config file (JSON):
  {"users": [{"name": "alice", "password": "pw", "id": "optional",
              "sites": ["", "marketing"]}],        # omitted: every site
   "sites": [{"contentUrl": "", "id": "optional",
              "projects": ["Default", {"name": "Sales", "id": "optional"},
                           {"pattern": "Team {:02d}", "from": 1, "to": 40}]}]}
  Ids left out are derived from the names, so they are stable across runs.

endpoints:
  POST /api/2.0/auth/signin                          sign in, returns a token
  POST /api/2.0/auth/signout                         forget the token
  GET  /api/2.0/sites/SITE/projects?pageSize=N&pageNumber=P
  POST /api/2.0/sites/SITE/datasources[?overwrite=true]   multipart/mixed upload
  GET  /api/2.0/sites/SITE/datasources?pageSize=N&pageNumber=P   published list
  GET  /__published[?format=json]                    no token; every site
  Calls after sign-in carry the token in the "X-Orvane-Auth" header.

storage:
  DATA_DIR/SITE_ID/PROJECT_NAME/DATASOURCE_NAME.qrx; '/', '%', control
  characters and a leading '.' in names are %-encoded. Uploads are staged in
  DATA_DIR/.incoming and renamed into place when complete.

listing (/__published and --list): one line per stored file,
  project TAB name TAB size TAB sha256 TAB site content URL
  (tab, CR, LF and backslash inside names are written as \\t \\r \\n \\\\).
"""


# ---------------------------------------------------------------------------
# Configuration


class ConfigError(Exception):
    pass


@dataclass(frozen=True)
class Project:
    id: str
    name: str


@dataclass
class Site:
    id: str
    content_url: str
    projects: list
    projects_by_id: dict = field(default_factory=dict)
    projects_by_name: dict = field(default_factory=dict)


@dataclass(frozen=True)
class User:
    id: str
    name: str
    password: str
    sites: "frozenset | None"  # content URLs the user may sign in to; None = every site


class Config:
    def __init__(self, users, sites):
        self.users = {u.name: u for u in users}
        self.sites = list(sites)
        self.sites_by_url = {s.content_url: s for s in sites}
        self.sites_by_id = {s.id: s for s in sites}



def _derived_id(kind, *names):
    return str(uuid.uuid5(ID_NAMESPACE, kind + ":" + "\x1f".join(names)))


def _string(obj, key, where, default=None):
    value = obj.get(key, default)
    if not isinstance(value, str):
        raise ConfigError(f'{where}: "{key}" must be a string')
    return value


def _expand_projects(entries, where):
    names = []
    if not isinstance(entries, list):
        raise ConfigError(f'{where}: "projects" must be a list')
    for i, entry in enumerate(entries):
        here = f"{where}.projects[{i}]"
        if isinstance(entry, str):
            names.append((entry, None))
        elif isinstance(entry, dict) and "pattern" in entry:
            pattern = _string(entry, "pattern", here)
            first, last = entry.get("from", 1), entry.get("to")
            if not isinstance(first, int) or not isinstance(last, int) or last - first >= 1_000_000:
                raise ConfigError(f'{here}: "from" and "to" must be integers, at most a million apart')
            for n in range(first, last + 1):
                try:
                    names.append((pattern.format(n), None))
                except (ValueError, IndexError, KeyError, AttributeError) as e:
                    raise ConfigError(f"{here}: bad pattern: {e}") from None
        elif isinstance(entry, dict):
            names.append((_string(entry, "name", here), entry.get("id")))
        else:
            raise ConfigError(f"{here}: a project is a name, an object with a name, or a pattern")
    return names


def build_config(raw):
    """Validates a decoded JSON configuration and resolves every id."""
    if not isinstance(raw, dict):
        raise ConfigError("the configuration must be a JSON object")
    raw_sites = raw.get("sites")
    raw_users = raw.get("users")
    if not isinstance(raw_sites, list) or not raw_sites:
        raise ConfigError('"sites" must be a non-empty list')
    if not isinstance(raw_users, list) or not raw_users:
        raise ConfigError('"users" must be a non-empty list')

    sites = []
    for i, rs in enumerate(raw_sites):
        where = f"sites[{i}]"
        if not isinstance(rs, dict):
            raise ConfigError(f"{where} must be an object")
        url = _string(rs, "contentUrl", where, "")
        site_id = _string(rs, "id", where, _derived_id("site", url))
        if not site_id:
            raise ConfigError(f"{where}: the site id must not be empty")
        site = Site(site_id, url, [])
        for name, pid in _expand_projects(rs.get("projects", []), where):
            if not name:
                raise ConfigError(f"{where}: a project name must not be empty")
            if pid is None:
                pid = _derived_id("project", site_id, name)
            if not isinstance(pid, str) or not pid:
                raise ConfigError(f'{where}: project "{name}": the id must be a non-empty string')
            # The library maps names to ids, so a duplicate name could never be told apart.
            if name in site.projects_by_name:
                raise ConfigError(f'{where}: project name "{name}" appears twice')
            if pid in site.projects_by_id:
                raise ConfigError(f'{where}: project id "{pid}" appears twice')
            project = Project(pid, name)
            site.projects.append(project)
            site.projects_by_name[name] = project
            site.projects_by_id[pid] = project
        if any(s.content_url == url for s in sites):
            raise ConfigError(f'{where}: content URL "{url}" appears twice')
        if any(s.id == site_id for s in sites):
            raise ConfigError(f'{where}: site id "{site_id}" appears twice')
        sites.append(site)

    users = []
    for i, ru in enumerate(raw_users):
        where = f"users[{i}]"
        if not isinstance(ru, dict):
            raise ConfigError(f"{where} must be an object")
        name = _string(ru, "name", where)
        password = _string(ru, "password", where)
        user_id = _string(ru, "id", where, _derived_id("user", name))
        allowed = ru.get("sites")
        if allowed is not None:
            if not isinstance(allowed, list) or not all(isinstance(u, str) for u in allowed):
                raise ConfigError(f'{where}: "sites" must be a list of content URLs')
            unknown = [u for u in allowed if not any(s.content_url == u for s in sites)]
            if unknown:
                raise ConfigError(f'{where}: unknown site content URL "{unknown[0]}"')
            allowed = frozenset(allowed)
        if any(u.name == name for u in users):
            raise ConfigError(f'{where}: user "{name}" appears twice')
        users.append(User(user_id, name, password, allowed))
    return Config(users, sites)


def load_config(path):
    if path is None:
        return build_config(DEFAULT_CONFIG)
    try:
        with open(path, encoding="utf-8") as f:
            raw = json.load(f)
    except OSError as e:
        raise ConfigError(f"cannot read {path}: {e.strerror}") from None
    except ValueError as e:
        raise ConfigError(f"{path} is not valid JSON: {e}") from None
    return build_config(raw)


def config_as_json(config):
    return {
        "users": [
            {"name": u.name, "password": u.password, "id": u.id}
            | ({} if u.sites is None else {"sites": sorted(u.sites)})
            for u in config.users.values()
        ],
        "sites": [
            {"contentUrl": s.content_url, "id": s.id, "projects": [{"name": p.name, "id": p.id} for p in s.projects]}
            for s in config.sites
        ],
    }


# ---------------------------------------------------------------------------
# Lenient XML for request documents


class XmlElement:
    def __init__(self, name, attrs):
        self.name = name
        self.attrs = attrs
        self.children = []

    def child(self, name):
        return next((c for c in self.children if c.name == name), None)


_NAME = r"[A-Za-z_:][-\w.:]*"
_TAG = re.compile(r"<(/?)(" + _NAME + r")((?:\s+" + _NAME + r"\s*=\s*(?:\"[^\"]*\"|'[^']*'))*)\s*(/?)>")
_ATTR = re.compile(r"(" + _NAME + r")\s*=\s*(?:\"([^\"]*)\"|'([^']*)')")


def parse_lenient_xml(text):
    """Parses a small XML document whose attribute values may hold raw '&', '<' and '>'.

    Values are returned verbatim (no entity decoding), because the library
    inserts them unescaped. A quote character inside a value breaks the tag and
    raises ValueError, as does any other structural fault.
    """
    root = None
    stack = []
    pos = 0
    while True:
        lt = text.find("<", pos)
        if lt < 0:
            break
        if text.startswith("<?", lt):
            end = text.find("?>", lt)
            pos = _skip_to(end, 2, "processing instruction")
            continue
        if text.startswith("<!--", lt):
            end = text.find("-->", lt)
            pos = _skip_to(end, 3, "comment")
            continue
        m = _TAG.match(text, lt)
        if not m:
            raise ValueError(f"malformed tag at offset {lt}")
        closing, name, attr_text, empty = m.groups()
        pos = m.end()
        if closing:
            if attr_text or empty or not stack or stack[-1].name != name:
                raise ValueError(f"unexpected end tag </{name}>")
            stack.pop()
            continue
        attrs = {}
        for am in _ATTR.finditer(attr_text):
            key = am.group(1)
            if key in attrs:
                raise ValueError(f'attribute "{key}" repeated in <{name}>')
            attrs[key] = am.group(2) if am.group(2) is not None else am.group(3)
        element = XmlElement(name, attrs)
        if stack:
            stack[-1].children.append(element)
        elif root is None:
            root = element
        else:
            raise ValueError("more than one root element")
        if not empty:
            stack.append(element)
    if root is None:
        raise ValueError("no element")
    if stack:
        raise ValueError(f"<{stack[-1].name}> is not closed")
    return root


def _skip_to(end, length, what):
    if end < 0:
        raise ValueError(f"unterminated {what}")
    return end + length


# ---------------------------------------------------------------------------
# Reply documents

_XML_INVALID = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff\ud800-\udfff]")


def xml_attr(value):
    value = _XML_INVALID.sub("\ufffd", str(value))
    return (
        value.replace("&", "&amp;")
        .replace("<", "&lt;")
        .replace(">", "&gt;")
        .replace('"', "&quot;")
        .replace("\t", "&#9;")
        .replace("\n", "&#10;")
        .replace("\r", "&#13;")
    )


def xml_text(value):
    value = _XML_INVALID.sub("\ufffd", str(value))
    return value.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def element(name, attrs=None, children=""):
    text = "<" + name + "".join(f' {k}="{xml_attr(v)}"' for k, v in (attrs or {}).items())
    return text + (f">{children}</{name}>" if children else "/>")


def document(inner):
    return ("<?xml version='1.0' encoding='UTF-8'?>" + element("qsResponse", None, inner)).encode("utf-8")


def error_document(status, summary, detail):
    inner = f"<summary>{xml_text(summary)}</summary><detail>{xml_text(detail)}</detail>"
    return document(element("error", {"code": str(status)}, inner))


# ---------------------------------------------------------------------------
# Storage


def encode_component(name):
    """Turns a name into one safe path component; decode_component reverses it."""
    out = []
    for i, ch in enumerate(name):
        code = ord(ch)
        if ch in "/%\\" or code < 32 or code == 127 or 0xD800 <= code <= 0xDFFF or (i == 0 and ch == "."):
            out.append("".join(f"%{b:02X}" for b in ch.encode("utf-8", "surrogatepass")))
        else:
            out.append(ch)
    return "".join(out)


def decode_component(component):
    return urllib.parse.unquote(component, errors="surrogateescape")


def extract_path(data_dir, site_id, project_name, datasource_name):
    return os.path.join(
        data_dir,
        encode_component(site_id),
        encode_component(project_name),
        encode_component(datasource_name) + EXTRACT_SUFFIX,
    )


def name_fits(name):
    return 0 < len(os.fsencode(encode_component(name))) <= MAX_NAME_BYTES


@dataclass
class Published:
    site_id: str
    content_url: str
    project_name: str
    project_id: str
    name: str
    size: int
    sha256: str
    modified: float
    path: str


def file_sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        while True:
            chunk = f.read(1 << 20)
            if not chunk:
                return digest.hexdigest()
            digest.update(chunk)


def _visible_entries(path, want_dir):
    try:
        names = sorted(os.listdir(path))
    except (FileNotFoundError, NotADirectoryError):
        return []
    for name in names:
        full = os.path.join(path, name)
        if not name.startswith(".") and os.path.isdir(full) == want_dir:
            yield name, full


def scan_published(data_dir, config, digests=None):
    """Lists the stored extracts found under data_dir, sorted by site, project and name.

    digests is an optional cache {path: (size, mtime_ns, sha256)} with a lock,
    so that a listing does not read every file again.
    """
    records = []
    for site_component, site_dir in _visible_entries(data_dir, True):
        site_id = decode_component(site_component)
        site = config.sites_by_id.get(site_id)
        for project_component, project_dir in _visible_entries(site_dir, True):
            project_name = decode_component(project_component)
            project = site.projects_by_name.get(project_name) if site else None
            for file_component, path in _visible_entries(project_dir, False):
                if not file_component.endswith(EXTRACT_SUFFIX):
                    continue
                try:
                    st = os.stat(path)
                    sha = digests.lookup(path, st) if digests else None
                    if sha is None:
                        sha = file_sha256(path)
                        if digests:
                            digests.remember(path, st, sha)
                except FileNotFoundError:
                    continue  # replaced or removed while listing
                records.append(
                    Published(
                        site_id,
                        site.content_url if site else site_id,
                        project_name,
                        project.id if project else "",
                        decode_component(file_component[: -len(EXTRACT_SUFFIX)]),
                        st.st_size,
                        sha,
                        st.st_mtime,
                        path,
                    )
                )
    return records


class DigestCache:
    def __init__(self):
        self._lock = threading.Lock()
        self._entries = {}

    def lookup(self, path, st):
        with self._lock:
            entry = self._entries.get(path)
        if entry and entry[0] == st.st_size and entry[1] == st.st_mtime_ns:
            return entry[2]
        return None

    def remember(self, path, st, sha):
        with self._lock:
            self._entries[path] = (st.st_size, st.st_mtime_ns, sha)


def _tsv(value):
    return str(value).replace("\\", "\\\\").replace("\t", "\\t").replace("\n", "\\n").replace("\r", "\\r")


def listing_text(records):
    return "".join(
        "\t".join(_tsv(v) for v in (r.project_name, r.name, r.size, r.sha256, r.content_url)) + "\n" for r in records
    )


def listing_json(records):
    return [
        {
            "site": r.content_url,
            "siteId": r.site_id,
            "project": r.project_name,
            "projectId": r.project_id,
            "name": r.name,
            "size": r.size,
            "sha256": r.sha256,
            "path": r.path,
        }
        for r in records
    ]


def _iso(ts):
    return datetime.fromtimestamp(ts, timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


# ---------------------------------------------------------------------------
# Streamed multipart bodies


class UploadCut(Exception):
    """The client stopped sending before the announced length arrived."""


class MalformedBody(Exception):
    pass


class BodyStream:
    """The request body, limited to its Content-Length; never reads beyond it."""

    def __init__(self, rfile, length):
        self._rfile = rfile
        self.remaining = length

    def read(self, limit=READ_CHUNK):
        if self.remaining <= 0:
            return b""
        try:
            data = self._rfile.read1(min(limit, self.remaining))
        except OSError as e:  # timeouts included
            raise UploadCut(f"reading the body failed: {e}") from None
        if not data:
            raise UploadCut(f"the client closed the connection with {self.remaining} body bytes missing")
        self.remaining -= len(data)
        return data

    def drain(self):
        while self.remaining > 0:
            self.read()


class MultipartReader:
    """Walks a multipart body part by part without holding more than one chunk.

    read is a callable returning the next bytes of the body, b"" at its end.
    Part data is handed out in chunks; the delimiter is searched across chunk
    borders by keeping back the last len(delimiter) - 1 bytes of each chunk.
    """

    def __init__(self, read, boundary):
        self._read = read
        self._delimiter = b"\r\n--" + boundary
        # A leading CR LF lets the first delimiter, which has none, match like the others.
        self._buf = bytearray(b"\r\n")
        self._state = "preamble"  # preamble | part | between | done

    def _fill(self):
        data = self._read()
        if not data:
            return False
        self._buf += data
        return True

    def _need(self, n, what):
        while len(self._buf) < n:
            if not self._fill():
                raise MalformedBody(f"the body ends inside {what}")

    def _chunks(self):
        delim = self._delimiter
        keep = len(delim) - 1
        while True:
            i = self._buf.find(delim)
            if i >= 0:
                if i:
                    yield self._buf[:i]
                del self._buf[: i + len(delim)]
                self._state = "between"
                return
            if len(self._buf) > keep:
                cut = len(self._buf) - keep
                yield self._buf[:cut]
                del self._buf[:cut]
            if not self._fill():
                raise MalformedBody("the body ends before the closing boundary")

    def next_part(self):
        """Headers of the next part (lower-case names), or None after the closing delimiter."""
        if self._state == "done":
            return None
        if self._state in ("preamble", "part"):
            for _ in self._chunks():
                pass
        self._need(2, "a boundary line")
        if self._buf[:2] == b"--":
            del self._buf[:2]
            self._state = "done"
            return None
        while True:
            eol = self._buf.find(b"\r\n")
            if eol >= 0:
                break
            if len(self._buf) > 1024 or not self._fill():
                raise MalformedBody("a boundary line does not end in CR LF")
        if self._buf[:eol].strip(b" \t"):
            raise MalformedBody("unexpected bytes after a boundary")
        del self._buf[: eol + 2]
        headers = self._headers()
        self._state = "part"
        return headers

    def _headers(self):
        while True:
            if len(self._buf) >= 2 and self._buf[:2] == b"\r\n":
                del self._buf[:2]
                return {}
            end = self._buf.find(b"\r\n\r\n")
            if end >= 0:
                break
            if len(self._buf) > PART_HEADERS_MAX:
                raise MalformedBody("part headers too long")
            if not self._fill():
                raise MalformedBody("the body ends inside part headers")
        block = bytes(self._buf[:end]).decode("utf-8", "replace")
        del self._buf[: end + 4]
        headers = {}
        for line in block.split("\r\n"):
            name, sep, value = line.partition(":")
            if not sep or not name.strip():
                raise MalformedBody(f"bad part header line {line!r}")
            headers[name.strip().lower()] = value.strip()
        return headers

    def data(self):
        """Chunks of the current part's data (bytearray slices, valid until the next call)."""
        if self._state != "part":
            raise RuntimeError("no part is open")
        return self._chunks()

    def read_all(self, limit):
        out = bytearray()
        for chunk in self.data():
            out += chunk
            if len(out) > limit:
                raise MalformedBody(f"a part exceeds {limit} bytes")
        return bytes(out)

    def finish(self):
        """Reads past the epilogue; the body must already have reached its closing delimiter."""
        if self._state != "done":
            raise MalformedBody("the body ends before the closing boundary")
        self._buf.clear()
        while self._read():
            pass


_DISPOSITION_PARAM = re.compile(r';\s*([\w.*-]+)\s*=\s*(?:"([^"]*)"|([^;\s]*))')


def disposition_params(value):
    params = {}
    for m in _DISPOSITION_PARAM.finditer(value):
        params.setdefault(m.group(1).lower(), m.group(2) if m.group(2) is not None else m.group(3))
    return params


def multipart_boundary(content_type):
    """The boundary of a multipart Content-Type value as bytes, or None."""
    if not content_type:
        return None
    kind, _, rest = content_type.partition(";")
    if not kind.strip().lower().startswith("multipart/"):
        return None
    m = re.search(r'(?:^|;)\s*boundary\s*=\s*(?:"([^"]+)"|([^;\s]+))', rest, re.I)
    if not m:
        return None
    boundary = m.group(1) or m.group(2)
    if len(boundary) > 200:
        return None
    try:
        return boundary.encode("ascii")
    except UnicodeEncodeError:
        return None


# ---------------------------------------------------------------------------
# Server state


@dataclass(frozen=True)
class Session:
    token: str
    user: User
    site: Site


class Conflict(Exception):
    pass


class ServerState:
    def __init__(self, config, data_dir, quiet=False, io_timeout=120.0):
        self.config = config
        self.data_dir = data_dir
        self.quiet = quiet
        self.io_timeout = io_timeout
        self.digests = DigestCache()
        self._lock = threading.Lock()
        self._sessions = {}
        self._log_lock = threading.Lock()
        self.staging_dir = os.path.join(data_dir, STAGING_DIR)
        os.makedirs(self.staging_dir, exist_ok=True)

    def log(self, line):
        if not self.quiet:
            with self._log_lock:
                sys.stderr.write(line + "\n")
                sys.stderr.flush()

    def sign_in(self, name, password, content_url):
        user = self.config.users.get(name)
        site = self.config.sites_by_url.get(content_url)
        ok = user is not None and hmac.compare_digest(
            user.password.encode("utf-8", "surrogatepass"), password.encode("utf-8", "surrogatepass")
        )
        if not ok or site is None or (user.sites is not None and content_url not in user.sites):
            return None
        session = Session(secrets.token_urlsafe(24), user, site)
        with self._lock:
            self._sessions[session.token] = session
        return session

    def session(self, token):
        with self._lock:
            return self._sessions.get(token)

    def sign_out(self, token):
        with self._lock:
            return self._sessions.pop(token, None) is not None

    def commit(self, staging, site, project, name, overwrite, sha):
        """Moves a complete upload into place; returns True when it created a new data source."""
        target = extract_path(self.data_dir, site.id, project.name, name)
        # One lock so that two uploads of one name cannot both see it absent.
        with self._lock:
            os.makedirs(os.path.dirname(target), exist_ok=True)
            existed = os.path.exists(target)
            if existed and not overwrite:
                raise Conflict(target)
            os.replace(staging, target)
            self.digests.remember(target, os.stat(target), sha)
        return not existed

    def published(self, site=None):
        records = scan_published(self.data_dir, self.config, self.digests)
        return [r for r in records if site is None or r.site_id == site.id]


# ---------------------------------------------------------------------------
# HTTP


class Reply(Exception):
    """Ends request handling with an error document."""

    def __init__(self, status, summary, detail, log="", headers=None):
        super().__init__(detail)
        self.status, self.summary, self.detail, self.log = status, summary, detail, log
        self.headers = headers or {}


class StagedUpload:
    """The file part on its way to disk, under a temporary name until committed."""

    def __init__(self, staging_dir):
        self._dir = staging_dir
        self.path = None
        self.size = 0
        self.digest = hashlib.sha256()

    def receive(self, chunks):
        self.path = os.path.join(self._dir, uuid.uuid4().hex + ".part")
        with open(self.path, "xb") as out:
            for chunk in chunks:
                out.write(chunk)
                self.digest.update(chunk)
                self.size += len(chunk)

    def discard(self):
        if self.path is not None:
            try:
                os.unlink(self.path)
            except FileNotFoundError:
                pass
            self.path = None


_SITE = r"/api/2\.0/sites/([^/]+)"
ROUTES = [
    (re.compile(r"/api/2\.0/auth/signin"), {"POST": "sign_in"}),
    (re.compile(r"/api/2\.0/auth/signout"), {"POST": "sign_out"}),
    (re.compile(_SITE + r"/projects"), {"GET": "projects"}),
    (re.compile(_SITE + r"/datasources"), {"GET": "datasources", "POST": "publish"}),
    (re.compile(r"/__published"), {"GET": "published"}),
]


class ReferenceHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "OrvaneReferenceServer/1.0"
    sys_version = ""

    def setup(self):
        self.timeout = self.server.state.io_timeout
        super().setup()

    @property
    def state(self):
        return self.server.state

    # -- request framing ----------------------------------------------------

    def parse_request(self):
        self._continue_pending = False
        self._body = BodyStream(self.rfile, 0)
        self._framing_error = None
        if not super().parse_request():
            return False
        if self.headers.get("Transfer-Encoding"):
            self._framing_error = (411, "Length Required", "Bodies must be sent with a Content-Length.")
            self.close_connection = True
            return True
        length = self.headers.get("Content-Length")
        if length is not None:
            if not length.strip().isdigit():
                self._framing_error = (400, "Bad Request", f"Bad Content-Length {length!r}.")
                self.close_connection = True
                return True
            self._body = BodyStream(self.rfile, int(length))
        return True

    def handle_expect_100(self):
        # The interim answer is deferred until the request has been checked,
        # so that a refused upload is never sent.
        self._continue_pending = True
        return True

    def _send_continue(self):
        if self._continue_pending:
            self._continue_pending = False
            self.wfile.write(b"HTTP/1.1 100 Continue\r\n\r\n")

    def _read_small_body(self):
        if self._body.remaining > SMALL_BODY_MAX:
            raise Reply(413, "Payload Too Large", f"The body may hold at most {SMALL_BODY_MAX} bytes.")
        self._send_continue()
        data = bytearray()
        while self._body.remaining:
            data += self._body.read()
        return bytes(data)

    # -- replies and logging ------------------------------------------------

    def log_request(self, code="-", size="-"):
        pass  # every request is logged once, by _reply

    def log_message(self, format, *args):
        self.state.log(f"{self.client_address[0]} [{self.log_date_time_string()}] {format % args}")

    def _reply(self, status, body, content_type, note="", headers=None):
        # A client still waiting for 100 Continue has not sent its body: the
        # connection cannot be reused. Any other unread body is drained afterwards.
        if self._body.remaining and self._continue_pending:
            self.close_connection = True
        self.send_response(status)
        if status != 204:
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(len(body)))
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        if self.close_connection:
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)
        self.log_message('"%s" %d %d%s', self.requestline, status, len(body), f" {note}" if note else "")

    def _reply_xml(self, status, body, note=""):
        self._reply(status, body, "application/xml;charset=UTF-8", note)

    def _reply_error(self, status, summary, detail, note="", headers=None):
        body = error_document(status, summary, detail)
        self._reply(status, body, "application/xml;charset=UTF-8", note or detail, headers)

    # -- dispatch -----------------------------------------------------------

    def do_GET(self):
        self._dispatch()

    def do_POST(self):
        self._dispatch()

    do_PUT = do_DELETE = do_PATCH = do_POST

    def _dispatch(self):
        try:
            if self._framing_error:
                raise Reply(*self._framing_error)
            target = urllib.parse.urlsplit(self.path)
            for pattern, methods in ROUTES:
                m = pattern.fullmatch(target.path)
                if m:
                    break
            else:
                raise Reply(404, "Not Found", f"No resource at {target.path}.")
            handler = methods.get(self.command)
            if handler is None:
                allow = ", ".join(methods)
                raise Reply(405, "Method Not Allowed", f"{target.path} accepts {allow}.", headers={"Allow": allow})
            query = urllib.parse.parse_qs(target.query, keep_blank_values=True)
            getattr(self, "handle_" + handler)(query, *(urllib.parse.unquote(g) for g in m.groups()))
        except Reply as r:
            self._reply_error(r.status, r.summary, r.detail, r.log, r.headers)
        except UploadCut as e:
            self.close_connection = True
            self._body.remaining = 0
            try:
                self._reply_error(400, "Bad Request", "The request body ended early.", f"upload cut: {e}")
            except OSError:
                self.log_message('"%s" - upload cut: %s', self.requestline, e)
            return
        except (ConnectionError, TimeoutError) as e:
            self.close_connection = True
            self.log_message('"%s" - connection lost: %s', self.requestline, e)
            return
        except Exception:  # a fault of this server or of its disk, e.g. no space left
            self.log_message('"%s" failed:\n%s', self.requestline, traceback.format_exc().rstrip())
            try:
                self._reply_error(500, "Internal Server Error", "The reference server failed; see its log.")
            except OSError:
                self.close_connection = True
                return
            self._settle_body()
            self.close_connection = True
            return
        self._settle_body()

    def _settle_body(self):
        if self._body.remaining and not self.close_connection:
            try:
                self._body.drain()
            except UploadCut:
                self.close_connection = True

    # -- authentication -----------------------------------------------------

    def _session_for(self, site_id):
        token = (self.headers.get(AUTH_HEADER) or "").strip()
        session = self.state.session(token) if token else None
        if session is None:
            what = "unknown" if token else "missing"
            raise Reply(401, "Unauthorized", f"The {AUTH_HEADER} token is {what}; sign in first.")
        site = self.state.config.sites_by_id.get(site_id)
        if site is None:
            raise Reply(404, "Site Not Found", f'No site has the id "{site_id}".')
        if site is not session.site:
            raise Reply(403, "Forbidden", "The token was issued for another site.")
        return session

    def _paging(self, query):
        def number(key, default, low, high):
            values = query.get(key)
            if not values:
                return default
            text = values[-1].strip()
            if not text.isdigit() or not low <= int(text) <= high:
                raise Reply(400, "Bad Request", f"{key} must be a whole number from {low} to {high}.")
            return int(text)

        size = number("pageSize", DEFAULT_PAGE_SIZE, 1, MAX_PAGE_SIZE)
        page = number("pageNumber", 1, 1, 1 << 62)
        return page, size

    @staticmethod
    def _page(items, page, size):
        start = (page - 1) * size
        return items[start : start + size]

    # -- endpoints ----------------------------------------------------------

    def handle_sign_in(self, query):
        raw = self._read_small_body()
        try:
            doc = parse_lenient_xml(raw.decode("utf-8"))
        except (UnicodeDecodeError, ValueError) as e:
            raise Reply(400, "Bad Request", f"The sign-in document cannot be read: {e}.") from None
        credentials = doc.child("credentials") if doc.name == "qsRequest" else None
        if credentials is None or "name" not in credentials.attrs or "password" not in credentials.attrs:
            raise Reply(400, "Bad Request", "Expected qsRequest/credentials with name and password.")
        site = credentials.child("site")
        content_url = site.attrs.get("contentUrl", "") if site is not None else ""
        name = credentials.attrs["name"]
        session = self.state.sign_in(name, credentials.attrs["password"], content_url)
        if session is None:
            raise Reply(
                401, "Signin Error", "Wrong user name, password or site.", f'sign-in refused for "{name}"'
            )
        inner = element(
            "credentials",
            {"token": session.token},
            element("site", {"id": session.site.id, "contentUrl": session.site.content_url})
            + element("user", {"id": session.user.id}),
        )
        self._reply_xml(200, document(inner), f'user "{name}" site "{content_url}"')

    def handle_sign_out(self, query):
        self._read_small_body()
        token = (self.headers.get(AUTH_HEADER) or "").strip()
        if not token or not self.state.sign_out(token):
            raise Reply(401, "Unauthorized", f"The {AUTH_HEADER} token is missing or unknown.")
        self._reply(204, b"", "text/plain")

    def handle_projects(self, query, site_id):
        session = self._session_for(site_id)
        page, size = self._paging(query)
        projects = session.site.projects
        items = "".join(element("project", {"id": p.id, "name": p.name}) for p in self._page(projects, page, size))
        pagination = {"pageNumber": page, "pageSize": size, "totalAvailable": len(projects)}
        # An empty page still carries the (empty) projects element the library looks for.
        body = document(element("pagination", pagination) + f"<projects>{items}</projects>")
        self._reply_xml(200, body)

    def handle_datasources(self, query, site_id):
        session = self._session_for(site_id)
        page, size = self._paging(query)
        records = self.state.published(session.site)
        items = "".join(
            element(
                "datasource",
                {
                    "id": _derived_id("datasource", r.site_id, r.project_name, r.name),
                    "name": r.name,
                    "size": r.size,
                    "sha256": r.sha256,
                    "updatedAt": _iso(r.modified),
                },
                element("project", {"id": r.project_id, "name": r.project_name}),
            )
            for r in self._page(records, page, size)
        )
        pagination = {"pageNumber": page, "pageSize": size, "totalAvailable": len(records)}
        self._reply_xml(200, document(element("pagination", pagination) + f"<datasources>{items}</datasources>"))

    def handle_published(self, query):
        records = self.state.published()
        if query.get("format", [""])[-1] == "json":
            self._reply(200, (json.dumps(listing_json(records), indent=1) + "\n").encode(), "application/json")
        else:
            self._reply(200, listing_text(records).encode("utf-8", "surrogateescape"), "text/plain;charset=UTF-8")

    def handle_publish(self, query, site_id):
        session = self._session_for(site_id)
        overwrite = any(v.strip().lower() == "true" for v in query.get("overwrite", []))
        boundary = multipart_boundary(self.headers.get("Content-Type"))
        if boundary is None:
            raise Reply(400, "Bad Request", "Expected a multipart Content-Type with a boundary.")
        if self.headers.get("Content-Length") is None:
            raise Reply(411, "Length Required", "The upload must be sent with a Content-Length.")
        self._send_continue()

        upload = StagedUpload(self.state.staging_dir)
        try:
            project, name = self._receive(session, MultipartReader(self._body.read, boundary), overwrite, upload)
            try:
                created = self.state.commit(upload.path, session.site, project, name, overwrite,
                                            upload.digest.hexdigest())
            except Conflict:
                raise self._conflict(project, name) from None
            upload.path = None
        except Reply:
            # The client sends the whole body after 100 Continue; read it so the answer reaches it.
            self._body.drain()
            raise
        finally:
            upload.discard()

        inner = element(
            "datasource",
            {
                "id": _derived_id("datasource", session.site.id, project.name, name),
                "name": name,
                "type": EXTRACT_SUFFIX[1:],
                "size": upload.size,
                "sha256": upload.digest.hexdigest(),
            },
            element("project", {"id": project.id, "name": project.name})
            + element("owner", {"id": session.user.id})
            + "<tags/>",
        )
        verb = "created" if created else "replaced"
        self._reply_xml(201, document(inner), f'{verb} "{project.name}"/"{name}" ({upload.size} bytes)')

    def _receive(self, session, reader, overwrite, upload):
        """Reads the multipart body to its end; returns (project, data source name)."""
        target = refusal = None
        file_seen = False
        try:
            while (headers := reader.next_part()) is not None:
                part = disposition_params(headers.get("content-disposition", "")).get("name")
                if part == PAYLOAD_PART:
                    if target is not None:
                        raise MalformedBody(f'more than one "{PAYLOAD_PART}" part')
                    target, refusal = self._publish_target(session, reader.read_all(PAYLOAD_MAX), overwrite)
                elif part == FILE_PART:
                    if file_seen:
                        raise MalformedBody(f'more than one "{FILE_PART}" part')
                    file_seen = True
                    if refusal is None:
                        upload.receive(reader.data())
                    else:
                        for _ in reader.data():
                            pass
            reader.finish()
        except MalformedBody as e:
            raise Reply(400, "Bad Request", f"Malformed multipart body: {e}.") from None
        if target is None:
            raise Reply(400, "Bad Request", f'The upload has no "{PAYLOAD_PART}" part.')
        if not file_seen:
            raise Reply(400, "Bad Request", f'The upload has no "{FILE_PART}" part.')
        if refusal is not None:
            raise refusal
        return target

    def _publish_target(self, session, payload, overwrite):
        """(project, name) of the upload and the refusal to give once the body is read, if any."""
        try:
            doc = parse_lenient_xml(payload.decode("utf-8"))
        except (UnicodeDecodeError, ValueError) as e:
            raise Reply(400, "Bad Request", f"The request payload cannot be read: {e}.") from None
        datasource = doc.child("datasource") if doc.name == "qsRequest" else None
        project_elem = datasource.child("project") if datasource is not None else None
        if project_elem is None or "name" not in datasource.attrs or "id" not in project_elem.attrs:
            raise Reply(400, "Bad Request", "Expected qsRequest/datasource[@name]/project[@id].")
        name = datasource.attrs["name"]
        if not name_fits(name):
            raise Reply(400, "Bad Request", "The data source name is empty or too long.")
        project = session.site.projects_by_id.get(project_elem.attrs["id"])
        if project is None:
            return (None, name), Reply(404, "Project Not Found", f'No project has the id "{project_elem.attrs["id"]}".')
        if not name_fits(project.name):
            return (project, name), Reply(400, "Bad Request", "The project name is too long to be stored.")
        exists = os.path.exists(extract_path(self.state.data_dir, session.site.id, project.name, name))
        # Checked again when the upload is moved into place; this early answer only saves the disk writes.
        return (project, name), (self._conflict(project, name) if exists and not overwrite else None)

    @staticmethod
    def _conflict(project, name):
        return Reply(
            409, "Resource Conflict", f'A data source named "{name}" already exists in project "{project.name}".'
        )


class ReferenceServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    # Many clients connect in bursts (one session per publishing thread); the
    # default backlog of 5 would reset the rest.
    request_queue_size = 128

    def __init__(self, host, port, state):
        self.address_family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.state = state
        super().__init__((host, port), ReferenceHandler)

    def server_bind(self):
        # The stdlib version resolves the host name, which can stall without DNS.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]


# ---------------------------------------------------------------------------
# Command line


def parse_args(argv):
    p = argparse.ArgumentParser(
        prog="orvane-reference-server",
        description="Reference data-publishing server for libOrvaneServer (REST interface /api/2.0).",
        epilog=HELP_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    p.add_argument("--host", default="127.0.0.1", help="address to bind (default 127.0.0.1)")
    p.add_argument("--port", type=int, default=8080, help="port to bind, 0 for an ephemeral one (default 8080)")
    p.add_argument("--port-file", metavar="PATH", help="write the bound port number to PATH once listening")
    p.add_argument("--config", metavar="JSON", help="users, sites and projects (default: built in, see below)")
    p.add_argument(
        "--data-dir", metavar="DIR", help="where published extracts are stored (default: a new temporary directory, "
        "removed on exit)"
    )
    p.add_argument("--timeout", type=float, default=120.0, metavar="SECONDS",
                   help="drop a connection that stays silent this long (default 120)")
    p.add_argument("--quiet", action="store_true", help="do not log requests")
    p.add_argument("--list", action="store_true", help="print what is stored in --data-dir and exit")
    p.add_argument("--json", action="store_true", help="with --list: print JSON instead of tab-separated lines")
    p.add_argument("--print-config", action="store_true", help="print the effective configuration as JSON and exit")
    args = p.parse_args(argv)
    if args.list and not args.data_dir:
        p.error("--list needs --data-dir")
    if not 0 <= args.port <= 65535:
        p.error("--port must be from 0 to 65535")
    if args.timeout <= 0:
        p.error("--timeout must be positive")
    return args


def _write_port_file(path, port):
    tmp = path + ".tmp"
    with open(tmp, "w") as f:
        f.write(f"{port}\n")
    os.replace(tmp, path)  # readers never see a partial number


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    try:
        config = load_config(args.config)
    except ConfigError as e:
        print(f"orvane-reference-server: {e}", file=sys.stderr)
        return 2

    if args.print_config or args.list:
        try:
            if args.print_config:
                print(json.dumps(config_as_json(config), indent=1))
            elif args.json:
                print(json.dumps(listing_json(scan_published(args.data_dir, config)), indent=1))
            else:
                text = listing_text(scan_published(args.data_dir, config))
                sys.stdout.buffer.write(text.encode("utf-8", "surrogateescape"))
            sys.stdout.flush()
        except BrokenPipeError:
            # The reader went away early (| head); keep the interpreter from complaining at exit.
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0

    owned_dir = None
    if args.data_dir:
        data_dir = os.path.abspath(args.data_dir)
    else:
        data_dir = owned_dir = tempfile.mkdtemp(prefix="orvane-reference-")
    try:
        state = ServerState(config, data_dir, args.quiet, args.timeout)
        server = ReferenceServer(args.host, args.port, state)
    except OSError as e:
        print(f"orvane-reference-server: cannot start on {args.host}:{args.port}: {e}", file=sys.stderr)
        if owned_dir:
            shutil.rmtree(owned_dir, ignore_errors=True)
        return 1

    port = server.server_address[1]
    host = f"[{args.host}]" if ":" in args.host else args.host
    print(f"orvane-reference-server: listening on http://{host}:{port}", flush=True)
    print(f"orvane-reference-server: data directory {data_dir}" + (" (removed on exit)" if owned_dir else ""),
          flush=True)
    if args.config is None:
        print(f'orvane-reference-server: sign in as "{DEFAULT_USER}" / "{DEFAULT_PASSWORD}" on the default site',
              flush=True)

    stopping = threading.Event()

    def stop(signum, frame):
        if not stopping.is_set():
            stopping.set()
            # shutdown() waits for serve_forever, which runs on this very thread.
            threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    if args.port_file:
        _write_port_file(args.port_file, port)
    try:
        server.serve_forever(poll_interval=0.05)
    finally:
        server.server_close()
        if args.port_file:
            try:
                os.unlink(args.port_file)
            except FileNotFoundError:
                pass
        if owned_dir:
            shutil.rmtree(owned_dir, ignore_errors=True)
    print("orvane-reference-server: stopped", flush=True)
    return 0
