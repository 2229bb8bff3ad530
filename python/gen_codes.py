"""Writes tavro/_codes.py from the library's code table.

    gen_codes.py TABLE OUTPUT

TABLE is the tavro-codes.tsv the library's build writes: one
"TYPE<TAB>NAME<TAB>decimal value" line per code, in declaration order. The
first of two names with one value is the canonical one, which is what an
IntEnum makes of a repeated value too.
"""
from __future__ import annotations

import os
import sys

# Code space in the table -> (Python enum, what its members are).
ENUMS = {
    "COMMAND_CODE": ("Command", "Command codes (COMMAND_CODE): what a command asks the switch, or the library, to do."),
    "RSP_STATUS": ("Status", "Response statuses (RSP_STATUS) that a switch, or a handler, answers a command with."),
    "I_STATUS": ("Error", "Result codes of the library's API and application error codes (I_STATUS)."),
    "MGR_CLASS": ("Manager", "Manager classes (MGR_CLASS): a command code's block of 10000."),
    "MSG_TYPE": ("MessageType", "Frame types (MSG_TYPE) on the wire."),
}


def read_table(path: str) -> dict[str, list[tuple[str, int]]]:
    codes: dict[str, list[tuple[str, int]]] = {}
    with open(path, encoding="ascii") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line:
                continue
            fields = line.split("\t")
            if len(fields) != 3 or not fields[1].isidentifier():
                raise SystemExit(f"{path}:{number}: not TYPE<TAB>NAME<TAB>value: {line!r}")
            try:
                value = int(fields[2])
            except ValueError:
                raise SystemExit(f"{path}:{number}: value is not a decimal number: {line!r}") from None
            codes.setdefault(fields[0], []).append((fields[1], value))
    missing = [t for t in ENUMS if t not in codes]
    if missing:
        raise SystemExit(f"{path}: no {', '.join(missing)} codes")
    return codes


def render(codes: dict[str, list[tuple[str, int]]], source: str) -> str:
    out = [
        f'"""Codes of the switch protocol, generated from {os.path.basename(source)} by gen_codes.py.',
        "",
        "Do not edit: the build writes this file from the library's own definitions.",
        '"""',
        "from enum import IntEnum",
        "",
        "__all__ = [" + ", ".join(repr(name) for name, _ in ENUMS.values()) + "]",
    ]
    for ctype, (name, doc) in ENUMS.items():
        out += ["", "", f"class {name}(IntEnum):", f'    """{doc}"""', ""]
        out += [f"    {member} = {value}" for member, value in codes[ctype]]
    return "\n".join(out) + "\n"


def main(argv: list[str]) -> int:
    if len(argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    text = render(read_table(argv[1]), argv[1])
    try:
        with open(argv[2], encoding="ascii") as f:
            if f.read() == text:
                return 0
    except FileNotFoundError:
        pass
    tmp = argv[2] + ".tmp"
    with open(tmp, "w", encoding="ascii") as f:
        f.write(text)
    os.replace(tmp, argv[2])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
