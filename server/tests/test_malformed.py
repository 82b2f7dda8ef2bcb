"""Broken upload bodies get a clear 400 and leave nothing behind; so do
connections that drop in the middle of a body."""

import os
import socket
import unittest
import xml.etree.ElementTree as ET

from kltest import (BOUNDARY, MiB, Response, Server, basic, hoplift_body, read_response, read_to_eof,
                    wait_for)

MULTIPART = "multipart/form-data; boundary=" + BOUNDARY.decode()
B = BOUNDARY


def part(headers, content):
    return b"--" + B + b"\r\n" + headers + b"\r\n\r\n" + content + b"\r\n"


FILE_HEADERS = b'Content-Disposition: form-data; name="file"; filename="x.bin"'

BROKEN_BODIES = {
    "boundary in the body differs": (MULTIPART, hoplift_body("x.bin", b"data").replace(B, b"0xOtHeR")),
    "no boundary parameter": ("multipart/form-data", hoplift_body("x.bin", b"data")),
    "empty boundary parameter": ('multipart/form-data; boundary=""', hoplift_body("x.bin", b"data")),
    "not multipart": ("application/octet-stream", b"raw bytes"),
    "no Content-Type": (None, hoplift_body("x.bin", b"data")),
    "no part named file": (MULTIPART, part(b'Content-Disposition: form-data; name="comment"', b"hi") +
                           b"--" + B + b"--\r\n"),
    "part without Content-Disposition": (MULTIPART, part(b"Content-Type: text/plain", b"hi") + b"--" + B +
                                         b"--\r\n"),
    "header line without colon": (MULTIPART, part(b"Content-Disposition form-data", b"hi") + b"--" + B +
                                  b"--\r\n"),
    "closing delimiter missing": (MULTIPART, part(FILE_HEADERS, b"data")),
    "cut inside the file data": (MULTIPART, part(FILE_HEADERS, b"data")[:-10]),
    "cut inside the part headers": (MULTIPART, b"--" + B + b"\r\nContent-Disposition: form-da"),
    "empty body": (MULTIPART, b""),
    "junk after a delimiter": (MULTIPART, part(FILE_HEADERS, b"data")[:-2] + b"--" + B + b"junk\r\n"),
    "overlong part header": (MULTIPART, part(FILE_HEADERS + b"\r\nX-Long: " + b"l" * 20000, b"data") +
                             b"--" + B + b"--\r\n"),
}


class MalformedTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server().__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.server.__exit__(None, None, None)

    def assert_nothing_stored(self):
        self.assertEqual(self.server.files(), [])
        root = ET.fromstring(self.server.request("GET", "/api/account.xml").body)
        self.assertEqual(root.find("stats").get("available_space"), str(2 * 1024**3))

    def test_broken_bodies(self):
        for label, (content_type, body) in BROKEN_BODIES.items():
            with self.subTest(label):
                headers = {"Content-Type": content_type} if content_type else {}
                resp = self.server.request("POST", "/api/assets", body, headers)
                self.assertEqual(resp.status, 400, resp.body)
                message = ET.fromstring(resp.body).findtext("message")
                self.assertTrue(message)
                self.assert_nothing_stored()

    def test_junk_after_delimiter_does_not_pile_up_in_memory(self):
        # A delimiter followed by junk and then a long tail: refused without
        # holding the tail in memory.
        body = part(FILE_HEADERS, b"data")[:-2] + b"--" + B + b"X" + os.urandom(32 * MiB)
        before = self.server.proc_status("VmHWM")
        resp = self.server.request("POST", "/api/assets", body, {"Content-Type": MULTIPART})
        self.assertEqual(resp.status, 400)
        self.assertLess(self.server.proc_status("VmHWM") - before, 8 * 1024)
        self.assert_nothing_stored()

    def test_malformed_chunked_request_body(self):
        head = ("POST /api/assets HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: " +
                basic("demo", "demo") + "\r\nContent-Type: " + MULTIPART +
                "\r\nTransfer-Encoding: chunked\r\n\r\n").encode()
        body = hoplift_body("x.bin", b"data")
        resp = self.server.exchange(head + b"%x\r\n" % len(body) + body + b"\r\nzz\r\n")
        self.assertEqual(resp.status, 400)
        self.assert_nothing_stored()

    def test_garbage_request_line(self):
        sock = self.server.connect()
        try:
            sock.sendall(b"NOT A REQUEST\r\n\r\n")
            resp = read_response(sock)
        finally:
            sock.close()
        self.assertEqual(resp.status, 400)
        self.assertEqual(ET.fromstring(resp.body).findtext("status"), "400")

    def upload_head(self, total):
        return ("POST /api/assets HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: " +
                basic("demo", "demo") + "\r\nContent-Type: " + MULTIPART +
                f"\r\nContent-Length: {total}\r\n\r\n").encode()

    def test_connection_dropped_mid_body(self):
        body = hoplift_body("dropped.bin", os.urandom(8 * MiB))
        sock = self.server.connect()
        sock.sendall(self.upload_head(len(body)) + body[:4 * MiB])
        # The server has started writing the asset to a temporary file...
        wait_for(lambda: any(n.startswith(".upload-") for n in self.server.files()),
                 what="the upload to start")
        # ...and the client goes away without finishing (a reset, as from a crash).
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        sock.close()
        wait_for(lambda: self.server.files() == [], what="the partial upload to be removed")
        self.assert_nothing_stored()

    def test_body_shorter_than_content_length(self):
        body = hoplift_body("short.bin", os.urandom(MiB))
        sock = self.server.connect()
        try:
            sock.sendall(self.upload_head(len(body) + 1000) + body)
            sock.shutdown(socket.SHUT_WR)  # no more bytes will come
            raw = read_to_eof(sock)
        finally:
            sock.close()
        if raw:  # the answer may or may not reach a client that stopped sending
            self.assertEqual(Response.parse(raw).status, 400)
        wait_for(lambda: self.server.files() == [], what="the partial upload to be removed")
        self.assert_nothing_stored()


if __name__ == "__main__":
    unittest.main()
