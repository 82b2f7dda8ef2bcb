"""Whatever file name a client sends, the asset lands inside the account
folder under a safe name, never replacing an earlier asset."""

import os
import unittest
import xml.etree.ElementTree as ET

from kltest import Server

CASES = [
    (b"../../etc/passwd", "passwd"),
    (b'a"b.txt', 'a"b.txt'),
    (b"/home/u/x.txt", "x.txt"),
    (b"", "unnamed"),
    (b"..", "unnamed (2)"),
    (b"folder/", "unnamed (3)"),
    (b"C:\\Users\\u\\report.doc", "report.doc"),
    (b"a\x01b\x1b[31mc\x7f.txt", "ab[31mc.txt"),
    (b".profile", "_profile"),
    (b"caf\xc3\xa9 \xe2\x82\xac.txt", "caf\u00e9 \u20ac.txt"),
    (b"latin1 caf\xe9.txt", "latin1 caf_.txt"),
    (b"<img src=x onerror=alert(1)>&amp;.txt", "<img src=x onerror=alert(1)>&amp;.txt"),
]


class NamesTest(unittest.TestCase):
    def setUp(self):
        self.server = Server().__enter__()

    def tearDown(self):
        self.server.__exit__(None, None, None)

    def everything_under_data(self):
        found = []
        for folder, dirs, files in os.walk(self.server.data):
            found += [os.path.relpath(os.path.join(folder, n), self.server.data) for n in dirs + files]
        return sorted(found)

    def test_unsafe_names_are_stored_safely(self):
        for sent, expected in CASES:
            with self.subTest(name=sent):
                content = b"content of " + sent
                resp = self.server.upload(sent, content)
                self.assertEqual(resp.status, 201, resp.body)
                self.assertEqual(ET.fromstring(resp.body).findtext("name"), expected)
                self.assertEqual(self.server.read_asset(expected), content)
        expected_names = sorted(e for _, e in CASES)
        self.assertEqual(self.server.files(), expected_names)
        # Nothing outside the account folder, no folders inside it.
        self.assertEqual(self.everything_under_data(), ["demo"] + [os.path.join("demo", n) for n in expected_names])

        # The web page lists every name, escaped.
        page = self.server.request("GET", "/").text()
        self.assertIn("&lt;img src=x onerror=alert(1)&gt;&amp;amp;.txt", page)
        self.assertNotIn("<img", page)
        self.assertIn("a&quot;b.txt", page)
        self.assertIn(f"{len(CASES)} assets", page)

    def test_long_name_is_shortened(self):
        resp = self.server.upload("n" * 300 + ".txt", b"long")
        self.assertEqual(resp.status, 201)
        name = ET.fromstring(resp.body).findtext("name")
        self.assertLessEqual(len(name.encode()), 200)
        self.assertTrue(name.endswith(".txt"))
        self.assertEqual(self.server.files(), [name])

    def test_same_name_never_overwrites(self):
        contents = [os.urandom(1000) for _ in range(3)]
        names = [ET.fromstring(self.server.upload("same.txt", c).body).findtext("name") for c in contents]
        self.assertEqual(names, ["same.txt", "same (2).txt", "same (3).txt"])
        for name, content in zip(names, contents):
            self.assertEqual(self.server.read_asset(name), content)
        # A name that already carries a number is not confused with the series.
        resp = self.server.upload("same (2).txt", b"again")
        self.assertEqual(ET.fromstring(resp.body).findtext("name"), "same (2) (2).txt")

    def test_curl_with_traversal_filename(self):
        path = os.path.join(self.server.tmp, "local.txt")
        with open(path, "wb") as f:
            f.write(b"via curl")
        out = self.server.curl("-F", f"file=@{path};filename=../../x/evil.txt", path="/api/assets")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertEqual(ET.fromstring(out.stdout).findtext("name"), "evil.txt")
        self.assertEqual(self.everything_under_data(), ["demo", os.path.join("demo", "evil.txt")])


if __name__ == "__main__":
    unittest.main()
