"""examples/switch_tour.py against the simulator, as a user runs it."""
from __future__ import annotations

import os
import signal
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
    assert (tmp_path / "log" / "Test.Debug.log").exists()
    simulator.expect(r"<< #\d+ CMD: CMD_HEARTBEAT seq=\d+ CMD_WITHOUT_RSP src=26")


def test_bad_option_exits_2(tmp_path):
    r = subprocess.run([sys.executable, TOUR, "--slot", "20"], cwd=tmp_path, capture_output=True, text=True,
                       timeout=60)
    assert r.returncode == 2 and "--slot" in r.stderr


def test_ctrl_c_disconnects_and_exits_130(simulator, tmp_path):
    mark = simulator.mark()
    tour = subprocess.Popen([sys.executable, TOUR, "--heartbeats", "1000"], cwd=tmp_path,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    try:
        conn = simulator.expect(r"<< #(\d+) RSP: CMD_HEARTBEAT seq=\d+ RSP_OK", since=mark).group(1)
        tour.send_signal(signal.SIGINT)
        out, _ = tour.communicate(timeout=30)
    finally:
        if tour.poll() is None:
            tour.kill()
            tour.wait()
    assert tour.returncode == 130 and out.endswith("interrupted\n"), out[-2000:]
    simulator.expect(rf"-- #{conn} connection closed", since=mark)
