"""Helpers for the kelvara-local tests: start a server on a free port with
its own data folder, talk to it with curl or Python's standard library, and
look at what it stored. Only the standard library is used."""

import base64
import hashlib
import os
import re
import select
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import time

BINARY = os.environ.get("KELVARA_LOCAL", "kelvara-local")
CURL = os.environ.get("KELVARA_CURL", "curl")
OPENSSL = os.environ.get("KELVARA_OPENSSL", "openssl")
BOUNDARY = b"0xKhTmLbOuNdArY"
MiB = 1024 * 1024


def basic(user, password):
    token = base64.b64encode(f"{user}:{password}".encode()).decode()
    return "Basic " + token


def wait_for(condition, timeout=10.0, interval=0.02, what="condition"):
    """Polls condition() until it is true; fails after timeout seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(interval)


class Server:
    """One kelvara-local process. Use as a context manager."""

    def __init__(self, *args, accounts=None, prepare=None):
        self.args = list(args)
        self.accounts = accounts
        self.prepare = prepare
        self.proc = None

    def __enter__(self):
        self.tmp = tempfile.mkdtemp(prefix="kelvara-test-")
        self.data = os.path.join(self.tmp, "data")
        if self.prepare:
            self.prepare(self)
        # An argument may be a function of the server, for paths in its folder.
        cmd = [BINARY, "--port", "0", "--data", self.data] + [a(self) if callable(a) else a for a in self.args]
        if self.accounts is not None:
            path = os.path.join(self.tmp, "accounts.ini")
            with open(path, "w", encoding="utf-8") as f:
                f.write(self.accounts)
            cmd += ["--accounts", path]
        self.stderr_path = os.path.join(self.tmp, "stderr.log")
        self.stderr_file = open(self.stderr_path, "wb")
        self.proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=self.stderr_file)
        line = self._read_line(10.0)
        m = re.fullmatch(r"listening on (https?)://127\.0\.0\.1:(\d+)\n", line)
        if not m:
            self.kill()
            self.proc.stdout.close()
            self.stderr_file.close()
            raise AssertionError(f"unexpected first line {line!r}; stderr: {self.stderr()}")
        self.scheme, self.port = m.group(1), int(m.group(2))
        self.base = f"{self.scheme}://127.0.0.1:{self.port}"
        return self

    def _read_line(self, timeout):
        deadline = time.monotonic() + timeout
        out = b""
        fd = self.proc.stdout.fileno()
        while not out.endswith(b"\n"):
            remaining = deadline - time.monotonic()
            if remaining <= 0 or not select.select([fd], [], [], remaining)[0]:
                break
            chunk = os.read(fd, 1)
            if not chunk:
                break
            out += chunk
        return out.decode(errors="replace")

    def __exit__(self, *exc):
        if self.proc and self.proc.poll() is None:
            self.stop()
        if self.proc:
            self.proc.stdout.close()
        self.stderr_file.close()
        shutil.rmtree(self.tmp, ignore_errors=True)

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait(10)

    def stop(self, sig=signal.SIGTERM, timeout=10.0):
        """Sends sig and returns (exit code, seconds it took)."""
        start = time.monotonic()
        self.proc.send_signal(sig)
        try:
            code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError("server did not stop")
        return code, time.monotonic() - start

    def stderr(self):
        with open(self.stderr_path, "rb") as f:
            return f.read().decode(errors="replace")

    def proc_status(self, key):
        """A /proc/PID/status value in KiB, e.g. VmHWM (peak resident memory)."""
        with open(f"/proc/{self.proc.pid}/status") as f:
            for line in f:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
        raise KeyError(key)

    def account_dir(self, user="demo"):
        return os.path.join(self.data, user)

    def files(self, user="demo"):
        """Every entry of the account folder, hidden ones included."""
        return sorted(os.listdir(self.account_dir(user)))

    def read_asset(self, name, user="demo"):
        with open(os.path.join(self.account_dir(user), name), "rb") as f:
            return f.read()

    def curl(self, *args, user="demo", password="demo", path="/", timeout=60):
        """Runs curl against this server; returns the CompletedProcess."""
        cmd = [CURL, "-sS", "--max-time", str(timeout)]
        if user is not None:
            cmd += ["-u", f"{user}:{password}"]
        cmd += list(args) + [self.base + path]
        return subprocess.run(cmd, capture_output=True, timeout=timeout + 10)

    def connect(self, timeout=20.0):
        sock = socket.create_connection(("127.0.0.1", self.port), timeout=timeout)
        if self.scheme == "https":
            ctx = ssl.create_default_context()
            ctx.check_hostname = False
            ctx.verify_mode = ssl.CERT_NONE
            sock = ctx.wrap_socket(sock)
        return sock

    def exchange(self, request, timeout=20.0, head=False):
        """Sends raw bytes, reads until the server closes; returns a Response."""
        sock = self.connect(timeout)
        try:
            sock.sendall(request)
            return Response.parse(read_to_eof(sock), head)
        finally:
            sock.close()

    def request(self, method, path, body=b"", headers=None, auth=("demo", "demo")):
        """A complete request with Connection: close, the way Hoplift sends them."""
        head = [f"{method} {path} HTTP/1.1", "Host: 127.0.0.1", "Connection: close"]
        if auth is not None:
            head.append("Authorization: " + basic(*auth))
        for k, v in (headers or {}).items():
            head.append(f"{k}: {v}")
        if body or method in ("POST", "PUT"):
            head.append(f"Content-Length: {len(body)}")
        return self.exchange("\r\n".join(head).encode() + b"\r\n\r\n" + body, head=method == "HEAD")

    def upload(self, name, content, auth=("demo", "demo")):
        """Uploads exactly as Hoplift does: fixed boundary, raw file name."""
        return self.request("POST", "/api/assets", hoplift_body(name, content),
                            {"Content-Type": "multipart/form-data; boundary=" + BOUNDARY.decode()},
                            auth=auth)


def hoplift_body(name, content):
    if isinstance(name, str):
        name = name.encode()
    return (b"--" + BOUNDARY + b'\r\nContent-Disposition: form-data; name="file"; filename="' + name +
            b'"\r\nContent-Type: application/octet-stream\r\n\r\n' + content + b"\r\n--" + BOUNDARY +
            b"--\r\n")


def read_response(sock):
    """Reads one Content-Length framed response without waiting for the
    connection to close."""
    data = b""
    while True:
        head, sep, rest = data.partition(b"\r\n\r\n")
        if sep:
            m = re.search(rb"(?im)^content-length:\s*(\d+)\r?$", head)
            if m and len(rest) >= int(m.group(1)):
                return Response.parse(data)
        chunk = sock.recv(65536)
        if not chunk:
            return Response.parse(data)
        data += chunk


def read_to_eof(sock):
    chunks = []
    while True:
        data = sock.recv(65536)
        if not data:
            return b"".join(chunks)
        chunks.append(data)


class Response:
    def __init__(self, status, headers, body, chunks):
        self.status, self.headers, self.body, self.chunks = status, headers, body, chunks

    def header(self, name):
        values = [v for k, v in self.headers if k.lower() == name.lower()]
        return values[0] if values else None

    def text(self):
        return self.body.decode("utf-8")

    @staticmethod
    def parse(raw, head_request=False):
        """Parses one HTTP/1.1 response strictly: framing must match exactly."""
        head, sep, rest = raw.partition(b"\r\n\r\n")
        if not sep:
            raise AssertionError(f"no complete response head in {raw[:200]!r}")
        lines = head.decode("latin-1").split("\r\n")
        m = re.fullmatch(r"HTTP/1\.1 (\d{3}) .*", lines[0])
        if not m:
            raise AssertionError(f"bad status line {lines[0]!r}")
        headers = [tuple(x.strip() for x in line.split(":", 1)) for line in lines[1:]]
        resp = Response(int(m.group(1)), headers, b"", None)
        te, cl = resp.header("Transfer-Encoding"), resp.header("Content-Length")
        if head_request:
            if rest:
                raise AssertionError("body in an answer to HEAD")
        elif te is not None:
            if te.lower() != "chunked" or cl is not None:
                raise AssertionError(f"bad framing headers {headers}")
            body, chunks = b"", []
            while True:
                size_line, sep, rest = rest.partition(b"\r\n")
                size = int(size_line.split(b";")[0], 16)
                if size == 0:
                    if rest != b"\r\n":
                        raise AssertionError(f"junk after last chunk: {rest[:100]!r}")
                    break
                chunks.append(size)
                if rest[size:size + 2] != b"\r\n":
                    raise AssertionError("chunk not followed by CRLF")
                body += rest[:size]
                rest = rest[size + 2:]
            resp.body, resp.chunks = body, chunks
        else:
            if cl is None or int(cl) != len(rest):
                raise AssertionError(f"Content-Length {cl} but {len(rest)} body bytes")
            resp.body = rest
        return resp


def sha256_file(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(MiB), b""):
            h.update(block)
    return h.hexdigest()


def random_file(path, size):
    """Writes size random bytes to path; returns their sha256."""
    h = hashlib.sha256()
    with open(path, "wb") as f:
        left = size
        while left:
            block = os.urandom(min(left, 4 * MiB))
            h.update(block)
            f.write(block)
            left -= len(block)
    return h.hexdigest()
