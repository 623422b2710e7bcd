"""Sessions with a virtual unit: the guide, the scripts, what must never hang, the examples."""

import ast
import asyncio
import os
import runpy
import shutil
import signal
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Dict

import pytest

import vexahost.pytest_plugin
from fake_unit import wait_until
from scripts import Script

virtual_unit = vexahost.pytest_plugin.virtual_unit  # also where the package is not installed
ROOT = Path(__file__).parents[3]
PYTHON = ROOT / "host/python"
EXAMPLES = PYTHON / "examples"
ENVIRONMENT = {**os.environ, "PYTHONPATH": str(PYTHON), "MPLBACKEND": "Agg"}


def test_the_guide(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    pytest.importorskip("numpy")
    (tmp_path / "build").mkdir()
    shutil.copy(ROOT / "tests/captures/whole-session.pcapng", tmp_path / "session.pcapng")
    monkeypatch.setenv("VEXA_UNIT", vexahost.virtual_unit.find_vexa_unit())
    monkeypatch.chdir(tmp_path)
    names: Dict[str, Any] = {}

    async def run(block: str) -> None:
        code = compile(block, "python.md", "exec", ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
        await (eval(code, names) or asyncio.sleep(0))

    with vexahost.VirtualUnit(folder="build/unit") as virtual:
        for part in (ROOT / "docs/python.md").read_text().split("```python\n")[1:]:
            asyncio.run(run(part.split("```")[0]))
        assert len(names["x"]) == 2000 and names["x"].dtype == "int16"
        with virtual.connect(20) as unit:
            names["log_for"](5, unit, lambda packet: None)
            assert unit.daq.stats.blocks >= 5
        virtual.daq(answersSync=False)
        names["test_my_program_without_the_board"](virtual)


@pytest.mark.parametrize("name", ["default", "daq-in-use", "dead-daq"])
def test_session_scripts(name: str) -> None:
    text = (ROOT / f"host/scripts/{name}.vexa").read_text()
    with vexahost.VirtualUnit(name) as virtual, virtual.connect(20) as unit:
        assert Script(virtual, unit).run(text) >= 4


def test_a_late_answer_keeps_the_turn_and_still_counts(virtual_unit: vexahost.VirtualUnit) -> None:
    with virtual_unit.connect(20) as unit:
        unit.open_controller()
        virtual_unit.fault("VEXA_Device_Stream_Open", "block", ms=4000, count=1)
        with pytest.raises(TimeoutError, match="open Microphone"):
            unit.open("Microphone", id=7, timeout=0.05)
        with pytest.raises(TimeoutError, match="not answered an earlier request yet: open Micro"):
            unit.open("Accelerometer", timeout=0.05)
        assert unit.open("Accelerometer", id=8, timeout=20).read(10, timeout=20).shape == (10,)
        with pytest.raises(vexahost.Refused, match="error 54"):  # the late one is open
            unit.open("Microphone", id=7, timeout=20)


def test_timeouts_lose_nothing_and_a_pulled_cable_ends_waits(virtual_unit: Any) -> None:
    with virtual_unit.connect(20) as unit:
        unit.open_controller()
        device = unit.open("Accelerometer")
        with pytest.raises(vexahost.Timeout):
            device.read(10**6, timeout=0.5)
        values = [int(value) for value in device.read(200, timeout=20)]
        assert max(abs(b - a) for a, b in zip(values, values[1:])) < 1000  # a sine
        assert device.stats.gaps == 0
        threading.Timer(0.1, virtual_unit.cable, (False,)).start()
        with pytest.raises(vexahost.LinkLost):
            device.read(10**6, timeout=20)
        virtual_unit.cable(True)
        unit.reconnect(timeout=20)
        with pytest.raises(vexahost.NotOpen):
            unit.open("Accelerometer")
        with pytest.raises(vexahost.LinkLost):
            device.read(10**6)


PROGRAMS = {
    "ctrl-c": "print('ready', flush=True)\nd.read(10**9, timeout=None)",
    "forgotten": "d.read(100)\nprint('ready', flush=True)",
    "fork": """child = os.fork()
if child == 0:
    try:
        with unit: d.read(1)
    except vexahost.Forked: os._exit(5)
assert os.waitpid(child, 0)[1] == 5 << 8
d.read(500)
print('ready', flush=True)""",
}


@pytest.mark.parametrize("name", PROGRAMS)
def test_nothing_keeps_a_program(name: str, virtual_unit: vexahost.VirtualUnit) -> None:
    text = (
        "import os, signal, sys, vexahost\n"
        # A shell that starts the tests in the background has it ignored.
        "signal.signal(signal.SIGINT, signal.default_int_handler)\n"
        "unit = vexahost.connect(sys.argv[1], 20)\nunit.open_controller()\n"
        "d = unit.open('Microphone')\n" + PROGRAMS[name]
    )
    command = [sys.executable, "-c", text, virtual_unit.folder]
    with subprocess.Popen(command, stdout=subprocess.PIPE, env=ENVIRONMENT) as program:
        assert program.stdout is not None and program.stdout.readline() == b"ready\n"
        if name == "ctrl-c":
            program.send_signal(signal.SIGINT)
        try:
            assert program.wait(20) == (-signal.SIGINT if name == "ctrl-c" else 0)
        finally:
            program.kill()


def test_asyncio_leaves_no_thread_behind(virtual_unit: vexahost.VirtualUnit) -> None:
    before = threading.active_count()

    async def session() -> None:
        async with vexahost.aio.connect(virtual_unit.folder) as unit:
            await unit.open_controller()
            device = await unit.open("Microphone")
            waits = [asyncio.ensure_future(device.read(10**9, timeout=None)) for _ in range(20)]
            await device.read(100)
            for wait in waits:
                wait.cancel()
            await asyncio.wait(waits)
            assert threading.active_count() == before + 1  # the one that reads from the link
            await unit.reconnect(timeout=20)
            with pytest.raises(vexahost.LinkLost):
                await device.read(10**9)

    asyncio.run(session())
    wait_until(lambda: threading.active_count() == before)


@pytest.mark.parametrize(
    "command, needs, said",
    [
        ("log_csv.py Microphone FOLDER/out.csv --samples 500", "csv", " samples"),
        ("live_plot.py Accelerometer --frames 5 --save FOLDER/p.png", "matplotlib", "p.png"),
        ("hdf5_logger.py FOLDER/out.h5 Microphone --seconds 0.5", "h5py", "0 gaps"),
    ],
)
def test_examples(command: str, needs: str, said: str, virtual_unit: Any, tmp_path: Path) -> None:
    pytest.importorskip(needs)
    words = command.replace("FOLDER", str(tmp_path)).split()
    words = [sys.executable, str(EXAMPLES / words[0]), "--unit", virtual_unit.folder, *words[1:]]
    done = subprocess.run(words, env=ENVIRONMENT, stdout=subprocess.PIPE, timeout=60, text=True)
    assert done.returncode == 0 and said in done.stdout


def test_the_cable_pull_of_the_examples(virtual_unit: vexahost.VirtualUnit) -> None:
    names = runpy.run_path(str(EXAMPLES / "test_cable_pull.py"))
    names["test_a_pulled_cable_loses_no_recording"](virtual_unit)
