"""A browser without a window, driven over its debugging pipe."""

import fcntl
import itertools
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time

PROGRAMS = ("chromium-headless-shell", "chromium", "google-chrome")


def find():
    return next((path for path in map(shutil.which, PROGRAMS) if path), None)


class PageError(Exception):
    """JavaScript has thrown, or a wait was in vain."""


class Browser:
    """One page. Ends the browser on every way out."""

    def __init__(self, program, width=1280, height=900):
        self.profile = tempfile.TemporaryDirectory(prefix="vexa-browser-", ignore_cleanup_errors=True)
        to_browser, self.to = os.pipe()
        self.of, from_browser = os.pipe()

        def give_pipe():  # the browser reads descriptor 3 and writes descriptor 4
            ends = [fcntl.fcntl(end, fcntl.F_DUPFD, 10) for end in (to_browser, from_browser)]
            for place, end in enumerate(ends, start=3):
                os.dup2(end, place)

        self.process = subprocess.Popen(
            [program, "--headless", "--no-sandbox", "--remote-debugging-pipe", "--disable-gpu",
             "--no-first-run", "--disable-dev-shm-usage", f"--window-size={width},{height}",
             f"--user-data-dir={self.profile.name}", "about:blank"],
            preexec_fn=give_pipe, close_fds=False, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        os.close(to_browser)
        os.close(from_browser)
        self.numbers = itertools.count(1)
        self.buffer = b""
        self.problems = []  # what the page has complained of
        self.session = None
        targets = self.call("Target.getTargets")["targetInfos"]
        page = next(target for target in targets if target["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(f"{domain}.enable")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.to)
        os.close(self.of)
        self.profile.cleanup()

    def call(self, method, timeout=20, **parameters):
        number = next(self.numbers)
        message = {"id": number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.to, json.dumps(message).encode() + b"\0")
        end = time.monotonic() + timeout
        while True:
            answer = self._next(end)
            if answer.get("id") == number:
                if "error" in answer:
                    raise PageError(f"{method}: {answer['error']['message']}")
                return answer["result"]
            self._note(answer)

    def _next(self, end):
        while b"\0" not in self.buffer:
            ready, _, _ = select.select([self.of], [], [], max(0, end - time.monotonic()))
            piece = os.read(self.of, 1 << 20) if ready else b""
            if not piece:
                raise PageError("the browser does not answer")
            self.buffer += piece
        line, _, self.buffer = self.buffer.partition(b"\0")
        return json.loads(line)

    def _note(self, event):
        method, parameters = event.get("method"), event.get("params", {})
        if method == "Runtime.exceptionThrown":
            self.problems.append(parameters["exceptionDetails"].get("exception", {}).get("description", "exception"))
        elif method == "Runtime.consoleAPICalled" and parameters["type"] in ("error", "assert"):
            self.problems.append(str([each.get("value") for each in parameters["args"]]))
        elif method == "Log.entryAdded" and parameters["entry"]["level"] == "error":
            self.problems.append(parameters["entry"]["text"])

    def open(self, url):
        self.call("Page.navigate", url=url)

    def run(self, script):
        """The value of an expression in the page; promises are waited for."""
        result = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise PageError(result["exceptionDetails"].get("exception", {}).get("description", script))
        return result["result"].get("value")

    def wait(self, script, timeout=30):
        """Waits until the expression is true, and returns its value."""
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            try:
                value = self.run(script)
            except PageError:
                value = None  # the page is still loading
            if value:
                return value
            time.sleep(0.02)
        raise PageError(f"in vain: {script}\nnow: {self.run('document.body.innerText.slice(0, 600)')}")

    def press(self, key):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, **({"text": key} if len(key) == 1 else {}))

    def screenshot(self):
        return self.call("Page.captureScreenshot", format="png")["data"]
