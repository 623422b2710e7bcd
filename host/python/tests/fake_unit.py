"""A unit that sends prepared bytes: what the virtual unit never does."""

import os
import socket
import threading
import time
from typing import Any, Callable

from vexahost import packets
from vexahost.readers import RequestReader


def wait_until(condition: Callable[[], bool], timeout: float = 10.0) -> None:
    end = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.005)


def frame(payload: bytes) -> bytes:
    return len(payload).to_bytes(4, "little") + b"U012" + payload


def sync_reply(request: bytes) -> bytes:
    body = bytes((packets.SYNC_COMMAND, request[2])) + packets.SYNC_REPLY_SIGNATURE
    return packets.build(0xB8, 0, body)


def acknowledgement(request: bytes) -> bytes:
    inner = packets.build(packets.ACKNOWLEDGE, 0, bytes((request[12], request[10], 0)))
    return packets.build_tunnel(packets.tunnel_id(request), 0, inner)


class FakeUnit:
    def __init__(self, folder: Any, answer: Callable[["FakeUnit", bytes], None]) -> None:
        self.path = os.path.join(folder, "fake.sock")
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(self.path)
        self._listener.listen()
        self._answer = answer
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self) -> None:
        self._host, _ = self._listener.accept()
        reader = RequestReader()
        while data := self._host.recv(4096):
            for packet in reader.feed(data):
                self._answer(self, packet.data)

    def send(self, data: bytes, piece: int = 1 << 16) -> None:
        for at in range(0, len(data), piece):
            self._host.sendall(data[at : at + piece])
