"""Basic authentication, the account and user documents and the branding artwork, as the accounts file defines them."""

import os
import struct
import unittest
import zlib

from kltest import MULTIPART, Server, account_xml, basic, ensure, hoplift_body, user_xml

TINY = b"\x89PNG\r\n\x1a\n" + bytes(range(256))  # only the signature is checked
ACCOUNTS = """# A branded account with its own logo, a plain one, and one with defaults and CRLF lines.
[brand]
password = brand
quota = 5 KiB
branding = yes
title = Brand <&> "Co"
font_color = #ffeedd
top_color = #102030
bottom_color = #405060
logo = tiny.png

[plain]
password = a:b c
quota = unlimited
first_name = Ann & <Co>
last_name = "O'Neil "
""" + "[crlf]\r\npassword = x=y\r\nquota = 10 kib\r\nbranding = on\r\n"
BRAND, PLAIN, CRLF = ("brand", "brand"), ("plain", "a:b c"), ("crlf", "x=y")
WRONG = [None, basic("brand", "wrong"), basic("brand", "bran"), basic("brand", "brand "), basic("BRAND", "brand"),
         basic("plain", "a"), "Basic ***", "Basic YnJhbmQ=", "Bearer YnJhbmQ6YnJhbmQ="]


def png_rows(data):
    """Checks a PNG (signature, chunk CRCs, zlib data, 8-bit RGBA) and returns its rows of RGBA tuples."""
    ensure(data[:8] == b"\x89PNG\r\n\x1a\n", "no PNG signature")
    pos, chunks = 8, {}
    while pos < len(data):
        (n,) = struct.unpack(">I", data[pos:pos + 4])
        kind, payload = data[pos + 4:pos + 8], data[pos + 8:pos + 8 + n]
        ensure(struct.unpack(">I", data[pos + 8 + n:pos + 12 + n])[0] == zlib.crc32(kind + payload), "bad CRC")
        chunks[kind] = chunks.get(kind, b"") + payload
        pos += 12 + n
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
        cls.server = Server(accounts=ACCOUNTS, prepare=prepare).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.server.__exit__(None, None, None)

    def get(self, path, auth):
        return self.server.request("GET", path, auth=auth)

    def assertColour(self, pixel, colour, tolerance):
        self.assertTrue(all(abs(p - int(colour[i:i + 2], 16)) <= tolerance for p, i in zip(pixel, (1, 3, 5))), colour)

    def test_wrong_credentials_get_401_everywhere_and_store_nothing(self):
        for authorization in WRONG:
            for method, path in [("GET", "/"), ("GET", "/api/account.xml"), ("GET", "/api/user"),
                                 ("GET", "/branding/brand/logo.png"), ("GET", "/x"), ("POST", "/api/assets")]:
                with self.subTest(authorization=authorization, method=method, path=path):
                    body = hoplift_body(b"x.txt", b"payload" * 1000) if method == "POST" else b""
                    resp = self.server.request(method, path, body, {"Authorization": authorization,
                                                                    "Content-Type": MULTIPART}, auth=None)
                    self.assertEqual(resp.status, 401)
                    self.assertEqual(resp.headers.get("www-authenticate"), 'Basic realm="kelvara"')
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
        logo = png_rows(self.get("/branding/crlf/logo.png", CRLF).body)
        self.assertEqual((len(logo[0]), len(logo), logo[0][0][3], logo[64][4][3]), (128, 128, 0, 255))
        self.assertColour(logo[8][104], "#3A6EA5", 12)  # the tile near its top
        self.assertColour(logo[64][64], "#FFFFFF", 8)  # the arrow
        background = png_rows(self.get("/branding/crlf/background.png", CRLF).body)
        self.assertGreaterEqual(len(background[0]), 640)
        self.assertColour(background[0][0], "#3A6EA5", 30)
        self.assertColour(background[-1][0], "#1F3F66", 30)
        self.assertColour(png_rows(self.get("/branding/brand/background.png", BRAND).body)[-1][0], "#405060", 30)
        self.assertEqual(self.get("/branding/brand/logo.png", BRAND).body, TINY)
        self.assertEqual(self.get("/branding/brand/logo.png", PLAIN).status, 404)
        self.assertEqual(self.get("/branding/brand/logo.png", CRLF).status, 404)


if __name__ == "__main__":
    unittest.main()
