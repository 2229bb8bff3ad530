"""Time-outs, against a simulator that holds every answer."""
from __future__ import annotations

import time

import pytest

import tavro
from tavro import Command, Status

DELAY_S = 1.5


@pytest.fixture(scope="module")
def simulator_args():
    return ["--heartbeat-ms", "0", "--delay-ms", str(int(DELAY_S * 1000))]


def test_request_and_raw_stats_time_out(switch):
    start = time.monotonic()
    with pytest.raises(tavro.TimeoutError, match=r"CMD_CONN_PORT: no answer from the switch within 0.2 s") as e:
        switch.request(Command.CMD_CONN_PORT, b"\x01", timeout=0.2)
    assert time.monotonic() - start < DELAY_S
    assert isinstance(e.value, TimeoutError)
    with pytest.raises(tavro.TimeoutError, match="CMD_GET_BLADE_RAW_STATS"):
        switch.raw_stats(3, timeout=0.2)


def test_late_answers_do_not_answer_later_requests(switch):
    # The late answer to the timed-out command arrives while this one waits.
    with pytest.raises(tavro.TimeoutError):
        switch.request(Command.CMD_DISC_PORT, timeout=0.2)
    rsp = switch.request(Command.CMD_CONN_PORT, timeout=DELAY_S * 4)
    assert (rsp.command, rsp.status) == (Command.CMD_CONN_PORT, Status.RSP_OK)
    assert switch.is_connected()
