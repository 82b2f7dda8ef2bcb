"""What becomes of an upload body: the asset lands inside the account folder under a safe name with its exact
bytes, never replacing another; a body not understood gets a 400, leaves nothing and is not held in memory."""

import html, os, socket, struct, unittest
from pathlib import Path

from kltest import BOUNDARY as B, MULTIPART, XML, MiB, Server, hoplift_body, part, raw_request, raw_upload, wait_for

END, F = b"--" + B + b"--\r\n", b'form-data; name="file"; filename="%s"'
# Content-Disposition of the one part -> the stored name, or None for a 400.
DISPOSITIONS = [
    (F % b"../../etc/passwd", "passwd"), (F % b'a"b.txt', 'a"b.txt'), (F % b"C:\\Users\\u\\report.doc", "report.doc"),
    (F % b"", "unnamed"), (F % b".", "unnamed (2)"), (F % b"dir/..", "unnamed (3)"), (F % b"  spaced  ", "spaced"),
    (b"form-data; name=file", "unnamed (4)"), (F % b"a\x01b\tc\x7f\xc2\x85.txt", "abc.txt"),
    (F % b"bad\xff\xfeutf8 caf\xc3\xa9 \xed\xa0\x80.txt", "bad__utf8 caf\u00e9 ___.txt"), (F % b".profile", "_profile"),
    (F % (b"a" * 300 + b".txt"), "a" * 196 + ".txt"), (F % (b"\xe2\x82\xac" * 120 + b".bin"), "\u20ac" * 65 + ".bin"),
    (F % b"README", "README"), (F % b"README", "README (2)"), (F % b"a.tar.gz", "a.tar.gz"),
    (F % b"a.tar.gz", "a.tar (2).gz"), (F % b"<img src=x onerror=alert(1)>&amp;", "<img src=x onerror=alert(1)>&amp;"),
    (F % b'"', '"'), (F % b"a;b=c.txt", "a;b=c.txt"), (F % b"x\"; filename*=UTF-8''y", "x"),
    (b'form-data; filename="first"; name="file"', "first"), (b'FORM-DATA;NAME="file";FILENAME="u"', "u"),
    (b'form-data; name="comment"', None), (b'attachment; name="file"', None), (b'form-data; filename="x"', None),
    (b'form-data; name="file"; filename="cut', None), (b"form-data; name", None)]
TAIL = b"j" * (32 * MiB)
SHAPE = (b"preamble\r\n" + part(b'Content-Disposition: form-data; name="comment"', b"hello") + b"--" + B +
         b' \t\r\ncontent-disposition: form-data; filename="shape.bin"; name=file\r\n\r\nDATA\r\n--' + B + b"--")
# Content-Type, body -> the stored name and content, or None for a 400.
BODIES = [(MULTIPART, part(b"Content-Disposition: " + value, value) + END, name and (name, value))
          for value, name in DISPOSITIONS] + [
    ('Multipart/Form-Data;boundary="a b:c"', hoplift_body(b"q", b"1", b"a b:c"), ("q", b"1")),
    ("multipart/form-data; charset=utf-8; BOUNDARY=xyz", hoplift_body(b"p", b"2", b"xyz"), ("p", b"2")),
    (MULTIPART, SHAPE, ("shape.bin", b"DATA")),
    (MULTIPART, SHAPE + b"\r\nepilogue --" + B + b" junk", ("shape (2).bin", b"DATA")),
    (MULTIPART, hoplift_body(b"empty", b""), ("empty", b"")), ("multipart/form-data", hoplift_body(b"x", b"x"), None),
    ('multipart/form-data; boundary=""', hoplift_body(b"x", b"x"), None), (None, hoplift_body(b"x", b"x"), None),
    ("multipart/mixed; boundary=abc", hoplift_body(b"x", b"x", b"abc"), None),
    ("multipart/form-data; boundary=" + "b" * 201, hoplift_body(b"x", b"x", b"b" * 201), None),
    (MULTIPART, part(b"Content-Type: text/plain") + END, None), (MULTIPART, part(b"Content-Disposition f") + END, None),
    (MULTIPART, part(F % b"x", b"data" * 1000)[:-10], None),  # cut inside the data
    (MULTIPART, hoplift_body(b"x", b"data").replace(B, b"0xOtHeR") + TAIL, None),  # no delimiter ever
    (MULTIPART, b"--" + B + b'\r\nContent-Disposition: form-data; name="' + TAIL, None),  # a header line never ends
    (MULTIPART, part(F % b"x")[:-2] + b"--" + B + b"X" + TAIL, None)]  # junk after a delimiter


class UploadsTest(unittest.TestCase):
    def test_bodies_are_stored_exactly_under_a_safe_name_or_refused_leaving_nothing_in_bounded_memory(self):
        with Server() as server:
            stored = []
            for i, (content_type, body, expected) in enumerate(BODIES):
                with self.subTest(i=i, content_type=content_type, body=body[:80]):
                    before = server.peak_kib()
                    resp = server.exchange(raw_upload(body, content_type))
                    self.assertEqual(resp.status, 201 if expected else 400, resp.body)
                    if expected:
                        stored.append(expected)
                        self.assertEqual((resp.xml().findtext("name"), server.read_asset(expected[0])), expected)
                    else:
                        self.assertTrue(resp.xml().findtext("message"))
                    self.assertEqual(server.files(), sorted(name for name, _ in stored))
                    self.assertLess(server.peak_kib() - before, 8 * 1024)
            found = sorted(str(path.relative_to(server.data)) for path in Path(server.data).rglob("*"))
            self.assertEqual(found, ["demo"] + sorted("demo/" + name for name, _ in stored))  # nothing outside
            self.assertEqual(server.available(), 2 * 1024**3 - sum(len(content) for _, content in stored))
            page = server.request("GET", "/").body.decode()  # names escaped, with their sizes
            self.assertNotIn("<img", page)
            for name, n in ((name, len(content)) for name, content in stored):
                self.assertIn(f'<td class="name">{html.escape(name)}</td><td class="size">{n} byte{"s" * (n != 1)}'
                              f'</td><td class="size bytes">{n}</td>', page)
            chunked = raw_request("POST", "/api/assets", b"%x\r\n%s\r\nzz\r\n" % (len(SHAPE), SHAPE), {
                "Content-Type": MULTIPART, "Content-Length": None, "Transfer-Encoding": "chunked"})
            self.assertEqual(server.exchange(chunked).status, 400)  # broken framing after a whole body
            self.assertEqual(server.files(), sorted(name for name, _ in stored))

    def test_client_gone_mid_body_leaves_no_partial_file(self):
        with Server() as server:
            with server.start_upload() as sock:  # and then a reset
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            wait_for(lambda: server.files() == [], "the partial upload to be removed")
            self.assertEqual(server.available(), 2 * 1024**3)

    def test_large_curl_upload_is_byte_identical_and_memory_stays_flat(self):
        with Server() as server:
            content = os.urandom(64 * MiB)
            path = server.write("big.bin", content)
            for i in range(3):  # the first requests allocate thread stacks and buffers
                server.upload(b"warm%d" % i, os.urandom(MiB))
            for name, framing in [("big.bin", []), ("chunked.bin", ["-H", "Transfer-Encoding: chunked"])]:
                with self.subTest(name):
                    before = server.peak_kib()
                    out = server.curl(*framing, "-F", f"file=@{path};filename={name}", path="/api/assets")
                    asset = f"{XML}<asset><name>{name}</name><size>{len(content)}</size></asset>\n"
                    self.assertEqual(out.stdout, asset.encode(), out.stderr)
                    self.assertTrue(server.read_asset(name) == content)
                    self.assertLess(server.peak_kib() - before, 12 * 1024)  # stacks, buffers, slack: not the file


if __name__ == "__main__":
    unittest.main()
