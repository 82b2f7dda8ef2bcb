"""Free space in the account document and uploads past the quota."""

import os
import re
import threading
import unittest
import xml.etree.ElementTree as ET

from kltest import BOUNDARY, MiB, Server, basic, hoplift_body

ACCOUNTS = """
[small]
password = s
quota = 1000

[tiny]
password = t
quota = 10

[shared]
password = h
quota = 1 MiB
"""

SMALL = ("small", "s")


class QuotaTest(unittest.TestCase):
    def setUp(self):
        self.server = Server(accounts=ACCOUNTS).__enter__()

    def tearDown(self):
        self.server.__exit__(None, None, None)

    def available(self, auth=SMALL):
        resp = self.server.request("GET", "/api/account.xml", auth=auth)
        self.assertEqual(resp.status, 200)
        return int(ET.fromstring(resp.body).find("stats").get("available_space"))

    def test_free_space_falls_by_exactly_the_stored_size(self):
        self.assertEqual(self.available(), 1000)
        resp = self.server.upload("a.bin", os.urandom(300), auth=SMALL)
        self.assertEqual(resp.status, 201)
        self.assertEqual(ET.fromstring(resp.body).findtext("size"), "300")
        self.assertEqual(self.available(), 700)

        # Through curl's own multipart encoding as well.
        path = os.path.join(self.server.tmp, "b.bin")
        with open(path, "wb") as f:
            f.write(os.urandom(123))
        out = self.server.curl("-F", f"file=@{path}", "-w", "%{http_code}", "-o", "/dev/null",
                               user="small", password="s", path="/api/assets")
        self.assertEqual(out.stdout, b"201", out.stderr)
        self.assertEqual(self.available(), 577)

        # Exactly filling the quota is allowed.
        self.assertEqual(self.server.upload("c.bin", b"x" * 577, auth=SMALL).status, 201)
        self.assertEqual(self.available(), 0)
        self.assertEqual(self.server.files("small"), ["a.bin", "b.bin", "c.bin"])

        # Files removed from the data folder by hand free their space.
        os.remove(os.path.join(self.server.account_dir("small"), "a.bin"))
        self.assertEqual(self.available(), 300)

    def test_upload_past_the_quota_is_refused_and_leaves_nothing(self):
        self.assertEqual(self.server.upload("fill.bin", b"f" * 600, auth=SMALL).status, 201)
        # One byte too many: only noticed while streaming.
        resp = self.server.upload("over.bin", b"o" * 401, auth=SMALL)
        self.assertEqual(resp.status, 413)
        self.assertIn(b"400 bytes free", resp.body)
        self.assertEqual(self.server.files("small"), ["fill.bin"])
        self.assertEqual(self.available(), 400)
        # And a fitting one still works afterwards: the refusal gave back its claim.
        self.assertEqual(self.server.upload("fits.bin", b"k" * 400, auth=SMALL).status, 201)
        self.assertEqual(self.available(), 0)

    def test_refused_up_front_from_content_length(self):
        auth = basic("tiny", "t")
        # With Expect: 100-continue the answer comes before any body byte.
        head = ("POST /api/assets HTTP/1.1\r\nHost: x\r\nAuthorization: " + auth +
                "\r\nContent-Type: multipart/form-data; boundary=" + BOUNDARY.decode() +
                f"\r\nContent-Length: {5 * 1024**3}\r\nExpect: 100-continue\r\n\r\n").encode()
        sock = self.server.connect(10)
        try:
            sock.sendall(head)
            data = b""
            while b"</error>" not in data:
                chunk = sock.recv(4096)
                self.assertTrue(chunk, "connection closed before the answer")
                data += chunk
        finally:
            sock.close()
        self.assertTrue(data.startswith(b"HTTP/1.1 413 "), data)
        self.assertRegex(data, rb"Content-Length: \d+")
        self.assertNotIn(b"100 Continue", data)

        # Without Expect (Hoplift's way) the body is read and thrown away,
        # so the client gets to see the answer.
        resp = self.server.upload("big.bin", os.urandom(2 * MiB), auth=("tiny", "t"))
        self.assertEqual(resp.status, 413)
        self.assertEqual(self.server.files("tiny"), [])

        # curl sends Expect: 100-continue for large bodies by itself.
        path = os.path.join(self.server.tmp, "big.bin")
        with open(path, "wb") as f:
            f.write(os.urandom(3 * MiB))
        out = self.server.curl("-F", f"file=@{path}", "-w", "%{http_code}", "-o", "/dev/null",
                               user="tiny", password="t", path="/api/assets")
        self.assertEqual(out.stdout, b"413", out.stderr)
        self.assertEqual(self.server.files("tiny"), [])

    def test_concurrent_uploads_share_the_quota(self):
        # 1 MiB quota, five uploads of 300 KiB at once: at most three fit.
        results = []
        lock = threading.Lock()
        payloads = [os.urandom(300 * 1024) for _ in range(5)]

        def send(i):
            status = self.server.upload(f"p{i}.bin", payloads[i], auth=("shared", "h")).status
            with lock:
                results.append(status)

        threads = [threading.Thread(target=send, args=(i,)) for i in range(5)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(60)
        self.assertEqual(len(results), 5)
        self.assertTrue(set(results) <= {201, 413}, results)
        stored = self.server.files("shared")
        self.assertEqual(len(stored), results.count(201))
        self.assertLessEqual(len(stored), 3)
        for name in stored:
            i = int(re.fullmatch(r"p(\d)\.bin", name).group(1))
            self.assertEqual(self.server.read_asset(name, "shared"), payloads[i])
        self.assertEqual(self.available(("shared", "h")), MiB - 300 * 1024 * len(stored))


if __name__ == "__main__":
    unittest.main()
