"""The connection to the switch, commands and responses, command handlers."""
from __future__ import annotations

import atexit
import ctypes
import logging
import math
import signal
import struct
import threading
import time
from dataclasses import dataclass
from typing import Any, Callable, Optional, Tuple, Union

from . import _library
from ._codes import Command, Error, Status
from .errors import ConnectionError, NotConnectedError, StatusError, TavroError, TimeoutError, code_name
from .rawstats import RawStats, parse_raw_stats

__all__ = ["Switch", "Response", "initialize", "library_version", "Payload", "HandlerResult"]

log = logging.getLogger("tavro")

HOST = "127.0.0.1"
# service name -> (SW_SERVICE_TYPE, TCP port on the switch)
SERVICES = {"snmp": (3, 58991), "pce": (4, 58992)}

Payload = Union[bytes, bytearray, memoryview]
CommandLike = Union[Command, int, str]
HandlerResult = Union[None, Status, int, Tuple[int, int], Tuple[int, int, Optional[Payload]]]
Handler = Callable[[Union[Command, int], bytes], HandlerResult]

_INT32 = (-(2 ** 31), 2 ** 31 - 1)
# What a handler that raised answers.
_HANDLER_FAILED = (Status.RSP_ERROR, Error.I_ERR_COMMAND_FAILED)


def _enum(enum, value: int):
    try:
        return enum(value)
    except ValueError:
        return value


def _command(code: CommandLike) -> int:
    if isinstance(code, str):
        try:
            return int(Command[code])
        except KeyError:
            raise ValueError(f"no command named {code!r}") from None
    if isinstance(code, bool) or not isinstance(code, int):
        raise TypeError(f"a command is a Command, an int or a name, not {type(code).__name__}")
    if not _INT32[0] <= code <= _INT32[1]:
        raise ValueError(f"command code {code} does not fit in 32 bits")
    return int(code)


def _name(code: int) -> str:
    c = _enum(Command, code)
    return c.name if isinstance(c, Command) else f"command {code}"


def _payload(data: Any) -> bytes:
    if data is None:
        return b""
    if isinstance(data, (str, int)):
        raise TypeError(f"a payload is bytes-like, not {type(data).__name__}")
    return bytes(data)


@dataclass(frozen=True)
class Response:
    """The first answer to a command.

    status: the switch's status (a Status member, or an int it does not
    know); error: its application error code (an Error member, or an int);
    payload: the bytes it sent back.
    """

    command: Union[Command, int]
    status: Union[Status, int]
    error: Union[Error, int]
    payload: bytes = b""

    @property
    def ok(self) -> bool:
        """True when the status is RSP_OK."""
        return self.status == Status.RSP_OK

    def raise_for_status(self) -> "Response":
        """Returns the response if its status is RSP_OK, else raises StatusError."""
        if not self.ok:
            raise StatusError(f"{_name(self.command)}: the switch answered {code_name(self.status, Status)}, "
                              f"error {code_name(self.error, Error)}", self)
        return self

    def __repr__(self) -> str:
        def show(v):
            return v.name if hasattr(v, "name") else str(v)
        return (f"Response(command={show(self.command)}, status={show(self.status)}, "
                f"error={show(self.error)}, payload={self.payload!r})")


# ---------------------------------------------------------------------------
# Process-wide state: the library has one connection and one handler table.

_state = threading.RLock()
_initialized = False
_active: Optional["Switch"] = None
_handlers: dict = {}          # code -> Python callable
_in_handler = threading.local()


def _check(function: str, status: int) -> None:
    if status != Error.I_SUCCESS:
        raise TavroError(f"{function}: {code_name(status, Error)}", status)


def initialize(library: Optional[str] = None, *, restore_signals: bool = True) -> None:
    """Loads libTAVRO.so and starts its threads; later calls do nothing.

    library: path of libTAVRO.so (default: $TAVRO_LIBRARY, the build tree's,
    the installed one). The library installs SIGINT and SIGTERM handlers
    that do not end the process; with restore_signals (the default, and
    when called from the main thread) Python's own handling is put back, so
    Ctrl-C raises KeyboardInterrupt and SIGTERM ends the process as usual.
    Switch calls this itself.
    """
    global _initialized
    with _state:
        lib = _library.load(library)
        if _initialized:
            return
        saved = {}
        if restore_signals:
            if threading.current_thread() is threading.main_thread():
                saved = {s: signal.getsignal(s) for s in (signal.SIGINT, signal.SIGTERM)}
            else:
                log.warning("initialised outside the main thread: the library's SIGINT/SIGTERM handlers stay")
        _check("I_TAVRO_Initialize", lib.I_TAVRO_Initialize())
        _initialized = True
        for sig, handler in saved.items():
            if handler is not None:
                signal.signal(sig, handler)
        atexit.register(_at_exit)


def library_version() -> Tuple[int, int, int]:
    """The (major, minor, patch) version of the loaded libTAVRO.so."""
    lib = _library.load()
    v = [ctypes.c_int() for _ in range(3)]
    lib.I_TAVRO_Version(*(ctypes.byref(x) for x in v))
    return (v[0].value, v[1].value, v[2].value)


def _at_exit() -> None:
    # Close before the interpreter goes away: the session thread must not
    # call into Python after that. Disconnect first, so no command is being
    # dispatched while the handler table changes.
    with _state:
        if _active is not None:
            _active.close()
        lib = _library.loaded()
        for code in list(_handlers):
            lib.I_TAVRO_UnRegisterCommandHandler(code)
        _handlers.clear()


def _answer(response: int, result: HandlerResult) -> None:
    """Fills in the library's response from what a handler returned."""
    if result is None:
        return
    if isinstance(result, tuple):
        if len(result) == 2:
            status, error, data = result[0], result[1], None
        elif len(result) == 3:
            status, error, data = result
        else:
            raise TypeError(f"a handler returns None, a status, (status, error) or (status, error, payload); "
                            f"got a tuple of {len(result)}")
    else:
        status, error, data = result, None, None
    for what, v in (("status", status), ("error", error)):
        if v is not None and (isinstance(v, bool) or not isinstance(v, int) or not _INT32[0] <= v <= _INT32[1]):
            raise TypeError(f"a handler's {what} is an int (a Status or Error member), got {v!r}")
    data = _payload(data)
    lib = _library.loaded()
    lib.I_TAVRO_SetResponseStatus(response, int(status))
    if error is not None:
        lib.I_TAVRO_SetResponseError(response, int(error))
    if data:
        lib.I_TAVRO_SetResponseData(response, data, len(data))


def _trampoline(code: int, data: Optional[int], size: int, response: Optional[int]) -> None:
    # Runs on the library's session thread (ctypes takes the GIL). Nothing may
    # escape: the library cannot take a Python exception.
    try:
        handler = _handlers.get(code)
        if handler is None:
            return
        payload = ctypes.string_at(data, size) if data and size else b""
        _in_handler.active = True
        try:
            result = handler(_enum(Command, code), payload)
            _answer(response, result)
        except BaseException:
            log.exception("handler %s for %s raised; answering %s", getattr(handler, "__qualname__", handler),
                          _name(code), _HANDLER_FAILED[0].name)
            lib = _library.loaded()
            lib.I_TAVRO_SetResponseStatus(response, _HANDLER_FAILED[0])
            lib.I_TAVRO_SetResponseError(response, _HANDLER_FAILED[1])
        finally:
            _in_handler.active = False
    except BaseException:  # logging itself failed, or the interpreter is going away
        pass


# One C callback for every code, alive as long as the process: the library
# may still hold its pointer after a handler is removed.
_THUNK = _library.HANDLER(_trampoline)


# ---------------------------------------------------------------------------

class Switch:
    """A connection to one service of the switch on this host (127.0.0.1).

    Use it as a context manager; it initialises the library, connects, and
    disconnects on exit:

        with tavro.Switch("pce") as switch:
            ports = switch.raw_stats(3)              # [PortStats(port=1, ...), ...]
            rsp = switch.request(tavro.Command.CMD_CONN_PORT, payload, timeout=2)
            if rsp.ok: ...
            switch.send(tavro.Command.CMD_HEARTBEAT)

            @switch.handler(tavro.Command.CMD_HEARTBEAT)
            def heartbeat(command, payload):
                return tavro.Status.RSP_OK

    service: "pce" (TCP port 58992) or "snmp" (58991).
    connect_timeout: seconds to wait for the link. The library's own wait
    comes first: about 8 s pass before a switch that does not answer is
    reported, whatever the time-out. On giving up the binding stops the
    library's connection attempts and raises tavro.ConnectionError.
    library: path of libTAVRO.so (default: $TAVRO_LIBRARY, the build
    tree's, the installed one).

    The library holds one connection per process: one Switch may be
    connected at a time. Methods may be called from several threads at
    once; blocking calls release the GIL. Ctrl-C raises KeyboardInterrupt
    as usual (initialize() puts Python's signal handling back after the
    library's), once the current call returns: after at most its time-out.
    At interpreter exit a connected Switch is closed before Python tears
    down, so no handler runs in a dying interpreter.
    """

    def __init__(self, service: str = "pce", *, connect_timeout: float = 10.0,
                 library: Optional[str] = None) -> None:
        """Describes the connection; connect() or a with block makes it."""
        if service not in SERVICES:
            raise ValueError(f"service is one of {', '.join(SERVICES)}, not {service!r}")
        if connect_timeout <= 0:
            raise ValueError("connect_timeout must be positive")
        self.service = service
        self.host = HOST
        self.port = SERVICES[service][1]
        self.connect_timeout = float(connect_timeout)
        self._library = library
        self._connected = False
        self._own_handlers: dict = {}  # code -> the function registered through this Switch

    def __repr__(self) -> str:
        state = "connected" if self.is_connected() else "closed"
        return f"<tavro.Switch {self.service} {self.host}:{self.port} {state}>"

    def __enter__(self) -> "Switch":
        return self.connect()

    def __exit__(self, *exc: object) -> None:
        self.close()

    def connect(self) -> "Switch":
        """Connects (initialising the library first); returns self.

        Raises tavro.ConnectionError when the switch has not answered within
        connect_timeout, TavroError when another Switch is connected.
        """
        global _active
        with _state:
            if self._connected:
                return self
            if _active is not None:
                raise TavroError(f"{_active!r} is connected; the library holds one connection per process")
            initialize(self._library)
            lib = _library.loaded()
            start = time.monotonic()
            deadline = start + self.connect_timeout
            try:
                status = lib.I_SwitchConnect(SERVICES[self.service][0])
                if status == Error.I_ERR_NO_CONNECTION:
                    # The library keeps trying (every 2 s) after its own wait.
                    while time.monotonic() < deadline and lib.I_SwitchIsConnected() != Error.I_SUCCESS:
                        time.sleep(0.05)
                    if lib.I_SwitchIsConnected() == Error.I_SUCCESS:
                        status = Error.I_SUCCESS
            except BaseException:  # Ctrl-C: leave nothing trying in the background
                lib.I_SwitchDisconnect()
                raise
            if status != Error.I_SUCCESS:
                lib.I_SwitchDisconnect()
                raise ConnectionError(
                    f"no switch answered on {self.host}:{self.port} ({self.service} service) within "
                    f"{time.monotonic() - start:.1f} s: {code_name(status, Error)}; is the switch running?",
                    status, host=self.host, port=self.port, service=self.service)
            self._connected = True
            _active = self
            return self

    def close(self) -> None:
        """Disconnects if connected (waiting up to about 4 s) and removes the
        handlers registered through this Switch, unless another Switch has
        replaced them since. Calling it again does nothing."""
        global _active
        with _state:
            if self._connected:
                _library.loaded().I_SwitchDisconnect()
                self._connected = False
                _active = None
            for code, fn in list(self._own_handlers.items()):
                if _handlers.get(code) is fn:  # not since replaced through another Switch
                    self.unregister_handler(code)
            self._own_handlers.clear()

    def is_connected(self) -> bool:
        """True while this Switch's link to the switch is up (it may drop
        and come back: the library reconnects by itself)."""
        return self._connected and _library.loaded().I_SwitchIsConnected() == Error.I_SUCCESS

    def _require_connection(self, what: str) -> Any:
        if not self._connected:
            raise NotConnectedError(f"{what}: this Switch is not connected (use connect() or a with block)",
                                    Error.I_ERR_NO_CONNECTION, host=self.host, port=self.port,
                                    service=self.service)
        lib = _library.loaded()
        if lib.I_SwitchIsConnected() != Error.I_SUCCESS:
            raise NotConnectedError(f"{what}: the link to {self.host}:{self.port} is down "
                                    f"(the library is reconnecting)", Error.I_ERR_NO_CONNECTION,
                                    host=self.host, port=self.port, service=self.service)
        return lib

    def send(self, command: CommandLike, payload: Payload = b"") -> None:
        """Sends a command without asking for an answer; returns once it is on its way.

        Raises NotConnectedError when there is no link.
        """
        code = _command(command)
        data = _payload(payload)
        lib = self._require_connection(f"send({_name(code)})")
        _check(f"I_TAVRO_SendCommandNoResponse({_name(code)})",
               lib.I_TAVRO_SendCommandNoResponse(code, data or None, len(data)))

    def request(self, command: CommandLike, payload: Payload = b"", timeout: Optional[float] = None,
                *, check: bool = False) -> Response:
        """Sends a command and waits for its answer.

        timeout: seconds (default: the library's 10 s). Returns the Response,
        whatever its status; with check=True a status other than RSP_OK
        raises StatusError. Raises tavro.TimeoutError when no answer came in
        time, NotConnectedError when there is no link. Not allowed inside a
        handler: the answer would arrive on the thread that is waiting.
        """
        code = _command(command)
        data = _payload(payload)
        if timeout is None:
            ms = 0
        else:
            if not 0 < timeout < math.inf:
                raise ValueError(f"timeout is a positive number of seconds, not {timeout!r}")
            ms = max(1, math.ceil(timeout * 1000))
            if ms > _INT32[1]:
                raise ValueError(f"timeout {timeout} s is too long")
        if getattr(_in_handler, "active", False):
            raise TavroError(f"request({_name(code)}) inside a handler would wait on the thread that "
                             "reads its answer; use send() or answer from another thread")
        lib = self._require_connection(f"request({_name(code)})")
        raw = _library.TAVRO_RESPONSE()
        status = lib.I_TAVRO_SendCommandWithResponse(code, data or None, len(data), ms, ctypes.byref(raw))
        if status == Error.I_ERR_NO_CONNECTION:
            raise NotConnectedError(f"request({_name(code)}): the link to {self.host}:{self.port} is down",
                                    status, host=self.host, port=self.port, service=self.service)
        _check(f"I_TAVRO_SendCommandWithResponse({_name(code)}, {len(data)} bytes)", status)
        try:
            body = ctypes.string_at(raw.data, raw.dataSize) if raw.data and raw.dataSize else b""
            response = Response(_enum(Command, code), _enum(Status, raw.status), _enum(Error, raw.errorCode), body)
        finally:
            lib.I_TAVRO_FreeResponse(ctypes.byref(raw))
        if response.status == Status.RSP_TIME_OUT:
            waited = "10 s" if timeout is None else f"{timeout:g} s"
            raise TimeoutError(f"{_name(code)}: no answer from the switch within {waited}", response.error)
        if check:
            response.raise_for_status()
        return response

    def raw_stats(self, slot: int, timeout: Optional[float] = None) -> RawStats:
        """Raw counters of the blade in slot: a RawStats list of PortStats.

        Asks the switch with CMD_GET_BLADE_RAW_STATS, as I_GetRawStats does,
        but keeps the whole reply, so that it parses in whichever byte order
        the switch sent it (I_GetRawStats sizes the block by the count word
        read in this host's order). timeout as for request(). Raises
        StatusError naming the switch's refusal (RSP_NO_DEVICE for an empty
        slot), TimeoutError, or TavroError for a reply it cannot read.
        """
        if isinstance(slot, bool) or not isinstance(slot, int) or not 0 <= slot <= 0xFFFF:
            raise ValueError(f"slot is an int from 0 to 65535, not {slot!r}")
        # The request record is the slot number in this host's order.
        rsp = self.request(Command.CMD_GET_BLADE_RAW_STATS, struct.pack("=H", slot), timeout, check=True)
        return parse_raw_stats(rsp.payload)

    # -- handlers ------------------------------------------------------------

    def handler(self, command: CommandLike) -> Callable[[Handler], Handler]:
        """Decorator: registers the function for commands the switch sends.

            @switch.handler(tavro.Command.CMD_HEARTBEAT)
            def heartbeat(command, payload): ...

        See register_handler.
        """
        def register(fn: Handler) -> Handler:
            self.register_handler(command, fn)
            return fn
        return register

    def register_handler(self, command: CommandLike, fn: Handler) -> None:
        """Calls fn(command, payload) for each such command the switch sends.

        fn runs on the library's session thread, one command at a time (a
        slow handler holds up the connection), and returns what to answer:
        None (RSP_OK), a status, (status, error) or (status, error, payload).
        An exception is logged to the "tavro" logger and answered with
        RSP_ERROR / I_ERR_COMMAND_FAILED. A later registration for the same
        command replaces the earlier one. The library's handler table is not
        locked: change it while the switch is not sending that command.
        """
        code = _command(command)
        if not callable(fn):
            raise TypeError(f"a handler is callable, not {type(fn).__name__}")
        lib = _library.load(self._library)
        with _state:
            _handlers[code] = fn
            self._own_handlers[code] = fn
            _check(f"I_TAVRO_RegisterCommandHandler({_name(code)})", lib.I_TAVRO_RegisterCommandHandler(code, _THUNK))

    def unregister_handler(self, command: CommandLike) -> None:
        """Removes the handler of a command; the switch's commands of that
        kind then go unanswered. Nothing happens if there was none."""
        code = _command(command)
        lib = _library.load(self._library)
        with _state:
            if _handlers.pop(code, None) is not None:
                lib.I_TAVRO_UnRegisterCommandHandler(code)
            self._own_handlers.pop(code, None)
