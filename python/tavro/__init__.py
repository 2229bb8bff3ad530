"""Drive a network test-access switch from Python, through libTAVRO.so.

    import tavro

    with tavro.Switch("pce") as switch:
        ports = switch.raw_stats(3)                       # counters of slot 3
        rsp = switch.request(tavro.Command.CMD_CONN_PORT, payload, timeout=2)
        switch.send(tavro.Command.CMD_HEARTBEAT)

        @switch.handler(tavro.Command.CMD_HEARTBEAT)      # commands the switch sends
        def heartbeat(command, payload):
            return tavro.Status.RSP_OK

Command, Status and Error are the library's own code tables, generated
when it is built. Failures raise TavroError or one of its subclasses
(ConnectionError, NotConnectedError, TimeoutError, StatusError,
LibraryNotFoundError), whose messages name the code.

The library is found through the library= argument, $TAVRO_LIBRARY, the build
tree the package came from, then the system's libTAVRO.so.1. It writes its
debug trace to log/Test.Debug.log under the working directory.
"""
try:
    from ._codes import Command, Error, Manager, MessageType, Status
except ImportError as e:  # pragma: no cover - only without a build
    raise ImportError("tavro/_codes.py is written by the build: use the package from build/<config>/python "
                      "or install it with pip install ./python after building libTAVRO") from e

from .errors import (ConnectionError, LibraryNotFoundError, NotConnectedError, StatusError, TavroError,
                     TimeoutError)
from .rawstats import PortStats, RawStats, parse_raw_stats
from .switch import Response, Switch, initialize, library_version

try:
    from ._build import VERSION as __version__
except ImportError:  # pragma: no cover
    __version__ = "0"

__all__ = [
    "Switch", "Response", "PortStats", "RawStats", "parse_raw_stats", "initialize", "library_version",
    "Command", "Status", "Error", "Manager", "MessageType",
    "TavroError", "ConnectionError", "NotConnectedError", "TimeoutError", "StatusError", "LibraryNotFoundError",
]

# Public names show as tavro.X in tracebacks and help().
for _name in ("Switch", "Response", "PortStats", "RawStats", "TavroError", "ConnectionError", "NotConnectedError",
              "TimeoutError", "StatusError", "LibraryNotFoundError"):
    globals()[_name].__module__ = __name__
del _name
