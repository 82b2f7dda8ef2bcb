"""Every kelvara request needs HTTP basic authentication."""

import unittest

from kltest import Server, basic, hoplift_body, BOUNDARY

ACCOUNTS = """
[demo]
password = demo
branding = yes

[colon]
password = a:b c
quota = 1 MiB
"""

PROTECTED = [
    ("GET", "/"),
    ("GET", "/api/account.xml"),
    ("GET", "/api/user"),
    ("GET", "/branding/demo/logo.png"),
    ("GET", "/no/such/path"),
    ("POST", "/api/assets"),
]

BAD_AUTHORIZATION = {
    "none": None,
    "wrong password": basic("demo", "wrong"),
    "password in wrong case": basic("demo", "DEMO"),
    "user in wrong case": basic("DEMO", "demo"),
    "unknown user": basic("nobody", "demo"),
    "empty": "Basic ",
    "not base64": "Basic ***",
    "no colon": "Basic ZGVtbw==",  # "demo"
    "other scheme": "Bearer ZGVtbzpkZW1v",
    "password prefix": basic("demo", "dem"),
}


class AuthTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server(accounts=ACCOUNTS).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.server.__exit__(None, None, None)

    def send(self, method, path, authorization):
        headers = {}
        body = b""
        if authorization is not None:
            headers["Authorization"] = authorization
        if method == "POST":
            body = hoplift_body("x.txt", b"payload" * 1000)
            headers["Content-Type"] = "multipart/form-data; boundary=" + BOUNDARY.decode()
        return self.server.request(method, path, body, headers, auth=None)

    def test_refused_without_valid_credentials(self):
        before = self.server.files()
        for label, authorization in BAD_AUTHORIZATION.items():
            for method, path in PROTECTED:
                with self.subTest(credentials=label, method=method, path=path):
                    resp = self.send(method, path, authorization)
                    self.assertEqual(resp.status, 401)
                    self.assertEqual(resp.header("WWW-Authenticate"), 'Basic realm="kelvara"')
        # None of the refused uploads stored anything.
        self.assertEqual(self.server.files(), before)

    def test_accepted_with_valid_credentials(self):
        for method, path in PROTECTED:
            with self.subTest(method=method, path=path):
                resp = self.send(method, path, basic("demo", "demo"))
                expected = 201 if method == "POST" else 404 if path == "/no/such/path" else 200
                self.assertEqual(resp.status, expected)
                self.assertIsNone(resp.header("WWW-Authenticate"))

    def test_password_with_colon_and_space(self):
        resp = self.server.request("GET", "/api/account.xml", auth=("colon", "a:b c"))
        self.assertEqual(resp.status, 200)
        self.assertIn(b'available_space="1048576"', resp.body)

    def test_branding_of_another_account_is_not_served(self):
        resp = self.server.request("GET", "/branding/demo/logo.png", auth=("colon", "a:b c"))
        self.assertEqual(resp.status, 404)

    def test_with_curl(self):
        for user, password, code in [("demo", "demo", b"200"), ("demo", "x", b"401"), (None, None, b"401")]:
            with self.subTest(user=user, password=password):
                out = self.server.curl("-o", "/dev/null", "-w", "%{http_code} %header{www-authenticate}",
                                       user=user, password=password, path="/api/user")
                self.assertEqual(out.returncode, 0, out.stderr)
                status, _, challenge = out.stdout.partition(b" ")
                self.assertEqual(status, code)
                self.assertEqual(challenge, b"" if code == b"200" else b'Basic realm="kelvara"')


if __name__ == "__main__":
    unittest.main()
