"""tavroctl against the switch simulator.  Run by ctest: tavroctl_test.py TAVROCTL SWITCHSIM [EMULATOR...]"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "python", "tests"))
import conftest  # noqa: E402

TAVROCTL, SWITCHSIM, *EMULATOR = sys.argv[1:] if len(sys.argv) > 2 else (None, None)
del sys.argv[1:]

OK, BAD_STATUS, USAGE, NO_CONNECTION, TIME_OUT = 0, 1, 2, 3, 4
# The byte order of the machine tavroctl and the simulator are built for,
# which under an emulator is not this one's.
TARGET_ORDER = {"BIG_ENDIAN": "big", "LITTLE_ENDIAN": "little"}.get(
    os.environ.get("TAVRO_TARGET_BYTE_ORDER", ""), sys.byteorder)
WORKDIR = tempfile.mkdtemp(prefix="tavroctl-test-")


def tavroctl(*args, timeout=180):
    # A generous connection time: the machine may be busy, or emulated.
    return subprocess.run([*EMULATOR, TAVROCTL, "--workdir", WORKDIR, "--connect-timeout", "60", *args],
                          capture_output=True, text=True, timeout=timeout)


def Simulator(*options):
    """tavro-switchsim as a child process, as the binding's tests run it."""
    return conftest.Simulator("--heartbeat-ms", "0", *options, command=[*EMULATOR, SWITCHSIM])


class Offline(unittest.TestCase):
    """Look-ups and command-line errors: no switch needed."""

    def test_help_codes_and_statuses_by_fragment_pattern_name_and_number(self):
        r = tavroctl("codes", "conn_port")
        self.assertEqual(r.returncode, OK)
        self.assertIn("  10002  CMD_CONN_PORT\n", r.stdout)
        self.assertNotIn("CMD_DISC_PORT", r.stdout)
        for args, out in [(("codes", "cmd_heart*"), "  40010  CMD_HEARTBEAT\n"),
                          (("codes", "0x2712"), "  10002  CMD_CONN_PORT\n"),
                          (("status", "-103"), "I_STATUS       -103  I_ERR_NO_CONNECTION\n"),
                          (("status", "rsp_time_out"), "RSP_STATUS        3  RSP_TIME_OUT\n")]:
            self.assertEqual(tavroctl(*args).stdout, out, args)
        self.assertIn("ssh -N -L 58991:127.0.0.1:58991", tavroctl("--help").stdout)

    def test_errors_exit_with_their_codes_and_say_why(self):
        cases = [
            (("request", "CMD_CONN_PROT"), "unknown command code 'CMD_CONN_PROT'", "did you mean CMD_CONN_PORT"),
            (("codes", "CONN_PRT"), "no command code matches", "did you mean CMD_CONN_PORT"),
            (("status", "RSP_TIME"), "no response or API status", "did you mean RSP_TIME_OUT"),
            (("send", "10002", "0a0"), "bad payload '0a0'", "odd number of hex digits"),
            (("send", "10002", "0x0g"), "bad payload", "'g' at position 4 is not a hex digit"),
            (("listen", "--answer", "RSP_BUSSY"), "unknown response status", "did you mean RSP_BUSY"),
            (("stats", "slot3"), "SLOT is a number", ""),
            (("stats", "3", "--timeout", "5"), "--timeout applies to 'request' only", ""),
            (("--service", "blade", "send", "1"), "--service is pce or snmp", ""),
            (("frobnicate",), "unknown command 'frobnicate'", "Try 'tavroctl --help'"),
            ((), "no command given", ""),
        ]
        for args, first, second in cases:
            with self.subTest(args=args):
                r = tavroctl(*args)
                self.assertEqual(r.returncode, USAGE, r.stderr)
                self.assertIn(first, r.stderr)
                self.assertIn(second, r.stderr)
                self.assertEqual(r.stdout, "")


class NoSwitch(unittest.TestCase):
    def test_no_connection_within_the_time_allowed(self):
        started = time.monotonic()
        r = tavroctl("--connect-timeout", "1", "--service", "snmp", "request", "CMD_CONN_PORT")
        self.assertEqual(r.returncode, NO_CONNECTION)
        self.assertIn("no connection to the switch's SNMP agent service on 127.0.0.1:58991 within 1 s", r.stderr)
        self.assertLess(time.monotonic() - started, 30)


class Online(unittest.TestCase):
    """Against a switch that speaks the client's byte order, then the other."""

    reverse = False

    @classmethod
    def setUpClass(cls):
        options = ["--status", "CMD_DISC_PORT=RSP_INV_CMD", "--status", "CMD_CONN_MON=RSP_BUSY"]
        cls.sim = Simulator(*options, *(["--reverse"] if cls.reverse else []))

    @classmethod
    def tearDownClass(cls):
        cls.sim.stop()

    def test_request_prints_status_error_and_payload(self):
        # The raw-statistics request of slot 3 in this host's order: 8 ports.
        slot3 = (3).to_bytes(2, TARGET_ORDER).hex()
        r = tavroctl("request", "CMD_GET_BLADE_RAW_STATS", slot3)
        self.assertEqual(r.returncode, OK, r.stderr)
        lines = r.stdout.splitlines()
        self.assertEqual(lines[0], "CMD_GET_BLADE_RAW_STATS (100005): status RSP_OK (0), "
                                   "error I_SUCCESS (0), 7614 payload bytes")
        self.assertEqual(len(lines), 1 + (7614 + 15) // 16)
        head = "00 08 00 03 00 01" if (TARGET_ORDER == "big") != self.reverse else "08 00 03 00 01 00"
        self.assertTrue(lines[1].startswith("0000  " + head), lines[1])

        r = tavroctl("request", "CMD_DISC_PORT", "0102")
        self.assertEqual(r.returncode, BAD_STATUS, r.stderr)
        self.assertEqual(r.stdout, "CMD_DISC_PORT (10003): status RSP_INV_CMD (4), error I_SUCCESS (0), "
                                   "0 payload bytes\n")

    def test_send_reaches_the_switch_without_an_answer(self):
        r = tavroctl("send", "CONN_MON", "de:ad:be:ef")
        self.assertEqual((r.returncode, r.stdout), (OK, "sent CMD_CONN_MON (10011), 4 payload bytes\n"), r.stderr)
        self.sim.expect(r"<< #\d+ CMD: CMD_CONN_MON seq=\d+ CMD_WITHOUT_RSP .* payload=4 ")
        self.assertNotRegex(self.sim.transcript(), r">> #\d+ RSP: CMD_CONN_MON")

    def test_stats_as_table_and_json_read_the_same_in_either_order(self):
        r = tavroctl("stats", "3", "--json")
        self.assertEqual(r.returncode, OK, r.stderr)
        block = json.loads(r.stdout)
        self.assertEqual((block["slot"], block["format"]), (3, 1))
        self.assertEqual(block["byteOrder"], "reversed" if self.reverse else "host")
        ports = block["ports"]
        self.assertEqual([p["port"] for p in ports], list(range(1, 9)))
        self.assertEqual([p["speedMbps"] for p in ports][:4], [25000, 100000, 1000, 10000])
        self.assertTrue(all(len(p["rx"]) == len(p["tx"]) == 59 for p in ports))

        r = tavroctl("stats", "3")
        self.assertEqual(r.returncode, OK, r.stderr)
        self.assertIn("slot 3, format 1, 8 ports", r.stdout)
        self.assertRegex(r.stdout, r"\n   2  up     100000\n")
        self.assertRegex(r.stdout, r"\n     58 +\d+ +\d+")

        r = tavroctl("stats", "25")
        self.assertEqual(r.returncode, BAD_STATUS, r.stderr)
        self.assertIn("refused raw statistics of slot 25: RSP_NO_DEVICE", r.stderr)


class OnlineReversed(Online):
    reverse = True


class SlowSwitch(unittest.TestCase):
    def test_time_out(self):
        sim = Simulator("--delay-ms", "3000")
        try:
            r = tavroctl("request", "--timeout", "300", "CMD_CONN_PORT")
            self.assertEqual(r.returncode, TIME_OUT, r.stderr)
            self.assertIn("no answer to CMD_CONN_PORT (10002) within 300 ms", r.stderr)
        finally:
            sim.stop()


class Listening(unittest.TestCase):
    def test_prints_and_answers_until_interrupted(self):
        sim = Simulator("--send", "CMD_DEVICE_STATE_UPDATE:0a0b0c", "--send", "CMD_CONN_INIT",
                        "--send-every", "200ms")
        try:
            proc = subprocess.Popen([*EMULATOR, TAVROCTL, "--workdir", WORKDIR, "listen",
                                     "CMD_DEVICE_STATE_UPDATE", "--answer", "RSP_BUSY"],
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            answered = r"<< #\d+ RSP: CMD_DEVICE_STATE_UPDATE seq=\d+ RSP_BUSY"
            sim.expect(answered)
            sim.expect(answered, since=sim.mark())
            proc.send_signal(signal.SIGINT)
            out, err = proc.communicate(timeout=30)
            self.assertEqual(proc.returncode, OK, err)
            lines = out.splitlines()
            self.assertGreaterEqual(len(lines), 2)
            for line in lines:
                self.assertRegex(line, r"^\d\d:\d\d:\d\d\.\d{3}  CMD_DEVICE_STATE_UPDATE \(40005\)  "
                                       r"seq=[1-9]\d*  3 bytes  0a0b0c$")
            self.assertIn("Ctrl-C stops", err)
        finally:
            sim.stop()


if __name__ == "__main__":
    unittest.main(verbosity=2)
