#!/usr/bin/python3
"""A person's journeys with the real Hoplift on a desktop of its own (Xvfb, gnome-keyring, a
stand-in logind, kelvara-local); Hoplift's log tells when to act and what started."""

import calendar, hashlib, os, pathlib, re, shutil, subprocess, tempfile, time, unittest, zipfile

HOPLIFT, SERVICE = os.environ.get("HOPLIFT_BINARY", ""), os.environ.get("KELVARA_LOCAL", "")
ARTIFACTS = os.environ.get("E2E_ARTIFACTS", tempfile.gettempdir())


def wait_for(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if result := predicate():
            return result
        time.sleep(0.1)
    raise AssertionError(f"timed out after {timeout} s waiting for {what}")


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "sha256").hexdigest()


def write_file(path, size, seed=0):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    block = bytes((seed + i * 7) % 256 for i in range(65536))
    with open(path, "wb") as f:
        for start in range(0, size, len(block)):
            f.write(block[: size - start])
    return path


class Desktop:
    """One person's desktop with the service, for one test, whose clean-up ends it all."""

    def __init__(self, test, service_options=()):
        self.name, self.processes = test._testMethodName.removeprefix("test_"), []
        self.home = tempfile.mkdtemp(prefix="hoplift-journey-")
        test.addCleanup(self.close)
        self.env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": self.home,
                    "LANG": "C.UTF-8", "HOPLIFT_APPCAST_URL": "http://127.0.0.1:9/appcast.xml"}
        for key in ("XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME",
                    "XDG_RUNTIME_DIR", "TMPDIR", "files"):
            os.makedirs(self.env.setdefault(key, self.path(key.lower())), mode=0o700)
        del self.env["files"]
        self.conf = self.path("xdg_config_home", "kelvara", "Hoplift.conf")
        os.makedirs(os.path.dirname(self.conf))
        self.env["DISPLAY"] = ":" + self.first_line("Xvfb", "-displayfd", "1", "-screen", "0",
                                                    "1280x900x24", "-nolisten", "tcp")
        bus = ("dbus-daemon", "--session", "--nofork", "--print-address=1")
        self.env["DBUS_SESSION_BUS_ADDRESS"] = self.first_line(*bus)
        # The keyring ends with its session bus.
        subprocess.run(["gnome-keyring-daemon", "--unlock", "--components=secrets"],
                       input=b"journeys", env=self.env, capture_output=True, check=True)
        self.env["DBUS_SYSTEM_BUS_ADDRESS"] = self.first_line(*bus)
        self.spawn(["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for(lambda: self.logind("org.freedesktop.DBus.Introspectable.Introspect"), 20,
                 "the stand-in logind")
        self.start_service(service_options)

    def path(self, *parts):
        return os.path.join(self.home, *parts)

    def spawn(self, args, **kwargs):
        self.processes.append(subprocess.Popen(args, env=self.env, **kwargs))
        return self.processes[-1]

    def first_line(self, *args, stderr=subprocess.DEVNULL):  # that a helper prints when ready
        return self.spawn(args, stdout=subprocess.PIPE, stderr=stderr,
                          text=True).stdout.readline().strip()

    def start_service(self, options=(), port=0):
        line = self.first_line(SERVICE, "--port", str(port), "--data", self.path("service"),
                               *options, stderr=None)
        match = re.match(r"listening on (http://127\.0\.0\.1:(\d+))", line)
        assert match, f"kelvara-local did not start: {line!r}"
        self.service, (self.url, self.port) = self.processes[-1], match.groups()

    def stored(self, *paths):  # the digests of the files the service keeps under these names
        return [sha256(self.path("service", "demo", os.path.basename(p))) for p in paths]

    def start_hoplift(self, *paths):
        with open(self.path(f"hoplift-{len(self.processes)}.log"), "wb") as log:
            process = self.spawn([HOPLIFT, *paths], stdout=log, stderr=log, cwd=self.path("files"))
        process.log_path = log.name
        return process

    def log(self, process):
        return pathlib.Path(process.log_path).read_text(errors="replace")

    def started(self, process):
        return re.findall(r"Hoplift: starting: (.*)", self.log(process))

    def wait_log(self, process, line, count=1):
        wait_for(lambda: self.log(process).count(line + "\n") >= count, 30, repr(line))

    def quit_hoplift(self, process):
        process.terminate()
        assert process.wait(20) == 0, "Hoplift did not quit cleanly"

    def seed_account(self):
        pathlib.Path(self.conf).write_text(f"[General]\nAccount%20URL={self.url}\nUsername=demo\n")
        subprocess.run(["secret-tool", "store", "--label=Hoplift!", "xdg:schema",
                        "org.qt.keychain", "user", "DefaultAccount", "server", "Hoplift!", "type",
                        "base64"], input=b"ZGVtbwA=", env=self.env, check=True)  # "demo\0"

    def setting(self, key):
        found = re.search(f"^{key}=(.*)$", pathlib.Path(self.conf).read_text("latin-1"), re.M)
        return found and found.group(1)

    def saved_queue(self):
        return (value := self.setting("UploadFiles")) and [p.strip() for p in value.split(",")]

    def xdotool(self, *args):
        return subprocess.run(["xdotool", *args], env=self.env, capture_output=True, text=True,
                              timeout=30).stdout.strip()

    def window(self, title):
        return wait_for(lambda: self.xdotool("search", "--name", title).split("\n")[0], 20,
                        f"a window named {title!r}")

    def keys(self, title, *keys):  # no window manager here: the keyboard goes to the focus set
        self.xdotool("windowfocus", "--sync", self.window(title))
        self.xdotool("key", "--delay", "50", *keys)

    def fill_sheet(self, password):
        for key, text in (("alt+u", f"127.0.0.1:{self.port}"), ("alt+n", "demo"),
                          ("alt+p", password)):
            self.keys("kelvara Account", key, "ctrl+a")
            self.xdotool("type", "--delay", "15", text)
        self.keys("kelvara Account", "Return")

    def screenshot(self, step):
        os.makedirs(ARTIFACTS, exist_ok=True)
        subprocess.run(["import", "-window", "root", f"{ARTIFACTS}/{self.name}-{step}.png"],
                       env=self.env, capture_output=True)

    def logind(self, method, *args):
        return subprocess.run(
            ["gdbus", "call", "--address", self.env["DBUS_SYSTEM_BUS_ADDRESS"], "--dest",
             "org.freedesktop.login1", "--object-path", "/org/freedesktop/login1", "--method",
             method, *args], capture_output=True, text=True, env=self.env).stdout

    def close(self):
        for process in reversed(self.processes):
            with process:  # closes its pipes and waits
                process.kill()
        shutil.rmtree(self.home, ignore_errors=True)


class Journeys(unittest.TestCase):
    def test_first_start_then_handed_files_folder_and_bundle(self):
        desk = Desktop(self)
        garbage = b"\x00\xff[General\nAccount%20URL\n=\x80\x81\nUsername=@Variant(\x00\x00\n"
        pathlib.Path(desk.conf).write_bytes(garbage)
        desk.env["TZ"] = "HLT-5:30"  # local times that cannot pass for universal ones
        hoplift = desk.start_hoplift()
        # Nothing readable in the settings: the sheet opens as on a first start.
        desk.fill_sheet("wrong")
        alert = "There was a problem verifying this account"
        desk.keys(alert, "Return")  # the alert's OK; the sheet stays
        wait_for(lambda: not desk.xdotool("search", "--name", alert), 10, "the alert to close")
        desk.fill_sheet("demo")
        account = lambda: (desk.setting("Account%20URL"), desk.setting("Username"))
        wait_for(lambda: account() == (desk.url, "demo"), 20, "the account")
        desk.window("Demo > upload")  # titled by the account's branding
        desk.screenshot("connected")
        self.assertIn("Space available: 2147483648", desk.log(hoplift))
        report = write_file(desk.path("files", "report.pdf"), 3 * 1024 * 1024 + 5, 1)
        album = desk.path("files", "album")
        for name, size in (("one.jpg", 700000), ("two.jpg", 12), ("empty.txt", 0)):
            write_file(os.path.join(album, name), size, len(name))
        bundle = desk.path("files", "Photos.app")
        times = {"Contents/Info.plist": (2021, 7, 14, 8, 7, 43),
                 "Contents/Resources/pic.jpg": (2021, 7, 14, 23, 59, 59)}
        for name, local in times.items():
            path = write_file(os.path.join(bundle, name), 70000, len(name))
            os.utime(path, (calendar.timegm(local) - 19800,) * 2)
        write_file(os.path.join(bundle, "Contents", "._pic.jpg"), 10)
        os.symlink(desk.path("nowhere"), os.path.join(bundle, "Contents", "dangling"))
        self.assertEqual(desk.start_hoplift("report.pdf", "album", "Photos.app").wait(30), 0)
        wait_for(lambda: len(desk.started(hoplift)) == 5 and desk.saved_queue() is None, 90,
                 "the five uploads")
        desk.screenshot("done")
        # One at a time, the folder's files in the order the file system lists them.
        folder = [os.path.join(album, name) for name in os.listdir(album)]
        self.assertEqual(desk.started(hoplift), [report, *folder, bundle])
        self.assertEqual(desk.stored(report, *folder), [sha256(p) for p in (report, *folder)])
        # Hidden files are left out, the others are deflated with their local times (in steps
        # of two seconds), and a file that cannot be read is an empty entry.
        expected = {f"Photos.app/{name}": (8, local[:5] + (local[5] & ~1,),
                                           sha256(os.path.join(bundle, name)))
                    for name, local in times.items()}
        expected["Photos.app/Contents/dangling"] = (8, None, hashlib.sha256().hexdigest())
        with zipfile.ZipFile(desk.path("service", "demo", "Photos.app.zip")) as archive:
            self.assertEqual({i.filename: (i.compress_type, i.date_time if i.file_size else None,
                                           hashlib.sha256(archive.read(i)).hexdigest())
                              for i in archive.infolist()}, expected)  # read() checks the CRC
        desk.quit_hoplift(hoplift)

    def test_sleep_kill_and_quit_mid_upload_lose_nothing(self):
        # The service answers late, so the first file is still under way each time.
        desk = Desktop(self, service_options=("--delay-ms", "1500"))
        desk.seed_account()
        files = [write_file(desk.path("files", f"part{i}.bin"), 4000 + i, i) for i in range(4)]
        locks = lambda: desk.logind("org.freedesktop.login1.Manager.ListInhibitors").count(
            "'Hoplift!'")
        hoplift = desk.start_hoplift(*files[:3])
        wait_for(lambda: locks() == 1, 20, "the delay lock")
        desk.wait_log(hoplift, f"Hoplift: starting: {files[0]}")
        for going, held in (("true", 0), ("false", 1)):  # the upload and the lock go, and return
            desk.logind("org.freedesktop.DBus.Mock.EmitSignal", "org.freedesktop.login1.Manager",
                        "PrepareForSleep", "b", f"[<{going}>]")
            wait_for(lambda: locks() == held, 10, f"{held} delay lock(s) after sleep {going}")
        desk.wait_log(hoplift, f"Hoplift: starting: {files[0]}", count=2)
        wait_for(lambda: desk.saved_queue() == files[:3], 10, "the queue to be saved")
        hoplift.kill()  # no shutdown at all
        hoplift.wait()
        # The next start takes over the lock left behind and starts with the first file again.
        again = desk.start_hoplift()
        desk.wait_log(again, f"Hoplift: starting: {files[0]}")
        desk.keys("Demo > upload", "ctrl+q")
        self.assertEqual(again.wait(20), 0)
        self.assertEqual(desk.saved_queue(), files[:3])
        # A file handed to a starting Hoplift joins after the saved queue.
        last = desk.start_hoplift(files[3])
        wait_for(lambda: desk.saved_queue() is None, 60, "the queue to empty")
        desk.screenshot("done")
        self.assertEqual(desk.started(last), files)
        self.assertEqual(desk.stored(*files), [sha256(p) for p in files])
        desk.quit_hoplift(last)

    def test_service_goes_away_and_comes_back(self):
        desk = Desktop(self)
        desk.seed_account()
        path = write_file(desk.path("files", "huge.bin"), 1024 * 1024 * 1024, 7)
        hoplift = desk.start_hoplift("huge.bin")
        desk.keys("Sanity check", "Return")  # a gigabyte is more than is sent without asking
        io = pathlib.Path(f"/proc/{desk.service.pid}/io")  # what the service wrote to disk
        written = lambda: int(re.search(r"wchar: (\d+)", io.read_text()).group(1))
        wait_for(lambda: written() > 50 * 1024 * 1024, 60, "the upload to be under way")
        desk.service.kill()
        desk.service.wait()
        # No answer comes: the row fails, and stays so in the saved queue until restarted.
        desk.wait_log(hoplift, "Hoplift: error")
        desk.screenshot("service-gone")
        self.assertEqual(desk.saved_queue(), [path])
        self.assertEqual(desk.started(hoplift), [path])
        desk.start_service(port=desk.port)
        shell = desk.xdotool("getwindowgeometry", "--shell", desk.window("Demo > upload"))
        x, y, width, height = map(int, re.findall(r"=(\d+)", shell)[1:5])
        desk.xdotool("mousemove", "--sync", str(x + width - 25), str(y + height - 18), "click",
                     "1")  # on "Restart all", at the bottom right
        wait_for(lambda: desk.saved_queue() is None, 120, "the upload to finish")
        self.assertEqual(desk.started(hoplift), [path, path])
        self.assertEqual(desk.stored(path), [sha256(path)])
        desk.quit_hoplift(hoplift)


if __name__ == "__main__":
    unittest.main()
