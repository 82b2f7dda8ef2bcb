"""Basic authentication, the account and user documents and the branding artwork, as the accounts file defines them."""

import os, struct, unittest, zlib

from kltest import MULTIPART, Server, account_xml, basic, ensure, hoplift_body, user_xml

TINY = b"\x89PNG\r\n\x1a\n" + bytes(range(256))  # only the signature is checked
ACCOUNTS = ("# A branded account with its own logo, a plain one, and one with defaults and CRLF lines.\n"
            '[brand]\npassword = brand\nquota = 5 KiB\nbranding = yes\ntitle = Brand <&> "Co"\nfont_color = #ffeedd\n'
            "top_color = #102030\nbottom_color = #405060\nlogo = tiny.png\n\n[plain]\npassword = a:b c\n"
            "quota = unlimited\nfirst_name = Ann & <Co>\nlast_name = \"O'Neil \"\n"
            "[crlf]\r\npassword = x=y\r\nquota = 10 kib\r\nbranding = on\r\n")
BRAND, PLAIN, CRLF = ("brand", "brand"), ("plain", "a:b c"), ("crlf", "x=y")
WRONG = [None, basic("brand", "wrong"), basic("brand", "bran"), basic("brand", "brand "), basic("BRAND", "brand"),
         "Basic ***", "Basic YnJhbmQ=", "Bearer YnJhbmQ6YnJhbmQ="]


def png_rows(data):
    """Checks a PNG (signature, chunk CRCs, zlib data, 8-bit RGBA) and returns its rows of RGBA tuples."""
    ensure(data[:8] == b"\x89PNG\r\n\x1a\n", "no PNG signature")
    pos, chunks = 8, {}
    while pos < len(data):
        n, kind = struct.unpack(">I4s", data[pos:pos + 8])
        payload, pos = data[pos + 8:pos + 8 + n], pos + 12 + n
        ensure(data[pos - 4:pos] == struct.pack(">I", zlib.crc32(kind + payload)), "bad CRC")
        chunks[kind] = chunks.get(kind, b"") + payload
    width, height, *form = struct.unpack(">IIBBBBB", chunks[b"IHDR"])
    raw, stride = zlib.decompress(chunks[b"IDAT"]), 1 + 4 * width
    ensure(form == [8, 6, 0, 0, 0] and len(raw) == height * stride and b"IEND" in chunks, "unexpected PNG form")
    return [[tuple(raw[y * stride + 1 + 4 * x:y * stride + 5 + 4 * x]) for x in range(width)] for y in range(height)]


def prepare(server):  # the logo, and what an earlier run left in brand's folder: a partial upload and an asset
    server.write("tiny.png", TINY)
    os.makedirs(server.data + "/brand")
    server.write("data/brand/.upload-abc123", b"partial")
    server.write("data/brand/kept.bin", b"12345")


class ApiTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = cls.enterClassContext(Server(accounts=ACCOUNTS, prepare=prepare))

    def get(self, path, auth):
        return self.server.request("GET", path, auth=auth)

    def test_wrong_credentials_get_401_and_store_nothing(self):
        for authorization in WRONG:
            for path, body in [("/api/account.xml", b""), ("/api/assets", hoplift_body(b"x", b"p" * 7000))]:
                with self.subTest(authorization=authorization, path=path):
                    headers = {"Authorization": authorization, "Content-Type": MULTIPART}
                    resp = self.server.request("POST" if body else "GET", path, body, headers, auth=None)
                    self.assertEqual((resp.status, resp.headers["www-authenticate"]), (401, 'Basic realm="kelvara"'))
        self.assertEqual(self.server.files("brand"), ["kept.bin"])  # the leftover is gone at start, nothing new

    def test_documents_follow_the_accounts_file_escaped(self):
        self.assertEqual(self.get("/api/account.xml", BRAND).body, account_xml(
            5115, "brand", "Brand &lt;&amp;&gt; &quot;Co&quot;", ("#FFEEDD", "#102030", "#405060")))
        self.assertEqual(self.get("/api/account.xml", PLAIN).body, account_xml(-1))
        self.assertEqual(self.get("/api/account.xml", CRLF).body, account_xml(10240, "crlf", "crlf"))
        self.assertEqual(self.get("/api/user", PLAIN).body, user_xml("Ann &amp; &lt;Co&gt;", "O&#39;Neil "))
        self.assertEqual(self.get("/api/user", CRLF).body, user_xml("crlf", ""))
        self.assertEqual(self.get("/api/user", ("demo", "demo")).status, 401)  # no demo beside an accounts file

    def test_artwork_is_a_real_png_in_the_account_colours_and_stays_with_its_account(self):
        logo, background, brand = (png_rows(self.get(path, auth).body) for path, auth in [
            ("/branding/crlf/logo.png", CRLF), ("/branding/crlf/background.png", CRLF),
            ("/branding/brand/background.png", BRAND)])
        self.assertEqual((len(logo[0]), len(logo), logo[0][0][3], logo[64][4][3]), (128, 128, 0, 255))
        self.assertGreaterEqual(len(background[0]), 640)
        # The logo's tile near its top and its arrow; the background's top and bottom in the account's colours.
        for pixel, colour, tolerance in [(logo[8][104], "#3A6EA5", 12), (logo[64][64], "#FFFFFF", 8),
                                         (background[0][0], "#3A6EA5", 30), (background[-1][0], "#1F3F66", 30),
                                         (brand[-1][0], "#405060", 30)]:
            self.assertTrue(all(abs(p - int(colour[i:i + 2], 16)) <= tolerance for p, i in zip(pixel, (1, 3, 5))),
                            (pixel, colour))
        self.assertEqual(self.get("/branding/brand/logo.png", BRAND).body, TINY)
        self.assertEqual([self.get("/branding/brand/logo.png", a).status for a in (PLAIN, CRLF)], [404, 404])


if __name__ == "__main__":
    unittest.main()
