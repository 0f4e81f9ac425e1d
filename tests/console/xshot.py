"""Prints {"found", "mean", "digest"} of the X window named argv[2] on display
argv[1]: the console's browser test sees the output window through this."""
import hashlib
import json
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "serve"))
from harness import screenshot, wait_window  # noqa: E402

w = wait_window(sys.argv[1], sys.argv[2], timeout=5)
if not w:
    print(json.dumps({"found": False}))
else:
    _, _, rgb = screenshot(sys.argv[1], w[0])
    print(json.dumps({"found": True, "mean": sum(rgb) / max(1, len(rgb)), "digest": hashlib.sha1(rgb).hexdigest()}))
