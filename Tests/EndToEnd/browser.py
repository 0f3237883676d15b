"""Chromium without a window, driven over its debugging pipe."""

import base64
import concurrent.futures
import contextlib
import itertools
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import threading

from support import eventually

PROGRAM = shutil.which("chromium")


class Browser(contextlib.AbstractContextManager):
    """One page. What its console complains of, and every address that it asked for, is kept."""

    def __init__(self, width=1360, height=900):
        self.profile = tempfile.mkdtemp(prefix="skelda-browser-")
        requests, self._out = os.pipe()
        self._in, answers = os.pipe()
        # The pipe is descriptors 3 and 4 of the browser.
        self.child = subprocess.Popen(
            ["bash", "-c", f'exec "$0" "$@" 3<&{requests} 4>&{answers}', PROGRAM, "--headless=new", "--no-sandbox",
             "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run", "--disable-background-networking",
             "--disable-component-update", "--ignore-certificate-errors", "--hide-scrollbars", "--lang=en",
             f"--user-data-dir={self.profile}", f"--window-size={width},{height}", "--remote-debugging-pipe"],
            pass_fds=(requests, answers), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "HOME": self.profile, "TZ": "UTC"})
        os.close(requests)
        os.close(answers)
        self.complaints, self.addresses = [], []
        self._answers, self._numbers, self._session = {}, itertools.count(1), {}
        threading.Thread(target=self._read, daemon=True).start()
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        attached = self.call("Target.attachToTarget", targetId=target, flatten=True)
        self._session = {"sessionId": attached["sessionId"]}
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.call(f"{domain}.enable")

    def __exit__(self, *_):
        self.child.kill()
        self.child.wait()
        os.close(self._out)
        shutil.rmtree(self.profile, ignore_errors=True)

    def _read(self):
        left = b""
        with open(self._in, "rb", buffering=0) as answers:
            while piece := answers.read(1 << 20):
                *messages, left = (left + piece).split(b"\0")
                for message in map(json.loads, messages):
                    self._take(message)

    def _take(self, message):
        method, what = message.get("method"), message.get("params", {})
        if "id" in message:
            self._answers.pop(message["id"]).set_result(message)
        elif method == "Network.requestWillBeSent":
            self.addresses.append(what["request"]["url"])
        elif (method in ("Runtime.exceptionThrown", "Page.javascriptDialogOpening")
              or method == "Log.entryAdded" and what["entry"]["level"] == "error"):
            self.complaints.append(what)

    def call(self, method, within=30.0, **what):
        number = next(self._numbers)
        future = self._answers[number] = concurrent.futures.Future()
        os.write(self._out, json.dumps({"id": number, "method": method, "params": what} | self._session).encode() + b"\0")
        answer = future.result(within)
        if "error" in answer:
            raise AssertionError(f"{method}: {answer['error']}")
        return answer["result"]

    def see(self, expression):
        """The value of an expression of JavaScript; True for an element."""
        expression = f"(async () => {{ const it = await ({expression}); return it instanceof Node || it; }})()"
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise AssertionError(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def until(self, expression, within=20.0):
        """Waits until the expression is true, and gives its value."""
        if value := eventually(lambda: self.see(expression), within, every=0.05):
            return value
        raise AssertionError(f"not within {within} s: {expression}\n{self.complaints}")

    def press(self, *keys):
        codes = {"Enter": 13, "Escape": 27, "ArrowDown": 40, "ArrowUp": 38, "Tab": 9, "End": 35, "Home": 36}
        for key in keys:
            text = {"text": "\r"} if key == "Enter" else {"text": key} if len(key) == 1 else {}
            code = {"windowsVirtualKeyCode": codes.get(key, 0)}
            self.call("Input.dispatchKeyEvent", type="keyDown", key=key, **text, **code)
            self.call("Input.dispatchKeyEvent", type="keyUp", key=key, **code)

    def type(self, text):
        self.call("Input.insertText", text=text)

    def screenshot(self, path, width=1360, height=900, dark=False, phone=False):
        """What a person sees on a screen of that size, and whether something sticks out at the side."""
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=2 if phone else 1, mobile=phone)
        self.see("new Promise((done) => requestAnimationFrame(() => setTimeout(done, 300)))")
        path = pathlib.Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"]))
        return self.see("document.documentElement.scrollWidth > innerWidth")
