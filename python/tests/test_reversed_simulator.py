"""The binding against a simulator that answers in the other byte order."""
from __future__ import annotations

import sys

import pytest

import tavro
from conftest import check_simulated_ports
from tavro import Command, Status


@pytest.fixture(scope="module")
def simulator_args():
    return ["--reverse", "--heartbeat-ms", "0", "--send-every", "200ms", "--send", f"{int(Command.CMD_TEST_21)}:0102"]


# Read in this host's order the count word says 2048 entries, more than the
# reply holds: the whole reply must still come through.
@pytest.mark.parametrize("slot", [0, 3, 19])
def test_raw_stats_in_the_other_order(switch, slot):
    got = switch.raw_stats(slot)
    assert got.swapped and got.byte_order != sys.byteorder
    check_simulated_ports(got, slot)


def test_request_and_handler_in_the_other_order(switch, simulator):
    seen = []

    def answer(command, payload):
        seen.append(payload)
        return Status.RSP_BUSY, tavro.Error.I_ERR_PORT_LOCKED, b"abc"

    mark = simulator.mark()
    switch.register_handler(Command.CMD_TEST_21, answer)
    simulator.expect(r"<< #\d+ RSP: CMD_TEST_21 seq=\d+ RSP_BUSY err=-430 src=26 payload=3", since=mark)
    assert seen[0] == b"\x01\x02"
    assert switch.request(Command.CMD_HEARTBEAT, timeout=5).status is Status.RSP_OK
