"""Free space in the account document, uploads past the quota, and uploads sharing an account at the same time."""

import os, unittest
from concurrent.futures import ThreadPoolExecutor

from kltest import DEMO, MULTIPART, MiB, Server, raw_request

ACCOUNTS = ("[demo]\npassword = demo\nquota = 2 GiB\n[small]\npassword = s\nquota = 1 MiB\n[tiny]\npassword = t\n"
            "quota = 10\n[shared]\npassword = h\nquota = 1 MiB\n")
SMALL, TINY, SHARED = ("small", "s"), ("tiny", "t"), ("shared", "h")


class QuotaTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = cls.enterClassContext(Server(accounts=ACCOUNTS))

    def test_free_space_falls_by_the_stored_size_and_a_refusal_leaves_nothing(self):
        server, left = self.server, MiB - 300000
        self.assertEqual(server.available(SMALL), MiB)
        resp = server.upload(b"a.bin", os.urandom(300000), auth=SMALL)
        self.assertEqual((resp.status, resp.xml().findtext("size"), server.available(SMALL)), (201, "300000", left))
        # One byte too many: it arrives in pieces and is refused after some of it was claimed.
        resp = server.upload(b"over.bin", b"o" * (left + 1), auth=SMALL)
        self.assertEqual((resp.status, server.files("small"), server.available(SMALL)), (413, ["a.bin"], left))
        self.assertIn(b"%d bytes free" % left, resp.body)
        self.assertEqual(server.upload(b"c.bin", b"c" * left, auth=SMALL).status, 201)  # an exact fit
        self.assertEqual(server.available(SMALL), 0)
        os.remove(os.path.join(server.data, "small", "a.bin"))  # by hand
        self.assertEqual(server.available(SMALL), 300000)

    def test_too_large_content_length_is_refused_before_or_after_the_body(self):
        # With Expect: 100-continue the answer comes, framed, before any body byte.
        self.assertEqual(self.server.exchange(raw_request("POST", "/api/assets", headers={
            "Content-Type": MULTIPART, "Content-Length": str(5 * 1024**3), "Expect": "100-continue"},
            auth=TINY)).status, 413)
        # Without it (Hoplift's way) the body is read and dropped, so the client sees the answer.
        self.assertEqual(self.server.upload(b"big.bin", os.urandom(2 * MiB), auth=TINY).status, 413)
        self.assertEqual(self.server.files("tiny"), [])

    def test_parallel_uploads_lose_nothing_overwrite_nothing_and_share_the_quota(self):
        same = [os.urandom(MiB + i) for i in range(12)]
        shared = [os.urandom(300 * 1024) for _ in range(5)]  # into 1 MiB: at most three fit
        jobs = [("same.bin", c, DEMO) for c in same] + [(f"p{i}.bin", c, SHARED) for i, c in enumerate(shared)]
        before = self.server.available()
        with ThreadPoolExecutor(len(jobs)) as pool:
            answers = list(pool.map(lambda job: self.server.upload(job[0].encode(), job[1], job[2]), jobs, timeout=90))
        series = sorted(["same.bin"] + [f"same ({n}).bin" for n in range(2, 13)])
        self.assertEqual(sorted(a.xml().findtext("name") for a in answers[:12]), series)
        self.assertEqual(self.server.files(), series)
        self.assertEqual(sorted(self.server.read_asset(n) for n in series), sorted(same))
        self.assertEqual(self.server.available(), before - sum(map(len, same)))
        stored = self.server.files("shared")
        self.assertEqual(sorted(a.status for a in answers[12:]), [201] * len(stored) + [413] * (5 - len(stored)))
        self.assertLessEqual(len(stored), 3)
        self.assertEqual([self.server.read_asset(n, "shared") for n in stored], [shared[int(n[1])] for n in stored])
        self.assertEqual(self.server.available(SHARED), MiB - 300 * 1024 * len(stored))


if __name__ == "__main__":
    unittest.main()
