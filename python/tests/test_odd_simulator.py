"""The binding against a simulator that answers late and in the other byte order."""
from __future__ import annotations

import sys
import time

import pytest

import tavro
from conftest import check_simulated_ports
from tavro import Command, Status

DELAY_S = 1.5


@pytest.fixture(scope="module")
def simulator_args():
    return ["--reverse", "--heartbeat-ms", "0", "--delay-ms", str(int(DELAY_S * 1000))]


# Read in this host's order the count word says 2048 entries, more than the
# reply holds: the whole reply must still come through.
@pytest.mark.parametrize("slot", [0, 19])
def test_raw_stats_in_the_other_order(switch, slot):
    got = switch.raw_stats(slot)
    assert got.swapped and got.byte_order != sys.byteorder
    check_simulated_ports(got, slot)


def test_time_outs_and_late_answers(switch):
    start = time.monotonic()
    with pytest.raises(tavro.TimeoutError, match=r"CMD_CONN_PORT: no answer from the switch within 0.2 s") as e:
        switch.request(Command.CMD_CONN_PORT, b"\x01", timeout=0.2)
    assert time.monotonic() - start < DELAY_S
    assert isinstance(e.value, TimeoutError)
    with pytest.raises(tavro.TimeoutError, match="CMD_GET_BLADE_RAW_STATS"):
        switch.raw_stats(3, timeout=0.2)
    # The late answers to the timed-out commands arrive while this one waits.
    rsp = switch.request(Command.CMD_DISC_PORT, timeout=DELAY_S * 4)
    assert (rsp.command, rsp.status) == (Command.CMD_DISC_PORT, Status.RSP_OK)
    assert switch.is_connected()
