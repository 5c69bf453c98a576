"""The blocks of docs/pytorch.md, run in order in one namespace. What a block prints is in the `text` block behind it."""

from __future__ import annotations

import contextlib
import io
import re
import traceback
from pathlib import Path
from typing import NamedTuple

import pytest

PAGE = Path(__file__).parent.parent / "docs" / "pytorch.md"
FENCE = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


class Block(NamedTuple):
    line: int
    code: str
    output: str


def blocks(text: str) -> list[Block]:
    """Each `python` block with the `text` block that follows it, if the next block is one."""
    found = [(text[: m.start()].count("\n") + 2, *m.groups()) for m in FENCE.finditer(text)]
    found.append((0, "", ""))
    return [Block(line, code, after[2] if after[1] == "text" else "")
            for (line, language, code), after in zip(found, found[1:]) if language == "python"]


BLOCKS = blocks(PAGE.read_text())


@pytest.fixture(scope="module")
def outputs(xpu) -> list[str]:
    """What each block prints, up to the first one that fails; of that one the traceback."""
    namespace: dict = {"__name__": "page"}
    result = []
    for block in BLOCKS:
        source = "\n" * (block.line - 1) + block.code  # a traceback names the line of the page
        printed = io.StringIO()
        try:
            with contextlib.redirect_stdout(printed):
                exec(compile(source, str(PAGE), "exec"), namespace)
        except Exception:
            return [*result, traceback.format_exc()]
        result.append(printed.getvalue())
    return result


def test_blocks_are_found() -> None:
    page = "a\n```python\nx = 1\n```\nb\n```text\n7\n```\n```python\nprint(x)\n```\n\n```text\n1\n```\n"
    assert blocks(page) == [(3, "x = 1\n", "7\n"), (10, "print(x)\n", "1\n")]
    assert len(BLOCKS) == PAGE.read_text().count("\n```python\n") > 10


@pytest.mark.parametrize("number", range(len(BLOCKS)), ids=[f"line {block.line}" for block in BLOCKS])
def test_block(outputs: list[str], number: int) -> None:
    if number >= len(outputs):
        pytest.fail("an earlier block failed")
    assert outputs[number] == BLOCKS[number].output
