"""Which instructions the compiled parts were built for, and which level of the operators this CPU runs."""

from __future__ import annotations

import functools
import os
from collections.abc import Iterable, Mapping

VARIABLE = "ORRERY_ISA"


def missing(built_for: Iterable[str], capabilities: Mapping[str, object]) -> list[str]:
    """Those of the compiler's macros (without underscores around them) whose instructions the CPU lacks.

    `capabilities` is what `torch.cpu.get_capabilities` returns. What it does not know is assumed to be present.
    """
    has = {name.replace("_", ""): value for name, value in capabilities.items()}
    has["fma"] = has.get("fma3")
    return [name for name in built_for if has.get(name.replace("_", "").lower()) is False]


def choose(levels: Mapping[str, Iterable[str]], capabilities: Mapping[str, object], wanted: str | None) -> str:
    """The wanted level of the operators, or else the highest that the CPU has; `levels` begins with the lowest.

    Raises ImportError with one sentence if the CPU lacks instructions of the lowest level, which all compiled parts
    need, and RuntimeError if the wanted level is not there or not for this CPU.
    """
    lacking = {name: missing(instructions, capabilities) for name, instructions in levels.items()}
    if too_much := lacking[next(iter(levels))]:
        raise ImportError(
            f"orrery_host was built for a CPU with {', '.join(too_much)}, which this one lacks; "
            "build it on this machine, or with MARCH=x86-64-v3 for most machines."
        )
    if not wanted:
        return [name for name in levels if not lacking[name]][-1]
    if wanted not in levels:
        *others, last = levels
        there = f"{', '.join(others)} or {last}" if others else f"{last}, for which the operators were built"
        raise RuntimeError(f"{VARIABLE} must be {there}, not '{wanted}'.")
    if too_much := lacking[wanted]:
        raise RuntimeError(f"{VARIABLE} is {wanted}, for a CPU with {', '.join(too_much)}, which this one lacks.")
    return wanted


@functools.cache
def level() -> str:
    """The level of the operators in this process: the one that the variable ORRERY_ISA names, or else the highest.

    Errors as of `choose`. Call it before a compiled part is loaded, which could end in SIGILL.
    """
    import torch

    from orrery_host._built_for import LEVELS

    return choose(LEVELS, torch.cpu.get_capabilities(), os.environ.get(VARIABLE))
