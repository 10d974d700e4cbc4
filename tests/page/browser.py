"""Drives Debian's chromium by its debugging protocol, over two pipes: no package and no network is needed."""

import base64
import fcntl
import json
import os
import shutil
import subprocess
import tempfile
import time

PATIENCE = 120  # s, against hangs alone

CHROMIUM = shutil.which("chromium")


class Browser:
    """One page of a browser without a window, whose WebGL is software."""

    def __init__(self, *flags):
        self._profile = tempfile.mkdtemp(prefix="vexo-page-")
        to_read, self._to = os.pipe()
        self._from, to_write = os.pipe()
        ends = [fcntl.fcntl(fd, fcntl.F_DUPFD, 10) for fd in (to_read, to_write)]
        self._process = subprocess.Popen(
            [CHROMIUM, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--use-angle=swiftshader", "--enable-unsafe-swiftshader", "--hide-scrollbars", "--remote-debugging-pipe",
             "--user-data-dir=" + self._profile, *flags, "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, close_fds=False,
            preexec_fn=lambda: (os.dup2(ends[0], 3), os.dup2(ends[1], 4)))
        for fd in (to_read, to_write, *ends):
            os.close(fd)
        self._rest, self._number, self._session = b"", 0, None
        self.events = []
        target = self.wait_for(lambda: next(
            (t for t in self.call("Target.getTargets")["targetInfos"] if t["type"] == "page"), None), "a page")
        self._session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Network", "Runtime", "Log"):
            self.call(domain + ".enable")

    def close(self):
        self._process.terminate()
        self._process.wait()
        os.close(self._to)
        os.close(self._from)
        shutil.rmtree(self._profile, ignore_errors=True)

    def _message(self):
        while b"\0" not in self._rest:
            data = os.read(self._from, 1 << 20)
            if not data:
                raise RuntimeError("the browser has ended")
            self._rest += data
        message, self._rest = self._rest.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self._number += 1
        call = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            call["sessionId"] = self._session
        os.write(self._to, json.dumps(call).encode() + b"\0")
        while True:
            message = self._message()
            if message.get("id") == self._number:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            self.events.append(message)

    def wait_for(self, condition, what):
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            answer = condition()
            if answer:
                return answer
            time.sleep(0.1)
        raise RuntimeError("waited in vain for " + what)

    def value(self, script):
        return self.call("Runtime.evaluate", expression=script, returnByValue=True)["result"].get("value")

    def size(self, width, height, scale=1):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale, mobile=False)

    def open(self, path, title):
        """Waits until the page's title holds this text; forgets what was seen of pages before."""
        self.events = []
        self.call("Page.navigate", url="file://" + path)
        self.wait_for(lambda: title in (self.value("document.title") or ""), "the title: " + title)

    def picture(self, selector=None):
        """PNG of an element, or of the whole page."""
        box = self.value("(() => { const r = %s.getBoundingClientRect();"
                         "return {x: r.x + scrollX, y: r.y + scrollY, width: r.width, height: r.height}; })()"
                         % (f"document.querySelector('{selector}')" if selector else "document.documentElement"))
        return base64.b64decode(self.call("Page.captureScreenshot", captureBeyondViewport=True, clip={**box, "scale": 1})["data"])

    def drag(self, selector, dx, dy):
        box = self.value("(() => { const e = document.querySelector('%s'); e.scrollIntoView({block: 'center'});"
                         "const r = e.getBoundingClientRect(); return {x: r.x + r.width / 2, y: r.y + r.height / 2}; })()"
                         % selector)
        for kind, part in (("mousePressed", 0), ("mouseMoved", 0.5), ("mouseMoved", 1), ("mouseReleased", 1)):
            self.call("Input.dispatchMouseEvent", type=kind, x=box["x"] + part * dx, y=box["y"] + part * dy,
                      button="left", buttons=0 if kind == "mouseReleased" else 1, clickCount=1)

    def seen(self, method):
        return [event["params"] for event in self.events if event.get("method") == method]
