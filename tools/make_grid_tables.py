"""Writes formats/grid_tables.h from the published grids in formats/data: python tools/make_grid_tables.py [OUTPUT]."""

from __future__ import annotations

import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
OUTPUT = ROOT / "formats" / "grid_tables.h"


def entries(name: str) -> list[int]:
    """The numbers of formats/data/NAME.txt, one a line."""
    return [int(line, 16) for line in (ROOT / "formats" / "data" / f"{name}.txt").read_text().split()]


def table(name: str, kind: str, digits: int, a_line: int) -> str:
    numbers = [f"0x{entry:0{digits}x}" for entry in entries(name)]
    lines = [", ".join(numbers[i : i + a_line]) for i in range(0, len(numbers), a_line)]
    return f"inline constexpr {kind} {name}[{len(numbers)}] = {{\n    " + ",\n    ".join(lines) + "};\n"


def text() -> str:
    """The whole header."""
    return (
        "// Made by tools/make_grid_tables.py from formats/data; not edited by hand.\n"
        "#pragma once\n\n"
        "#include <cstdint>\n\n"
        "namespace orrery::formats {\n\n"
        "// clang-format off\n"
        "// Byte j is the magnitude of element j of a group.\n"
        + table("iq2xxs_grid", "uint64_t", 16, 5)
        + "\n// Elements 0 to 3 are the low nibbles of the four bytes, elements 4 to 7 the high ones.\n"
        + table("iq1s_grid", "uint32_t", 8, 9)
        + "// clang-format on\n\n"
        "}  // namespace orrery::formats\n"
    )


if __name__ == "__main__":
    Path(sys.argv[1] if len(sys.argv) > 1 else OUTPUT).write_text(text())
