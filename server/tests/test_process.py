"""The kelvara-local process: a bad start, signals, a connection closed after each answer, test switches, HTTPS."""

import contextlib, hashlib, os, signal, ssl, subprocess, time, unittest
from pathlib import Path

from kltest import BINARY, OPENSSL, MiB, Server, account_xml, hoplift_body, raw_request, raw_upload, user_xml

USER_XML = user_xml("Dana", "Demo")
# Request -> status and, where it is fixed, the exact body.
ANSWERS = [(raw_request("GET", "/api/account.xml"), 200, account_xml(2147483648, "demo", "Demo")),
           (raw_request("GET", "/api/user"), 200, USER_XML), (raw_request("GET", "/x"), 404, None),
           (raw_request("GET", "/api/user", auth=None), 401, None), (raw_upload(hoplift_body(b"d", b"x")), 201, None),
           (raw_request("GET", "/"), 200, None)]
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
    def test_signals_stop_the_server_promptly_keeping_the_assets_but_no_partial_file(self):
        # A worker stuck on a silent client may hold the stop up to the service's 3 s watchdog.
        for sig, stalled, limit in [(signal.SIGTERM, False, 3), (signal.SIGINT, False, 3), (signal.SIGTERM, True, 8)]:
            with self.subTest(sig=sig.name, stalled=stalled), Server() as server:
                self.assertEqual(server.upload(b"a.txt", b"a").status, 201)
                with server.start_upload() if stalled else contextlib.nullcontext():
                    code, seconds = server.stop(sig)
                self.assertEqual((code, server.files()), (0, ["a.txt"]))
                self.assertLess(seconds, limit)

    def test_a_stop_right_after_listening_on_is_not_missed(self):
        # The line comes just before the listening loop runs; a stop in that gap must wait for it.
        for attempt in range(10):
            with self.subTest(attempt=attempt), Server() as server:
                code, seconds = server.stop()
                self.assertEqual(code, 0)
                self.assertLess(seconds, 1)  # not the 3 s watchdog

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

    def test_every_answer_closes_at_once_and_follows_the_chunked_and_delay_switches(self):
        # Closed at once, not after the 5 s keep-alive timeout; the listing is long enough for two chunks.
        for args, chunked, delay in [((), None, 0), (("--chunked", "--delay-ms", "400"), "chunked", 0.4)]:
            with self.subTest(args=args), Server(*args) as server:
                for raw, status, body in ANSWERS:
                    start = time.monotonic()
                    resp = server.exchange(raw)  # framed by its length unless chunked
                    framing = resp.headers.get("connection"), resp.headers.get("transfer-encoding")
                    self.assertEqual((resp.status, *framing, body or resp.body), (status, "close", chunked, resp.body))
                    self.assertTrue(delay <= time.monotonic() - start < delay + 2)
                self.assertEqual(len(resp.chunks) > 1, bool(chunked))

    def test_redirect_switch_redirects_every_request_and_stores_nothing(self):
        target = "https://127.0.0.1:1/elsewhere"
        with Server("--redirect-to", target + "/") as server:
            for raw, path in [(raw_request("GET", "/api/user?x=1&y=%20", auth=None), "/api/user?x=1&y=%20"),
                              (raw_upload(hoplift_body(b"x", os.urandom(300000))), "/api/assets")]:
                resp = server.exchange(raw)
                self.assertEqual((resp.status, resp.headers.get("location")), (302, target + path))
            self.assertEqual(server.files(), [])

    def test_self_signed_certificate_verifies_and_its_key_is_not_written(self):
        with Server("--tls") as server:
            cert = os.path.join(server.data, "kelvara-local-cert.pem")
            pem = Path(cert).read_text()
            self.assertNotIn("PRIVATE KEY", pem)
            fingerprint = hashlib.sha256(ssl.PEM_cert_to_DER_cert(pem)).digest().hex(":").upper()
            self.assertIn("fingerprint " + fingerprint, server.stderr())
            content = os.urandom(4 * MiB)
            out = server.curl("--cacert", cert, "-F", "file=@" + server.write("tls.bin", content), path="/api/assets")
            self.assertEqual((out.returncode, server.read_asset("tls.bin")), (0, content), out.stderr)
            self.assertEqual(server.curl(path="/api/user").returncode, 60)  # without trusting the certificate

    def test_given_certificate_is_used(self):
        def make_cert(server):
            subprocess.run([OPENSSL, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                            "-keyout", server.tmp + "/key.pem", "-out", server.tmp + "/cert.pem", "-subj", "/CN=x",
                            "-addext", "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)

        with Server("--tls", "--cert", lambda s: s.tmp + "/cert.pem", "--key", lambda s: s.tmp + "/key.pem",
                    prepare=make_cert) as server:
            self.assertEqual(server.curl("--cacert", server.tmp + "/cert.pem", path="/api/user").stdout, USER_XML)
            self.assertFalse(os.path.exists(os.path.join(server.data, "kelvara-local-cert.pem")))


if __name__ == "__main__":
    unittest.main()
