"""Several uploads and reads at once: every asset complete, none lost."""

import hashlib
import http.client
import os
import threading
import unittest
import xml.etree.ElementTree as ET

from kltest import BOUNDARY, MiB, Server, basic, hoplift_body

UPLOADS = 8
READERS = 4
ROUNDS = 10


class ConcurrentTest(unittest.TestCase):
    def setUp(self):
        self.server = Server().__enter__()

    def tearDown(self):
        self.server.__exit__(None, None, None)

    def run_threads(self, targets):
        errors = []

        def wrap(fn):
            try:
                fn()
            except Exception as e:  # reported below, with the thread's failure
                errors.append(repr(e))

        threads = [threading.Thread(target=wrap, args=(t,)) for t in targets]
        for t in threads:
            t.start()
        for t in threads:
            t.join(90)
        self.assertFalse(any(t.is_alive() for t in threads), "a client thread hung")
        self.assertEqual(errors, [])

    def test_parallel_uploads_and_reads(self):
        payloads = {f"file{i}.bin": os.urandom(2 * MiB + i) for i in range(UPLOADS)}
        statuses = {}

        def uploader(name):
            def run():
                # Python's http.client as an independent client, keep-alive.
                conn = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=60)
                conn.request("POST", "/api/assets", hoplift_body(name, payloads[name]),
                             {"Authorization": basic("demo", "demo"),
                              "Content-Type": "multipart/form-data; boundary=" + BOUNDARY.decode()})
                resp = conn.getresponse()
                statuses[name] = (resp.status, resp.read())
                conn.close()
            return run

        def reader():
            conn = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=60)
            for _ in range(ROUNDS):  # several requests on one kept-alive connection
                conn.request("GET", "/api/account.xml", headers={"Authorization": basic("demo", "demo")})
                resp = conn.getresponse()
                body = resp.read()
                assert resp.status == 200, resp.status
                int(ET.fromstring(body).find("stats").get("available_space"))
            conn.close()

        self.run_threads([uploader(n) for n in payloads] + [reader] * READERS)
        for name, (status, body) in statuses.items():
            self.assertEqual(status, 201, body)
            self.assertEqual(ET.fromstring(body).findtext("name"), name)
        self.assertEqual(self.server.files(), sorted(payloads))
        for name, content in payloads.items():
            self.assertEqual(self.server.read_asset(name), content)
        total = sum(len(c) for c in payloads.values())
        root = ET.fromstring(self.server.request("GET", "/api/account.xml").body)
        self.assertEqual(int(root.find("stats").get("available_space")), 2 * 1024**3 - total)

    def test_parallel_uploads_with_the_same_name(self):
        contents = [os.urandom(512 * 1024) for _ in range(6)]
        names = []
        lock = threading.Lock()

        def uploader(content):
            def run():
                resp = self.server.upload("same.bin", content)
                assert resp.status == 201, resp.status
                with lock:
                    names.append(ET.fromstring(resp.body).findtext("name"))
            return run

        self.run_threads([uploader(c) for c in contents])
        expected = ["same.bin"] + [f"same ({n}).bin" for n in range(2, 7)]
        self.assertEqual(sorted(names), sorted(expected))
        self.assertEqual(self.server.files(), sorted(expected))
        stored = sorted(hashlib.sha256(self.server.read_asset(n)).digest() for n in expected)
        self.assertEqual(stored, sorted(hashlib.sha256(c).digest() for c in contents))


if __name__ == "__main__":
    unittest.main()
