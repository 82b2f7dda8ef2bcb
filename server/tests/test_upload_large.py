"""A large upload arrives byte for byte while the server's memory stays flat."""

import os
import time
import unittest
import xml.etree.ElementTree as ET

from kltest import BOUNDARY, MiB, Response, Server, basic, random_file, read_to_eof, sha256_file

SIZE = 64 * MiB
# Resident memory may grow by far less than the file: thread stacks, the
# write buffer and allocator slack only.
ALLOWED_GROWTH_KIB = 12 * 1024


class LargeUploadTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server().__enter__()
        cls.path = os.path.join(cls.server.tmp, "big.bin")
        cls.digest = random_file(cls.path, SIZE)
        # Warm up: first requests allocate thread stacks and buffers.
        for i in range(3):
            cls.server.upload(f"warm{i}.bin", os.urandom(MiB))

    @classmethod
    def tearDownClass(cls):
        cls.server.__exit__(None, None, None)

    def check_stored(self, name):
        stored = os.path.join(self.server.account_dir(), name)
        self.assertEqual(os.path.getsize(stored), SIZE)
        self.assertEqual(sha256_file(stored), self.digest)

    def test_curl_upload(self):
        peak_before = self.server.proc_status("VmHWM")
        start = time.monotonic()
        out = self.server.curl("-F", f"file=@{self.path}", path="/api/assets")
        elapsed = time.monotonic() - start
        self.assertEqual(out.returncode, 0, out.stderr)
        asset = ET.fromstring(out.stdout)
        self.assertEqual(asset.findtext("name"), "big.bin")
        self.assertEqual(asset.findtext("size"), str(SIZE))
        self.check_stored("big.bin")
        peak_after = self.server.proc_status("VmHWM")
        print(f"\ncurl: {SIZE // MiB} MiB in {elapsed:.2f} s, peak RSS {peak_before} -> {peak_after} KiB")
        self.assertLess(peak_after - peak_before, ALLOWED_GROWTH_KIB)

    def test_hoplift_framed_upload_streamed_from_disk(self):
        peak_before = self.server.proc_status("VmHWM")
        prefix = (b"--" + BOUNDARY + b'\r\nContent-Disposition: form-data; name="file"; filename="' +
                  self.path.encode() + b'"\r\nContent-Type: application/octet-stream\r\n\r\n')
        suffix = b"\r\n--" + BOUNDARY + b"--\r\n"
        head = ("POST /api/assets HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " + basic("demo", "demo") +
                "\r\nContent-Type: multipart/form-data; boundary=" + BOUNDARY.decode() +
                f"\r\nContent-Length: {len(prefix) + SIZE + len(suffix)}\r\nConnection: close\r\n\r\n").encode()
        sock = self.server.connect(60)
        try:
            sock.sendall(head + prefix)
            with open(self.path, "rb") as f:
                for block in iter(lambda: f.read(MiB), b""):
                    sock.sendall(block)
            sock.sendall(suffix)
            resp = Response.parse(read_to_eof(sock))
        finally:
            sock.close()
        self.assertEqual(resp.status, 201, resp.body)
        name = ET.fromstring(resp.body).findtext("name")
        self.assertRegex(name, r"^big( \(\d\))?\.bin$")
        self.check_stored(name)
        self.assertLess(self.server.proc_status("VmHWM") - peak_before, ALLOWED_GROWTH_KIB)

    def test_chunked_request_body(self):
        out = self.server.curl("-H", "Transfer-Encoding: chunked", "-F", f"file=@{self.path};filename=chunked.bin",
                               path="/api/assets")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertEqual(ET.fromstring(out.stdout).findtext("name"), "chunked.bin")
        self.check_stored("chunked.bin")


if __name__ == "__main__":
    unittest.main()
