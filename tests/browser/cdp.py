"""A headless Chromium driven over its DevTools protocol, with nothing but the
standard library: the browser is started with a fresh profile on a free
debugging port, and a minimal WebSocket client talks to its page."""

import base64
import json
import os
import re
import shutil
import socket
import struct
import subprocess
import tempfile
import time
import urllib.request

FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-default-apps", "--disable-extensions", "--hide-scrollbars", "--mute-audio",
]


class WebSocket:
    """Text frames over one connection (RFC 6455, client side)."""

    def __init__(self, url, timeout):
        m = re.match(r"ws://([^/:]+):(\d+)(/.*)", url)
        if not m:
            raise RuntimeError("not a ws:// url: " + url)
        host, port, path = m.group(1), int(m.group(2)), m.group(3)
        self.sock = socket.create_connection((host, port), timeout=timeout)
        key = base64.b64encode(os.urandom(16)).decode()
        request = ("GET %s HTTP/1.1\r\nHost: %s:%d\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n" % (path, host, port, key))
        self.sock.sendall(request.encode())
        response = b""
        while b"\r\n\r\n" not in response:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise RuntimeError("the browser closed the connection during the handshake")
            response += chunk
        head, self.buffer = response.split(b"\r\n\r\n", 1)
        if b" 101 " not in head.split(b"\r\n")[0]:
            raise RuntimeError("handshake refused: " + head.decode(errors="replace"))

    def send(self, text):
        payload = text.encode()
        header = bytearray([0x81])
        n = len(payload)
        if n < 126:
            header.append(0x80 | n)
        elif n < 65536:
            header.append(0x80 | 126)
            header += struct.pack(">H", n)
        else:
            header.append(0x80 | 127)
            header += struct.pack(">Q", n)
        mask = os.urandom(4)
        header += mask
        self.sock.sendall(bytes(header) + bytes(b ^ mask[i % 4] for i, b in enumerate(payload)))

    def _read(self, n):
        while len(self.buffer) < n:
            chunk = self.sock.recv(1 << 16)
            if not chunk:
                raise RuntimeError("the browser closed the connection")
            self.buffer += chunk
        out, self.buffer = self.buffer[:n], self.buffer[n:]
        return out

    def receive(self):
        message = b""
        while True:
            b0, b1 = self._read(2)
            n = b1 & 0x7F
            if n == 126:
                (n,) = struct.unpack(">H", self._read(2))
            elif n == 127:
                (n,) = struct.unpack(">Q", self._read(8))
            mask = self._read(4) if b1 & 0x80 else None
            data = self._read(n)
            if mask:
                data = bytes(b ^ mask[i % 4] for i, b in enumerate(data))
            opcode = b0 & 0x0F
            if opcode == 8:
                raise RuntimeError("the browser closed the connection")
            if opcode in (9, 10):  # ping, pong
                continue
            message += data
            if b0 & 0x80:
                return message.decode()

    def close(self):
        self.sock.close()


class Browser:
    """One page of a headless Chromium. events collects every event seen."""

    def __init__(self, binary="chromium", width=1280, height=900, timeout=60):
        self.profile = tempfile.mkdtemp(prefix="quarvel-chromium-")
        self.log = open(os.path.join(self.profile, "stderr.txt"), "w+")
        self.process = subprocess.Popen(
            [binary] + FLAGS + ["--user-data-dir=" + self.profile, "--remote-debugging-port=0",
                                "--window-size=%d,%d" % (width, height), "about:blank"],
            stdout=subprocess.DEVNULL, stderr=self.log)
        self.timeout = timeout
        self.events = []
        self.next_id = 0
        port = self._port()
        deadline = time.time() + timeout
        page = None
        while page is None and time.time() < deadline:
            with urllib.request.urlopen("http://127.0.0.1:%d/json/list" % port, timeout=timeout) as r:
                targets = json.load(r)
            page = next((t for t in targets if t.get("type") == "page"), None)
            if page is None:
                time.sleep(0.2)
        if page is None:
            raise RuntimeError("the browser shows no page")
        self.ws = WebSocket(page["webSocketDebuggerUrl"], timeout)

    def _port(self):
        # The browser writes "DevTools listening on ws://127.0.0.1:PORT/..." once it listens.
        deadline = time.time() + self.timeout
        while time.time() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError("the browser exited: " + self._stderr())
            m = re.search(r"DevTools listening on ws://[^:]+:(\d+)/", self._stderr())
            if m:
                return int(m.group(1))
            time.sleep(0.1)
        raise RuntimeError("the browser did not open its debugging port: " + self._stderr())

    def _stderr(self):
        self.log.flush()
        with open(self.log.name, errors="replace") as f:
            return f.read()

    def call(self, method, **params):
        self.next_id += 1
        mine = self.next_id
        self.ws.send(json.dumps({"id": mine, "method": method, "params": params}))
        while True:
            message = json.loads(self.ws.receive())
            if message.get("id") == mine:
                if "error" in message:
                    raise RuntimeError("%s: %s" % (method, message["error"]))
                return message.get("result", {})
            if "method" in message:
                self.events.append(message)

    def wait_for(self, event, timeout=None):
        deadline = time.time() + (timeout or self.timeout)
        for e in self.events:
            if e["method"] == event:
                return e
        while time.time() < deadline:
            message = json.loads(self.ws.receive())
            if "method" in message:
                self.events.append(message)
                if message["method"] == event:
                    return message
        raise RuntimeError("no %s within the time limit" % event)

    def evaluate(self, expression):
        """The value of a JavaScript expression (returned by value; awaited)."""
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError("evaluating %r: %s" % (expression[:80], result["exceptionDetails"]))
        return result["result"].get("value")

    def close(self):
        try:
            self.ws.close()
        except Exception:
            pass
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.log.close()
        shutil.rmtree(self.profile, ignore_errors=True)
