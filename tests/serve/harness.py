"""Runs a real `kavlen serve` under its own Xvfb for the channel tests, and
drives it with the standalone client of examples/clients (its own WebSocket
framing and codecs, apart from the host's)."""
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "examples", "clients"))
import kavlen_client  # noqa: E402

KAVLEN = os.environ.get("KAVLEN_EXE", os.path.join(SOURCE, "build", "kavlen"))
CHANNELS_LINE = re.compile(r"^\[kavlen\] channels on ws://127\.0\.0\.1:(\d+)/channels$")


class Xvfb:
    """An X server of our own on a free display number."""

    def __init__(self, size="1920x1080x24"):
        r, w = os.pipe()
        self.proc = subprocess.Popen(["Xvfb", "-displayfd", str(w), "-screen", "0", size, "-nolisten", "tcp"],
                                     pass_fds=(w,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(w)
        with os.fdopen(r) as f:
            self.display = ":" + f.readline().strip()

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=10)


class Serve:
    """A `kavlen serve` process with KAVLEN_PORT=0; `port` once it listens."""

    def __init__(self, display=None, args=(), env=None, wait=True):
        e = dict(os.environ)
        e["KAVLEN_PORT"] = "0"
        e.pop("DISPLAY", None)
        if display:
            e["DISPLAY"] = display
        e.update(env or {})
        self.proc = subprocess.Popen([KAVLEN, "serve", *args], env=e, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.lines = []
        self._cond = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.port = None
        if wait:
            line = self.wait_line(CHANNELS_LINE, 20)
            if not line:
                raise RuntimeError("kavlen serve did not start:\n" + "\n".join(self.lines))
            self.port = int(CHANNELS_LINE.match(line).group(1))

    def _read(self):
        for line in self.proc.stderr:
            with self._cond:
                self.lines.append(line.rstrip("\n"))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def wait_line(self, pattern, timeout=10):
        """The first stderr line matching the regex, waiting for it."""
        end = time.time() + timeout
        with self._cond:
            while True:
                for line in self.lines:
                    if re.search(pattern, line):
                        return line
                left = end - time.time()
                if left <= 0 or (self.proc.poll() is not None and not self._reader.is_alive()):
                    return None
                self._cond.wait(min(left, 0.2))

    def client(self, codec="standard", origin=None):
        return kavlen_client.Client(port=self.port, codec=codec, origin=origin)

    def stop(self, sig=signal.SIGTERM, timeout=10):
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise


def ffmpeg(*args):
    subprocess.run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", *args], check=True)


class Media:
    """Small media files made for the tests, in a temporary folder."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="kavlen-serve-", dir=os.environ.get("TMPDIR"))
        self.tone = self.path("tone.wav")        # 2 s of 440 Hz at 44100 Hz
        ffmpeg("-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100:duration=2", self.tone)
        self.long = self.path("long.wav")        # 120 s, for calls still running when a client goes
        ffmpeg("-f", "lavfi", "-i", "sine=frequency=220:sample_rate=44100:duration=120", self.long)
        self.video = self.path("clip.mp4")       # 2 s, 320x180, no audio
        ffmpeg("-f", "lavfi", "-i", "testsrc=size=320x180:rate=25:duration=2", "-pix_fmt", "yuv420p", self.video)

    def path(self, name):
        return os.path.join(self.dir, name)

    def cleanup(self):
        subprocess.run(["rm", "-rf", self.dir], check=False)


def jpeg_size(data):
    """(width, height) from a JPEG's first SOF marker."""
    i = 2
    while i + 9 < len(data):
        if data[i] != 0xFF:
            i += 1
            continue
        marker = data[i + 1]
        length = (data[i + 2] << 8) | data[i + 3]
        if 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC):
            return (data[i + 7] << 8) | data[i + 8], (data[i + 5] << 8) | data[i + 6]
        i += 2 + length
    return None
