#!/usr/bin/python3
"""What the live page costs: its server's CPU and memory, and the browser's frames.

bench/page.py BUILD [SECONDS]   BUILD is the folder with the programs, SECONDS of each measurement (20)
"""

import base64
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "page"))

import browser  # noqa: E402
from websocket import Refused, WebSocket  # noqa: E402

STREAMS = ["Accelerometer", "Spectrometer", "Microphone"] * 3
TICKS = os.sysconf("SC_CLK_TCK")


def cpu(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def memory(pid):
    """Proportional set size and anonymous memory, in MB."""
    lines = dict(line.split(":") for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:])
    return [int(lines[key].split()[0]) / 1000 for key in ("Pss", "Anonymous")]


class Viewer(threading.Thread):
    """Reads all that comes, or nothing."""

    def __init__(self, port, token, reads=True, data=True):
        super().__init__(daemon=True)
        self.socket = WebSocket(port)
        self.socket.ask(request="hello", token=token)
        self.socket.ask(request="filter", data=data)
        self.bytes = 0
        if reads:
            self.start()

    def run(self):
        try:
            while True:
                message = self.socket.next()
                self.bytes += len(message) if isinstance(message, bytes) else 0
        except (Refused, OSError):
            pass


class Bench:
    def __init__(self, build, scenario, names):
        self.folder = tempfile.TemporaryDirectory(prefix="vexa-bench-")
        programs = pathlib.Path(build) / "bin"
        unit = f"{self.folder.name}/unit"
        self.unit = subprocess.Popen([programs / "vexa-unit", "run", "--scenario", scenario, "--dir", unit],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.server = subprocess.Popen([programs / "vexa-host", "serve", *names, "--dir", unit, "--listen", "0"],
                                       stdout=subprocess.PIPE, text=True)
        self.url = self.server.stdout.readline().strip()
        self.port, self.token = int(self.url.split(":")[2].split("/")[0]), self.url.split("#")[1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.server, self.unit):
            process.terminate()
            process.wait(20)
        self.folder.cleanup()


def measure_server(build, seconds):
    with Bench(build, "busy-lab", STREAMS) as bench:
        first = Viewer(bench.port, bench.token, data=False)
        time.sleep(5)
        for what in ("", ", which is sent 1,500 lines of packets a second as well"):
            before, began, bytes_before = cpu(bench.server.pid), time.monotonic(), first.bytes
            time.sleep(seconds)
            used, took = cpu(bench.server.pid) - before, time.monotonic() - began
            print(f"server, nine streams at the link's limit, all packets decoded, one viewer{what}: "
                  f"{100 * used / took:.1f} % of a core, {(first.bytes - bytes_before) / 1000 / took:.0f} kB/s of samples to it")
            first.socket.ask(request="filter", data=True)
        viewers = [Viewer(bench.port, bench.token, reads=i % 4 != 0) for i in range(19)]
        time.sleep(seconds)
        pss, anonymous = memory(bench.server.pid)
        before, began = cpu(bench.server.pid), time.monotonic()
        time.sleep(5)
        used = (cpu(bench.server.pid) - before) / (time.monotonic() - began)
        print(f"server, 20 viewers of which five read nothing: {pss:.1f} MB PSS, {anonymous:.1f} MB anonymous, "
              f"{100 * used:.1f} % of a core, {len(viewers) + 1} connected")


def measure_page(seconds, rate, height, build):
    """Ten channels of made samples, as the page takes them from its link."""
    with Bench(build, "default", []) as bench, browser.Browser(browser.find(), height=height) as page:
        page.open(bench.url)
        page.wait("document.getElementById('link')?.className === 'up'")
        page.run(f"""(async () => {{
            const {{ Channel }} = await import("/store.js");
            const made = [];
            for (let i = 0; i < 10; ++i) {{
                const channel = new Channel(1000 + i, `Made ${{i}}`, 0, "value", "");
                vexa.channels.set(channel.id, channel);
                vexa.charts.add(channel);
                made.push(channel);
            }}
            vexa.link.handlers.state = () => {{}};  // which would take them away
            const step = 1 / {rate}, start = performance.now() / 1000;
            let sent = 0;
            setInterval(() => {{
                const due = Math.floor((performance.now() / 1000 - start) * {rate});
                const values = Float32Array.from({{ length: due - sent }}, (_, i) => 1e4 * Math.sin((sent + i) / 50));
                for (const channel of made) vexa.link.handlers.samples(channel.id, {{ gap: false, first: sent * step, step, values }});
                sent = due;
            }}, 33);
        }})()""")
        time.sleep(12)  # a whole window
        figures = []
        page.call("Performance.enable")
        for _ in range(2):
            metrics = {each["name"]: each["value"] for each in page.call("Performance.getMetrics")["metrics"]}
            figures.append((time.monotonic(), page.run("vexa.charts.frames"), metrics["ScriptDuration"], metrics["TaskDuration"]))
            time.sleep(seconds if len(figures) == 1 else 0)
        (began, frames, script, task), (ended, frames_after, script_after, task_after) = figures
        took = ended - began
        seen = page.run("[...vexa.charts.charts.values()].filter(({ box }) => box.isSeen).length")
        print(f"page, 10 channels of {rate} samples/s, window 10 s, {seen} charts in view: {(frames_after - frames) / took:.0f} frames/s, "
              f"script {100 * (script_after - script) / took:.0f} %, all tasks {100 * (task_after - task) / took:.0f} % of a core")


def measure_delay(seconds, build):
    with Bench(build, "default", ["Accelerometer"]) as bench, browser.Browser(browser.find()) as page:
        page.open(bench.url)
        page.wait("vexa.channels.size === 1")
        delays = page.run(f"""new Promise((resolve) => {{
            const delays = [], channel = [...vexa.channels.values()][0];
            let former = channel.total;
            const draw = vexa.charts.drawSome.bind(vexa.charts);
            const start = vexa.page.hello.start;
            vexa.charts.drawSome = (count) => {{
                draw(count);
                if (channel.total !== former) delays.push(Date.now() / 1000 - start - channel.end);
                former = channel.total;
            }};
            setTimeout(() => resolve(delays), {1000 * seconds});
        }})""")
        delays.sort()
        print(f"from a sample's time to its drawing: median {1000 * delays[len(delays) // 2]:.0f} ms, "
              f"the slowest of {len(delays)} {1000 * delays[-1]:.0f} ms")


def save_screenshot(build, path):
    with Bench(build, "default", ["Accelerometer", "Spectrometer", "Microphone"]) as bench, \
            browser.Browser(browser.find(), 1200, 800) as page:
        page.open(bench.url)
        page.wait("vexa.channels.size === 3 && Math.min(...[...vexa.channels.values()].map(({ end }) => end)) > 11", 30)
        page.run("document.getElementById('unit').textContent = 'build/unit'")
        pathlib.Path(path).write_bytes(base64.b64decode(page.screenshot()))


if __name__ == "__main__":
    folder = pathlib.Path(sys.argv[1]).resolve()
    if sys.argv[2:3] == ["--screenshot"]:
        save_screenshot(folder, sys.argv[3])
        sys.exit()
    duration = float(sys.argv[2]) if len(sys.argv) > 2 else 20
    measure_server(folder, duration)
    measure_delay(duration, folder)
    for samples_per_second in (2000, 20000):
        for pixels in (900, 2200):
            measure_page(duration, samples_per_second, pixels, folder)
