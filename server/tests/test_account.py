"""The account and user documents, the branding artwork, and the accounts
file that defines them."""

import os
import re
import struct
import subprocess
import unittest
import xml.etree.ElementTree as ET
import zlib

from kltest import BINARY, Server


def decode_png(data):
    """Checks a PNG thoroughly (signature, chunk CRCs, IHDR, zlib stream,
    filter bytes) and returns (width, height, rows of RGBA tuples) for
    8-bit RGBA images without filtering."""
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "bad PNG signature"
    pos, chunks = 8, []
    while pos < len(data):
        (length,) = struct.unpack(">I", data[pos:pos + 4])
        ctype = data[pos + 4:pos + 8]
        payload = data[pos + 8:pos + 8 + length]
        (crc,) = struct.unpack(">I", data[pos + 8 + length:pos + 12 + length])
        assert zlib.crc32(ctype + payload) == crc, f"bad CRC in {ctype}"
        chunks.append((ctype, payload))
        pos += 12 + length
    assert pos == len(data), "trailing bytes after the last chunk"
    assert chunks[0][0] == b"IHDR" and chunks[-1][0] == b"IEND"
    width, height, depth, colour, comp, filt, interlace = struct.unpack(">IIBBBBB", chunks[0][1])
    assert (depth, colour, comp, filt, interlace) == (8, 6, 0, 0, 0)
    raw = zlib.decompress(b"".join(p for t, p in chunks if t == b"IDAT"))
    stride = width * 4
    assert len(raw) == height * (stride + 1), "pixel data size does not match IHDR"
    rows = []
    for y in range(height):
        line = raw[y * (stride + 1):(y + 1) * (stride + 1)]
        assert line[0] == 0, "unexpected filter type"
        rows.append([tuple(line[1 + 4 * x:5 + 4 * x]) for x in range(width)])
    return width, height, rows


def rgb(hex_colour):
    return tuple(int(hex_colour[i:i + 2], 16) for i in (1, 3, 5))


def close_to(a, b, tolerance):
    return all(abs(x - y) <= tolerance for x, y in zip(a, b))


class DemoAccountTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server().__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.server.__exit__(None, None, None)

    def get(self, path):
        resp = self.server.request("GET", path)
        self.assertEqual(resp.status, 200, resp.body)
        return resp

    def test_account_document(self):
        resp = self.get("/api/account.xml")
        self.assertTrue(resp.header("Content-Type").startswith("application/xml"))
        self.assertTrue(resp.body.startswith(b'<?xml version="1.0" encoding="UTF-8"?>'))
        root = ET.fromstring(resp.body)
        self.assertEqual(root.tag, "account")
        self.assertEqual(root.find("stats").attrib, {"available_space": str(2 * 1024**3)})
        branding = root.find("branding")
        self.assertIsNotNone(branding)
        self.assertEqual((len(branding), branding.text), (0, None))
        info = root.find("branding_info")
        self.assertEqual([c.tag for c in info],
                         ["title", "logo", "background_image", "font_color", "top_color", "bottom_color"])
        self.assertEqual(info.findtext("title"), "Demo")
        for colour in ("font_color", "top_color", "bottom_color"):
            self.assertRegex(info.findtext(colour), r"^#[0-9A-F]{6}$")
        for image in ("logo", "background_image"):
            self.assertTrue(info.findtext(image).startswith("/"))

    def test_user_document(self):
        root = ET.fromstring(self.get("/api/user").body)
        self.assertEqual(root.tag, "user")
        self.assertEqual([(c.tag, c.text) for c in root], [("first-name", "Dana"), ("last-name", "Demo")])

    def test_artwork_is_real_png_in_the_account_colours(self):
        info = ET.fromstring(self.get("/api/account.xml").body).find("branding_info")
        top, bottom = rgb(info.findtext("top_color")), rgb(info.findtext("bottom_color"))
        mark = rgb(info.findtext("font_color"))

        logo = self.get(info.findtext("logo"))
        self.assertEqual(logo.header("Content-Type"), "image/png")
        w, h, rows = decode_png(logo.body)
        self.assertEqual((w, h), (128, 128))
        self.assertEqual(rows[0][0][3], 0, "logo corners are transparent")
        self.assertEqual(rows[h // 2][4][3], 255, "logo tile is opaque")
        self.assertTrue(close_to(rows[8][w // 2 + 40][:3], top, 12))  # tile near the top
        self.assertTrue(close_to(rows[h // 2][w // 2][:3], mark, 8))  # the arrow

        background = self.get(info.findtext("background_image"))
        self.assertEqual(background.header("Content-Type"), "image/png")
        w, h, rows = decode_png(background.body)
        self.assertGreaterEqual(w, 640)
        self.assertTrue(all(p[3] == 255 for p in rows[h // 2]))
        # Gradient from the top colour to the bottom colour, lightened a little.
        self.assertTrue(close_to(rows[0][0][:3], top, 30))
        self.assertTrue(close_to(rows[-1][0][:3], bottom, 30))

    def test_head_and_wrong_method(self):
        resp = self.server.request("HEAD", "/api/account.xml")
        self.assertEqual(resp.status, 200)
        self.assertEqual(resp.body, b"")
        resp = self.server.request("POST", "/api/user", b"x")
        self.assertEqual(resp.status, 405)
        self.assertEqual(resp.header("Allow"), "GET, HEAD")
        resp = self.server.request("GET", "/api/assets")
        self.assertEqual(resp.status, 405)
        self.assertEqual(resp.header("Allow"), "POST")


TINY_PNG = None


def write_tiny_png(server):
    """A 2x1 PNG made here, to be served instead of the generated logo."""
    global TINY_PNG
    raw = b"\x00" + bytes([255, 0, 0, 255, 0, 0, 255, 128])
    ihdr = struct.pack(">IIBBBBB", 2, 1, 8, 6, 0, 0, 0)

    def chunk(t, p):
        return struct.pack(">I", len(p)) + t + p + struct.pack(">I", zlib.crc32(t + p))

    TINY_PNG = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", ihdr) + chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b"")
    with open(os.path.join(server.tmp, "tiny.png"), "wb") as f:
        f.write(TINY_PNG)


ACCOUNTS = """\
# Two accounts: one plain with unlimited space, one branded with its own logo.
[plain]
password = plain
quota = unlimited
first_name = Ann & <Co>
last_name = "O'Neil "

[brand]
password = brand
quota = 5 KiB
branding = yes
title = Brand <&> "Co"
font_color = #ffeedd
top_color = #102030
bottom_color = #405060
logo = tiny.png
"""


class AccountsFileTest(unittest.TestCase):
    def test_unbranded_unlimited_account(self):
        with Server(accounts=ACCOUNTS, prepare=write_tiny_png) as server:
            root = ET.fromstring(server.request("GET", "/api/account.xml", auth=("plain", "plain")).body)
            self.assertEqual(root.find("stats").get("available_space"), "-1")
            self.assertIsNone(root.find("branding"))
            self.assertIsNone(root.find("branding_info"))
            user = ET.fromstring(server.request("GET", "/api/user", auth=("plain", "plain")).body)
            self.assertEqual(user.findtext("first-name"), "Ann & <Co>")
            self.assertEqual(user.findtext("last-name"), "O'Neil ")
            # The demo account only exists without an accounts file.
            self.assertEqual(server.request("GET", "/api/user").status, 401)

    def test_branded_account_with_own_logo(self):
        with Server(accounts=ACCOUNTS, prepare=write_tiny_png) as server:
            root = ET.fromstring(server.request("GET", "/api/account.xml", auth=("brand", "brand")).body)
            self.assertEqual(root.find("stats").get("available_space"), str(5 * 1024))
            info = root.find("branding_info")
            self.assertEqual(info.findtext("title"), 'Brand <&> "Co"')
            self.assertEqual([info.findtext(c) for c in ("font_color", "top_color", "bottom_color")],
                             ["#FFEEDD", "#102030", "#405060"])
            logo = server.request("GET", info.findtext("logo"), auth=("brand", "brand"))
            self.assertEqual(logo.body, TINY_PNG)
            background = server.request("GET", info.findtext("background_image"), auth=("brand", "brand"))
            _, _, rows = decode_png(background.body)
            self.assertTrue(close_to(rows[0][0][:3], (0x10, 0x20, 0x30), 30))

    def test_bad_accounts_files_stop_the_server_with_a_clear_message(self):
        cases = [
            ("[a]\npassword = x\ncolour = red\n", r"line 3: unknown key 'colour'"),
            ("[a b]\npassword = x\n", r"line 1: invalid user name"),
            ("[a]\npassword = x\nquota = lots\n", r"line 3: quota"),
            ("[a]\npassword = x\nbranding = yes\nlogo = missing.png\n", r"cannot read .*missing\.png"),
            ("", r"no accounts defined"),
        ]
        for text, message in cases:
            with self.subTest(text=text):
                with Server(accounts="[ok]\npassword = x\n") as server:  # just for a temp folder
                    path = os.path.join(server.tmp, "bad.ini")
                    with open(path, "w") as f:
                        f.write(text)
                    out = subprocess.run([BINARY, "--port", "0", "--data", server.data, "--accounts", path],
                                         capture_output=True, timeout=20)
                    self.assertEqual(out.returncode, 1)
                    self.assertEqual(out.stdout, b"")
                    self.assertRegex(out.stderr.decode(), message)
        out = subprocess.run([BINARY, "--port", "0", "--accounts", "/nonexistent/accounts.ini"],
                             capture_output=True, timeout=20)
        self.assertEqual(out.returncode, 1)
        self.assertIn(b"cannot read /nonexistent/accounts.ini", out.stderr)


if __name__ == "__main__":
    unittest.main()
