"""A real `kavlen serve` under Xvfb, driven over the loopback WebSocket by a
client written apart from the host's own codecs, in both frame types."""
import os
import signal
import socket
import struct
import subprocess
import time
import unittest

from harness import Media, Serve, Xvfb, jpeg_size, kavlen_client

WAVE, THUMB = "app.kavlen/waveform", "app.kavlen/thumbnail"
NI = ("notimplemented",)


def as_bytes(v):
    """A uint8 list arrives as bytes in binary frames and as a list in JSON."""
    return bytes(v) if isinstance(v, list) else v


class Channels(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        # Headless (no X display) for the thread-sanitizer run: the host's own
        # threads, without the window system's uninstrumented ones.
        cls.x = None if os.environ.get("KAVLEN_TEST_HEADLESS") else Xvfb()
        cls.media = Media()
        cls.serve = Serve(cls.x.display if cls.x else None)

    @classmethod
    def tearDownClass(cls):
        assert cls.serve.stop() == 0
        if cls.x:
            cls.x.stop()
        cls.media.cleanup()

    def setUp(self):
        self.clients = []

    def tearDown(self):
        for c in self.clients:
            c.close()

    def client(self, codec="standard"):
        c = self.serve.client(codec)
        self.clients.append(c)
        return c

    def test_peaks_and_pcm_in_both_codecs(self):
        for codec in ("standard", "json"):
            with self.subTest(codec=codec):
                c = self.client(codec)
                ok, v = c.call(WAVE, "peaks", {"path": self.media.tone, "count": 5})
                self.assertEqual(ok, "ok")
                self.assertAlmostEqual(v["duration"], 2.0, places=2)
                self.assertEqual(len(v["peaks"]), 16)  # 5 is below the floor of 16
                # The test tone's amplitude is 1/8.
                self.assertTrue(all(0.12 < p < 0.13 for p in v["peaks"]), v["peaks"])
                self.assertEqual(len(c.call(WAVE, "peaks", {"path": self.media.tone})[1]["peaks"]), 1000)
                self.assertEqual(len(c.call(WAVE, "peaks", {"path": self.media.tone, "count": 10**5})[1]["peaks"]),
                                 4000)
                # A count that is no integer counts as absent.
                self.assertEqual(len(c.call(WAVE, "peaks", {"path": self.media.tone, "count": 20.0})[1]["peaks"]),
                                 1000)
                self.assertEqual(c.call(WAVE, "peaks", {"path": self.media.video}), ("ok", None))  # no audio
                self.assertEqual(c.call(WAVE, "peaks", {"path": "/no/such.wav"}), ("ok", None))

                out = self.media.path("tone-%s.f32" % codec)
                self.assertEqual(c.call(WAVE, "pcm", {"path": self.media.tone, "out": out}),
                                 ("ok", {"sampleRate": 44100}))
                self.assertEqual(os.path.getsize(out), 2 * 44100 * 4)
                untouched = self.media.path("untouched-%s.f32" % codec)
                self.assertEqual(c.call(WAVE, "pcm", {"path": "/no/such.wav", "out": untouched}), ("ok", None))
                self.assertFalse(os.path.exists(untouched))

    def test_thumbnail_in_both_codecs(self):
        for codec in ("standard", "json"):
            with self.subTest(codec=codec):
                c = self.client(codec)
                ok, v = c.call(THUMB, "thumbnail", {"path": self.media.video})
                self.assertEqual(ok, "ok")
                jpeg = as_bytes(v)
                self.assertEqual(jpeg[:2], b"\xff\xd8")
                self.assertEqual(jpeg_size(jpeg), (320, 180))
                ok, v = c.call(THUMB, "thumbnail", {"path": self.media.video, "width": 100})
                self.assertEqual(jpeg_size(as_bytes(v)), (100, 56))
                self.assertEqual(c.call(THUMB, "thumbnail", {"path": self.media.tone}), ("ok", None))

    def test_argument_rules_answer_not_implemented(self):
        for codec in ("standard", "json"):
            c = self.client(codec)
            cases = [
                (WAVE, "peaks", None), (WAVE, "peaks", [self.media.tone]), (WAVE, "peaks", {"path": 7}),
                (WAVE, "pcm", {"path": self.media.tone}), (WAVE, "pcm", {"out": "/tmp/x.f32"}),
                (WAVE, "spectrum", {"path": self.media.tone}),
                (THUMB, "thumbnail", {}), (THUMB, "thumbnail", {"path": None}), (THUMB, "still", {"path": "x"}),
                ("app.kavlen/nothing", "anything", None),
            ]
            for channel, method, args in cases:
                with self.subTest(codec=codec, channel=channel, method=method, args=args):
                    self.assertEqual(c.call(channel, method, args), NI)

    def test_undecodable_payloads_get_bad_message(self):
        c = self.client()
        bad = [
            b"\x07\x05peaks\x0d\x01\x07",              # truncated map
            b"\x07\x05peaks\x05",                      # unknown type byte
            b"\x07\x05peaks\x07\xff\xff\xff\xff\x7f",  # string length far past the end
            b"\x07\x05peaks\x00\x00",                  # bytes left over
            b"\x03\x01\x00\x00\x00\x00",               # the method is no string
            b"\x07\x05peaks" + b"\x0c\x01" * 5000 + b"\x00",  # nested deeper than any scene
        ]
        for i, payload in enumerate(bad):
            with self.subTest(case=i):
                c.ws.send(kavlen_client.binary_frame(0, 900 + i, WAVE, payload))
                r = c.wait_reply(900 + i)
                self.assertEqual(r[:2], ("error", "bad-message"))
        # A JSON call without a method is undecodable too; the connection stays.
        j = self.client("json")
        j.ws.send('{"kind":"call","channel":"%s","id":5,"args":{}}' % WAVE, text=True)
        self.assertEqual(j.wait_reply(5)[:2], ("error", "bad-message"))
        self.assertEqual(len(c.call(WAVE, "peaks", {"path": self.media.tone, "count": 16})[1]["peaks"]), 16)

    def test_broken_frames_close_only_that_connection(self):
        bystander = self.client("json")
        cases = [
            (False, b"\x00\x00\x05"),                              # shorter than 8 bytes
            (False, struct.pack("<BBHI", 0, 0, 40, 1) + b"app"),    # name runs past the end
            (True, "not json"),
            (True, "[1, 2]"),
            (True, '{"channel": "x", "id": 1}'),                   # no "kind"
            (True, '{"kind": 3}'),
            (True, "[" * 100000 + "]" * 100000),                   # nested past the limit
        ]
        for i, (text, data) in enumerate(cases):
            with self.subTest(case=i):
                c = self.client()
                c.ws.send(data, text=text)
                self.assertEqual(c.wait_closed(), 1007)
                self.assertEqual(bystander.call(WAVE, "peaks", {"path": self.media.tone, "count": 16})[0], "ok")

    def test_frame_over_64_mib_closes_with_1009(self):
        c = self.client()
        try:
            c.ws.send(kavlen_client.binary_frame(0, 1, WAVE, b"\x00" * (64 << 20)))
        except OSError:
            pass  # the host may close before the whole frame is in
        self.assertEqual(c.wait_closed(timeout=30), 1009)
        self.assertEqual(self.client().call(WAVE, "peaks", {"path": self.media.tone, "count": 16})[0], "ok")

    def test_origin_rule(self):
        port = self.serve.port
        for origin in ("http://evil.example", "http://127.0.0.1:%d.evil.example" % port, "null",
                       "https://127.0.0.1:%d" % port, "http://127.0.0.1:%d" % (port + 1)):
            with self.subTest(origin=origin):
                with self.assertRaises(ConnectionRefusedError) as e:
                    self.serve.client(origin=origin)
                self.assertIn("403", str(e.exception))
        for origin in ("http://127.0.0.1:%d" % port, "http://localhost:%d" % port):
            c = self.serve.client(origin=origin)
            self.clients.append(c)
            self.assertEqual(c.call(WAVE, "peaks", {"path": self.media.tone, "count": 16})[0], "ok")

    def test_clients_at_once_and_one_that_vanishes_mid_call(self):
        a, b = self.client(), self.client("json")
        # A long decode whose client is gone when it ends: its reply is dropped.
        leaver = self.serve.client()
        leaver.send_call(WAVE, "peaks", {"path": self.media.long})
        leaver.send_call(WAVE, "pcm", {"path": self.media.long, "out": self.media.path("gone.f32")})
        leaver.close()
        ids_a = [a.send_call(WAVE, "peaks", {"path": self.media.tone, "count": 16 + i}) for i in range(10)]
        ids_b = [b.send_call(WAVE, "peaks", {"path": self.media.tone, "count": 32 + i}) for i in range(10)]
        for i, call_id in enumerate(ids_a):
            self.assertEqual(len(a.wait_reply(call_id)[1]["peaks"]), 16 + i)
        for i, call_id in enumerate(ids_b):
            self.assertEqual(len(b.wait_reply(call_id)[1]["peaks"]), 32 + i)
        time.sleep(1.5)
        self.assertIsNone(self.serve.proc.poll())
        self.assertEqual(a.call(THUMB, "thumbnail", {"path": self.media.video})[0], "ok")

    def test_plain_http_on_other_paths_is_not_a_websocket(self):
        s = socket.create_connection(("127.0.0.1", self.serve.port), timeout=5)
        s.sendall(b"GET /nothing-here HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
        head = s.recv(4096)
        s.close()
        self.assertRegex(head.split(b"\r\n")[0].decode(), r"^HTTP/1\.1 [45]\d\d")


class Lifecycle(unittest.TestCase):
    def setUp(self):
        self.x = Xvfb()

    def tearDown(self):
        self.x.stop()

    def test_sigterm_and_sigint_end_cleanly(self):
        for sig in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(sig=sig):
                s = Serve(self.x.display)
                c = s.client()
                self.assertEqual(s.stop(sig), 0)
                self.assertEqual(sum(1 for line in s.lines if "channels on" in line), 1, s.lines)
                self.assertIsNotNone(c.wait_closed())

    def test_host_calls_reach_every_client_in_its_codec(self):
        s = Serve(self.x.display, args=["show.KVLN", "notes.txt", "b.kvln.bak", "/shows/b.kvln"])
        try:
            binary, text = s.client(), s.client("json")
            self.assertEqual(binary.call("app.kavlen/files", "ready"), ("ok", None))
            expected = ("app.kavlen/files", "openFiles", ["show.KVLN", "/shows/b.kvln"])
            self.assertEqual(binary.next_event(), expected)
            self.assertEqual(text.next_event(), expected)
            # Delivered once: a second "ready" finds nothing waiting.
            self.assertEqual(text.call("app.kavlen/files", "ready"), ("ok", None))
            self.assertEqual(text.call("app.kavlen/files", "anything", [1]), ("ok", None))
            self.assertEqual(binary.events() + text.events(), [])
        finally:
            self.assertEqual(s.stop(), 0)

    def test_bad_port_and_busy_port_fail_with_one_line(self):
        for env in ({"KAVLEN_PORT": "http"}, {"KAVLEN_PORT": "70000"}):
            with self.subTest(env=env):
                p = subprocess.run([os.environ.get("KAVLEN_EXE", "kavlen"), "serve"], env={**os.environ, **env},
                                   capture_output=True, text=True, timeout=20)
                self.assertNotEqual(p.returncode, 0)
                self.assertRegex(p.stderr.strip(), r"^kavlen: KAVLEN_PORT")
        first = Serve(self.x.display)
        try:
            p = subprocess.run([os.environ.get("KAVLEN_EXE", "kavlen"), "serve"],
                               env={**os.environ, "KAVLEN_PORT": str(first.port), "DISPLAY": self.x.display},
                               capture_output=True, text=True, timeout=20)
            self.assertEqual(p.returncode, 1)
            self.assertRegex(p.stderr.strip().splitlines()[-1], r"^kavlen: cannot listen on 127\.0\.0\.1:%d" % first.port)
        finally:
            first.stop()

    def test_main_window_title_size_and_placement(self):
        s = Serve(self.x.display, env={"KAVLEN_WINDOW": "1000x700@100,60"})
        try:
            geometry = None
            for _ in range(50):
                tree = subprocess.run(["xwininfo", "-root", "-tree", "-display", self.x.display],
                                      capture_output=True, text=True).stdout
                line = next((l for l in tree.splitlines() if '"Kavlen"' in l), None)
                if line:
                    geometry = line.split(")")[-1].split()[0]
                    if geometry.startswith("1000x700+100+60"):
                        break
                time.sleep(0.1)
            self.assertEqual(geometry, "1000x700+100+60")
        finally:
            self.assertEqual(s.stop(), 0)

    def test_without_a_display_the_channels_still_work(self):
        s = Serve(None)
        try:
            self.assertTrue(s.wait_line("no display"))
            self.assertEqual(s.client().call(WAVE, "peaks", {}), NI)
        finally:
            self.assertEqual(s.stop(), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
