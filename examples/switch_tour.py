#!/usr/bin/python3
"""A tour of the switch API from Python, the same as SwitchTour.cpp: connect,
register a heartbeat handler, fetch the raw counters of a blade, send a command
without response, answer the switch's heartbeats for a while, disconnect.

    PYTHONPATH=build/native/python examples/switch_tour.py [--slot N] ...

Run it from a directory where it may create "log/" (the library's debug trace).
Exit status: 0 when every step worked, 1 otherwise, 2 for bad options, 130 after Ctrl-C.
"""
import argparse
import os
import sys
import threading
import time

try:
    import tavro
except ImportError:
    # Straight from a source tree that has been built.
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "build", "native", "python"))
    import tavro

from tavro import Command, Status


def say(text: str) -> None:
    # Standard output is shared with the library's session thread.
    print(text, flush=True)


def main() -> int:
    parser = argparse.ArgumentParser(description="Walks through the switch API against a switch "
                                     "(or tavro-switchsim) on this host.")
    parser.add_argument("--service", choices=["pce", "snmp"], default="pce",
                        help="service to connect to (default pce: TCP port 58992; snmp: 58991)")
    parser.add_argument("--slot", type=int, choices=range(20), default=3, metavar="N",
                        help="blade slot whose raw counters to fetch, 0-19 (default 3)")
    parser.add_argument("--heartbeats", type=int, default=2, metavar="N",
                        help="switch heartbeats to answer before disconnecting (default 2)")
    parser.add_argument("--wait-s", type=float, default=30, metavar="N",
                        help="give up waiting for them after N seconds (default 30)")
    parser.add_argument("--library", help="path of libTAVRO.so (default: $TAVRO_LIBRARY, the build's, the installed)")
    args = parser.parse_args()
    os.makedirs("log", exist_ok=True)  # the library's debug trace goes to log/Test.Debug.log

    beats = threading.Semaphore(0)
    count = 0

    def on_heartbeat(command: Command, payload: bytes) -> Status:
        # Runs on the library's session thread, one command at a time: keep it short.
        nonlocal count
        count += 1
        say(f"  [handler] heartbeat #{count} from the switch ({command.name}, {len(payload)} payload bytes): "
            "answering RSP_OK")
        beats.release()
        return Status.RSP_OK  # the library then prints "Send response result=0" (0: sent)

    switch = tavro.Switch(args.service, library=args.library)
    say(f"1. tavro.Switch({args.service!r}): libTAVRO {'.'.join(map(str, tavro.library_version()))}; "
        "initialising starts its threads and reads ./TAVRO.CONF if there is one")
    say("2. switch.handler(Command.CMD_HEARTBEAT): the switch sends heartbeats and wants them answered")
    switch.register_handler(Command.CMD_HEARTBEAT, on_heartbeat)

    say(f"3. switch.connect(): TCP port {switch.port} on this host; the first attempt starts after 2 s")
    start = time.monotonic()
    try:
        switch.connect()
    except tavro.ConnectionError as e:
        say(f"   -> {e}\n   start one (tavro-switchsim) and try again")
        return 1
    say(f"   -> connected after {time.monotonic() - start:.1f} s; is_connected() -> {switch.is_connected()}")

    failures = 0
    with switch:
        say(f"4. switch.raw_stats({args.slot}): raw counters of the blade in slot {args.slot} (waits up to 10 s)")
        try:
            ports = switch.raw_stats(args.slot)
        except tavro.TavroError as e:
            say(f"   -> {type(e).__name__}: {e}")
            failures += 1
        else:
            say(f"  slot {ports.slot}, {len(ports)} port entries ({ports.byte_order}-endian, "
                f"{'reversed' if ports.swapped else 'host'} byte order)")
            say(f"  {'port':>4}  {'link':<4}  {'Mbit/s':>7}  {'rx[0]':>16}  {'tx[0]':>16}  {'rx[1]':>16}  {'tx[1]':>16}")
            for p in ports:
                say(f"  {p.port:>4}  {'up' if p.link_up else 'down':<4}  {p.speed_mbps:>7}  {p.rx[0]:>16}  "
                    f"{p.tx[0]:>16}  {p.rx[1]:>16}  {p.tx[1]:>16}")

        say("5. switch.send(Command.CMD_HEARTBEAT): our own sign of life to the switch, which answers nothing;\n"
            "   the call returns once the frame is on its way")
        switch.send(Command.CMD_HEARTBEAT)

        if args.heartbeats > 0:
            say(f"6. waiting for {args.heartbeats} heartbeat(s) from the switch (at most {args.wait_s:g} s)")
            deadline = time.monotonic() + args.wait_s
            got = 0
            while got < args.heartbeats and beats.acquire(timeout=max(0.0, deadline - time.monotonic())):
                got += 1
            time.sleep(0.1)  # leave the session a moment to send the last answer
            say(f"   answered {got} heartbeat(s)")
            if got < args.heartbeats:
                say("   fewer than asked for: is the switch sending heartbeats (tavro-switchsim --heartbeat-ms)?")
                failures += 1

        say("7. leaving the with block: disconnects (waits up to about 4 s) and removes the handler")
    say(f"   is_connected() -> {switch.is_connected()}")
    say("Tour complete." if failures == 0 else "Tour finished with failures.")
    return 0 if failures == 0 else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:  # the with block has disconnected already
        print("interrupted", file=sys.stderr)
        sys.exit(130)
