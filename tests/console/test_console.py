"""The operator's console end to end: a real `kavlen serve` under its own
Xvfb serves the page, and Debian's Chromium (driven by console.test.js)
uses it. The HTTP side (files, types, 404, no way out of the folder) is
checked here with raw requests."""
import http.client
import os
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "serve"))
from harness import SOURCE, Media, Serve, Xvfb  # noqa: E402

ARTEFACTS = os.environ.get("KAVLEN_ARTEFACTS", os.path.join(SOURCE, "build", "artefacts", "console"))


def get(port, path):
    c = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    c.putrequest("GET", path, skip_accept_encoding=True)  # sent as written, nothing normalised
    c.endheaders()
    r = c.getresponse()
    body = r.read()
    c.close()
    return r.status, r.getheader("Content-Type", ""), body


class ConsoleTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.x = Xvfb()
        cls.media = Media()
        cls.serve = Serve(cls.x.display, env={"KAVLEN_NO_GL": "1"})

    @classmethod
    def tearDownClass(cls):
        rc = cls.serve.stop()
        cls.x.stop()
        cls.media.cleanup()
        # Under the sanitizers: memory errors and undefined behaviour anywhere,
        # and leaks from the console's code (the font library leaks by itself).
        lines = cls.serve.lines
        bad = [l for l in lines if "ERROR: AddressSanitizer" in l or "runtime error" in l or "console_server" in l]
        leaks_only = any("LeakSanitizer" in l for l in lines)
        if bad or (rc != 0 and not leaks_only):
            raise AssertionError("kavlen serve ended with %d: %s" % (rc, "\n".join(bad[:20])))

    def test_files(self):
        port = self.serve.port
        status, ctype, body = get(port, "/")
        self.assertEqual((status, ctype), (200, "text/html; charset=utf-8"))
        self.assertIn(b"<title>Kavlen console</title>", body)
        for path, want in (("/console.js", "text/javascript"), ("/console.css", "text/css")):
            status, ctype, _ = get(port, path)
            self.assertEqual(status, 200, path)
            self.assertTrue(ctype.startswith(want), ctype)
        # Nothing outside the folder, nothing hidden, whatever the spelling.
        for path in ("/nothing.html", "/../CMakeLists.txt", "/..%2fCMakeLists.txt", "/%2e%2e/CMakeLists.txt",
                     "/./index.html", "//etc/passwd", "/.hidden", "/preview/never-opened.png", "/preview/../index.html",
                     "/console.js/", "/index.html%00.png"):
            status, _, body = get(port, path)
            self.assertEqual(status, 404, path)
            self.assertNotIn(b"cmake_minimum_required", body)
        self.assertLess(get(port, "/" + "a" * 5000)[0], 500)

    def test_browser(self):
        os.makedirs(ARTEFACTS, exist_ok=True)
        env = dict(os.environ, KAVLEN_URL="http://127.0.0.1:%d/" % self.serve.port, DISPLAY=self.x.display,
                   KAVLEN_ARTEFACTS=ARTEFACTS, MEDIA_TONE=self.media.tone, MEDIA_VIDEO=self.media.video,
                   DEMO_DIR=os.path.join(SOURCE, "examples", "demo"))
        r = subprocess.run(["node", os.path.join(HERE, "console.test.js")], env=env, timeout=240)
        self.assertEqual(r.returncode, 0, "the browser test failed; screenshots in " + ARTEFACTS)


if __name__ == "__main__":
    unittest.main(verbosity=2)
