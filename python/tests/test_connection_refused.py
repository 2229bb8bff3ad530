"""Connecting where no switch listens (ports held like the simulator tests), then to one that does."""
from __future__ import annotations

import builtins
import time

import pytest

import tavro
from conftest import Simulator


def test_refused_connection_says_where_and_stops_trying():
    start = time.monotonic()
    with pytest.raises(tavro.ConnectionError, match=r"no switch answered on 127\.0\.0\.1:58991 \(snmp service\)") as e:
        tavro.Switch("snmp", connect_timeout=0.5).connect()
    # The library's own wait (about 8 s) comes first, then the disconnect.
    assert time.monotonic() - start < 20
    assert isinstance(e.value, builtins.ConnectionError)
    assert (e.value.host, e.value.port, e.value.service) == ("127.0.0.1", 58991, "snmp")
    assert e.value.error == tavro.Error.I_ERR_NO_CONNECTION
    assert "I_ERR_NO_CONNECTION (-103)" in str(e.value)
    # Nothing keeps trying: a switch that comes up now sees no one.
    sim = Simulator("--heartbeat-ms", "0")
    try:
        assert sim.wait_for(r"connected to", timeout=5) is None
        with tavro.Switch("snmp", connect_timeout=20) as sw:
            assert sw.is_connected()
            assert sw.request(tavro.Command.CMD_HEARTBEAT, timeout=5).ok
        sim.expect(r"connected to SNMP agent port 58991")
    finally:
        sim.stop()
