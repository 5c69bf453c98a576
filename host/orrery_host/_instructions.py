"""Whether this CPU has the instructions that the compiled parts were built for."""

from __future__ import annotations

from collections.abc import Iterable, Mapping


def missing(built_for: Iterable[str], capabilities: Mapping[str, object]) -> list[str]:
    """Those of the compiler's macros (without underscores around them) whose instructions the CPU lacks.

    `capabilities` is what `torch.cpu.get_capabilities` returns. What it does not know is assumed to be present.
    """
    has = {name.replace("_", ""): value for name, value in capabilities.items()}
    has["fma"] = has.get("fma3")
    return [name for name in built_for if has.get(name.replace("_", "").lower()) is False]


def check() -> None:
    """Raises ImportError with one sentence. Call it before a compiled part is loaded, which could end in SIGILL."""
    import torch

    from orrery_host._built_for import INSTRUCTIONS

    if lacking := missing(INSTRUCTIONS, torch.cpu.get_capabilities()):
        raise ImportError(
            f"orrery_host was built for a CPU with {', '.join(lacking)}, which this one lacks; "
            "build it on this machine, or with MARCH=x86-64-v3 for most machines."
        )
