"""A virtual unit: starts vexa-unit, and controls it through its socket."""

from __future__ import annotations

import atexit
import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
from typing import Any, Dict, Iterator, List, Mapping, Optional, Sequence, TypeVar, Union

from .client import Unit, connect
from .errors import CannotConnect, Error, InvalidArgument, Timeout

_Self = TypeVar("_Self", bound="VirtualUnit")

_CONTROL = "control.sock"
_LONGEST_FOLDER = 80  # a socket's path has 107 bytes
_END_TIMEOUT = 10.0
_POLL = 0.02
_ANSWER_PATIENCE = 10.0  # beyond the time that a request itself may take


class ControlError(Error, RuntimeError):
    """The virtual unit has refused a request."""


def find_vexa_unit() -> str:
    """$VEXA_UNIT, else vexa-unit in PATH, else build/release/bin of a folder above this one."""
    named = os.environ.get("VEXA_UNIT")
    if named:
        return named
    found = shutil.which("vexa-unit")
    if found:
        return found
    folder = os.getcwd()
    while True:
        built = os.path.join(folder, "build", "release", "bin", "vexa-unit")
        if os.access(built, os.X_OK):
            return built
        if os.path.dirname(folder) == folder:
            break
        folder = os.path.dirname(folder)
    raise FileNotFoundError("there is no vexa-unit: not in $VEXA_UNIT, PATH or build/release/bin")


class VirtualUnit:
    """The service on a virtual unit, from `start` (or `with`) to `stop`.

    `scenario`: a name of vexa-unit scenarios, a file, or the content of one; None: the default.
    `folder`: for the sockets; None: a temporary one. `journal`: a file for the call log.
    `program`: what runs in place of the service, with its arguments.
    """

    def __init__(
        self,
        scenario: Union[None, str, "os.PathLike[str]", Mapping[str, Any]] = None,
        *,
        folder: Optional[str] = None,
        journal: Optional[str] = None,
        program: Sequence[str] = (),
    ) -> None:
        self._scenario = scenario
        self._folder = folder
        self._journal = journal
        self._program = list(program)
        self._process: Optional[subprocess.Popen[bytes]] = None
        self._owner = os.getpid()
        self._scratch = ""  # a folder of our own: the scenario, the output
        self._control: Optional[_Control] = None
        #: The folder with the unit's sockets: the address to connect to.
        self.folder = folder or ""

    # Start and end.

    def start(self: _Self, timeout: float = 10.0) -> _Self:
        """Starts the unit and waits, `timeout` seconds at most, until the service is up."""
        deadline = time.monotonic() + timeout
        atexit.register(self.stop)
        base = tempfile.gettempdir()
        self._scratch = tempfile.mkdtemp(
            prefix="vexa-", dir=base if len(base) < _LONGEST_FOLDER else "/tmp"
        )
        self.folder = self._folder or os.path.join(self._scratch, "unit")
        with open(self._output_path, "wb") as output:
            self._process = subprocess.Popen(
                self._command(), stdin=subprocess.DEVNULL, stdout=output, stderr=output
            )
        try:
            self._control = self._connect_control(deadline)
            self.wait(call="node.open", timeout=max(deadline - time.monotonic(), 0.001))
        except BaseException:
            self.stop()
            raise
        return self

    def _command(self) -> List[str]:
        command = [find_vexa_unit(), "run", "--dir", self.folder]
        if isinstance(self._scenario, Mapping):
            path = os.path.join(self._scratch, "scenario.json")
            with open(path, "w", encoding="utf-8") as file:
                json.dump(self._scenario, file)
            command += ["--scenario", path]
        elif self._scenario is not None:
            command += ["--scenario", os.fspath(self._scenario)]
        if self._journal:
            command += ["--journal", self._journal]
        return command + (["--", *self._program] if self._program else [])

    def _connect_control(self, deadline: float) -> _Control:
        while True:
            try:
                return _Control(os.path.join(self.folder, _CONTROL))
            except OSError as error:
                if self._process is not None and self._process.poll() is not None:
                    raise CannotConnect(f"vexa-unit has ended: {self.output.strip()}") from error
                if time.monotonic() >= deadline:
                    raise Timeout("vexa-unit has not started in time") from error
            time.sleep(_POLL)

    def stop(self) -> Optional[int]:
        """Ends the unit. Returns the exit status of the service; None if there was none."""
        if os.getpid() != self._owner:
            return None  # a forked child: the unit is the parent's
        status = None
        atexit.unregister(self.stop)
        if self._control is not None:
            self._control.close()
            self._control = None
        if self._process is not None:
            self._process.terminate()
            try:
                status = self._process.wait(_END_TIMEOUT)
            except subprocess.TimeoutExpired:
                self._process.kill()
                status = self._process.wait()
            self._last_output = self.output
            self._process = None
        if self._scratch:
            shutil.rmtree(self._scratch, ignore_errors=True)
            self._scratch = ""
        return status

    def __enter__(self: _Self) -> _Self:
        return self.start()

    def __exit__(self, *exception: object) -> None:
        self.stop()

    _last_output = ""

    @property
    def _output_path(self) -> str:
        return os.path.join(self._scratch, "output")

    @property
    def output(self) -> str:
        """What the service and vexa-unit have printed so far."""
        if not self._scratch:
            return self._last_output
        with open(self._output_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    def connect(self, timeout: Optional[float] = 3.0, **options: Any) -> Unit:
        """A host at this unit; see vexahost.connect."""
        return connect(self.folder, timeout, **options)

    # Control. The keys are those of docs/virtual-unit.md.

    def request(self, request: str, **keys: Any) -> Dict[str, Any]:
        """Makes a request of the control socket. ControlError when the unit refuses it."""
        if self._control is None:
            raise ControlError("the unit is not running")
        return self._control.ask({"request": request, **keys})

    def state(self) -> Dict[str, Any]:
        return self.request("state")

    def attach(self, name: str, **keys: Any) -> None:
        """Attaches a device, or changes one: `type`, `rate` (blocks per second), `blockSize`..."""
        self.request("attach", name=name, **keys)

    def detach(self, name: str) -> None:
        self.request("detach", name=name)

    def cable(self, plugged_in: Optional[bool] = None, **flap: int) -> None:
        """Plugs the cable in or out; or lets it flap: `inMs`, `outMs`, `times`, `jitter`."""
        if (plugged_in is None) == (not flap):
            raise InvalidArgument("either in or out, or how it flaps")
        if flap:
            self.request("cable", flap=flap)
        else:
            self.request("cable", **{"in": plugged_in})

    def application(self, name: str, **keys: Any) -> None:
        """Changes "DAQ", "SPLASH" or "FGEN": `holds`, `delayMs`, `silent`, `refuses`..."""
        self.request("app", name=name, **keys)

    def daq(self, **keys: Any) -> None:
        """Changes the board: `answersSync`, `measurementRate` (packets per second)..."""
        self.request("daq", **keys)

    def fault(self, call: str, action: str, device: Optional[str] = None, **keys: Any) -> int:
        """Sets a fault, only for `device` (or application) if given. Returns its number."""
        if device is not None:
            keys["for"] = device
        return int(self.request("fault.set", call=call, action=action, **keys)["id"])

    def clear_faults(self, id: Optional[int] = None, call: Optional[str] = None) -> None:
        """Clears one fault, those of one call, or all."""
        keys = {"id": id, "call": call}
        self.request("fault.clear", **{key: it for key, it in keys.items() if it is not None})

    def wait(self, *conditions: str, timeout: float = 10.0, **keys: Any) -> None:
        """Waits until all conditions hold at once; Timeout after `timeout` seconds.

        "streaming Microphone" or streaming="Microphone"; also open, closed, call, count, host,
        cable, daq, bytesToHost, bytesFromHost.
        """
        for condition in conditions:
            key, _, value = condition.partition(" ")
            keys[key] = json.loads(value) if value in ("true", "false") else value or True
        # The unit counts whole milliseconds.
        answer = self.request("wait", **keys, **{"for": f"{max(1, round(timeout * 1000))}ms"})
        if answer.get("timeout"):
            raise Timeout(str(answer.get("error")))

    def events(self) -> Iterator[Dict[str, Any]]:
        """Events from now on, as they come."""
        control = _Control(os.path.join(self.folder, _CONTROL))
        control.ask({"request": "events"})
        return control.lines()


class _Control:
    """A connection to the control socket: a request a line, an answer a line."""

    def __init__(self, path: str) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            self._socket.connect(path)
        except OSError:
            self._socket.close()
            raise
        self._lines = self._socket.makefile("rb")

    def ask(self, request: Mapping[str, Any]) -> Dict[str, Any]:
        self._socket.sendall(json.dumps(request).encode() + b"\n")
        line = self._lines.readline()
        if not line:
            raise ControlError("the unit has gone")
        answer = json.loads(line)
        if not answer.get("ok") and not answer.get("timeout"):
            raise ControlError(str(answer.get("error")))
        return dict(answer)

    def lines(self) -> Iterator[Dict[str, Any]]:
        try:
            for line in self._lines:
                yield json.loads(line)
        finally:
            self.close()

    def close(self) -> None:
        self._lines.close()
        self._socket.close()
