"""A headless browser of the tests' own, driven through its DevTools protocol over a pair of pipes."""
import base64
import itertools
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time


class Browser:
    """One page in a browser. `run(script)` gives the value of an expression, awaited; `call` speaks the protocol;
    `complaints` holds what the page logged as an error or threw."""

    def __init__(self, patience=30):
        self.patience, self.ids, self.heard, self.complaints, self.session = patience, itertools.count(1), b"", [], None
        self.folder = tempfile.mkdtemp(prefix="keldwick-browser-")
        self.process = subprocess.Popen(  # it reads messages from descriptor 3 and writes them to 4
            ["sh", "-c", 'exec "$@" 3<&0 4>&1 >/dev/null', "sh", "chromium-headless-shell", "--headless", "--no-sandbox",
             "--disable-gpu", "--no-first-run", "--disable-background-networking", "--remote-debugging-pipe",
             "--force-color-profile=srgb", f"--user-data-dir={self.folder}", "about:blank"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        try:
            page = next(one for one in self.call("Target.getTargets")["targetInfos"] if one["type"] == "page")
            self.session = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)["sessionId"]
            for domain in ("Page", "Runtime", "Log"):
                self.call(f"{domain}.enable")
        except BaseException:
            self.close()
            raise

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)  # Debian's program is a script that starts the browser
        self.process.communicate()
        shutil.rmtree(self.folder, ignore_errors=True)

    def receive(self):
        while b"\0" not in self.heard:
            ready = select.select([self.process.stdout], [], [], self.patience)[0]
            piece = os.read(self.process.stdout.fileno(), 1 << 20) if ready else b""
            if not piece:
                raise RuntimeError("the browser has ended or hangs")
            self.heard += piece
        message, self.heard = self.heard.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        asked = {"id": next(self.ids), "method": method, "params": parameters}
        if self.session:
            asked["sessionId"] = self.session
        self.process.stdin.write(json.dumps(asked).encode() + b"\0")
        self.process.stdin.flush()
        while True:
            message = self.receive()
            if message.get("id") == asked["id"]:
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

    def size(self, width, height, mobile=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=mobile)

    def scheme(self, name):
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": name}])

    def open(self, url):
        self.call("Page.navigate", url=url)
        self.until("document.readyState == 'complete'")

    def press(self, key):
        """One key, as a person presses it."""
        text = key if len(key) == 1 else "\r" if key == "Enter" else ""
        common = {"key": key, "code": key, "windowsVirtualKeyCode": {"Enter": 13, "Escape": 27, "Tab": 9}.get(key, 0)}
        self.call("Input.dispatchKeyEvent", type="keyDown", text=text, **common)
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
