"""Displays that come and go, on Xorg's dummy driver: "out-1" follows the
first free external display, and only "out-1" comes back by itself."""
import time
import unittest

from harness import Serve, XorgDummy, wait_window, windows

DISPLAY = "app.kavlen/display"


def next_events(client, count, timeout=10):
    return [client.next_event(timeout=timeout)[1:] for _ in range(count)]


class HotPlug(unittest.TestCase):
    def setUp(self):
        self.x = XorgDummy()
        self.x.plug("DUMMY1", 1280)

    def tearDown(self):
        self.x.stop()

    def test_out_1_follows_the_external_displays(self):
        s = Serve(self.x.display)
        try:
            # Opened on the external display before any client said "ready".
            self.assertTrue(s.wait_line(r"^\[kavlen\] saída out-1 em DUMMY1: frame=\{\{1280, 0\}, \{1280, 720\}\} "
                                        r"visível=1 tela=DUMMY1$"))
            self.assertEqual(wait_window(self.x.display, "Kavlen · out-1", want=(1280, 720, 1280, 0))[1:],
                             (1280, 720, 1280, 0))
            c = s.client()
            ok, displays = c.call(DISPLAY, "listDisplays")
            self.assertEqual([(d["id"], d["main"], d["width"]) for d in displays],
                             [("DUMMY0", True, 1280.0), ("DUMMY1", False, 1280.0)])
            c.call(DISPLAY, "ready")
            self.assertEqual(next_events(c, 1), [("displayConnected",
                                                  {"width": 1280.0, "height": 720.0, "scale": 1.0,
                                                   "outputId": "out-1"})])
            # A plain window of another id stays when displays change.
            c.call(DISPLAY, "openOutput", {"outputId": "side"})
            self.assertEqual(next_events(c, 1)[0][0], "displayConnected")

            # Unplugged: the order the interface sees, then out-1 on the free display.
            self.x.plug("DUMMY2", 2560)
            self.assertEqual(next_events(c, 1), [("displaysChanged", None)])
            self.x.unplug("DUMMY1")
            got = next_events(c, 3)
            self.assertEqual(got[0], ("displaysChanged", None))
            self.assertEqual(got[1], ("displayDisconnected", {"outputId": "out-1"}))
            self.assertEqual(got[2][0], "displayConnected")
            self.assertEqual(got[2][1]["outputId"], "out-1")
            self.assertEqual(wait_window(self.x.display, "Kavlen · out-1", want=(1280, 720, 2560, 0))[1:],
                             (1280, 720, 2560, 0))

            # The last external display goes: out-1 closes and nothing replaces it.
            self.x.unplug("DUMMY2")
            self.assertEqual(next_events(c, 2), [("displaysChanged", None),
                                                 ("displayDisconnected", {"outputId": "out-1"})])
            time.sleep(0.5)
            names = windows(self.x.display)
            self.assertNotIn("Kavlen · out-1", names)
            self.assertIn("Kavlen · side", names)
            self.assertEqual(c.events(), [])
            c.close()
        finally:
            self.assertEqual(s.stop(), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
