"""The code enums against the library's code table, and how codes are named."""
from __future__ import annotations

import os

import pytest

import tavro
from tavro import Command, Error, Manager, MessageType, Status
from tavro.switch import _check

ENUMS = {"COMMAND_CODE": Command, "RSP_STATUS": Status, "I_STATUS": Error, "MGR_CLASS": Manager,
         "MSG_TYPE": MessageType}


def table():
    path = os.environ.get("TAVRO_CODES_TABLE")
    if not path:
        pytest.skip("TAVRO_CODES_TABLE does not name the build's code table (run through ctest)")
    with open(path, encoding="ascii") as f:
        return [line.rstrip("\n").split("\t") for line in f if line.strip()]


def test_enums_hold_every_code_of_the_table():
    rows = [(kind, name, int(value)) for kind, name, value in table() if kind in ENUMS]
    assert rows
    for kind, name, value in rows:
        assert ENUMS[kind][name] == value, (kind, name)
    for kind, enum in ENUMS.items():
        assert {m for m in enum.__members__} == {n for k, n, _ in rows if k == kind}


def test_first_name_of_a_value_is_the_canonical_one():
    first = {}
    for kind, name, value in table():
        first.setdefault((kind, int(value)), name)
    assert Command(70002).name == first[("COMMAND_CODE", 70002)] == "CMD_UPDATE"
    assert Command.CMD_API_EVENT is Command.CMD_UPDATE
    for (kind, value), name in first.items():
        if kind in ENUMS:
            assert ENUMS[kind](value).name == name


@pytest.mark.parametrize("raise_it, message", [
    (lambda: _check("I_SwitchConnect", -107), r"^I_SwitchConnect: I_ERR_INVALID_PARAMETER \(-107\)$"),
    (lambda: tavro.Response(Command.CMD_CONN_PORT, Status.RSP_NAK, Error.I_ERR_PORT_LOCKED).raise_for_status(),
     r"^CMD_CONN_PORT: the switch answered RSP_NAK \(8\), error I_ERR_PORT_LOCKED \(-430\)$"),
    (lambda: tavro.Response(99999, 42, -7).raise_for_status(),
     r"^command 99999: the switch answered unknown Status 42, error unknown Error -7$"),
])
def test_errors_name_their_codes(raise_it, message):
    with pytest.raises(tavro.TavroError, match=message):
        raise_it()
