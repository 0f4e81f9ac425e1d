#!/usr/bin/env python3
"""A small client of Kavlen's channel host, in Python with only the standard
library: its own WebSocket framing and its own codecs (binary standard codec
and JSON), written from the wire format alone.

Usage as a program (with `kavlen serve` running):

    python3 kavlen_client.py [--port 7531] [--json] [--scene SCENE.json] [--seconds 5]

lists the displays, opens output "out-1", sends the scene, and prints the
events (calls from the host) that arrive for a few seconds.

Usage as a module:

    c = Client(port=7531, codec="standard")        # or codec="json"
    ok, value = c.call("app.kavlen/waveform", "peaks", {"path": "song.wav"})
    c.events()                                      # calls received from the host
"""
import argparse
import base64
import json
import os
import queue
import socket
import struct
import sys
import threading
import time

# ---------------------------------------------------------------- standard codec


class Float32List(list):
    """A list of floats that travels as a float32 list (type 14)."""


class Int32List(list):
    """A list of ints that travels as an int32 list (type 9)."""


class Int64List(list):
    """A list of ints that travels as an int64 list (type 10)."""


class Float64List(list):
    """A list of floats that travels as a float64 list (type 11)."""


def _size(out, n):
    if n < 254:
        out.append(n)
    elif n <= 0xFFFF:
        out.append(254)
        out += struct.pack("<H", n)
    else:
        out.append(255)
        out += struct.pack("<I", n)


def _pad(out, a):
    while len(out) % a:
        out.append(0)


def encode_value(out, v):
    """Appends v to the bytearray out; alignment counts from out's start."""
    if v is None:
        out.append(0)
    elif v is True:
        out.append(1)
    elif v is False:
        out.append(2)
    elif isinstance(v, int):
        if -2**31 <= v < 2**31:
            out.append(3)
            out += struct.pack("<i", v)
        else:
            out.append(4)
            out += struct.pack("<q", v)
    elif isinstance(v, float):
        out.append(6)
        _pad(out, 8)
        out += struct.pack("<d", v)
    elif isinstance(v, str):
        b = v.encode("utf-8")
        out.append(7)
        _size(out, len(b))
        out += b
    elif isinstance(v, (bytes, bytearray)):
        out.append(8)
        _size(out, len(v))
        out += v
    elif isinstance(v, Int32List):
        out.append(9)
        _size(out, len(v))
        _pad(out, 4)
        out += struct.pack("<%di" % len(v), *v)
    elif isinstance(v, Int64List):
        out.append(10)
        _size(out, len(v))
        _pad(out, 8)
        out += struct.pack("<%dq" % len(v), *v)
    elif isinstance(v, Float64List):
        out.append(11)
        _size(out, len(v))
        _pad(out, 8)
        out += struct.pack("<%dd" % len(v), *v)
    elif isinstance(v, Float32List):
        out.append(14)
        _size(out, len(v))
        _pad(out, 4)
        out += struct.pack("<%df" % len(v), *v)
    elif isinstance(v, (list, tuple)):
        out.append(12)
        _size(out, len(v))
        for e in v:
            encode_value(out, e)
    elif isinstance(v, dict):
        out.append(13)
        _size(out, len(v))
        for k, e in v.items():
            encode_value(out, k)
            encode_value(out, e)
    else:
        raise TypeError("cannot encode %r" % (v,))


class DecodeError(Exception):
    pass


class _Reader:
    def __init__(self, buf):
        self.buf, self.pos = buf, 0

    def take(self, n):
        if self.pos + n > len(self.buf):
            raise DecodeError("truncated")
        b = self.buf[self.pos:self.pos + n]
        self.pos += n
        return b

    def size(self):
        b = self.take(1)[0]
        if b < 254:
            return b
        if b == 254:
            return struct.unpack("<H", self.take(2))[0]
        return struct.unpack("<I", self.take(4))[0]

    def align(self, a):
        self.pos += (a - self.pos % a) % a

    def value(self):
        t = self.take(1)[0]
        if t == 0:
            return None
        if t == 1:
            return True
        if t == 2:
            return False
        if t == 3:
            return struct.unpack("<i", self.take(4))[0]
        if t == 4:
            return struct.unpack("<q", self.take(8))[0]
        if t == 6:
            self.align(8)
            return struct.unpack("<d", self.take(8))[0]
        if t == 7:
            return self.take(self.size()).decode("utf-8")
        if t == 8:
            return bytes(self.take(self.size()))
        typed = {9: ("i", 4, Int32List), 10: ("q", 8, Int64List), 11: ("d", 8, Float64List), 14: ("f", 4, Float32List)}
        if t in typed:
            fmt, width, cls = typed[t]
            n = self.size()
            self.align(width)
            return cls(struct.unpack("<%d%s" % (n, fmt), self.take(n * width)))
        if t == 12:
            return [self.value() for _ in range(self.size())]
        if t == 13:
            d = {}
            for _ in range(self.size()):
                k = self.value()
                d[k] = self.value()
            return d
        raise DecodeError("unknown type %d" % t)


def decode_value(buf):
    r = _Reader(buf)
    v = r.value()
    if r.pos != len(buf):
        raise DecodeError("bytes left over")
    return v


def encode_call(method, args):
    out = bytearray()
    encode_value(out, method)
    encode_value(out, args)
    return bytes(out)


def decode_call(payload):
    r = _Reader(payload)
    method, args = r.value(), r.value()
    if r.pos != len(payload):
        raise DecodeError("bytes left over")
    return method, args


def decode_envelope(payload):
    """('ok', value), ('error', code, message, details) or ('notimplemented',)."""
    if not payload:
        return ("notimplemented",)
    r = _Reader(payload)
    r.pos = 1
    if payload[0] == 0:
        v = r.value()
        return ("ok", v)
    code, message, details = r.value(), r.value(), r.value()
    return ("error", code, message, details)


def binary_frame(kind, call_id, channel, payload):
    name = channel.encode("utf-8")
    return struct.pack("<BBHI", kind, 0, len(name), call_id) + name + payload


def parse_binary_frame(data):
    kind, _, n, call_id = struct.unpack("<BBHI", data[:8])
    return kind, call_id, data[8:8 + n].decode("utf-8"), data[8 + n:]


def json_envelope(reply):
    if reply is None:
        return ("notimplemented",)
    if len(reply) == 1:
        return ("ok", reply[0])
    return ("error", reply[0], reply[1], reply[2])

# ---------------------------------------------------------------- WebSocket


class Closed(Exception):
    def __init__(self, code):
        super().__init__("connection closed (%s)" % code)
        self.code = code


def _mask(data, key):
    n = len(data)
    if n == 0:
        return b""
    k = (key * (n // 4 + 1))[:n]
    return (int.from_bytes(data, "little") ^ int.from_bytes(k, "little")).to_bytes(n, "little")


class WebSocket:
    """A minimal client: one upgrade, masked frames out, whole messages in."""

    def __init__(self, host, port, path, origin=None, timeout=10):
        self.sock = socket.create_connection((host, port), timeout=timeout)
        key = base64.b64encode(os.urandom(16)).decode()
        lines = ["GET %s HTTP/1.1" % path, "Host: %s:%d" % (host, port), "Upgrade: websocket",
                 "Connection: Upgrade", "Sec-WebSocket-Key: " + key, "Sec-WebSocket-Version: 13"]
        if origin:
            lines.append("Origin: " + origin)
        self.sock.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise ConnectionError("no answer to the upgrade")
            head += chunk
        head, self._pending = head.split(b"\r\n\r\n", 1)
        self.status = int(head.split(b" ")[1])
        if self.status != 101:
            raise ConnectionRefusedError("upgrade refused: HTTP %d" % self.status)
        self.sock.settimeout(None)  # the upgrade may time out, an idle connection not
        self.close_code = None

    def _recv(self, n):
        while len(self._pending) < n:
            chunk = self.sock.recv(1 << 20)
            if not chunk:
                raise Closed(self.close_code or 1006)
            self._pending += chunk
        b, self._pending = self._pending[:n], self._pending[n:]
        return b

    def send(self, data, text=False):
        if isinstance(data, str):
            data = data.encode("utf-8")
        head = bytearray([0x80 | (1 if text else 2)])
        n = len(data)
        if n < 126:
            head.append(0x80 | n)
        elif n < 65536:
            head.append(0x80 | 126)
            head += struct.pack(">H", n)
        else:
            head.append(0x80 | 127)
            head += struct.pack(">Q", n)
        key = os.urandom(4)
        self.sock.sendall(bytes(head) + key + _mask(data, key))

    def recv(self):
        """(is_text, payload) of the next message; raises Closed with its code."""
        parts, opcode = [], None
        while True:
            b0, b1 = self._recv(2)
            n = b1 & 0x7F
            if n == 126:
                n = struct.unpack(">H", self._recv(2))[0]
            elif n == 127:
                n = struct.unpack(">Q", self._recv(8))[0]
            payload = self._recv(n)
            op = b0 & 0x0F
            if op == 8:
                self.close_code = struct.unpack(">H", payload[:2])[0] if len(payload) >= 2 else 1005
                raise Closed(self.close_code)
            if op == 9:  # ping: answer pong
                continue
            if op in (1, 2):
                opcode = op
            if op in (0, 1, 2):
                parts.append(payload)
                if b0 & 0x80:
                    return opcode == 1, b"".join(parts)

    def close(self):
        try:
            self.sock.close()
        except OSError:
            pass

# ---------------------------------------------------------------- client


class Client:
    """Calls channels and collects the host's own calls (events)."""

    def __init__(self, port=7531, codec="standard", host="127.0.0.1", origin=None):
        self.codec = codec
        path = "/channels?codec=json" if codec == "json" else "/channels"
        self.ws = WebSocket(host, port, path, origin=origin)
        self._next = 1
        self._replies = {}
        self._events = queue.Queue()
        self._cond = threading.Condition()
        self.closed = None
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        try:
            while True:
                is_text, data = self.ws.recv()
                if is_text:
                    msg = json.loads(data.decode("utf-8"))
                    if msg["kind"] == "reply":
                        self._deliver(msg["id"], json_envelope(msg["reply"]))
                    else:
                        self._events.put((msg["channel"], msg["method"], msg.get("args")))
                else:
                    kind, call_id, channel, payload = parse_binary_frame(data)
                    if kind == 1:
                        self._deliver(call_id, decode_envelope(payload))
                    else:
                        method, args = decode_call(payload)
                        self._events.put((channel, method, args))
        except (Closed, OSError) as e:
            with self._cond:
                self.closed = getattr(e, "code", 1006)
                self._cond.notify_all()

    def _deliver(self, call_id, result):
        with self._cond:
            self._replies[call_id] = result
            self._cond.notify_all()

    def send_call(self, channel, method, args=None, text=None):
        """Sends a call without waiting; returns its id. text=None: the client's codec."""
        call_id = self._next
        self._next += 1
        if text if text is not None else self.codec == "json":
            self.ws.send(json.dumps({"kind": "call", "channel": channel, "id": call_id,
                                     "method": method, "args": args}), text=True)
        else:
            self.ws.send(binary_frame(0, call_id, channel, encode_call(method, args)))
        return call_id

    def wait_reply(self, call_id, timeout=30):
        with self._cond:
            end = time.time() + timeout
            while call_id not in self._replies:
                left = end - time.time()
                if left <= 0 or self.closed is not None:
                    raise TimeoutError("no reply to call %d (closed: %s)" % (call_id, self.closed))
                self._cond.wait(left)
            return self._replies.pop(call_id)

    def call(self, channel, method, args=None, timeout=30, text=None):
        return self.wait_reply(self.send_call(channel, method, args, text), timeout)

    def wait_closed(self, timeout=10):
        with self._cond:
            self._cond.wait_for(lambda: self.closed is not None, timeout)
            return self.closed

    def next_event(self, timeout=5):
        return self._events.get(timeout=timeout)

    def events(self):
        out = []
        while True:
            try:
                out.append(self._events.get_nowait())
            except queue.Empty:
                return out

    def close(self):
        self.ws.close()


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--port", type=int, default=int(os.environ.get("KAVLEN_PORT", "7531")))
    ap.add_argument("--json", action="store_true", help="use text frames (JSON codec)")
    ap.add_argument("--scene", default=os.path.join(os.path.dirname(__file__), "..", "demo", "scene.json"))
    ap.add_argument("--media-root", default=None)
    ap.add_argument("--output", default="out-1")
    ap.add_argument("--seconds", type=float, default=5)
    a = ap.parse_args()
    c = Client(port=a.port, codec="json" if a.json else "standard")
    display = "app.kavlen/display"
    root = a.media_root or os.path.abspath(os.path.dirname(a.scene))
    print("ready:", c.call(display, "ready", {"mediaRoot": root}))
    print("displays:", c.call(display, "listDisplays"))
    print("openOutput:", c.call(display, "openOutput", {"outputId": a.output}))
    with open(a.scene, encoding="utf-8") as f:
        scene = json.load(f)
    state = json.dumps({"scene": scene, "playing": True})
    print("setScene:", c.call(display, "setScene", {"outputId": a.output, "json": state}))
    end = time.time() + a.seconds
    while time.time() < end:
        try:
            print("event:", c.next_event(timeout=max(0.05, end - time.time())))
        except queue.Empty:
            pass
    c.close()


if __name__ == "__main__":
    sys.exit(main())
