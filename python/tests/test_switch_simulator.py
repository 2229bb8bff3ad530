"""The binding against the switch simulator, in this host's byte order."""
from __future__ import annotations

import builtins
import logging
import subprocess
import sys
import textwrap
import time

import pytest

import tavro
from tavro import Command, Error, Status
from conftest import check_simulated_ports

PAYLOAD = bytes.fromhex("0a0b0c")


class Broken(Exception):
    pass


def raises(command, payload):
    raise Broken("handler failure on purpose")


# Switch-initiated command -> (handler, what the simulator must see come back).
HANDLERS = {
    Command.CMD_TEST_18: (lambda c, p: None, r"RSP_OK err=0 src=26 payload=0"),
    Command.CMD_TEST_19: (lambda c, p: Status.RSP_BUSY, r"RSP_BUSY err=0 src=26 payload=0"),
    Command.CMD_TEST_20: (lambda c, p: (Status.RSP_NAK, Error.I_ERR_PORT_LOCKED), r"RSP_NAK err=-430 src=26 payload=0"),
    Command.CMD_TEST_21: (lambda c, p: (Status.RSP_OK, 0, p[::-1] + b"!"), r"RSP_OK err=0 src=26 payload=4"),
    Command.CMD_UPDATE_RESTORE: (raises, r"RSP_ERROR err=-128 src=26 payload=0"),
    Command.CMD_UPDATE_REXEC: (lambda c, p: "not an answer", r"RSP_ERROR err=-128 src=26 payload=0"),
}

REFUSED = Command.CMD_CONN_PORT


@pytest.fixture(scope="module")
def simulator_args():
    args = ["--heartbeat-ms", "0", "--send-every", "200ms", "--status", f"{int(REFUSED)}=RSP_INV_CMD"]
    for code in HANDLERS:
        args += ["--send", f"{int(code)}:{PAYLOAD.hex()}"]
    return args


SEEN = {}  # payloads the handlers were called with, by command


@pytest.fixture(scope="module")
def switch(simulator):
    sw = tavro.Switch("pce", connect_timeout=20)
    # Handlers registered before connecting answer from the first command on.
    for code, (fn, _) in HANDLERS.items():
        def recording(command, payload, fn=fn):
            SEEN.setdefault(command, payload)
            return fn(command, payload)
        sw.register_handler(code, recording)
    with sw:
        yield sw


def test_request_answered_or_refused(switch):
    assert "127.0.0.1:58992 connected" in repr(switch)
    rsp = switch.request(Command.CMD_HEARTBEAT, b"ping", timeout=5)
    assert rsp == tavro.Response(Command.CMD_HEARTBEAT, Status.RSP_OK, Error.I_SUCCESS, b"")
    assert rsp.ok and rsp.raise_for_status() is rsp
    rsp = switch.request(REFUSED, timeout=5)
    assert rsp.status is Status.RSP_INV_CMD and not rsp.ok
    with pytest.raises(tavro.StatusError, match=r"CMD_CONN_PORT: the switch answered RSP_INV_CMD \(4\)") as e:
        switch.request("CMD_CONN_PORT", timeout=5, check=True)
    assert e.value.response.status is Status.RSP_INV_CMD


def test_send_reaches_the_switch(switch, simulator):
    mark = simulator.mark()
    assert switch.send(Command.CMD_DISC_PORT, b"xyz") is None
    simulator.expect(r"<< #\d+ CMD: CMD_DISC_PORT seq=\d+ CMD_WITHOUT_RSP src=26 payload=3", since=mark)


def test_raw_stats_in_host_order_or_the_refusal(switch):
    ports = switch.raw_stats(3)
    assert (ports.byte_order, ports.swapped) == (sys.byteorder, False)
    check_simulated_ports(ports, 3)
    with pytest.raises(tavro.StatusError, match="RSP_NO_DEVICE"):
        switch.raw_stats(25)


@pytest.mark.parametrize("code", list(HANDLERS), ids=lambda c: c.name)
def test_handler_answer_reaches_the_switch(switch, simulator, code):
    simulator.expect(rf"<< #\d+ RSP: {code.name} seq=\d+ {HANDLERS[code][1]}")
    assert SEEN[code] == PAYLOAD


def test_raising_handler_is_logged_and_the_connection_stays(switch, simulator, caplog):
    caplog.set_level(logging.ERROR, logger="tavro")
    simulator.expect(r"<< #\d+ RSP: CMD_UPDATE_RESTORE seq=\d+ RSP_ERROR", since=simulator.mark())
    record = next(r for r in caplog.records if r.exc_info and r.exc_info[0] is Broken)
    assert "CMD_UPDATE_RESTORE raised; answering RSP_ERROR" in record.getMessage()
    assert switch.is_connected()
    assert switch.request(Command.CMD_HEARTBEAT, timeout=5).ok


def test_request_inside_a_handler_is_refused(switch, simulator):
    errors = []

    def nested(command, payload):
        try:
            switch.request(Command.CMD_HEARTBEAT, timeout=1)
        except tavro.TavroError as e:
            errors.append(e)

    switch.register_handler(Command.CMD_TEST_18, nested)
    try:
        deadline = time.monotonic() + 10
        while not errors and time.monotonic() < deadline:
            time.sleep(0.02)
        simulator.expect(r"<< #\d+ RSP: CMD_TEST_18 seq=\d+ RSP_OK", since=simulator.mark())
    finally:
        switch.register_handler(Command.CMD_TEST_18, HANDLERS[Command.CMD_TEST_18][0])
    assert errors and "inside a handler" in str(errors[0])


@pytest.mark.parametrize("call, error", [
    (lambda s: s.send(Command.CMD_HEARTBEAT, "text"), TypeError),
    (lambda s: s.send(2 ** 31), ValueError),
    (lambda s: s.send("CMD_NO_SUCH"), ValueError),
    (lambda s: s.request(Command.CMD_HEARTBEAT, timeout=0), ValueError),
    (lambda s: s.request(Command.CMD_HEARTBEAT, timeout=float("inf")), ValueError),
    (lambda s: s.request(Command.CMD_HEARTBEAT, b"x" * 2559936), tavro.TavroError),
    (lambda s: s.raw_stats(-1), ValueError),
    (lambda s: s.register_handler(Command.CMD_HEARTBEAT, "not callable"), TypeError),
    (lambda s: tavro.Switch("pce").connect(), tavro.TavroError),
])
def test_bad_arguments_are_refused(switch, call, error):
    with pytest.raises(error):
        call(switch)
    assert switch.is_connected()


def test_a_script_that_exits_connected_disconnects_first(simulator, tmp_path):
    # Its handler is being called every 200 ms while the interpreter exits.
    script = textwrap.dedent("""
        import time, tavro
        sw = tavro.Switch("pce", connect_timeout=20).connect()
        sw.register_handler(tavro.Command.CMD_TEST_19, lambda c, p: time.sleep(0.05))
        time.sleep(0.5)
        print("exiting", flush=True)
        """)
    mark = simulator.mark()
    r = subprocess.run([sys.executable, "-c", script], cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert r.returncode == 0 and "exiting" in r.stdout, r.stdout + r.stderr
    conn = simulator.expect(r"-- #(\d+) connected to PCE", since=mark).group(1)
    simulator.expect(rf"<< #{conn} RSP: CMD_TEST_19", since=mark)
    simulator.expect(rf"-- #{conn} connection closed", since=mark)
    # The session wound down while the process still ran, not at its death.
    assert "removed from Switch routing table" in (tmp_path / "log" / "Test.Debug.log").read_text(errors="replace")


def test_close_disconnects_and_then_sending_raises(switch):
    switch.close()
    assert not switch.is_connected()
    with pytest.raises(tavro.NotConnectedError) as e:
        switch.send(Command.CMD_HEARTBEAT)
    assert isinstance(e.value, builtins.ConnectionError) and e.value.port == 58992
