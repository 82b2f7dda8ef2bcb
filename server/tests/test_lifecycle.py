"""Starting, stopping on SIGTERM/SIGINT, and the command line."""

import os
import signal
import subprocess
import unittest

from kltest import BINARY, BOUNDARY, MiB, Server, basic, hoplift_body, wait_for


class StopTest(unittest.TestCase):
    def test_stops_cleanly_on_signals(self):
        for sig in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(signal=sig.name):
                with Server() as server:
                    self.assertEqual(server.upload("a.txt", b"a").status, 201)
                    code, seconds = server.stop(sig)
                    self.assertEqual(code, 0)
                    self.assertLess(seconds, 3.0)
                    self.assertIn("stopped", server.stderr())
                    self.assertEqual(server.files(), ["a.txt"])

    def test_stop_during_an_upload_leaves_no_partial_file(self):
        with Server() as server:
            body = hoplift_body("half.bin", os.urandom(8 * MiB))
            head = ("POST /api/assets HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: " +
                    basic("demo", "demo") + "\r\nContent-Type: multipart/form-data; boundary=" +
                    BOUNDARY.decode() + f"\r\nContent-Length: {len(body)}\r\n\r\n").encode()
            sock = server.connect()
            try:
                sock.sendall(head + body[:3 * MiB])
                wait_for(lambda: any(n.startswith(".upload-") for n in server.files()), what="the upload to start")
                # The client is still connected and silent when the server is told to stop.
                code, seconds = server.stop()
            finally:
                sock.close()
            self.assertEqual(code, 0)
            self.assertLess(seconds, 8.0)
            self.assertEqual(server.files(), [])

    def test_leftovers_of_an_earlier_run_are_removed(self):
        def leave_partial_upload(server):
            os.makedirs(os.path.join(server.data, "demo"))
            with open(os.path.join(server.data, "demo", ".upload-abc123"), "wb") as f:
                f.write(b"partial")
            with open(os.path.join(server.data, "demo", "kept.bin"), "wb") as f:
                f.write(b"12345")

        with Server(prepare=leave_partial_upload) as server:
            self.assertEqual(server.files(), ["kept.bin"])
            resp = server.request("GET", "/api/account.xml")
            self.assertIn(f'available_space="{2 * 1024**3 - 5}"'.encode(), resp.body)


class CommandLineTest(unittest.TestCase):
    def run_binary(self, *args):
        return subprocess.run([BINARY, *args], capture_output=True, timeout=20)

    def test_busy_port_is_refused(self):
        with Server() as first:
            out = self.run_binary("--port", str(first.port), "--data", first.data + "-second")
            self.assertEqual(out.returncode, 1)
            self.assertIn(b"cannot listen", out.stderr)
            self.assertEqual(out.stdout, b"")
            # The first one is unaffected.
            self.assertEqual(first.request("GET", "/api/user").status, 200)

    def test_fixed_port(self):
        with Server() as probe:
            port = probe.port
        # The port the first server had is free again; ask for it explicitly.
        with Server("--port", str(port)) as server:
            self.assertEqual(server.port, port)

    def test_bad_options(self):
        for args, message in [
            (["--bogus"], b"unknown option --bogus"),
            (["--port"], b"--port needs a value"),
            (["--port", "70000"], b"--port needs a number"),
            (["--port", "-1"], b"--port needs a number"),
            (["--listen", "localhost"], b"--listen needs a numeric"),
            (["--delay-ms", "soon"], b"--delay-ms needs"),
            (["--redirect-to", "ftp://x"], b"--redirect-to needs"),
        ]:
            with self.subTest(args=args):
                out = self.run_binary(*args)
                self.assertEqual(out.returncode, 2)
                self.assertIn(message, out.stderr)
                self.assertEqual(out.stdout, b"")

    def test_help(self):
        out = self.run_binary("--help")
        self.assertEqual(out.returncode, 0)
        for option in (b"--listen", b"--port", b"--data", b"--accounts", b"--tls", b"--cert", b"--key",
                       b"--chunked", b"--redirect-to", b"--delay-ms"):
            self.assertIn(option, out.stdout)

    def test_unusable_data_folder(self):
        with Server() as server:
            blocker = os.path.join(server.tmp, "file")
            with open(blocker, "w") as f:
                f.write("not a folder")
            out = self.run_binary("--port", "0", "--data", blocker)
            self.assertEqual(out.returncode, 1)
            self.assertIn(b"cannot create folder", out.stderr)


if __name__ == "__main__":
    unittest.main()
