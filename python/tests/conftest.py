"""Shared fixtures: the switch simulator as a child process.

TAVRO_SWITCHSIM names the tavro-switchsim program (ctest sets it). The
simulator listens on the switch's fixed ports, so only one test module at a
time may run one (ctest's RESOURCE_LOCK tavro_service_ports).
"""
from __future__ import annotations

import os
import re
import signal
import subprocess
import threading
import time

import pytest

WAIT_S = 20.0  # bound on every wait for the simulator


class Simulator:
    """A running tavro-switchsim whose transcript lines are collected."""

    def __init__(self, *args: str) -> None:
        program = os.environ.get("TAVRO_SWITCHSIM")
        if not program:
            pytest.skip("TAVRO_SWITCHSIM does not name the simulator (run through ctest)")
        self.lines: list[str] = []
        self._changed = threading.Condition()
        self.proc = subprocess.Popen([program, *args], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, bufsize=1)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        if not self.wait_for(r"^tavro-switchsim: listening on", allow_exit=True):
            self.stop()
            pytest.fail("the simulator did not start:\n" + self.transcript())

    def _read(self) -> None:
        for line in self.proc.stdout:
            with self._changed:
                self.lines.append(line.rstrip("\n"))
                self._changed.notify_all()
        with self._changed:
            self._changed.notify_all()

    def transcript(self) -> str:
        with self._changed:
            return "\n".join(self.lines)

    def mark(self) -> int:
        """Position in the transcript; wait_for(since=) looks after it."""
        with self._changed:
            return len(self.lines)

    def wait_for(self, pattern: str, since: int = 0, timeout: float = WAIT_S,
                 allow_exit: bool = False):
        """The first transcript line from `since` on matching pattern, or None after timeout."""
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                for line in self.lines[since:]:
                    m = regex.search(line)
                    if m:
                        return m
                since = len(self.lines)
                left = deadline - time.monotonic()
                if left <= 0 or (allow_exit and self.proc.poll() is not None):
                    return None
                self._changed.wait(left)

    def expect(self, pattern: str, since: int = 0, timeout: float = WAIT_S):
        m = self.wait_for(pattern, since, timeout)
        assert m, f"no simulator line matching {pattern!r} within {timeout} s:\n{self.transcript()[-3000:]}"
        return m

    def stop(self) -> None:
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(WAIT_S)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self._reader.join(WAIT_S)
        self.proc.stdout.close()


@pytest.fixture(scope="module")
def simulator_args() -> list[str]:
    """Options of the module's simulator; modules override this fixture."""
    return ["--heartbeat-ms", "0"]


@pytest.fixture(scope="module")
def simulator(simulator_args):
    sim = Simulator(*simulator_args)
    yield sim
    sim.stop()


@pytest.fixture(scope="module")
def switch(simulator):
    """A Switch connected to the module's simulator on the PCE service."""
    import tavro
    with tavro.Switch("pce", connect_timeout=20) as sw:
        yield sw


SPEEDS = (1000, 10000, 25000, 100000)


def check_simulated_ports(ports, slot: int, count: int = 8) -> None:
    """Raw statistics as the simulator makes them: link and speed follow from
    slot and port; counters are small (read in the wrong order they are not)."""
    assert ports.slot == slot
    assert [p.port for p in ports] == list(range(1, count + 1))
    for p in ports:
        assert p.link_up == ((slot + p.port) % 4 != 3), p
        assert p.speed_mbps == SPEEDS[(3 * slot + p.port) % 4], p
        assert len(p.rx) == len(p.tx) == 59
        assert all(0 <= c < 2 ** 48 for c in p.rx + p.tx), p
