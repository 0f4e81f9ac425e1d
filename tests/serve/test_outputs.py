"""Output windows of a real `kavlen serve` under Xvfb: what the display
channel promises, checked against the X server's own window list and
screenshots of the windows compared with `kavlen render` of the same scene."""
import json
import os
import subprocess
import tempfile
import time
import unittest

from harness import (KAVLEN, SOURCE, Serve, Xvfb, close_window, compare, read_png, screenshot, wait_window,
                     windows)

DISPLAY = "app.kavlen/display"
DEMO = os.path.join(SOURCE, "examples", "demo")
# The demo scene sized for the window, so that the window's renderer and the
# CPU render draw at the same resolution (masks and blurs are made at the
# scene's size and would otherwise be resampled on the GPU).
with open(os.path.join(DEMO, "scene.json"), encoding="utf-8") as f:
    SCENE = json.load(f)
SCENE["outputs"][0]["resolution"] = [960, 540]
# Text comes from the offline compositor on every path: one text layer too.
SCENE["mappings"].append({"id": "caption", "corners": [[0.05, 0.8], [0.6, 0.8], [0.6, 0.97], [0.05, 0.97]],
                          "paint": {"type": "text", "text": "Kavlen · texto", "bold": True, "argb": 4294967295}})
DEMO_STATE = json.dumps({"scene": SCENE})


def cpu_render():
    """`kavlen render` of the window-sized demo scene: (width, height, rgb)."""
    folder = tempfile.mkdtemp(dir=os.environ.get("TMPDIR"))
    scene, out = os.path.join(folder, "scene.json"), os.path.join(folder, "frame.png")
    with open(scene, "w", encoding="utf-8") as f:
        json.dump(SCENE, f)
    subprocess.run([KAVLEN, "render", scene, "-o", out, "--media-root", DEMO], check=True, capture_output=True)
    try:
        return read_png(out)
    finally:
        os.unlink(out)
        os.unlink(scene)
        os.rmdir(folder)


def events_until(client, method, timeout=10):
    """The events up to and including the first call of `method`."""
    seen = []
    end = time.time() + timeout
    while time.time() < end:
        ev = client.next_event(timeout=max(0.05, end - time.time()))
        seen.append(ev)
        if ev[1] == method:
            return seen
    raise AssertionError("no %s in %r" % (method, seen))


def shot_when(display, window_id, check, timeout=10):
    """A screenshot once `check(rgb)` holds (frames come at the refresh)."""
    end = time.time() + timeout
    while True:
        w, h, rgb = screenshot(display, window_id)
        if check(rgb) or time.time() > end:
            return w, h, rgb
        time.sleep(0.2)


class Windows(unittest.TestCase):
    """The GPU sink (the default) on llvmpipe, and everything about windows."""

    @classmethod
    def setUpClass(cls):
        cls.x = Xvfb("1600x1000x24")
        cls.prefs = tempfile.mkdtemp(dir=os.environ.get("TMPDIR"))
        cls.serve = Serve(cls.x.display, env={"XDG_DATA_HOME": cls.prefs})
        cls.c = cls.serve.client()
        assert cls.c.call(DISPLAY, "ready", {"mediaRoot": DEMO}) == ("ok", None)

    @classmethod
    def tearDownClass(cls):
        cls.c.close()
        assert cls.serve.stop() == 0
        cls.x.stop()

    def tearDown(self):
        for oid in ("out-1", "out-2", "out-3"):
            self.c.call(DISPLAY, "closeOutput", {"outputId": oid})
        self.c.events()

    def test_list_displays_is_the_x_screen(self):
        self.assertEqual(self.c.call(DISPLAY, "listDisplays"),
                         ("ok", [{"id": "screen", "name": "screen", "width": 1600.0, "height": 1000.0, "scale": 1.0,
                                  "main": True}]))
        # Arguments of any shape answer nil; unknown methods are not implemented.
        self.assertEqual(self.c.call(DISPLAY, "closeOutput", [1, 2]), ("ok", None))
        self.assertEqual(self.c.call(DISPLAY, "setScene", {"outputId": "out-9"}), ("ok", None))
        self.assertEqual(self.c.call(DISPLAY, "resize", {}), ("notimplemented",))

    def test_plain_windows_scene_and_close(self):
        self.assertEqual(self.c.call(DISPLAY, "openOutput", {}), ("ok", None))
        w1 = wait_window(self.x.display, "Kavlen · out-1", want=(960, 540, 80, 80))
        self.assertEqual(w1[1:], (960, 540, 80, 80))
        self.assertEqual(self.c.next_event(), (DISPLAY, "displayConnected",
                                               {"width": 960.0, "height": 540.0, "scale": 1.0, "outputId": "out-1"}))
        self.assertTrue(self.serve.wait_line(r"^\[kavlen\] saída out-1 em janela: frame=\{\{80, 80\}, \{960, 540\}\} "
                                             r"visível=1 tela=screen$"))

        self.c.call(DISPLAY, "setScene", {"outputId": "out-1", "json": DEMO_STATE})
        _, _, want = cpu_render()
        w, h, got = shot_when(self.x.display, w1[0], lambda rgb: compare(rgb, want)[0] > 0.995)
        share, worst = compare(got, want)
        self.assertEqual((w, h), (960, 540))
        self.assertGreater(share, 0.995, "GPU window against the CPU render: worst difference %d" % worst)

        # A second plain window steps right; "ready" from a new client reports both.
        self.c.call(DISPLAY, "openOutput", {"outputId": "out-2", "displayId": "no such display"})
        self.assertEqual(wait_window(self.x.display, "Kavlen · out-2", want=(960, 540, 120, 80))[1:],
                         (960, 540, 120, 80))
        self.assertTrue(self.serve.wait_line(r"saída out-2 em no such display: frame=\{\{120, 80\}"))
        other = self.serve.client("json")
        try:
            other.call(DISPLAY, "ready")
            got_ids = sorted(e[2]["outputId"] for e in [other.next_event(), other.next_event()])
            self.assertEqual(got_ids, ["out-1", "out-2"])
        finally:
            other.close()

        # Closed by the channel, and by the window manager: both tell the interface.
        self.c.events()
        self.c.call(DISPLAY, "closeOutput", {"outputId": "out-2"})
        self.assertEqual(events_until(self.c, "displayDisconnected")[-1][2], {"outputId": "out-2"})
        close_window(self.x.display, w1[0])
        self.assertEqual(events_until(self.c, "displayDisconnected")[-1][2], {"outputId": "out-1"})
        time.sleep(0.3)
        self.assertNotIn("Kavlen · out-1", windows(self.x.display))

        # Reopened, out-1 shows its last scene at once.
        self.c.call(DISPLAY, "openOutput", {"outputId": "out-1"})
        w1 = wait_window(self.x.display, "Kavlen · out-1")
        _, _, got = shot_when(self.x.display, w1[0], lambda rgb: compare(rgb, want)[0] > 0.995)
        self.assertGreater(compare(got, want)[0], 0.995)

    def test_modes_and_media_reset(self):
        black = bytes(960 * 540 * 3)
        self.c.call(DISPLAY, "openOutput", {"outputId": "out-1"})
        w1 = wait_window(self.x.display, "Kavlen · out-1")
        state = json.loads(DEMO_STATE)
        state["mode"] = "blackout"
        self.c.call(DISPLAY, "setScene", {"outputId": "out-1", "json": json.dumps(state)})
        self.assertEqual(shot_when(self.x.display, w1[0], lambda rgb: rgb == black)[2], black)
        state["mode"] = "testPattern"
        self.c.call(DISPLAY, "setScene", {"outputId": "out-1", "json": json.dumps(state)})
        chart = shot_when(self.x.display, w1[0], lambda rgb: rgb != black)[2]
        self.assertNotEqual(chart, black)
        # "mediaReset" is kept like any state: an output opened after it shows nothing.
        self.c.call(DISPLAY, "setScene", {"outputId": "out-3", "json": "mediaReset"})
        self.c.call(DISPLAY, "openOutput", {"outputId": "out-3"})
        w3 = wait_window(self.x.display, "Kavlen · out-3")
        time.sleep(0.5)
        self.assertEqual(screenshot(self.x.display, w3[0])[2], black)


class CpuSink(unittest.TestCase):
    """The preference false, or no GL at all: the CPU sink, exactly the CPU render."""

    def check(self, env):
        x = Xvfb("1280x800x24")
        s = Serve(x.display, env=env)
        try:
            c = s.client()
            c.call(DISPLAY, "ready", {"mediaRoot": DEMO})
            c.call(DISPLAY, "setScene", {"outputId": "out-1", "json": DEMO_STATE})
            c.call(DISPLAY, "openOutput", {"outputId": "out-1"})
            w1 = wait_window(x.display, "Kavlen · out-1", want=(960, 540, 80, 80))
            _, _, want = cpu_render()
            _, _, got = shot_when(x.display, w1[0], lambda rgb: rgb == want)
            self.assertEqual(compare(got, want)[1], 0, "the CPU sink must show the CPU render exactly")
            self.assertIsNone(s.wait_line("saída Metal", timeout=0.5))
            c.close()
        finally:
            self.assertEqual(s.stop(), 0)
            x.stop()

    def test_preference_false(self):
        prefs = tempfile.mkdtemp(dir=os.environ.get("TMPDIR"))
        os.makedirs(os.path.join(prefs, "kavlen"))
        with open(os.path.join(prefs, "kavlen", "shared_preferences.json"), "w") as f:
            json.dump({"flutter.nativeOutput": False}, f)
        self.check({"XDG_DATA_HOME": prefs})

    def test_no_gl(self):
        self.check({"KAVLEN_NO_GL": "1", "XDG_DATA_HOME": tempfile.mkdtemp(dir=os.environ.get("TMPDIR"))})


class Startup(unittest.TestCase):
    def test_closing_the_main_window_closes_every_output_and_ends(self):
        x = Xvfb("1280x800x24")
        s = Serve(x.display)
        try:
            c = s.client()
            c.call(DISPLAY, "ready")
            for oid in ("out-1", "out-2"):
                c.call(DISPLAY, "openOutput", {"outputId": oid})
            self.assertEqual(len(events_until(c, "displayConnected")) + len(events_until(c, "displayConnected")), 2)
            main = wait_window(x.display, "Kavlen")
            self.assertGreaterEqual(main[1:3], (900, 600))
            close_window(x.display, main[0])
            gone = sorted(e[2]["outputId"] for e in [c.next_event(), c.next_event()] if e[1] == "displayDisconnected")
            self.assertEqual(gone, ["out-1", "out-2"])
            self.assertEqual(s.proc.wait(timeout=10), 0)
        finally:
            s.stop()
            x.stop()

    def test_kavlen_output_opens_a_plain_window_after_a_second(self):
        x = Xvfb("1280x800x24")
        s = Serve(x.display, env={"KAVLEN_OUTPUT": "1"})
        try:
            self.assertNotIn("Kavlen · out-1", windows(x.display))
            w = wait_window(x.display, "Kavlen · out-1", timeout=5, want=(960, 540, 80, 80))
            self.assertEqual(w[1:], (960, 540, 80, 80))
        finally:
            self.assertEqual(s.stop(), 0)
            x.stop()


if __name__ == "__main__":
    unittest.main(verbosity=2)
