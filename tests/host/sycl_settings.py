"""Settings of the host device for one test: changed inside a `with`, put back after it."""

from __future__ import annotations

from contextlib import contextmanager
from typing import Any, Iterator

import torch  # noqa: F401  its libraries first

import orrery_native_tests as native
from torch_threads import threads  # noqa: F401


@contextmanager
def host_settings(**changes: Any) -> Iterator[None]:
    before = native.configuration()
    changed = native.Settings(before)
    for name, value in changes.items():
        setattr(changed, name, value)
    native.configure(changed)
    try:
        yield
    finally:
        native.configure(before)


SCHEDULES = [{"shuffle": False}, {"shuffle": True, "seed": 1}, {"shuffle": True, "seed": 99}]
