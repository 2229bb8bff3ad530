"""The switch simulator as a child process on the fixed ports (one module at a time: ctest's RESOURCE_LOCK)."""
from __future__ import annotations

import os
import re
import signal
import subprocess
import tempfile
import time

import pytest

WAIT_S = 20.0  # bound on every wait for the simulator


class Simulator:
    """A running tavro-switchsim (command: with any emulator before it) writing its transcript to a file."""

    def __init__(self, *args: str, command: list[str] | None = None) -> None:
        if not command and not os.environ.get("TAVRO_SWITCHSIM"):
            pytest.skip("TAVRO_SWITCHSIM does not name the simulator (run through ctest)")
        self.log = tempfile.NamedTemporaryFile("w+", prefix="switchsim-", suffix=".log")
        self.proc = subprocess.Popen([*(command or [os.environ["TAVRO_SWITCHSIM"]]), *args], stdout=self.log,
                                     stderr=subprocess.STDOUT)
        if not self.wait_for(r"^tavro-switchsim: listening on", allow_exit=True):
            self.stop()
            pytest.fail("the simulator did not start:\n" + self.transcript())

    def lines(self) -> list[str]:
        with open(self.log.name, errors="replace") as f:
            return f.read().split("\n")[:-1]  # whole lines only

    def transcript(self) -> str:
        return "\n".join(self.lines())

    def mark(self) -> int:
        return len(self.lines())

    def wait_for(self, pattern: str, since: int = 0, timeout: float = WAIT_S, allow_exit: bool = False):
        """The first transcript line from `since` on matching pattern, or None after timeout."""
        regex, deadline = re.compile(pattern), time.monotonic() + timeout
        while True:
            for line in self.lines()[since:]:
                if m := regex.search(line):
                    return m
            if time.monotonic() >= deadline or (allow_exit and self.proc.poll() is not None):
                return None
            time.sleep(0.02)

    def expect(self, pattern: str, since: int = 0):
        m = self.wait_for(pattern, since)
        assert m, f"no simulator line matching {pattern!r}:\n{self.transcript()[-3000:]}"
        return m

    def stop(self) -> None:
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(WAIT_S)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()


@pytest.fixture(scope="module")
def simulator_args() -> list[str]:
    return ["--heartbeat-ms", "0"]


@pytest.fixture(scope="module")
def simulator(simulator_args):
    sim = Simulator(*simulator_args)
    yield sim
    sim.stop()


@pytest.fixture(scope="module")
def switch(simulator):
    import tavro
    with tavro.Switch("pce", connect_timeout=20) as sw:
        yield sw


def check_simulated_ports(ports, slot: int) -> None:
    """The simulator's 8 ports; its counters and speeds are small, read in the wrong order they are not."""
    assert ports.slot == slot
    assert [p.port for p in ports] == list(range(1, 9))
    for p in ports:
        assert p.speed_mbps in (1000, 10000, 25000, 100000), p
        assert len(p.rx) == len(p.tx) == 59
        assert all(0 <= c < 2 ** 48 for c in p.rx + p.tx), p
