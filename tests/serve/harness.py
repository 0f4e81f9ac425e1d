"""Runs a real `kavlen serve` under its own Xvfb for the channel tests, and
drives it with the standalone client of examples/clients (its own WebSocket
framing and codecs, apart from the host's)."""
import ctypes
import os
import re
import struct
import signal
import subprocess
import sys
import tempfile
import threading
import time
import zlib

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
            rc = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise
        if rc != 0:  # say why in the test's log
            self._reader.join(timeout=5)
            sys.stderr.write("kavlen serve exited with %d; its last lines:\n%s\n" % (rc, "\n".join(self.lines[-60:])))
        return rc


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


# ---------------------------------------------------------------- X11 helpers

def windows(display):
    """{name: (id, width, height, x, y)} of the X server's top-level windows."""
    tree = subprocess.run(["xwininfo", "-root", "-tree", "-display", display], capture_output=True,
                          text=True).stdout
    out = {}
    for line in tree.splitlines():
        m = re.match(r'\s*(0x[0-9a-f]+) "(.*)": \(.*\)\s+(\d+)x(\d+)\+(-?\d+)\+(-?\d+)', line)
        if m:
            out[m.group(2)] = (m.group(1), int(m.group(3)), int(m.group(4)), int(m.group(5)), int(m.group(6)))
    return out


def wait_window(display, name, timeout=10, want=None):
    """The window named `name` (optionally once its geometry is `want`)."""
    end = time.time() + timeout
    while time.time() < end:
        w = windows(display).get(name)
        if w and (want is None or w[1:] == want):
            return w
        time.sleep(0.1)
    return windows(display).get(name)


def screenshot(display, window_id):
    """(width, height, rgb bytes) of a window, read with xwd."""
    data = subprocess.run(["xwd", "-id", window_id, "-silent", "-display", display], capture_output=True,
                          check=True).stdout
    h = struct.unpack(">25I", data[:100])
    header_size, width, height = h[0], h[4], h[5]
    bits_per_pixel, bytes_per_line, ncolors = h[11], h[12], h[19]
    if bits_per_pixel != 32:
        raise ValueError("xwd: %d bits a pixel" % bits_per_pixel)
    red, green, blue = h[14], h[15], h[16]
    byte_order = h[7]
    pix = data[header_size + ncolors * 12:]
    out = bytearray(width * height * 3)
    shifts = [(m & -m).bit_length() - 1 for m in (red, green, blue)]
    fmt = ">I" if byte_order else "<I"
    for y in range(height):
        row = pix[y * bytes_per_line:y * bytes_per_line + width * 4]
        vals = struct.unpack(fmt[0] + "%dI" % width, row)
        o = y * width * 3
        for x, v in enumerate(vals):
            out[o + 3 * x] = (v >> shifts[0]) & 255
            out[o + 3 * x + 1] = (v >> shifts[1]) & 255
            out[o + 3 * x + 2] = (v >> shifts[2]) & 255
    return width, height, bytes(out)


def read_png(path):
    """(width, height, rgb bytes) of an 8-bit RGB or RGBA PNG."""
    with open(path, "rb") as f:
        data = f.read()
    pos, idat, width = 8, b"", 0
    while pos < len(data):
        n, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + n]
        if kind == b"IHDR":
            width, height, depth, color = struct.unpack(">IIBB", body[:10])
            if depth != 8 or color not in (2, 6):
                raise ValueError("unsupported PNG")
            bpp = 3 if color == 2 else 4
        elif kind == b"IDAT":
            idat += body
        pos += 12 + n
    raw = zlib.decompress(idat)
    stride = width * bpp
    prev = bytearray(stride)
    out = bytearray()
    for y in range(height):
        ftype = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - bpp] if i >= bpp else 0
            b = prev[i]
            c = prev[i - bpp] if i >= bpp else 0
            if ftype == 1:
                line[i] = (line[i] + a) & 255
            elif ftype == 2:
                line[i] = (line[i] + b) & 255
            elif ftype == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif ftype == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        prev = line
        if bpp == 3:
            out += line
        else:
            for x in range(width):
                out += line[4 * x:4 * x + 3]
    return width, height, bytes(out)


def close_window(display, window_id):
    """Asks a window to close as a window manager does (WM_DELETE_WINDOW)."""
    x = ctypes.CDLL("libX11.so.6")
    x.XOpenDisplay.restype = ctypes.c_void_p
    x.XOpenDisplay.argtypes = [ctypes.c_char_p]
    x.XInternAtom.restype = ctypes.c_ulong
    x.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
    x.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long, ctypes.c_void_p]
    x.XFlush.argtypes = [ctypes.c_void_p]
    x.XCloseDisplay.argtypes = [ctypes.c_void_p]

    class ClientMessage(ctypes.Structure):
        _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                    ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("message_type", ctypes.c_ulong),
                    ("format", ctypes.c_int), ("data", ctypes.c_long * 5), ("pad", ctypes.c_long * 12)]

    dpy = x.XOpenDisplay(display.encode())
    ev = ClientMessage()
    ev.type = 33  # ClientMessage
    ev.window = int(window_id, 16)
    ev.message_type = x.XInternAtom(dpy, b"WM_PROTOCOLS", 0)
    ev.format = 32
    ev.data[0] = x.XInternAtom(dpy, b"WM_DELETE_WINDOW", 0)
    ev.data[1] = 0  # CurrentTime
    x.XSendEvent(dpy, ev.window, 0, 0, ctypes.byref(ev))
    x.XFlush(dpy)
    x.XCloseDisplay(dpy)


def compare(a, b):
    """(share of pixels within 2 levels on every channel, largest difference)."""
    assert len(a) == len(b)
    close, worst = 0, 0
    for i in range(0, len(a), 3):
        d = max(abs(a[i] - b[i]), abs(a[i + 1] - b[i + 1]), abs(a[i + 2] - b[i + 2]))
        worst = max(worst, d)
        close += d <= 2
    return close / (len(a) // 3), worst


XORG_CONF = """
Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoAddGPU" "false"
EndSection
Section "Device"
  Identifier "dummy"
  Driver "dummy"
  VideoRam 256000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5.0 - 1000.0
  VertRefresh 5.0 - 200.0
EndSection
Section "Screen"
  Identifier "screen"
  Device "dummy"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual 4096 2160
  EndSubSection
EndSection
"""


class XorgDummy:
    """Xorg with the dummy driver: displays DUMMY0..DUMMY15 that can be
    plugged and unplugged with xrandr, as projectors are."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="kavlen-xorg-", dir=os.environ.get("TMPDIR"))
        conf = os.path.join(self.dir, "xorg.conf")
        with open(conf, "w") as f:
            f.write(XORG_CONF)
        r, w = os.pipe()
        self.proc = subprocess.Popen(["Xorg", "-displayfd", str(w), "-noreset", "-nolisten", "tcp", "-config", conf,
                                      "-configdir", self.dir, "-logfile", os.path.join(self.dir, "x.log")],
                                     pass_fds=(w,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(w)
        with os.fdopen(r) as f:
            self.display = ":" + f.readline().strip()
        self.xrandr("--output", "DUMMY0", "--mode", "1280x720")

    def xrandr(self, *args):
        env = dict(os.environ, DISPLAY=self.display)
        subprocess.run(["xrandr", *args], env=env, check=True, capture_output=True)
        # Querying makes the server send the change events to its clients.
        subprocess.run(["xrandr", "-q"], env=env, check=True, capture_output=True)

    def plug(self, output, x):
        env = dict(os.environ, DISPLAY=self.display)
        subprocess.run(["xrandr", "--addmode", output, "1280x720"], env=env, capture_output=True)
        self.xrandr("--output", output, "--mode", "1280x720", "--pos", "%dx0" % x)

    def unplug(self, output):
        self.xrandr("--output", output, "--off")

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=10)
        subprocess.run(["rm", "-rf", self.dir], check=False)
