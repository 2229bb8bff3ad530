"""The code enums against the library's code table, and how codes are named."""
from __future__ import annotations

import os

import pytest

import tavro
from tavro import Command, Error, Manager, MessageType, Status
from tavro.errors import code_name
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


@pytest.mark.parametrize("value, enum, text", [
    (-103, Error, "I_ERR_NO_CONNECTION (-103)"),
    (3, Status, "RSP_TIME_OUT (3)"),
    (9, Status, "unknown Status 9"),
    (100005, Command, "CMD_GET_BLADE_RAW_STATS (100005)"),
])
def test_code_names(value, enum, text):
    assert code_name(value, enum) == text


def test_library_errors_carry_the_status_name():
    with pytest.raises(tavro.TavroError, match=r"^I_SwitchConnect: I_ERR_INVALID_PARAMETER \(-107\)$") as e:
        _check("I_SwitchConnect", -107)
    assert e.value.error == Error.I_ERR_INVALID_PARAMETER
    _check("I_SwitchConnect", 0)


@pytest.mark.parametrize("status, error, ok, message", [
    (Status.RSP_OK, Error.I_SUCCESS, True, None),
    (Status.RSP_NAK, Error.I_ERR_PORT_LOCKED, False, r"CMD_CONN_PORT: the switch answered RSP_NAK \(8\), "
                                                      r"error I_ERR_PORT_LOCKED \(-430\)"),
    (42, -7, False, r"answered unknown Status 42, error unknown Error -7"),
])
def test_response_raise_for_status(status, error, ok, message):
    rsp = tavro.Response(Command.CMD_CONN_PORT, status, error, b"")
    assert rsp.ok is ok
    if ok:
        assert rsp.raise_for_status() is rsp
    else:
        with pytest.raises(tavro.StatusError, match=message) as e:
            rsp.raise_for_status()
        assert e.value.response is rsp
