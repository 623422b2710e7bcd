"""As much of a WebSocket client as it takes to be rude with."""

import base64
import json
import os
import socket
import struct


class Refused(Exception):
    """The server did not take the connection, or has closed it."""


class WebSocket:
    def __init__(self, port, host=None, origin=None, path="/", protocol="vexa-page"):
        host = host or f"127.0.0.1:{port}"
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=30)
        head = [f"GET {path} HTTP/1.1", f"Host: {host}", "Upgrade: websocket", "Connection: Upgrade",
                "Sec-WebSocket-Version: 13", "Sec-WebSocket-Protocol: " + protocol,
                "Sec-WebSocket-Key: " + base64.b64encode(os.urandom(16)).decode()]
        if origin != "":
            head.append(f"Origin: {origin or 'http://' + host}")
        self.socket.sendall(("\r\n".join(head) + "\r\n\r\n").encode())
        self.rest = b""
        answer = b""
        while b"\r\n\r\n" not in answer:
            answer += self._receive()
        head, _, self.rest = answer.partition(b"\r\n\r\n")
        if b" 101 " not in head.split(b"\r\n")[0]:
            self.close()
            raise Refused(head.split(b"\r\n")[0])

    def close(self):
        self.socket.close()

    def _receive(self):
        try:
            piece = self.socket.recv(65536)
        except ConnectionError:
            piece = b""
        if not piece:
            self.close()
            raise Refused("closed")
        return piece

    def send(self, data, opcode=1, final=True):
        mask = os.urandom(4)
        size = len(data)
        head = bytes([(0x80 if final else 0) | opcode])
        if size < 126:
            head += bytes([0x80 | size])
        elif size < 65536:
            head += bytes([0xFE]) + struct.pack(">H", size)
        else:
            head += bytes([0xFF]) + struct.pack(">Q", size)
        masked = bytes(byte ^ mask[i % 4] for i, byte in enumerate(data))
        try:
            self.socket.sendall(head + mask + masked)
        except ConnectionError as error:
            raise Refused(error) from error

    def ask(self, **request):
        self.send(json.dumps(request).encode())

    def _take(self, count):
        while len(self.rest) < count:
            self.rest += self._receive()
        taken, self.rest = self.rest[:count], self.rest[count:]
        return taken

    def next(self):
        """The next message: an object, or bytes."""
        first, second = self._take(2)
        size = second & 0x7F
        if size == 126:
            (size,) = struct.unpack(">H", self._take(2))
        elif size == 127:
            (size,) = struct.unpack(">Q", self._take(8))
        body = self._take(size)
        if first & 0xF == 8:
            raise Refused("closed")
        return json.loads(body) if first & 0xF == 1 else body

    def wait(self, kind):
        """The next message of a type."""
        while True:
            message = self.next()
            if isinstance(message, dict) and message["type"] == kind:
                return message
