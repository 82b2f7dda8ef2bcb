"""The kelvara-local process: refusing a bad start, stopping on signals, closing each connection after its answer,
the switches that make it behave like less friendly servers, and HTTPS with a certificate made at start or given."""

import hashlib
import os
import signal
import ssl
import subprocess
import time
import unittest

from kltest import (BINARY, MULTIPART, MiB, OPENSSL, Server, account_xml, hoplift_body, raw_request, user_xml,
                    wait_for)

DEMO_XML, USER_XML = account_xml(2147483648, "demo", "Demo"), user_xml("Dana", "Demo")
UPLOAD = raw_request("POST", "/api/assets", hoplift_body(b"d.txt", b"x"), {"Content-Type": MULTIPART})
ANONYMOUS, MISSING = raw_request("GET", "/api/user", auth=None), raw_request("GET", "/x")

# Command line or accounts file -> exit code and what stderr says.
REFUSALS = [
    (["--bogus"], 2, "unknown option --bogus"), (["--port", "70000"], 2, "--port needs a number"),
    (["--listen", "localhost"], 2, "--listen needs a numeric"), (["--delay-ms", "soon"], 2, "--delay-ms needs"),
    (["--redirect-to", "ftp://x"], 2, "--redirect-to needs"), (["--accounts", "/none.ini"], 1, "cannot read /none.ini"),
    (["--cert", "c.pem", "--key", "k.pem"], 2, "need --tls"), (["--tls", "--cert", "c.pem"], 2, "go together"),
    (["--tls", "--cert", "/none.pem", "--key", "/none.key"], 1, "cannot use the TLS certificate and key"),
    (b"[a]\npassword = x\ncolour = red\n", 1, "line 3: unknown key"), (b"[../x]\npassword = x\n", 1, "line 1: invalid"),
    (b"[a]\npassword = x\n[a]\npassword = y\n", 1, "line 3: account 'a' appears twice"),
    (b"[a]\npassword = x\nbranding = yes\ntop_color = blue\n", 1, "line 4: top_color"),
    (b"[a]\npassword = x\nquota = 99999999999 TiB\n", 1, "line 3: quota"), (b"password = x\n[a]\n", 1, "line 1: key"),
    (b"[a]\npassword = x\ntitle = T\n", 1, "line 3: title needs"), (b"\n[a]\nquota = 5\n", 1, "line 2: account 'a'"),
    (b"[a]\npassword = x\npassword = y\n", 1, "line 3: 'password' given twice"), (b"#\n", 1, "no accounts defined"),
    (b"[a]\npassword = \xff\n", 1, "line 2: not valid UTF-8"), (b"[a]\npassword\n", 1, "line 2: expected key = value"),
    (b"[a]\npassword = x\nbranding = yes\nlogo = a.ini\n", 1, "a.ini is not a PNG image"),
    (b"[a]\npassword = x\nbranding = yes\nlogo = missing.png\n", 1, "cannot read /")]


class ProcessTest(unittest.TestCase):
    def timed(self, server, raw):
        start = time.monotonic()
        return server.exchange(raw), time.monotonic() - start

    def test_signals_stop_the_server_at_once_and_keep_the_assets(self):
        for sig in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(sig.name), Server() as server:
                self.assertEqual(server.upload(b"a.txt", b"a").status, 201)
                code, seconds = server.stop(sig)
                self.assertEqual((code, server.files()), (0, ["a.txt"]))
                self.assertLess(seconds, 3.0)

    def test_stop_during_a_stalled_upload_leaves_no_partial_file(self):
        with Server() as server, server.connect() as sock:
            sock.sendall(raw_request("POST", "/api/assets", hoplift_body(b"half", os.urandom(8 * MiB)),
                                     {"Content-Type": MULTIPART})[:3 * MiB])
            wait_for(lambda: any(n.startswith(".upload-") for n in server.files()), "the upload to start")
            code, seconds = server.stop()  # the client is still connected, and silent
            self.assertEqual((code, server.files()), (0, []))
            self.assertLess(seconds, 8.0)

    def test_bad_start_is_refused_with_a_clear_message(self):
        with Server() as server:
            for args, code, message in REFUSALS + [(["--port", str(server.port)], 1, "cannot listen"),
                                                   (["--data", server.write("file", b"")], 1, "cannot create folder")]:
                with self.subTest(args=args):
                    if isinstance(args, bytes):
                        args = ["--accounts", server.write("a.ini", args)]
                    out = subprocess.run([BINARY, "--port", "0", "--data", server.tmp + "/other", *args],
                                         capture_output=True, timeout=20)
                    self.assertEqual((out.returncode, out.stdout), (code, b""))
                    self.assertIn(message, out.stderr.decode())
            self.assertEqual(server.request("GET", "/api/user").status, 200)  # the busy port's owner carries on

    def test_answers_are_framed_by_length_and_the_connection_closes_at_once(self):
        with Server() as server:
            for raw, status, body in [(raw_request("GET", "/api/account.xml"), 200, DEMO_XML), (MISSING, 404, None),
                                      (raw_request("GET", "/api/user"), 200, USER_XML), (ANONYMOUS, 401, None),
                                      (raw_request("GET", "/"), 200, None)]:
                resp, seconds = self.timed(server, raw)
                self.assertEqual((resp.status, resp.headers.get("connection")), (status, "close"))
                self.assertEqual((body or resp.body, "content-length" in resp.headers), (resp.body, True))
                self.assertLess(seconds, 2.0)  # not after the 5 s keep-alive timeout

    def test_chunked_and_delay_switches_act_on_every_answer(self):
        with Server("--chunked", "--delay-ms", "400") as server:
            self.assertEqual(server.request("GET", "/api/account.xml").body, DEMO_XML)
            for raw, status in [(UPLOAD, 201), (ANONYMOUS, 401), (MISSING, 404)]:
                resp, seconds = self.timed(server, raw)
                self.assertEqual((resp.status, resp.headers.get("transfer-encoding")), (status, "chunked"))
                self.assertTrue(0.4 <= seconds < 3.0, seconds)
            logo = server.request("GET", "/branding/demo/logo.png")
            self.assertGreater(len(logo.chunks), 2)
            self.assertTrue(logo.body.startswith(b"\x89PNG\r\n\x1a\n") and logo.body.endswith(b"IEND\xaeB`\x82"))

    def test_redirect_switch_redirects_every_request_and_stores_nothing(self):
        target = "https://127.0.0.1:1/elsewhere"
        with Server("--redirect-to", target + "/") as server:
            for raw, path in [(raw_request("GET", "/api/user?x=1&y=%20", auth=None), "/api/user?x=1&y=%20"),
                              (raw_request("POST", "/api/assets", hoplift_body(b"x", os.urandom(300000)),
                                           {"Content-Type": MULTIPART}), "/api/assets")]:
                resp = server.exchange(raw)
                self.assertEqual((resp.status, resp.headers.get("location")), (302, target + path))
            self.assertEqual(server.files(), [])

    def test_self_signed_certificate_verifies_and_its_key_is_not_written(self):
        with Server("--tls") as server:
            cert = os.path.join(server.data, "kelvara-local-cert.pem")
            with open(cert) as f:
                pem = f.read()
            self.assertNotIn("PRIVATE KEY", pem)
            fingerprint = hashlib.sha256(ssl.PEM_cert_to_DER_cert(pem)).hexdigest().upper()
            self.assertIn("fingerprint " + ":".join(fingerprint[i:i + 2] for i in range(0, 64, 2)), server.stderr())
            content = os.urandom(4 * 1024 * 1024)
            out = server.curl("--cacert", cert, "-F", "file=@" + server.write("tls.bin", content), path="/api/assets")
            self.assertEqual((out.returncode, server.read_asset("tls.bin")), (0, content), out.stderr)
            self.assertEqual(server.curl(path="/api/user").returncode, 60)  # without trusting the certificate

    def test_given_certificate_is_used(self):
        def make_cert(server):
            subprocess.run([OPENSSL, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                            "-keyout", server.tmp + "/key.pem", "-out", server.tmp + "/cert.pem", "-days", "2",
                            "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1"], check=True,
                           capture_output=True)

        with Server("--tls", "--cert", lambda s: s.tmp + "/cert.pem", "--key", lambda s: s.tmp + "/key.pem",
                    prepare=make_cert) as server:
            self.assertEqual(server.curl("--cacert", server.tmp + "/cert.pem", path="/api/user").stdout, USER_XML)
            self.assertFalse(os.path.exists(os.path.join(server.data, "kelvara-local-cert.pem")))


if __name__ == "__main__":
    unittest.main()
