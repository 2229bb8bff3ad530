"""Raw counters of a blade: the block I_GetRawStats returns, parsed.

The block is exactly as the switch sent it, in the switch's byte order; the
format word (1) tells the order.

    head     6 bytes   nbrEntries, slotNbr, formatVersion (16-bit each)
    entries  951 bytes each: portNbr u16, linkUp u8, speedMbps u32,
             59 receive and 59 transmit counters u64; packed
"""
from __future__ import annotations

import struct
import sys
from dataclasses import dataclass
from typing import Tuple

from .errors import TavroError

FORMAT = 1
HEAD_SIZE = 6
ENTRY_SIZE = 951
COUNTERS = 59

_HEAD = "HHH"
_ENTRY = f"HBI{COUNTERS}Q{COUNTERS}Q"


@dataclass(frozen=True)
class PortStats:
    """Counters of one port. rx and tx hold 59 counters each, in the blade's numbering."""

    port: int
    link_up: bool
    speed_mbps: int
    rx: Tuple[int, ...]
    tx: Tuple[int, ...]

    def __repr__(self) -> str:
        return (f"PortStats(port={self.port}, link_up={self.link_up}, speed_mbps={self.speed_mbps}, "
                f"rx=({self.rx[0]}, {self.rx[1]}, ...), tx=({self.tx[0]}, {self.tx[1]}, ...))")


class RawStats(list):
    """The ports of one blade (a list of PortStats), with the head of the reply.

    slot: the slot the switch reported; byte_order: 'little' or 'big', the
    order the switch sent the block in; swapped: whether that is not this
    host's order.
    """

    def __init__(self, ports, slot: int, byte_order: str) -> None:
        super().__init__(ports)
        self.slot = slot
        self.byte_order = byte_order

    @property
    def swapped(self) -> bool:
        return self.byte_order != sys.byteorder

    def __repr__(self) -> str:
        return f"RawStats(slot={self.slot}, byte_order={self.byte_order!r}, ports={list.__repr__(self)})"


def parse_raw_stats(block: bytes) -> RawStats:
    """Parses a raw statistics block in either byte order.

    Reads as many entries as both the head's count and the block's length
    cover. Raises TavroError for a block shorter than its head or with a
    format word that is 1 in neither order.
    """
    block = bytes(block)
    if len(block) < HEAD_SIZE:
        raise TavroError(f"raw statistics: {len(block)} bytes, shorter than the {HEAD_SIZE}-byte head")
    for order, prefix in (("little", "<"), ("big", ">")):
        count, slot, fmt = struct.unpack_from(prefix + _HEAD, block)
        if fmt == FORMAT:
            break
    else:
        raise TavroError(f"raw statistics: unknown format word 0x{block[4:6].hex()}")
    count = min(count, (len(block) - HEAD_SIZE) // ENTRY_SIZE)
    entry = struct.Struct(prefix + _ENTRY)
    ports = []
    for i in range(count):
        fields = entry.unpack_from(block, HEAD_SIZE + i * ENTRY_SIZE)
        ports.append(PortStats(port=fields[0], link_up=fields[1] == 1, speed_mbps=fields[2],
                               rx=fields[3:3 + COUNTERS], tx=fields[3 + COUNTERS:]))
    return RawStats(ports, slot, order)
