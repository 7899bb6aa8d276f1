"""A headless browser of the tests' own, driven through its DevTools protocol over a WebSocket."""
import base64
import itertools
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time


class Browser:
    """One page in a browser. `run(script)` gives the value of an expression, awaited; `call` speaks the protocol;
    `complaints` holds what the page logged as an error or threw."""

    def __init__(self, patience=30):
        self.patience, self.ids, self.buffer, self.complaints = patience, itertools.count(1), b"", []
        self.folder = tempfile.mkdtemp(prefix="keldwick-browser-")
        self.process = subprocess.Popen(
            ["chromium-headless-shell", "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-background-networking", "--remote-debugging-port=0", "--force-color-profile=srgb",
             f"--user-data-dir={self.folder}", "about:blank"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        try:
            self.connect()
        except BaseException:
            self.close()
            raise

    def connect(self):
        end, place = time.monotonic() + self.patience, ""
        while "\n" not in place:
            if time.monotonic() > end or self.process.poll() is not None:
                raise RuntimeError("the browser does not start")
            time.sleep(0.02)
            if os.path.exists(f"{self.folder}/DevToolsActivePort"):
                with open(f"{self.folder}/DevToolsActivePort", encoding="ascii") as file:
                    place = file.read()
        port, path = place.split("\n")[:2]
        self.socket = socket.create_connection(("127.0.0.1", int(port)), timeout=self.patience)
        key = base64.b64encode(os.urandom(16)).decode()
        self.socket.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                            f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n\r\n".encode())
        while b"\r\n\r\n" not in self.buffer:
            self.buffer += self.socket.recv(4096)
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        if b" 101 " not in head:
            raise RuntimeError(head.decode())
        self.session = None
        page = next(one for one in self.call("Target.getTargets")["targetInfos"] if one["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(f"{domain}.enable")

    def close(self):
        if hasattr(self, "socket"):
            self.socket.close()
        os.killpg(self.process.pid, signal.SIGKILL)  # Debian's program is a script that starts the browser
        self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def take(self, count):
        while len(self.buffer) < count:
            piece = self.socket.recv(1 << 20)
            if not piece:
                raise RuntimeError("the browser has ended")
            self.buffer += piece
        taken, self.buffer = self.buffer[:count], self.buffer[count:]
        return taken

    def receive(self):
        message, last = b"", False
        while not last:
            first, size = self.take(2)
            last = bool(first & 0x80)
            if size >= 126:
                size = struct.unpack(*((">H", self.take(2)) if size == 126 else (">Q", self.take(8))))[0]
            message += self.take(size)
        return json.loads(message)

    def call(self, method, **parameters):
        ident = next(self.ids)
        text = json.dumps({"id": ident, "method": method, "params": parameters,
                           **({"sessionId": self.session} if self.session else {})}).encode()
        size = struct.pack(">BBH", 0x81, 0xFE, len(text)) if 125 < len(text) < 65536 else \
            struct.pack(">BB", 0x81, 0x80 | len(text)) if len(text) < 126 else struct.pack(">BBQ", 0x81, 0xFF, len(text))
        self.socket.sendall(size + b"\0\0\0\0" + text)  # masked with zeros
        while True:
            message = self.receive()
            if message.get("id") == ident:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            if message.get("method") == "Runtime.exceptionThrown":
                self.complaints.append(message["params"]["exceptionDetails"].get("exception", {}).get("description", "?"))
            elif message.get("method") == "Log.entryAdded" and message["params"]["entry"]["level"] == "error":
                self.complaints.append(message["params"]["entry"]["text"] + " " + message["params"]["entry"].get("url", ""))

    def run(self, script):
        answer = self.call("Runtime.evaluate", expression=script, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(f"{script}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def until(self, script, what=""):
        """Waits until the expression holds."""
        end = time.monotonic() + self.patience
        while not self.run(f"!!({script})"):
            if time.monotonic() > end:
                raise AssertionError(f"never came: {what or script}\n{self.run('document.body.innerText')[:2000]}")
            time.sleep(0.02)

    def size(self, width, height, mobile=False, scale=1):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale, mobile=mobile)

    def scheme(self, name):
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": name}])

    def open(self, url):
        self.call("Page.navigate", url=url)
        self.until("document.readyState == 'complete'")

    def press(self, key, text=None):
        """One key, as a person presses it."""
        common = {"key": key, "code": key, "windowsVirtualKeyCode": {"Enter": 13, "Escape": 27, "Tab": 9}.get(key, 0)}
        text = text or (key if len(key) == 1 else "\r" if key == "Enter" else None)
        self.call("Input.dispatchKeyEvent", type="keyDown", **common, **({"text": text} if text else {}))
        self.call("Input.dispatchKeyEvent", type="keyUp", **common)

    def type(self, text):
        for letter in text:
            self.press(letter)

    def click(self, selector):
        x, y = self.run(f"(() => {{ const one = document.querySelector({json.dumps(selector)}); one.scrollIntoView({{block: 'nearest'}});"
                        "const box = one.getBoundingClientRect(); return [box.x + box.width / 2, box.y + box.height / 2]; })()")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def picture(self, file):
        with open(file, "wb") as out:
            out.write(base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"]))
