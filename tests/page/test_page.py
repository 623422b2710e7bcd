#!/usr/bin/python3
"""The live page in a real browser, and its server under rude clients.

test_page.py BUILD   The folder with the programs. Exit status 77 without a browser.
"""

import csv
import http.client
import io
import json
import os
import pathlib
import resource
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import browser
from websocket import Refused, WebSocket

BIN = pathlib.Path(sys.argv.pop(1) if len(sys.argv) > 1 else ".").resolve() / "bin"
RAMP_STEP = 202  # of the waveform, 100 samples a period
MUCH = {"devices": [{"name": name, "type": kind, "rate": 500, "blockSize": 240, "waveform": "noise"}
                    for name, kind in (("Ramp", 8), ("Noise", 9))]}
SCENARIO = {"devices": [
    {"name": "Ramp", "type": 8, "rate": 100, "blockSize": 28, "waveform": "ramp"},
    {"name": "Noise", "type": 9, "rate": 50, "blockSize": 28, "waveform": "noise"},
    {"name": "Warm", "type": 2, "rate": 20}]}


def fill_disk(after):
    """No file of the process grows beyond so many bytes."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (after, after))


class Bench:
    """A virtual unit and a server of its page. Everything ends with it."""

    def __init__(self, *options, scenario=SCENARIO, disk=None):
        self.folder = tempfile.TemporaryDirectory(prefix="vexa-page-")
        self.unit_folder = f"{self.folder.name}/unit"
        self.recording = f"{self.folder.name}/session.pcapng"
        pathlib.Path(f"{self.folder.name}/scenario.json").write_text(json.dumps(scenario))
        self.start_unit()
        self.server = subprocess.Popen(
            [BIN / "vexa-host", "serve", "Ramp", "Noise", "--dir", self.unit_folder, "--listen", "0",
             "--record", self.recording, *options], stdout=subprocess.PIPE, text=True,
            stderr=None if disk is None else subprocess.PIPE, preexec_fn=disk and (lambda: fill_disk(disk)))
        self.url = self.server.stdout.readline().strip()
        self.port = int(self.url.split(":")[2].split("/")[0])
        self.token = self.url.split("#")[1]

    def start_unit(self):
        self.unit = subprocess.Popen(
            [BIN / "vexa-unit", "run", "--dir", self.unit_folder, "--scenario", f"{self.folder.name}/scenario.json"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)

    def kill_unit(self):
        os.killpg(self.unit.pid, signal.SIGKILL)
        self.unit.wait()
        end = time.monotonic() + 10
        while os.path.exists(self.unit_folder) and time.monotonic() < end:  # its watcher tidies up
            time.sleep(0.02)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.terminate()
        self.server_status = self.server.wait(10)
        for output in filter(None, (self.server.stdout, self.server.stderr)):
            output.close()
        if self.unit.poll() is None:
            self.kill_unit()
        self.folder.cleanup()

    def viewer(self, **how):
        socket = WebSocket(self.port, **how)
        socket.ask(request="hello", token=self.token)
        return socket


class InABrowser(unittest.TestCase):
    def setUp(self):
        self.bench = self.enterContext(Bench()) if hasattr(self, "enterContext") else Bench().__enter__()
        self.addCleanup(self.bench.__exit__, None, None, None)
        self.page = browser.Browser(browser.find())
        self.addCleanup(self.page.__exit__, None, None, None)
        self.page.open(self.bench.url)
        self.page.wait("document.getElementById('link')?.className === 'up' && vexa.channels.size === 2")

    def channel(self, name):
        return f"[...vexa.channels.values()].find((channel) => channel.device === '{name}')"

    def grows(self, name, by=100):
        before = self.page.run(f"{self.channel(name)}?.total ?? 0")
        self.page.wait(f"{self.channel(name)}?.total > {before + by}")

    def fill(self, field, text):
        self.page.run(f"(() => {{ const field = document.getElementById('{field}'); field.value = {json.dumps(text)};"
                      "for (const kind of ['input', 'change']) field.dispatchEvent(new Event(kind, { bubbles: true })); })()")

    def click(self, element):
        self.page.run(f"document.querySelector({json.dumps(element)}).click()")

    def test_a_session(self):
        page = self.page
        with self.subTest("charts show what the unit sends"):
            self.grows("Ramp", 400)
            values = page.run(f"(() => {{ const found = []; {self.channel('Ramp')}.each(-Infinity, Infinity,"
                              "(time, value) => found.push(value)); return found; })()")
            steps = {round(after - before) for before, after in zip(values, values[1:])}
            self.assertLessEqual(len(steps), 3, steps)  # up, up by rounding, and the fall
            self.assertEqual(max(steps) - min(steps) > 19000, True, steps)
            chart = f"vexa.charts.charts.get({self.channel('Ramp')}.id)"
            drawn = [min(values), max(values)]
            page.wait(f"{chart}.slices?.low.length > 100 && {chart}.data[1].join() === '{drawn[0]},{drawn[1]}'")
            top, bottom, late, holes = page.run(f"""(() => {{
                const {{ ctx, bbox: {{ left, top, width, height }} }} = {chart}.plot;
                const {{ data }} = ctx.getImageData(left, top, width, height);
                const lit = [...Array(width * height).keys()].filter((i) => data[4 * i + 3] > 99 && data[4 * i + 2] - data[4 * i] > 60);
                const columns = [...new Set(lit.map((i) => i % width))].sort((one, other) => one - other);
                const at = (i) => {chart}.plot.posToVal(Math.floor(i / width), "y");
                return [at(lit[0]), at(lit[lit.length - 1]), {chart}.plot.posToVal(columns[0], "x") - Math.max({chart}.channel.pieces[0].first, {chart}.plot.scales.x.min),
                        columns[columns.length - 1] - columns[0] + 1 - columns.length];
            }})()""")
            pixel = 1.2 * (drawn[1] - drawn[0]) / 50  # at most
            for line, value in zip((bottom, top), drawn):
                self.assertAlmostEqual(line, value, delta=2 * pixel)
            self.assertAlmostEqual(late, 0, delta=0.04)
            # On a busy machine the estimate of the time may move by some columns; 0.2 s and more count as a gap.
            self.assertTrue(holes < 25 or page.run(f"{chart}.channel.gaps") > 0, holes)
            titles = "[...document.querySelectorAll('.chart h3')].map((title) => title.firstChild.data.split(' ')[0]).join()"
            # In one call: the next message from the server may already be there.
            reverse = "vexa.charts.order([...vexa.charts.charts.keys()].reverse())"
            self.assertEqual(page.run(f"({reverse}, {titles})"), "Noise,Ramp")
            page.wait(f"{titles} === 'Ramp,Noise'")  # the devices' order again
            shown = f"vexa.charts.charts.get({self.channel('Noise')}.id).plot.scales.x.max"
            page.run("vexa.charts.root.lastElementChild.style.marginTop = '3000px'")
            page.wait("vexa.charts.root.lastElementChild.isSeen === false")
            still = page.run(shown)
            self.grows("Noise")
            self.assertEqual(page.run(shown), still)  # no work for what nobody sees
            self.assertGreater(page.run(f"vexa.charts.picture() && {shown}"), still)
            page.run("vexa.charts.root.lastElementChild.style.marginTop = ''")
            still = page.run(shown)
            page.wait(f"{shown} > {still} + 0.1")
            times = page.run(f"(() => {{ const found = []; {self.channel('Ramp')}.each(-Infinity, Infinity,"
                             "(time) => found.push(time)); return found; })()")
            self.assertTrue(all(before < after for before, after in zip(times, times[1:])))

        with self.subTest("an edge holds the charts still"):
            self.fill("span", "1")
            self.fill("trigger-level", "5000")
            self.fill("trigger-mode", "single")
            page.wait("vexa.trigger.state === 'done'")
            at, (begin, end), values = page.run(
                f"(() => {{ const at = vexa.trigger.at, found = []; {self.channel('Ramp')}.each(-Infinity, at + 0.0001,"
                "(time, value) => found.push(value)); return [at, vexa.charts.range(), found]; })()")
            self.assertTrue(values[-2] < 5000 <= values[-1], values[-2:])
            self.assertAlmostEqual((at - begin) / (end - begin), 0.2, places=6)
            self.fill("trigger-mode", "")
            self.fill("span", "10")

        with self.subTest("a sensor is opened, armed and closed"):
            self.fill("open-name", "Warm")
            self.click("#open button")
            page.wait("document.getElementById('devices').textContent.includes('Warm')")
            self.click("#devices li:last-child [title^=Arm]")
            page.wait(f"{self.channel('Warm')}?.total > 3")
            self.click("#devices li:last-child [title^=Close]")
            page.wait(f"!{self.channel('Warm')}")
            self.fill("open-name", "Nothing")
            self.click("#open button")
            page.wait("document.getElementById('notice').textContent.includes('refused')")

        with self.subTest("the cable is pulled and put back"):
            page.wait("!document.getElementById('virtual').hidden")
            page.wait("document.getElementById('cable').textContent.startsWith('Pull')")
            self.click("#cable")
            page.wait("document.getElementById('link').textContent.startsWith('not connected')")
            page.wait("document.getElementById('cable').textContent.startsWith('Put')")
            self.click("#cable")
            page.wait("document.getElementById('link').className === 'up'")
            self.grows("Ramp")

        with self.subTest("a timeline of what happens, also without this page"):
            subprocess.run([BIN / "vexa-unit", "ctl", "--dir", self.bench.unit_folder, "detach", "Warm"], check=True,
                           stdout=subprocess.DEVNULL)
            page.wait("document.getElementById('events').textContent.includes('detach Warm')")
            late = self.bench.viewer()
            self.addCleanup(late.close)
            known = [text for _, _, text, _, _ in late.wait("timeline")["lines"]]
            for steps in (["the unit is there", "Warm is opened", "no host is connected", "change: cable, in false",
                           "a host is connected", "change: detach Warm"],
                          ["change: cable, in false", "change: cable, in true", "change: detach Warm"],
                          ["change: cable, in false", "Ramp is opened", "change: detach Warm"]):
                place = known.index(steps[0])
                for step in steps[1:]:
                    place = known.index(step, place)  # raises ValueError without it
            page.wait(f"document.querySelectorAll('#events div').length >= {len(known)}")
            shown = page.run("[...document.querySelectorAll('#events div')].map((line) => line.textContent)")
            for line, text in zip(reversed(shown), known):
                self.assertIn(text, line)

        with self.subTest("a fault is set, and hits"):
            self.fill("fault-call", "VEXA_Device_Stream_Open")
            self.click("#fault button")
            page.wait("document.getElementById('events').textContent.includes('fault.set')")
            self.fill("open-name", "Noise")
            self.click("#open button")
            page.wait("document.querySelector('#events .bad')?.textContent.includes('fault: VEXA_Device_Stream_Open')")

        with self.subTest("packets in words"):
            page.wait("document.getElementById('lines').textContent.includes('open child')")
            self.assertNotIn("bytes from child", page.run("document.getElementById('lines').textContent"))
            self.click("#filter-data")
            page.wait("document.getElementById('lines').textContent.includes('bytes from child')")
            self.fill("filter-text", "Warm")
            page.wait("[...document.querySelectorAll('#lines div')].every((line) => /warm/i.test(line.textContent))"
                      " && document.querySelectorAll('#lines div').length > 0")
            self.fill("filter-text", "")

        with self.subTest("a moment in the charts is one in the packets, and the other way round"):
            x, y = page.run(f"(() => {{ const box = vexa.charts.charts.get({self.channel('Ramp')}.id).plot.over.getBoundingClientRect();"
                            "return [box.left + box.width * 0.9, box.top + box.height / 2]; })()")
            for kind in ("mouseMoved", "mousePressed", "mouseReleased"):
                page.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)
            times = "[vexa.charts.marks.p, Number(document.querySelector('#lines .at')?.dataset.time)," \
                    "Number(document.querySelector('#lines .at')?.previousElementSibling?.dataset.time)]"
            moment, line, before = page.wait(f"document.querySelector('#lines .at')?.previousElementSibling && {times}")
            self.assertTrue(before < moment <= line, (before, moment, line))
            page.press("m")
            page.wait("document.activeElement.matches('#lines .at')")
            page.press("ArrowUp")
            page.press("Enter")
            chosen = page.run("Number(document.activeElement.dataset.time)")
            self.assertEqual(page.wait("vexa.charts.isPaused && vexa.charts.marks.p"), chosen)
            begin, end = page.run("vexa.charts.range()")
            self.assertAlmostEqual((begin + end) / 2, chosen, places=6)
            page.press("c")
            page.run("document.activeElement.blur()")
            page.press("End")
            page.wait("!vexa.charts.isPaused && vexa.charts.marks.p === null")
            page.press("f")

        with self.subTest("what is saved is what was sent"):
            self.grows("Noise", 300)
            page.press(" ")
            page.wait("vexa.charts.isPaused")
            saved = [float(row["value"]) for row in csv.DictReader(io.StringIO(page.run("vexa.charts.csv()")))
                     if row["device"] == "Noise"]
            self.assertGreater(len(saved), 200)
            decoded = subprocess.run(
                [BIN / "vexa-host", "decode", self.bench.recording, "--csv", "--long", "--device", "Noise"],
                capture_output=True, text=True, check=False).stdout  # the recording goes on meanwhile
            rows = [line for line in decoded.splitlines() if not line.startswith("#")]
            sent = [float(row["value"]) for row in csv.DictReader(rows) if row["channel"] != "bytes"]
            newest = saved[-200:]  # of one connection
            self.assertTrue(any(sent[i:i + 200] == newest for i in range(len(sent) - 199)))
            page.press(" ")

        with self.subTest("the unit is killed and returns"):
            self.bench.kill_unit()
            page.wait("document.getElementById('link').textContent.startsWith('not connected')")
            page.wait("document.getElementById('events').firstChild.textContent.endsWith('the unit has ended')")
            self.bench.start_unit()
            page.wait("document.getElementById('link').className === 'up'")
            page.wait("document.getElementById('events').firstChild.textContent.match(/is there|is opened|whether/)")
            self.grows("Ramp")

        self.assertEqual(page.problems, [])


class Server(unittest.TestCase):
    def setUp(self):
        self.bench = Bench()
        self.addCleanup(self.bench.__exit__, None, None, None)

    def get(self, path, method="GET", **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.bench.port, timeout=10)
        connection.request(method, path, headers=headers)
        answer = connection.getresponse()
        body = answer.read()
        connection.close()
        return answer, body

    def test_what_it_gives_to_whom(self):
        port, token = self.bench.port, self.bench.token
        page, _ = self.get("/")
        self.assertEqual(page.status, 200)
        self.assertNotIn("unsafe", page.getheader("content-security-policy"))
        self.assertIn("default-src 'none'", page.getheader("content-security-policy"))
        cases = [
            (304, "/", "GET", {"If-None-Match": page.getheader("etag")}),
            (403, "/", "GET", {"Host": f"evil.example:{port}"}),
            (403, "/metrics", "GET", {"Host": "127.0.0.1"}),
            (200, "/metrics", "GET", {}),
            (405, "/", "POST", {}),
            (404, "/../../etc/passwd", "GET", {}),
            (403, "/session.pcapng", "GET", {}),
            (403, "/session.pcapng", "GET", {"Authorization": "Bearer " + "0" * 32}),
            (200, "/session.pcapng", "GET", {"Authorization": f"Bearer {token}"}),
        ]
        for status, path, method, headers in cases:
            with self.subTest(path=path, method=method, headers=headers):
                self.assertEqual(self.get(path, method, **headers)[0].status, status)
        for how in ({"origin": "http://evil.example"}, {"origin": ""}, {"origin": "null"},
                    {"host": f"evil.example:{port}"}, {"protocol": "ticking"}):
            with self.subTest(**how), self.assertRaises(Refused):
                self.bench.viewer(**how)

    def test_what_it_hangs_up_on(self):
        def big(viewer):
            viewer.send(b"x" * 70000)

        def fragments(viewer):
            for i in range(40):
                viewer.send(b"x" * 4000, opcode=1 if i == 0 else 0, final=False)

        def before(viewer):
            viewer.ask(request="open", name="Warm")

        def wrong(viewer):
            viewer.ask(request="hello", token="0" * 32)

        def nothing(_):
            pass

        for known, rude in ((True, big), (True, fragments), (False, before), (False, wrong), (False, nothing)):
            with self.subTest(rude.__name__), self.assertRaises(Refused):
                viewer = self.bench.viewer() if known else WebSocket(self.bench.port)
                self.addCleanup(viewer.close)
                if known:
                    viewer.wait("hello")
                rude(viewer)
                while True:
                    viewer.next()
        viewer = self.bench.viewer()
        self.addCleanup(viewer.close)
        viewer.wait("hello")
        for text in (b"[]", b"{", b'{"request": 1}', b'{"request": "open"}', b'{"request": "send", "child": 1, "bytes": "0"}',
                     b'{"request": "close", "child": -1}', b'{"request": "unit", "body": 3}', b"\xff\xfe"):
            viewer.send(text)
            self.assertTrue(viewer.wait("answer")["problem"], text)

    def test_a_slow_viewer_slows_nobody(self):
        with Bench(scenario=MUCH) as bench:
            slow, quick = bench.viewer(), bench.viewer()
            self.addCleanup(slow.close)
            self.addCleanup(quick.close)
            slow.wait("hello")
            end = time.monotonic() + 40
            dropped = 0
            while not dropped and time.monotonic() < end:
                while isinstance(quick.next(), dict):
                    pass
                connection = http.client.HTTPConnection("127.0.0.1", bench.port, timeout=10)
                connection.request("GET", "/metrics")
                text = connection.getresponse().read().decode()
                connection.close()
                dropped = float(text.split("\nvexa_viewer_dropped_frames_total ")[1].split()[0])
            self.assertGreater(dropped, 0)
            quick.ask(id=7, request="log")
            while quick.wait("packets").get("id") != 7:
                pass
            self.assertGreater(slow.wait("dropped")["frames"], 0)

    def test_a_full_disk_ends_the_recording_alone(self):
        with Bench(disk=3000) as bench:
            viewer = bench.viewer()
            self.addCleanup(viewer.close)
            while not viewer.wait("state")["recording"].endswith("File too large"):
                pass
            self.assertIn("the recording has stopped", bench.server.stderr.readline())
            for _ in range(10):
                while isinstance(viewer.next(), dict):
                    pass

    def test_who_may_only_look(self):
        with Bench("--read-only") as bench:
            viewer = bench.viewer()
            self.addCleanup(viewer.close)
            self.assertFalse(viewer.wait("hello")["control"])
            for request in ({"request": "takeOver"}, {"request": "unit", "body": {"request": "cable", "in": False}}):
                viewer.ask(id=1, **request)
                self.assertIn("may look", viewer.wait("answer")["problem"])

    def test_it_ends_in_order_and_serves_no_more_than_it_can(self):
        viewers = []
        for _ in range(70):
            try:
                viewers.append(self.bench.viewer())
            except (Refused, OSError):
                break
        self.assertLessEqual(len(viewers), 64)
        self.assertGreater(len(viewers), 50)
        for viewer in viewers:
            self.addCleanup(viewer.close)
        self.bench.server.send_signal(signal.SIGTERM)
        self.assertEqual(self.bench.server.wait(10), 0)


if __name__ == "__main__":
    if "--without-browser" in sys.argv:
        sys.argv.remove("--without-browser")
        del InABrowser
    elif not browser.find():
        print("skipped: there is no chromium")
        sys.exit(77)
    unittest.main(verbosity=2)
