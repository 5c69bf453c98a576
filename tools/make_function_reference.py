"""Writes the reference of docs/functions.md from the stubs: python tools/make_function_reference.py [OUTPUT]."""

from __future__ import annotations

import ast
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
STUB = ROOT / "orrery_ops-stubs" / "__init__.pyi"
OUTPUT = ROOT / "docs" / "functions.md"
HEADING = "## Reference\n"
NOTE = "Made by `tools/make_function_reference.py` from `orrery_ops-stubs/__init__.pyi`; not edited by hand.\n"


def functions() -> list[ast.FunctionDef]:
    return [node for node in ast.parse(STUB.read_text()).body if isinstance(node, ast.FunctionDef)]


def arguments(function: ast.FunctionDef) -> list[ast.arg]:
    return [*function.args.posonlyargs, *function.args.args]


def paragraphs(function: ast.FunctionDef) -> dict[str, str]:
    """The docstring by heading, each text on one line per item; the summary has the heading ""."""
    found, heading = {"": ""}, ""
    for line in (ast.get_docstring(function) or "").splitlines():
        if match := re.fullmatch(r"(Args|Returns|Raises):", line):
            heading = match[1]
            found[heading] = ""
        elif line.strip():
            begins = heading in ("Args", "Raises") and not line.startswith("     ")
            found[heading] += ("\n" if begins else " ") + line.strip()
    return {heading: text.strip() for heading, text in found.items()}


def items(text: str) -> list[tuple[str, str]]:
    """ "name: meaning" line by line."""
    return [tuple(line.split(": ", 1)) for line in text.splitlines()]  # type: ignore[misc]


def sentence(text: str) -> str:
    return text[0].upper() + text[1:] if text.split()[0].rstrip(",;.").isalpha() else text


def clause(text: str) -> str:
    return text[0].lower() + text[1:] if text[1:2].islower() else text


def section(function: ast.FunctionDef) -> str:
    texts, types = paragraphs(function), {arg.arg: ast.unparse(arg.annotation) for arg in arguments(function)}
    lines = [f"### {function.name}", "", texts[""], "", "| argument | type | |", "| --- | --- | --- |"]
    for name, meaning in items(texts["Args"]):
        type_text = types[name].replace("|", "\\|")
        lines.append(f"| `{name}` | `{type_text}` | {sentence(meaning)} |")
    returns = texts.get("Returns", "nothing.")
    lines += ["", f"Returns `{ast.unparse(function.returns)}`: {clause(returns)}"]
    if "Raises" in texts:
        lines += ["", *(f"- raises `{kind}`: {meaning}" for kind, meaning in items(texts["Raises"]))]
    return "\n".join(lines) + "\n"


def text() -> str:
    """The whole page: what stands above the reference, and the reference."""
    above = OUTPUT.read_text().split(HEADING)[0]
    return above + HEADING + "\n" + NOTE + "\n" + "\n".join(section(function) for function in functions())


if __name__ == "__main__":
    Path(sys.argv[1] if len(sys.argv) > 1 else OUTPUT).write_text(text())
