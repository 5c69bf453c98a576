"""Packages that only some features need: where one is missing, one sentence names the extra that installs it."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator

# As in pyproject.toml.
EXTRAS = {"gguf": "runner", "tokenizers": "runner", "jinja2": "runner", "matplotlib": "plot",
          "transformers": "transformers"}


@contextlib.contextmanager
def extras() -> Iterator[None]:
    """Inside, a missing package of an extra raises ImportError with one sentence."""
    try:
        yield
    except ModuleNotFoundError as error:
        package = (error.name or "").partition(".")[0]
        if package not in EXTRAS:
            raise
        command = f"pip install 'orrery_ops[{EXTRAS[package]}]'"
        raise ImportError(f"{package} is not installed; {command} brings it") from None
