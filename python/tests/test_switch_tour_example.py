"""examples/switch_tour.py against the simulator, as a user runs it."""
from __future__ import annotations

import os
import subprocess
import sys

import pytest

TOUR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples", "switch_tour.py")


@pytest.fixture(scope="module")
def simulator_args():
    return ["--heartbeat-ms", "300"]


def test_tour_completes(simulator, tmp_path):
    r = subprocess.run([sys.executable, TOUR, "--slot", "5", "--heartbeats", "2", "--wait-s", "20"], cwd=tmp_path,
                       capture_output=True, text=True, timeout=120)
    assert r.returncode == 0, r.stdout + r.stderr
    out = r.stdout
    assert "slot 5, 8 port entries" in out and "answered 2 heartbeat(s)" in out and "Tour complete." in out
    assert out.count("Send response result=0") >= 2
    simulator.expect(r"<< #\d+ CMD: CMD_HEARTBEAT seq=\d+ CMD_WITHOUT_RSP src=26")
