"""Exceptions of the binding. All derive from TavroError."""
from __future__ import annotations

import builtins
from enum import IntEnum
from typing import TYPE_CHECKING, Optional, Type

if TYPE_CHECKING:
    from .switch import Response


def code_name(value: int, enum: Type[IntEnum]) -> str:
    """'NAME (value)' for a known code, else 'unknown <Enum> value'."""
    try:
        return f"{enum(value).name} ({int(value)})"
    except ValueError:
        return f"unknown {enum.__name__} {int(value)}"


class TavroError(Exception):
    """Something the library or the switch refused.

    error is the library's result code (an Error member) when there is one.
    """

    def __init__(self, message: str, error: Optional[int] = None) -> None:
        super().__init__(message)
        self.error = error


class LibraryNotFoundError(TavroError, OSError):
    """libTAVRO.so could not be loaded (the message lists where it was looked for)."""


class ConnectionError(TavroError, builtins.ConnectionError):
    """No connection to the switch. host, port and service tell where the binding tried."""

    def __init__(self, message: str, error: Optional[int] = None, *, host: str = "127.0.0.1",
                 port: Optional[int] = None, service: Optional[str] = None) -> None:
        super().__init__(message, error)
        self.host = host
        self.port = port
        self.service = service


class NotConnectedError(ConnectionError):
    """A command was sent while the library had no connection to the switch."""


class TimeoutError(TavroError, builtins.TimeoutError):
    """The switch did not answer a command within its time-out."""


class StatusError(TavroError):
    """The switch answered with a status other than RSP_OK (Response.raise_for_status)."""

    def __init__(self, message: str, response: "Response") -> None:
        super().__init__(message, response.error)
        self.response = response
