"""HTTPS with a self-signed certificate made at start, or with given files."""

import os
import ssl
import subprocess
import unittest
import urllib.request
import xml.etree.ElementTree as ET

from kltest import BINARY, CURL, MiB, OPENSSL, Server, basic, random_file, read_to_eof, sha256_file


class SelfSignedTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server("--tls").__enter__()
        cls.cert = os.path.join(cls.server.data, "kelvara-local-cert.pem")

    @classmethod
    def tearDownClass(cls):
        cls.server.__exit__(None, None, None)

    def test_listening_line_and_certificate(self):
        self.assertTrue(self.server.base.startswith("https://127.0.0.1:"))
        self.assertIn("SHA-256 fingerprint", self.server.stderr())
        with open(self.cert) as f:
            pem = f.read()
        self.assertIn("BEGIN CERTIFICATE", pem)
        self.assertNotIn("PRIVATE KEY", pem)

    def test_curl_insecure_and_verified(self):
        out = self.server.curl("-k", path="/api/user")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertEqual(ET.fromstring(out.stdout).findtext("first-name"), "Dana")
        # The written certificate verifies, host name 127.0.0.1 included.
        out = self.server.curl("--cacert", self.cert, path="/api/user")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn(b"<last-name>Demo</last-name>", out.stdout)
        # Without trusting it, curl refuses (60: certificate problem).
        self.assertEqual(self.server.curl(path="/api/user").returncode, 60)

    def test_python_with_verification_and_upload(self):
        ctx = ssl.create_default_context(cafile=self.cert)
        req = urllib.request.Request(self.server.base + "/api/account.xml",
                                     headers={"Authorization": basic("demo", "demo")})
        with urllib.request.urlopen(req, context=ctx, timeout=20) as resp:
            self.assertEqual(resp.status, 200)
            self.assertIsNotNone(ET.fromstring(resp.read()).find("stats"))

        path = os.path.join(self.server.tmp, "tls.bin")
        digest = random_file(path, 4 * MiB)
        out = self.server.curl("--cacert", self.cert, "-F", f"file=@{path}", path="/api/assets")
        self.assertEqual(ET.fromstring(out.stdout).findtext("size"), str(4 * MiB), out.stderr)
        self.assertEqual(sha256_file(os.path.join(self.server.account_dir(), "tls.bin")), digest)

    def test_connection_closes_after_answer(self):
        sock = self.server.connect(5)
        try:
            sock.sendall(b"GET /api/user HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: " +
                         basic("demo", "demo").encode() + b"\r\n\r\n")
            raw = read_to_eof(sock)  # times out (fails) if the server keeps it open
        finally:
            sock.close()
        self.assertTrue(raw.startswith(b"HTTP/1.1 200 "))

    def test_plain_http_to_tls_port_fails_cleanly(self):
        out = subprocess.run([CURL, "-sS", "--max-time", "10", "-u", "demo:demo",
                              f"http://127.0.0.1:{self.server.port}/api/user"], capture_output=True)
        self.assertNotEqual(out.returncode, 0)
        # and the server keeps serving
        self.assertEqual(self.server.curl("-k", path="/api/user").returncode, 0)


def make_cert(server):
    """A certificate and key made by the openssl tool, in the server's folder."""
    subprocess.run([OPENSSL, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-keyout", os.path.join(server.tmp, "key.pem"), "-out", os.path.join(server.tmp, "cert.pem"),
                    "-days", "2", "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1"],
                   check=True, capture_output=True)


def cert_path(server):
    return os.path.join(server.tmp, "cert.pem")


def key_path(server):
    return os.path.join(server.tmp, "key.pem")


class GivenCertificateTest(unittest.TestCase):
    def test_given_certificate_is_used(self):
        with Server("--tls", "--cert", cert_path, "--key", key_path, prepare=make_cert) as server:
            self.assertTrue(server.base.startswith("https://"))
            out = server.curl("--cacert", cert_path(server), path="/api/user")
            self.assertEqual(out.returncode, 0, out.stderr)
            self.assertIn(b"<first-name>Dana</first-name>", out.stdout)
            # No self-signed certificate was made.
            self.assertFalse(os.path.exists(os.path.join(server.data, "kelvara-local-cert.pem")))
            code, _ = server.stop()
            self.assertEqual(code, 0)

    def test_bad_certificate_files_are_refused(self):
        with Server(prepare=make_cert) as holder:  # only for its folder and files
            cert, key = cert_path(holder), key_path(holder)
            for args, code, message in [
                (["--tls", "--cert", "/nonexistent.pem", "--key", "/nonexistent.key"], 1, b"TLS"),
                (["--tls", "--cert", key, "--key", cert], 1, b"TLS"),  # swapped
                (["--cert", cert, "--key", key], 2, b"need --tls"),
                (["--tls", "--cert", cert], 2, b"go together"),
            ]:
                with self.subTest(args=args):
                    out = subprocess.run([BINARY, "--port", "0", "--data", holder.data] + args,
                                         capture_output=True, timeout=20)
                    self.assertEqual(out.returncode, code)
                    self.assertEqual(out.stdout, b"")
                    self.assertIn(message, out.stderr)


if __name__ == "__main__":
    unittest.main()
