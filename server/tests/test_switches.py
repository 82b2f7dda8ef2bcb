"""Answers end with the server closing the connection, and the switches that
make kelvara-local behave like less friendly servers do what they say."""

import os
import time
import unittest
import xml.etree.ElementTree as ET

from kltest import BOUNDARY, Server, basic, read_to_eof


def timed_exchange(server, request):
    """Returns (raw answer, seconds until the server closed the connection)."""
    sock = server.connect()
    try:
        start = time.monotonic()
        sock.sendall(request)
        raw = read_to_eof(sock)
        return raw, time.monotonic() - start
    finally:
        sock.close()


def get_request(path, auth=True):
    lines = [f"GET {path} HTTP/1.1", "Host: 127.0.0.1", "Connection: close"]
    if auth:
        lines.append("Authorization: " + basic("demo", "demo"))
    return ("\r\n".join(lines) + "\r\n\r\n").encode()


class DefaultModeTest(unittest.TestCase):
    def test_connection_closes_after_each_answer(self):
        with Server() as server:
            for path, auth in [("/api/account.xml", True), ("/api/user", True), ("/", True),
                               ("/api/user", False), ("/missing", True)]:
                with self.subTest(path=path, auth=auth):
                    raw, seconds = timed_exchange(server, get_request(path, auth))
                    # Closed at once, not after the 5 s keep-alive timeout.
                    self.assertLess(seconds, 2.0)
                    head = raw.partition(b"\r\n\r\n")[0].lower()
                    self.assertIn(b"content-length:", head)
                    self.assertNotIn(b"transfer-encoding", head)
                    self.assertIn(b"connection: close", head)


class ChunkedTest(unittest.TestCase):
    def test_answers_are_chunked(self):
        with Server("--chunked") as server:
            for path, status in [("/api/account.xml", 200), ("/", 200), ("/branding/demo/logo.png", 200),
                                 ("/missing", 404)]:
                with self.subTest(path=path):
                    resp = server.request("GET", path)
                    self.assertEqual(resp.status, status)
                    self.assertEqual(resp.header("Transfer-Encoding"), "chunked")
                    self.assertIsNone(resp.header("Content-Length"))
                    self.assertTrue(resp.chunks)
            # Bigger answers come in several chunks and reassemble intact.
            logo = server.request("GET", "/branding/demo/logo.png")
            self.assertGreater(len(logo.chunks), 2)
            self.assertTrue(logo.body.startswith(b"\x89PNG\r\n\x1a\n"))
            self.assertTrue(logo.body.endswith(b"IEND\xaeB`\x82"))

            unauthorized = server.request("GET", "/api/user", auth=None)
            self.assertEqual(unauthorized.status, 401)
            self.assertEqual(unauthorized.header("Transfer-Encoding"), "chunked")

            resp = server.upload("chunky.txt", b"hello")
            self.assertEqual(resp.status, 201)
            self.assertEqual(resp.header("Transfer-Encoding"), "chunked")
            self.assertEqual(ET.fromstring(resp.body).findtext("name"), "chunky.txt")

            # curl decodes the chunks to the same document.
            out = server.curl(path="/api/user")
            self.assertEqual(ET.fromstring(out.stdout).findtext("first-name"), "Dana")


class RedirectTest(unittest.TestCase):
    TARGET = "https://127.0.0.1:1/elsewhere"

    def test_everything_is_redirected(self):
        with Server("--redirect-to", self.TARGET + "/") as server:
            for path in ["/api/account.xml", "/api/user?x=1&y=%20", "/"]:
                with self.subTest(path=path):
                    resp = server.request("GET", path, auth=None)
                    self.assertEqual(resp.status, 302)
                    self.assertEqual(resp.header("Location"), self.TARGET + path)
            # Uploads are redirected too, after their body has been read, and
            # nothing is stored.
            resp = server.upload("x.bin", os.urandom(300000))
            self.assertEqual(resp.status, 302)
            self.assertEqual(resp.header("Location"), self.TARGET + "/api/assets")
            self.assertEqual(server.files(), [])
            # curl sees the redirect and, not told to follow it, stops there.
            out = server.curl("-o", "/dev/null", "-w", "%{http_code} %{redirect_url}", path="/api/user")
            self.assertEqual(out.stdout.decode(), "302 " + self.TARGET + "/api/user")


class DelayTest(unittest.TestCase):
    def test_answers_wait(self):
        with Server("--delay-ms", "400") as server:
            for request in [get_request("/api/user"), get_request("/api/user", auth=False)]:
                raw, seconds = timed_exchange(server, request)
                self.assertTrue(raw.startswith(b"HTTP/1.1 "))
                self.assertGreaterEqual(seconds, 0.4)
                self.assertLess(seconds, 3.0)
            body = (b"--" + BOUNDARY + b'\r\nContent-Disposition: form-data; name="file"; filename="d"\r\n\r\n'
                    b"x\r\n--" + BOUNDARY + b"--\r\n")
            start = time.monotonic()
            resp = server.request("POST", "/api/assets", body,
                                  {"Content-Type": "multipart/form-data; boundary=" + BOUNDARY.decode()})
            self.assertEqual(resp.status, 201)
            self.assertGreaterEqual(time.monotonic() - start, 0.4)


if __name__ == "__main__":
    unittest.main()
