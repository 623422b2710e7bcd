"""Sessions with a virtual unit: the guide, the scripts, what must never hang, the examples."""

import ast
import asyncio
import inspect
import os
import runpy
import signal
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Dict, List

import pytest

import vexahost
from fake_unit import wait_until
from scripts import Script

PYTHON = Path(__file__).parents[1]
ROOT = PYTHON.parents[1]
EXAMPLES = PYTHON / "examples"
ENVIRONMENT = {**os.environ, "PYTHONPATH": str(PYTHON), "MPLBACKEND": "Agg"}
LIMIT = 20  # seconds for what takes a few, also on a busy machine


def test_the_guide(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    pytest.importorskip("numpy")
    (tmp_path / "build").mkdir()
    capture = ROOT / "tests" / "captures" / "whole-session.pcapng"
    (tmp_path / "session.pcapng").write_bytes(capture.read_bytes())
    monkeypatch.setenv("VEXA_UNIT", vexahost.virtual_unit.find_vexa_unit())
    monkeypatch.chdir(tmp_path)
    names: Dict[str, Any] = {}

    async def run(block: str) -> None:
        code = compile(block, "python.md", "exec", ast.PyCF_ALLOW_TOP_LEVEL_AWAIT)
        result = eval(code, names)
        if inspect.isawaitable(result):
            await result

    with vexahost.VirtualUnit(folder="build/unit") as virtual:
        for part in (ROOT / "docs" / "python.md").read_text().split("```python\n")[1:]:
            asyncio.run(run(part.split("```")[0]))
            virtual.wait(host=False)
        assert len(names["x"]) == 2000 and names["x"].dtype == "int16"
        with virtual.connect() as unit:
            packets: List[Any] = []
            names["log_for"](5, unit, packets.append)
            assert len(packets) == 5
    with vexahost.VirtualUnit({"daq": {"answersSync": False}}) as virtual:
        names["test_my_program_without_the_board"](virtual)


@pytest.mark.parametrize("name", ["default", "daq-in-use", "dead-daq"])
def test_session_scripts(name: str) -> None:
    text = (ROOT / "host" / "scripts" / f"{name}.vexa").read_text()
    with vexahost.VirtualUnit(name) as virtual, virtual.connect() as unit:
        assert Script(unit).run(text) > 4


def test_a_late_answer_keeps_the_turn_and_still_counts(virtual_unit: vexahost.VirtualUnit) -> None:
    with virtual_unit.connect() as unit:
        unit.open_controller()
        virtual_unit.fault("VEXA_Device_Stream_Open", "block", ms=400, count=1)
        with pytest.raises(TimeoutError, match="open Microphone"):
            unit.open("Microphone", id=7, timeout=0.05)
        with pytest.raises(TimeoutError, match="not answered an earlier request yet: open Micro"):
            unit.open("Accelerometer", timeout=0.05)
        assert unit.open("Accelerometer", id=8).read(10).shape == (10,)
        with pytest.raises(vexahost.Refused) as refused:  # the late one is open
            unit.open("Microphone", id=7)
        assert refused.value.code == 54 and isinstance(refused.value, RuntimeError)


def test_a_timeout_loses_no_sample_and_a_pulled_cable_ends_waits(
    virtual_unit: vexahost.VirtualUnit,
) -> None:
    with virtual_unit.connect() as unit:
        unit.open_controller()
        device = unit.open("Accelerometer")
        with pytest.raises(vexahost.Timeout):
            device.read(10**6, timeout=0.5)
        values = [int(value) for value in device.read(200)]
        assert max(abs(b - a) for a, b in zip(values, values[1:])) < 1000 and device.stats.gaps == 0  # a sine without a break
        threading.Timer(0.1, virtual_unit.cable, (False,)).start()
        with pytest.raises(vexahost.LinkLost):
            device.read(10**6, timeout=LIMIT)
        virtual_unit.cable(True)
        unit.reconnect(timeout=LIMIT)
        with pytest.raises(vexahost.NotOpen):
            unit.open("Accelerometer")
        with pytest.raises(vexahost.LinkLost):
            device.read(10**6)


PROGRAMS = {
    "ctrl-c": "print('ready', flush=True)\nd.read(10**9, timeout=None)",
    "forgotten": "import threading\nthreading.Thread(target=d.read, args=(10**9, None), daemon=True)"
    ".start()\nprint('ready', flush=True)",
    "fork": """
child = os.fork()
if child == 0:
    try:
        with unit:
            d.read(1)
    except vexahost.Forked:
        os._exit(5)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 5
d.read(500)
print('ready', flush=True)""",
}


@pytest.mark.parametrize("name", PROGRAMS)
def test_nothing_keeps_a_program(name: str, virtual_unit: vexahost.VirtualUnit) -> None:
    text = (
        "import os, sys, vexahost\nunit = vexahost.connect(sys.argv[1])\nunit.open_controller()\n"
        "d = unit.open('Microphone')\n" + PROGRAMS[name]
    )
    command = [sys.executable, "-c", text, virtual_unit.folder]
    with subprocess.Popen(command, stdout=subprocess.PIPE, env=ENVIRONMENT) as program:
        assert program.stdout is not None and program.stdout.readline() == b"ready\n"
        if name == "ctrl-c":
            program.send_signal(signal.SIGINT)
        assert program.wait(LIMIT) == (-signal.SIGINT if name == "ctrl-c" else 0)


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
            with pytest.raises(vexahost.Timeout):
                await unit.daq.read_block(timeout=0.01)
            await unit.reconnect(timeout=LIMIT)
            with pytest.raises(vexahost.LinkLost):
                await device.read(10**9)

    asyncio.run(session())
    wait_until(lambda: threading.active_count() == before)


@pytest.mark.parametrize(
    "command, needs, said",
    [
        ("log_csv.py Microphone FOLDER/out.csv --samples 500", "", " samples"),
        ("live_plot.py Accelerometer --frames 5 --save FOLDER/p.png", "matplotlib", "p.png"),
        ("hdf5_logger.py FOLDER/out.h5 Microphone --seconds 0.5", "h5py", "0 gaps"),
    ],
)
def test_examples(
    command: str, needs: str, said: str, virtual_unit: vexahost.VirtualUnit, tmp_path: Path
) -> None:
    if needs:
        pytest.importorskip(needs)
    words = command.replace("FOLDER", str(tmp_path)).split()
    words = [sys.executable, str(EXAMPLES / words[0]), "--unit", virtual_unit.folder, *words[1:]]
    done = subprocess.run(words, env=ENVIRONMENT, stdout=subprocess.PIPE, timeout=60, text=True)
    assert done.returncode == 0 and said in done.stdout
    assert any(file.stat().st_size > 1000 for file in tmp_path.iterdir())


def test_the_cable_pull_of_the_examples(virtual_unit: vexahost.VirtualUnit) -> None:
    names = runpy.run_path(str(EXAMPLES / "test_cable_pull.py"))
    names["test_a_pulled_cable_loses_no_recording"](virtual_unit)
