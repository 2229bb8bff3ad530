"""Parsing raw statistics blocks in both byte orders."""
from __future__ import annotations

import struct
import sys

import pytest

import tavro
from tavro import parse_raw_stats


def port_entry(prefix, port, link, speed, base):
    rx = [base + i for i in range(59)]
    tx = [base + 1000 + (i << 40) for i in range(59)]
    return struct.pack(prefix + "HBI59Q59Q", port, link, speed, *rx, *tx), rx, tx


def block(prefix, slot, ports, count=None, fmt=1):
    entries = [port_entry(prefix, *p) for p in ports]
    head = struct.pack(prefix + "HHH", len(ports) if count is None else count, slot, fmt)
    return head + b"".join(e[0] for e in entries), entries


PORTS = [(1, 1, 25000, 7), (2, 0, 1000, 2 ** 33), (65535, 1, 400000, 2 ** 63)]


@pytest.mark.parametrize("prefix, order", [("<", "little"), (">", "big")])
def test_both_orders_read_alike(prefix, order):
    data, entries = block(prefix, 7, PORTS)
    got = parse_raw_stats(data)
    assert (got.slot, got.byte_order, got.swapped) == (7, order, order != sys.byteorder)
    assert [(p.port, p.link_up, p.speed_mbps) for p in got] == [(1, True, 25000), (2, False, 1000),
                                                                 (65535, True, 400000)]
    assert [(list(p.rx), list(p.tx)) for p in got] == [(rx, tx) for _, rx, tx in entries]


@pytest.mark.parametrize("count, extra, expect", [
    (5, b"", 3),             # the head promises more than came
    (2, b"", 2),             # more came than the head says
    (3, b"\0" * 950, 3),     # a partial entry at the end is left
    (0, b"", 0),
])
def test_entries_are_what_both_head_and_length_cover(count, extra, expect):
    data, _ = block(">", 1, PORTS, count=count)
    assert len(parse_raw_stats(data + extra)) == expect


@pytest.mark.parametrize("data, message", [
    (b"\x01\x00\x02", "3 bytes, shorter than the 6-byte head"),
    (struct.pack("<HHH", 0, 1, 2), "unknown format word 0x0200"),
    (struct.pack(">HHH", 0, 1, 0x0101), "unknown format word 0x0101"),
])
def test_unreadable_blocks_are_refused(data, message):
    with pytest.raises(tavro.TavroError, match=message):
        parse_raw_stats(data)
