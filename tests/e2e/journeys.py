#!/usr/bin/python3
"""Journeys of a person using Hoplift, run against the real program.

Each journey gets a desktop of its own: an X server (Xvfb), a session bus with an
unlocked gnome-keyring, a system bus with a stand-in logind, a kelvara-local service on
a free loopback port, and a fresh home. Hoplift is driven only as a person or the
desktop drives it (keys and clicks through xdotool, a second start with paths, signals,
logind's sleep signal) and judged only by what a person or the service sees: the files
the service stored, the window, the settings file and the secret store. The program's
log is read only to know when to act.

Run one journey:  journeys.py Journeys.test_first_start
Needs HOPLIFT_BINARY, KELVARA_LOCAL and E2E_ARTIFACTS (where screenshots go).
"""

import base64
import hashlib
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
import zipfile

HOPLIFT = os.environ.get("HOPLIFT_BINARY", "")
SERVICE = os.environ.get("KELVARA_LOCAL", "")
ARTIFACTS = os.environ.get("E2E_ARTIFACTS", tempfile.gettempdir())
KEYRING_PASSWORD = b"hoplift-journeys"


def wait_for(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        result = predicate()
        if result:
            return result
        time.sleep(0.1)
    raise AssertionError(f"timed out after {timeout} s waiting for {what}")


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def write_file(path, size, seed=0):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    block = bytes((seed + i * 7) % 256 for i in range(65536))
    with open(path, "wb") as f:
        left = size
        while left > 0:
            f.write(block[: min(left, len(block))])
            left -= len(block)
    return path


class Desktop:
    """One person's desktop, with the local service; closed with everything it started."""

    def __init__(self, name, service_options=()):
        self.name = name
        self.processes = []
        self.home = tempfile.mkdtemp(prefix="hoplift-journey-")
        self.env = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "HOME": self.home,
            "LANG": "C.UTF-8",
            "XDG_CONFIG_HOME": self.path("config"),
            "XDG_DATA_HOME": self.path("data"),
            "XDG_CACHE_HOME": self.path("cache"),
            "XDG_STATE_HOME": self.path("state"),
            "XDG_RUNTIME_DIR": self.path("runtime"),
            "TMPDIR": self.path("tmp"),
            # The update check stays on this machine.
            "HOPLIFT_APPCAST_URL": "http://127.0.0.1:9/appcast.xml",
        }
        for folder in ("config", "data", "cache", "state", "runtime", "tmp", "files"):
            os.makedirs(self.path(folder), mode=0o700, exist_ok=True)
        try:
            self._start_display()
            self._start_session_bus()
            self._start_system_bus()
            self.service_data = self.path("service")
            self.start_service(service_options)
        except BaseException:
            self.close()
            raise

    def path(self, *parts):
        return os.path.join(self.home, *parts)

    def spawn(self, args, env=None, **kwargs):
        process = subprocess.Popen(args, env=env or self.env, **kwargs)
        self.processes.append(process)
        return process

    def _start_display(self):
        read, write = os.pipe()
        self.spawn(["Xvfb", "-displayfd", str(write), "-screen", "0", "1280x900x24",
                    "-nolisten", "tcp"], pass_fds=(write,), stderr=subprocess.DEVNULL)
        os.close(write)
        with os.fdopen(read) as f:
            number = f.readline().strip()
        self.env["DISPLAY"] = ":" + number

    def _start_session_bus(self):
        bus = self.spawn(["dbus-daemon", "--session", "--nofork", "--print-address=1"],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.env["DBUS_SESSION_BUS_ADDRESS"] = bus.stdout.readline().strip()
        keyring = subprocess.run(
            ["gnome-keyring-daemon", "--unlock", "--components=secrets"],
            input=KEYRING_PASSWORD, env=self.env, capture_output=True, check=True)
        for line in keyring.stdout.decode().splitlines():
            key, _, value = line.partition("=")
            if key == "GNOME_KEYRING_CONTROL":
                self.env[key] = value

    def _start_system_bus(self):
        bus = self.spawn(["dbus-daemon", "--session", "--nofork", "--print-address=1"],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.system_bus = bus.stdout.readline().strip()
        self.env["DBUS_SYSTEM_BUS_ADDRESS"] = self.system_bus
        self.spawn(["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for(lambda: self.logind("org.freedesktop.DBus.Introspectable.Introspect") != "",
                 20, "the stand-in logind")

    def start_service(self, options=(), port=0):
        self.service = self.spawn(
            [SERVICE, "--port", str(port), "--data", self.service_data, *options],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        line = self.service.stdout.readline()
        match = re.match(r"listening on (http://127\.0\.0\.1:(\d+))", line)
        assert match, f"kelvara-local did not start: {line!r}"
        self.url, self.port = match.group(1), int(match.group(2))

    def stop_service(self):
        self.service.kill()
        self.service.wait()

    def stored(self, name):
        return os.path.join(self.service_data, "demo", name)

    # Hoplift, as the desktop starts it.
    def start_hoplift(self, *paths):
        log = open(self.path(f"hoplift-{len(self.processes)}.log"), "wb")
        process = self.spawn([HOPLIFT, *paths], stdout=log, stderr=log, cwd=self.path("files"))
        process.log_path = log.name
        return process

    def log(self, process):
        with open(process.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def wait_log(self, process, line, count=1, timeout=30):
        wait_for(lambda: self.log(process).count(line + "\n") >= count, timeout,
                 f"{line!r} in Hoplift's log")

    def quit_hoplift(self, process):
        process.send_signal(signal.SIGTERM)
        assert process.wait(20) == 0, "Hoplift did not quit cleanly"

    def hand_over(self, *paths):
        """A second start with paths, as a file manager's "Open with" does."""
        later = subprocess.run([HOPLIFT, *paths], env=self.env, cwd=self.path("files"),
                               capture_output=True, timeout=30)
        assert later.returncode == 0, later.stderr

    def seed_account(self, password="demo"):
        os.makedirs(self.path("config", "kelvara"), exist_ok=True)
        with open(self.path("config", "kelvara", "Hoplift.conf"), "w") as f:
            f.write(f"[General]\nAccount%20URL={self.url}\nUsername=demo\n")
        secret = base64.b64encode(password.encode() + b"\0")
        subprocess.run(["secret-tool", "store", "--label=Hoplift!", "xdg:schema",
                        "org.qt.keychain", "user", "DefaultAccount", "server", "Hoplift!",
                        "type", "base64"], input=secret, env=self.env, check=True)

    def settings(self):
        values = {}
        try:
            with open(self.path("config", "kelvara", "Hoplift.conf")) as f:
                for line in f:
                    key, sep, value = line.rstrip("\n").partition("=")
                    if sep:
                        values[key.replace("%20", " ")] = value
        except FileNotFoundError:
            pass
        return values

    def saved_queue(self):
        value = self.settings().get("UploadFiles")
        return None if value is None else [p.strip() for p in value.split(",")]

    def stored_password(self):
        found = subprocess.run(["secret-tool", "lookup", "user", "DefaultAccount", "server",
                                "Hoplift!"], env=self.env, capture_output=True)
        return base64.b64decode(found.stdout) if found.returncode == 0 else None

    # What a person does and sees.
    def xdotool(self, *args):
        return subprocess.run(["xdotool", *args], env=self.env, capture_output=True,
                              text=True, timeout=30).stdout.strip()

    def window(self, title, timeout=20):
        return wait_for(lambda: self.xdotool("search", "--name", title).split("\n")[0],
                        timeout, f"a window named {title!r}")

    def focus(self, window):
        # No window manager here: the keyboard goes where the focus is set.
        self.xdotool("windowfocus", "--sync", window)
        time.sleep(0.2)

    def type_keys(self, text):
        self.xdotool("type", "--delay", "15", text)

    def press(self, *keys):
        for key in keys:
            self.xdotool("key", key)
            time.sleep(0.05)

    def click(self, window, x, y):
        """A click at x, y inside a window; negative values count from the far edge."""
        geometry = self.xdotool("getwindowgeometry", "--shell", window)
        g = dict(line.split("=") for line in geometry.splitlines())
        x = int(g["X"]) + (x if x >= 0 else int(g["WIDTH"]) + x)
        y = int(g["Y"]) + (y if y >= 0 else int(g["HEIGHT"]) + y)
        self.xdotool("mousemove", "--sync", str(x), str(y), "click", "1")

    def screenshot(self, step):
        os.makedirs(ARTIFACTS, exist_ok=True)
        path = os.path.join(ARTIFACTS, f"{self.name}-{step}.png")
        subprocess.run(["import", "-window", "root", path], env=self.env, timeout=30,
                       capture_output=True)
        return path

    def pixel(self, screenshot, x, y):
        out = subprocess.run(["convert", screenshot, "-format", f"%[hex:p{{{x},{y}}}]",
                              "info:"], capture_output=True, text=True).stdout
        return out.strip()[:6].upper()

    # The stand-in logind.
    def logind(self, method, *args):
        result = subprocess.run(
            ["gdbus", "call", "--address", self.system_bus, "--dest",
             "org.freedesktop.login1", "--object-path", "/org/freedesktop/login1",
             "--method", method, *args], capture_output=True, text=True, env=self.env)
        return result.stdout if result.returncode == 0 else ""

    def sleep_signal(self, going):
        self.logind("org.freedesktop.DBus.Mock.EmitSignal", "org.freedesktop.login1.Manager",
                    "PrepareForSleep", "b", f"[<{'true' if going else 'false'}>]")

    def delay_locks(self):
        listed = self.logind("org.freedesktop.login1.Manager.ListInhibitors")
        return listed.count("'Hoplift!'")

    def close(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.kill()
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                pass
        subprocess.run(["pkill", "-f", f"gnome-keyring-daemon.*{self.home}"], check=False)
        shutil.rmtree(self.home, ignore_errors=True)


class Journeys(unittest.TestCase):
    def desktop(self, **kwargs):
        desktop = Desktop(self._testMethodName.removeprefix("test_"), **kwargs)
        self.addCleanup(desktop.close)
        return desktop

    def fill_sheet(self, desk, url, user, password):
        desk.focus(desk.window("kelvara Account"))
        desk.press("alt+u", "ctrl+a")
        desk.type_keys(url)
        desk.press("alt+n", "ctrl+a")
        desk.type_keys(user)
        desk.press("alt+p", "ctrl+a")
        desk.type_keys(password)
        desk.press("Return")

    def test_first_start(self):
        desk = self.desktop()
        hoplift = desk.start_hoplift()
        # No account yet: the sheet opens by itself.
        self.fill_sheet(desk, f"127.0.0.1:{desk.port}", "demo", "demo")
        wait_for(lambda: desk.settings().get("Account URL"), 20, "the account to be kept")
        self.assertEqual(desk.settings()["Account URL"], desk.url)
        self.assertEqual(desk.settings()["Username"], "demo")
        # The account's branding names the window and colours the header.
        desk.window("Demo > upload")
        time.sleep(1)
        shot = desk.screenshot("connected")
        main = desk.xdotool("search", "--name", "Demo > upload")
        geometry = dict(line.split("=") for line in
                        desk.xdotool("getwindowgeometry", "--shell", main).splitlines())
        top = desk.pixel(shot, int(geometry["X"]) + 300, int(geometry["Y"]) + 30)
        self.assertNotEqual(top, "000000", "the header shows the account's gradient")
        self.assertIn("Space available: 2147483648", desk.log(hoplift))
        desk.quit_hoplift(hoplift)

    def test_wrong_password_then_right(self):
        desk = self.desktop()
        hoplift = desk.start_hoplift()
        self.fill_sheet(desk, f"127.0.0.1:{desk.port}", "demo", "wrong")
        alert = desk.window("There was a problem verifying this account")
        desk.screenshot("refused")
        self.assertIsNone(desk.settings().get("Account URL"))
        desk.focus(alert)
        desk.press("Return")  # the alert's OK; the sheet stays
        time.sleep(0.5)
        self.fill_sheet(desk, f"127.0.0.1:{desk.port}", "demo", "demo")
        wait_for(lambda: desk.settings().get("Account URL") == desk.url, 20, "the account")
        desk.window("Demo > upload")
        desk.quit_hoplift(hoplift)

    def test_handed_files_and_folder_upload_one_at_a_time(self):
        desk = self.desktop()
        desk.seed_account()
        files = [write_file(desk.path("files", "report.pdf"), 3 * 1024 * 1024 + 5, 1),
                 write_file(desk.path("files", "album", "one.jpg"), 700000, 2),
                 write_file(desk.path("files", "album", "two.jpg"), 12, 3)]
        hoplift = desk.start_hoplift()
        desk.wait_log(hoplift, "Hoplift: finished Lauching")
        desk.hand_over("report.pdf", "album")
        for name, source in (("report.pdf", files[0]), ("one.jpg", files[1]),
                             ("two.jpg", files[2])):
            wait_for(lambda: os.path.exists(desk.stored(name)), 30, name)
        wait_for(lambda: desk.saved_queue() is None, 30, "the queue to empty")
        for name, source in (("report.pdf", files[0]), ("one.jpg", files[1]),
                             ("two.jpg", files[2])):
            self.assertEqual(sha256(desk.stored(name)), sha256(source), name)
        started = re.findall(r"Hoplift: starting: (.*)", desk.log(hoplift))
        self.assertEqual(started, [files[0], files[1], files[2]])
        desk.screenshot("done")
        desk.quit_hoplift(hoplift)

    def test_bundle_arrives_as_zip(self):
        desk = self.desktop()
        desk.seed_account()
        inner = {"Contents/Info.plist": 400, "Contents/Resources/pic.png": 90000}
        for name, size in inner.items():
            write_file(desk.path("files", "Viewer.app", name), size, len(name))
        write_file(desk.path("files", "Viewer.app", ".DS_Store"), 10)
        hoplift = desk.start_hoplift("Viewer.app")
        wait_for(lambda: os.path.exists(desk.stored("Viewer.app.zip")), 30, "the archive")
        wait_for(lambda: desk.saved_queue() is None, 30, "the queue to empty")
        with zipfile.ZipFile(desk.stored("Viewer.app.zip")) as archive:
            self.assertIsNone(archive.testzip())
            names = sorted(archive.namelist())
            self.assertEqual(names, sorted(f"Viewer.app/{n}" for n in inner))
            for name in inner:
                with open(desk.path("files", "Viewer.app", name), "rb") as f:
                    self.assertEqual(archive.read(f"Viewer.app/{name}"), f.read())
        desk.quit_hoplift(hoplift)

    def test_quit_mid_upload_resumes_interrupted_file_first(self):
        # The service answers late, so the first file is still under way at quitting.
        desk = self.desktop(service_options=("--delay-ms", "1500"))
        desk.seed_account()
        first = write_file(desk.path("files", "first.bin"), 5000, 4)
        second = write_file(desk.path("files", "second.bin"), 6000, 5)
        hoplift = desk.start_hoplift("first.bin", "second.bin")
        desk.wait_log(hoplift, f"Hoplift: starting: {first}")
        desk.focus(desk.window("Demo > upload"))
        desk.press("ctrl+q")
        self.assertEqual(hoplift.wait(20), 0)
        self.assertEqual(desk.saved_queue(), [first, second])

        again = desk.start_hoplift()
        desk.wait_log(again, f"Hoplift: starting: {first}")
        self.assertNotIn(f"starting: {second}", desk.log(again).split(first)[0])
        wait_for(lambda: desk.saved_queue() is None, 40, "the queue to empty")
        self.assertEqual(sha256(desk.stored("second.bin")), sha256(second))
        desk.quit_hoplift(again)

    def test_sleep_mid_upload_and_wake(self):
        desk = self.desktop(service_options=("--delay-ms", "1500"))
        desk.seed_account()
        path = write_file(desk.path("files", "sleepy.bin"), 8000, 6)
        hoplift = desk.start_hoplift("sleepy.bin")
        wait_for(lambda: desk.delay_locks() == 1, 20, "the delay lock")
        desk.wait_log(hoplift, f"Hoplift: starting: {path}")
        time.sleep(0.3)
        desk.sleep_signal(True)
        wait_for(lambda: desk.delay_locks() == 0, 10, "the delay lock to be released")
        desk.sleep_signal(False)
        wait_for(lambda: desk.delay_locks() == 1, 10, "the delay lock again")
        desk.wait_log(hoplift, f"Hoplift: starting: {path}", count=2)
        wait_for(lambda: desk.saved_queue() is None, 30, "the queue to empty")
        self.assertEqual(sha256(desk.stored("sleepy.bin")), sha256(path))
        desk.quit_hoplift(hoplift)

    def test_service_goes_away_and_comes_back(self):
        desk = self.desktop()
        desk.seed_account()
        path = write_file(desk.path("files", "huge.bin"), 1024 * 1024 * 1024, 7)
        hoplift = desk.start_hoplift("huge.bin")
        # A gigabyte is more than Hoplift sends without asking.
        desk.focus(desk.window("Sanity check"))
        desk.press("Return")
        desk.wait_log(hoplift, f"Hoplift: starting: {path}")
        time.sleep(0.5)
        desk.stop_service()
        # The service closing the connection ends the answer without a status: the row
        # fails and stays so, in the saved queue, until the person restarts it.
        time.sleep(3)
        desk.screenshot("service-gone")
        self.assertEqual(desk.saved_queue(), [path])
        self.assertEqual(desk.log(hoplift).count("Hoplift: starting:"), 1)

        desk.start_service(port=desk.port)
        desk.click(desk.window("Demo > upload"), -25, -18)  # "Restart all"
        desk.wait_log(hoplift, f"Hoplift: starting: {path}", count=2)
        wait_for(lambda: desk.saved_queue() is None, 120, "the upload to finish")
        self.assertEqual(os.path.getsize(desk.stored("huge.bin")), os.path.getsize(path))
        self.assertEqual(sha256(desk.stored("huge.bin")), sha256(path))
        desk.screenshot("restarted")
        desk.quit_hoplift(hoplift)

    def test_killed_mid_queue_restores_it(self):
        desk = self.desktop(service_options=("--delay-ms", "1500"))
        desk.seed_account()
        files = [write_file(desk.path("files", f"part{i}.bin"), 4000 + i, i) for i in range(3)]
        hoplift = desk.start_hoplift(*files)
        desk.wait_log(hoplift, f"Hoplift: starting: {files[0]}")
        hoplift.kill()  # no shutdown at all
        hoplift.wait()
        self.assertEqual(desk.saved_queue(), files)
        # The next start takes over the lock left behind and sends everything.
        again = desk.start_hoplift()
        desk.wait_log(again, f"Hoplift: starting: {files[0]}")
        wait_for(lambda: desk.saved_queue() is None, 40, "the queue to empty")
        for path in files:
            self.assertEqual(sha256(desk.stored(os.path.basename(path))), sha256(path))
        desk.quit_hoplift(again)

    def test_corrupt_settings_file(self):
        desk = self.desktop()
        os.makedirs(desk.path("config", "kelvara"))
        with open(desk.path("config", "kelvara", "Hoplift.conf"), "wb") as f:
            f.write(b"\x00\xff[General\nAccount%20URL\n=\x80\x81\nUploadFiles=@Variant(\x00\x00\n")
        hoplift = desk.start_hoplift()
        # Nothing readable in it: Hoplift asks for the account as on a first start.
        self.fill_sheet(desk, f"127.0.0.1:{desk.port}", "demo", "demo")
        wait_for(lambda: desk.settings().get("Account URL") == desk.url, 20, "the account")
        desk.quit_hoplift(hoplift)


if __name__ == "__main__":
    unittest.main()
