"""The record of launches."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator
from dataclasses import dataclass


@dataclass(frozen=True)
class Launch:
    """One kernel that a queue ran."""

    name: str | None  # the profiler record's name, None if no record was made
    kernel: str  # the functor's name without namespace and template arguments
    instance: str  # its template arguments as text
    file: str
    function: str
    line: int
    column: int
    global_size: tuple[int, ...]  # in SYCL order
    local_size: tuple[int, ...]
    sub_group_size: int
    local_memory: int  # bytes
    waited: bool  # the host called wait() on the event before the record
    device: int
    seconds: float


@contextlib.contextmanager
def record_launches() -> Iterator[list[Launch]]:
    """Collects a `Launch` for each kernel that the calling thread launches; the list is filled when the block ends.

    Blocks nest. A block that ends on a thread that has none open raises RuntimeError.
    """
    from orrery_host import _C

    launches: list[Launch] = []
    _C.recording_begin()
    try:
        yield launches
    finally:
        launches.extend(Launch(*fields) for fields in _C.recording_end())
