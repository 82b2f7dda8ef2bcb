"""Helpers for the kelvara-local tests: a server on a free port with its own data folder. Standard library only."""

import base64, os, re, shutil, signal, socket, subprocess, tempfile, time
import xml.etree.ElementTree as ET
from pathlib import Path

BINARY = os.environ.get("KELVARA_LOCAL", "kelvara-local")
CURL = os.environ.get("KELVARA_CURL", "curl")
OPENSSL = os.environ.get("KELVARA_OPENSSL", "openssl")
BOUNDARY = b"0xKhTmLbOuNdArY"
MULTIPART = "multipart/form-data; boundary=" + BOUNDARY.decode()
MiB = 1024 * 1024
DEMO = ("demo", "demo")
XML = '<?xml version="1.0" encoding="UTF-8"?>\n'


def account_xml(space, user=None, title=None, colours=("#FFFFFF", "#3A6EA5", "#1F3F66")):
    """The account document; user and title only for a branded account."""
    branding = "" if user is None else (
        f"<branding/><branding_info><title>{title}</title><logo>/branding/{user}/logo.png</logo><background_image>"
        f"/branding/{user}/background.png</background_image><font_color>{colours[0]}</font_color><top_color>"
        f"{colours[1]}</top_color><bottom_color>{colours[2]}</bottom_color></branding_info>")
    return f'{XML}<account><stats available_space="{space}"/>{branding}</account>\n'.encode()


def user_xml(first, last):
    return f"{XML}<user><first-name>{first}</first-name><last-name>{last}</last-name></user>\n".encode()


def basic(user, password):
    return "Basic " + base64.b64encode(f"{user}:{password}".encode()).decode()


def ensure(condition, message):
    if not condition:
        raise AssertionError(message)


def wait_for(condition, what, timeout=10.0):
    deadline = time.monotonic() + timeout
    while not condition():
        ensure(time.monotonic() < deadline, "timed out waiting for " + what)
        time.sleep(0.02)


def part(headers, content=b"data", boundary=BOUNDARY):
    return b"--%s\r\n%s\r\n\r\n%s\r\n" % (boundary, headers, content)


def hoplift_body(name, content, boundary=BOUNDARY):
    """One file as Hoplift sends it: the name raw between quotes."""
    return part(b'Content-Disposition: form-data; name="file"; filename="%s"\r\nContent-Type: '
                b"application/octet-stream" % name, content, boundary) + b"--%s--\r\n" % boundary


def raw_request(method, path, body=b"", headers=None, auth=DEMO):
    """A request as Hoplift sends it; a header given as None is left out."""
    fields = {"Host": "127.0.0.1", "Connection": "close",
              "Content-Length": str(len(body)) if body or method == "POST" else None,
              "Authorization": basic(*auth) if auth else None, **(headers or {})}
    head = f"{method} {path} HTTP/1.1\r\n" + "".join(f"{k}: {v}\r\n" for k, v in fields.items() if v is not None)
    return head.encode() + b"\r\n" + body


def raw_upload(body, content_type=MULTIPART, auth=DEMO):
    return raw_request("POST", "/api/assets", body, {"Content-Type": content_type}, auth)


class Response:
    """One HTTP/1.1 answer, parsed strictly: its framing must match exactly."""

    def __init__(self, raw):
        head, sep, rest = raw.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        m = re.fullmatch(r"HTTP/1\.1 (\d{3}) .*", lines[0])
        ensure(sep and m, f"not an answer: {raw[:200]!r}")
        self.status, self.chunks, self.body = int(m.group(1)), [], rest
        self.headers = {k.strip().lower(): v.strip() for k, v in (line.split(":", 1) for line in lines[1:])}
        length, encoding = self.headers.get("content-length"), self.headers.get("transfer-encoding")
        if encoding is None:
            ensure(length is not None and int(length) == len(rest), f"Content-Length {length}, {len(rest)} bytes")
            return
        ensure(encoding == "chunked" and length is None, f"bad framing {self.headers}")
        self.body = b""
        while (size := int(rest.partition(b"\r\n")[0], 16)) > 0:
            rest = rest.partition(b"\r\n")[2]
            ensure(rest[size:size + 2] == b"\r\n", "chunk not followed by CRLF")
            self.chunks.append(size)
            self.body, rest = self.body + rest[:size], rest[size + 2:]
        ensure(rest == b"0\r\n\r\n", f"junk after the last chunk: {rest[:100]!r}")

    def xml(self):
        return ET.fromstring(self.body)


class Server:
    """One kelvara-local process as a context manager; an argument may be a function of the server, prepare(server)
    runs before the start. Leaving stops it with SIGTERM, which must succeed."""

    def __init__(self, *args, accounts=None, prepare=None):
        self.args, self.accounts, self.prepare = args, accounts, prepare

    def __enter__(self):
        self.tmp = tempfile.mkdtemp(prefix="kelvara-test-")
        self.data = os.path.join(self.tmp, "data")
        if self.prepare:
            self.prepare(self)
        accounts = ["--accounts", self.write("accounts.ini", self.accounts.encode())] if self.accounts else []
        with open(os.path.join(self.tmp, "stderr.log"), "wb") as stderr:
            self.proc = subprocess.Popen([BINARY, "--port", "0", "--data", self.data, *accounts] +
                                         [a(self) if callable(a) else a for a in self.args],
                                         stdout=subprocess.PIPE, stderr=stderr)
        line = self.proc.stdout.readline()
        if not re.fullmatch(rb"listening on https?://127\.0\.0\.1:\d+\n", line):
            error = AssertionError(f"first line {line!r}, stderr: {self.stderr()}")
            self.__exit__(error)
            raise error
        self.base = line[len("listening on "):].strip().decode()
        self.port = int(self.base.rsplit(":", 1)[1])
        return self

    def __exit__(self, failing=None, *rest):
        try:
            if not failing and self.proc.poll() is None:
                code = self.stop()[0]
                ensure(code == 0, f"exit code {code} on SIGTERM: {self.stderr()[-2000:]}")
        finally:
            self.proc.kill()  # only if it still runs
            self.proc.wait()
            self.proc.stdout.close()
            shutil.rmtree(self.tmp, ignore_errors=True)

    def stop(self, sig=signal.SIGTERM):
        """Sends sig; returns (exit code, seconds until the process ended)."""
        start = time.monotonic()
        self.proc.send_signal(sig)
        return self.proc.wait(10), time.monotonic() - start

    def stderr(self):
        return Path(self.tmp, "stderr.log").read_bytes().decode(errors="replace")

    def peak_kib(self):  # peak resident memory (VmHWM)
        return int(re.search(r"^VmHWM:\s*(\d+)", Path(f"/proc/{self.proc.pid}/status").read_text(), re.M)[1])

    def write(self, name, content):
        Path(self.tmp, name).write_bytes(content)
        return os.path.join(self.tmp, name)

    def files(self, user="demo"):  # hidden ones included
        return sorted(os.listdir(os.path.join(self.data, user)))

    def read_asset(self, name, user="demo"):
        return Path(self.data, user, name).read_bytes()

    def curl(self, *args, path="/"):
        return subprocess.run([CURL, "-sS", "--max-time", "60", "-u", "demo:demo", *args, self.base + path],
                              capture_output=True, timeout=70)

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=20)

    def exchange(self, raw):
        """Sends raw bytes and reads the answer until the server closes."""
        with self.connect() as sock, sock.makefile("rb") as answer:
            sock.sendall(raw)
            return Response(answer.read())

    def request(self, method, path, body=b"", headers=None, auth=DEMO):
        return self.exchange(raw_request(method, path, body, headers, auth))

    def upload(self, name, content, auth=DEMO):
        return self.exchange(raw_upload(hoplift_body(name, content), auth=auth))

    def start_upload(self):
        """Sends half of an 8 MiB upload; returns the connection once the server is storing it."""
        sock = self.connect()
        sock.sendall(raw_upload(hoplift_body(b"half", os.urandom(8 * MiB)))[:4 * MiB])
        wait_for(lambda: any(n.startswith(".upload-") for n in self.files()), "the upload to start")
        return sock

    def available(self, auth=DEMO):
        resp = self.request("GET", "/api/account.xml", auth=auth)
        ensure(resp.status == 200, f"account document: {resp.status}")
        return int(resp.xml().find("stats").get("available_space"))
