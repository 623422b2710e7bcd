"""Recordings, samples and times, and what a faulty link does to a conversation."""

import subprocess
from pathlib import Path
from typing import Any, List, Optional, Type

import pytest

import vexahost
import vexahost.recording
from fake_unit import FakeUnit, acknowledgement, frame, sync_reply, wait_until
from vexahost import packets, samples
from vexahost.inbox import RawBlock
from vexahost.readers import PacketReader
from vexahost.timing import Timing

CAPTURES = Path(__file__).parents[3] / "tests" / "captures"


@pytest.mark.parametrize("name", ["whole-session", "split-packets", "faults"])
def test_recordings_say_what_the_tool_says(name: str) -> None:
    lines, start = [], None
    for packet in vexahost.read_recording(CAPTURES / f"{name}.pcapng"):
        start = packet.time_ns if start is None else start
        arrow = {"to-unit": "->", "from-unit": "<-"}[packet.direction]
        arrow = "--" if packet.kind == "event" else arrow
        time = f"{(packet.time_ns - start) / 1e9:.6f}"
        data = packets.hex_text(packet.bytes, 24)
        lines.append(f"{packet.frame} {time} {arrow} {packet.words} {data}".split())
    wanted = (CAPTURES / f"{name}.decoded.txt").read_text().splitlines()
    assert lines == [line.split() for line in wanted]


def test_a_broken_recording_is_read_up_to_the_break(tmp_path: Path) -> None:
    whole = (CAPTURES / "whole-session.pcapng").read_bytes()
    for size in (0, 10, len(whole) - 7):
        (tmp_path / "cut").write_bytes(whole[:size])
        read: List[Any] = []
        with pytest.raises(ValueError, match="empty|no pcapng|breaks off, at byte"):
            read.extend(vexahost.read_recording(tmp_path / "cut"))


def test_rules_of_the_wire() -> None:
    sums = [packets.build(0x60, 1, b"\1" * size)[3] for size in (0, 249, 250, 251)]
    assert sums == [0x65, 0x57, 0x5F, 0x60]  # the longest packets have it over three bytes
    named = packets.build(0x40, 0, b"\x70" + packets.open_arguments(5, "Controller"))
    assert packets.reopens_controller(named) and packets.reopens_controller(b"\0\0\0\0\x72")
    assert not packets.reopens_controller(named.replace(b"C", b"c"))


def test_a_sync_reply_is_found_that_had_begun_inside_another_packet() -> None:
    reader, reply = PacketReader(), sync_reply(bytes(4))
    reader.feed(b"\x60\xff" + reply[:9])
    assert reader.next() is None
    reader.await_sync_reply()
    reader.feed(reply[9:])
    assert reader.next() == (reply, True)


def one_channel(kind: str, offset: int, **more: float) -> Any:
    return {"channels": [{"name": "value", "type": kind, "offset": offset, **more}]}


X = {"name": "x", "type": "s16be", "offset": 0, "stride": 4}
Y = {"name": "y", "type": "i16be", "offset": 2, "stride": 4}


@pytest.mark.parametrize("with_numpy", [True, False])
@pytest.mark.parametrize(
    "entry, block, values",
    [
        ({"channels": [X, Y]}, "0001 fffe 0003 0004 0005", [[1, 3], [-2, 4]]),
        (one_channel("u8", 1, count=2, scale=0.5, bias=1), "00 02 04 06", [2.0, 3.0]),
        (one_channel("f32le", 0), "0000803f 000000c0", [1, -2]),
        (one_channel("u32be", 9), "00", []),
    ],
)
def test_samples(monkeypatch: Any, entry: Any, block: str, values: Any, with_numpy: bool) -> None:
    if not with_numpy:
        monkeypatch.setattr(samples, "numpy", None)
    else:
        pytest.importorskip("numpy")
    found = samples.load_devices({"Sensor": entry})["Sensor"].decode(bytes.fromhex(block))
    assert [list(row) if len(entry["channels"]) > 1 else row for row in found] == values


def number(word: str) -> Optional[float]:
    return None if word == "-" else float(word)


def test_sample_times_are_those_of_the_library() -> None:
    timing, form, blocks = Timing(0, None), None, 0
    for line in (CAPTURES / "sample-times.txt").read_text().splitlines():
        words = line.split()
        if words[0] == "clock":
            form = None if words[4] == "-" else samples.TimeFormat(words[4], 0, "ms")
            timing = Timing(float(words[2]), number(words[3]), form)
        elif words[0] != "#":
            raw = RawBlock(b"", float(words[1]), int(words[0]), True)
            device = number(words[2])
            device = device * form.tick if form and device is not None else None
            begin, step = timing.place(raw, int(words[3]), device)
            assert begin == pytest.approx(float(words[4]), abs=2e-9), line
            assert step == pytest.approx(float(words[5]), abs=1e-11), line
            blocks += 1
    assert blocks > 800 and timing.rate == pytest.approx(5, rel=1e-3)


def test_samples_of_recordings_are_those_of_the_tool(tmp_path: Path) -> None:
    recording = CAPTURES / "faults.pcapng"
    program = Path(vexahost.virtual_unit.find_vexa_unit()).with_name("vexa-host")
    command = [str(program), "decode", str(recording), "--csv", "--out", str(tmp_path)]
    assert subprocess.run(command, stderr=subprocess.DEVNULL).returncode == 0
    for device in ("Microphone", "DAQ"):
        rows = [
            f"{time:.6f},{value}"
            for _, _, block in vexahost.recording_samples(recording, device)
            for time, value in zip(block.times, block.values)
        ]
        file = tmp_path / f"{device}.csv"
        lines = file.read_text().splitlines() if file.exists() else []
        assert rows == [line for line in lines[2:] if not line.startswith("#")], device
    assert rows or lines


def test_an_id_in_use_keeps_its_device_until_it_is_closed() -> None:
    decoder = vexahost.recording.Decoder()

    def send(command: int, arguments: bytes) -> None:
        packet = packets.build_tunnel(1, 0, packets.build(0x40, 0, bytes([command]) + arguments))
        list(decoder.add(vexahost.recording.Frame(0, "to-unit", packet, "")))

    names = []
    send(packets.OPEN_CONTROLLER, (1).to_bytes(4, "little") + b"\0")
    for name in ("A", "B", None, "C"):
        if name is None:
            send(packets.CLOSE_CHILD, (17).to_bytes(4, "little"))
        else:
            send(packets.OPEN_CHILD, packets.open_arguments(17, name))
        device = decoder.device(17)
        names.append(device and device.name)
    assert names == ["A", "A", "A", "C"]


def broken_by(data: bytes) -> Any:
    """Answers syncs, then sends `data` as soon as the controller is opened."""

    def answer(unit: FakeUnit, request: bytes) -> None:
        is_sync = packets.is_initial_sync(request)
        unit.send(frame(sync_reply(request)) if is_sync else data, piece=3)

    return answer


@pytest.mark.parametrize(
    "data, error",
    [
        (b"\0\0\0\0BUSY", vexahost.Busy),
        (b"\x05\0\0\0U013hello", vexahost.ProtocolViolation),
        (b"\x31\x75\0\0U012", vexahost.ProtocolViolation),
    ],
)
def test_what_ends_a_link(tmp_path: Path, data: bytes, error: Type[Exception]) -> None:
    unit = vexahost.connect(FakeUnit(tmp_path, broken_by(data)).path)
    with pytest.raises(error):
        unit.open_controller(timeout=10)


def test_a_cut_packet_is_searched_past(tmp_path: Path) -> None:
    syncs: List[bytes] = []

    def answer(unit: FakeUnit, request: bytes) -> None:
        if packets.is_initial_sync(request):
            unit.send(frame(sync_reply(request)))
            syncs.append(request)
        elif request[12] == packets.OPEN_CHILD:
            blocks = [packets.build_tunnel(0x11, n, b"\1\2\0\0\5" * 20) for n in range(4)]
            lost = blocks[1][:50]  # then the packet after it is taken for its rest
            unit.send(frame(acknowledgement(request) + blocks[0] + lost + blocks[2]), piece=7)
        elif request[12] == packets.CLOSE_CHILD:
            unit.send(frame(packets.build_tunnel(0x11, 9, b"last") + acknowledgement(request)))
        else:
            unit.send(frame(acknowledgement(request)), piece=1)

    with vexahost.connect(FakeUnit(tmp_path, answer).path) as unit:
        unit.open_controller()
        device = unit.open("Sensor")
        assert len(device.read_block(timeout=10).bytes) == 100
        wait_until(lambda: len(syncs) >= 2)
        unit.close_device(0x99)  # of which the unit says nothing here
        assert device.read_block(timeout=10).bytes == b"last"
        assert device.stats.gaps == 1 and unit.stats.resynchronisations == 1
