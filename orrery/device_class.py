"""`--device-class`: which kernels the device in host memory takes. It has to be named before torch brings it."""

from __future__ import annotations

import argparse
import os
from collections.abc import Sequence

from orrery import OrreryError

VARIABLE = "ORRERY_HOST_DEVICE_NAME"
# A name that puts the device into each class; class 3 are all others.
NAMES = {
    0: "Rack Compute Card Apex",
    1: "Pike(TM) A",
    2: "Rack Compute Card Span",
    3: "CPU",
    4: "Pike(TM)",
    5: "Vela",
}


def add_option(group: argparse._ActionsContainer) -> None:
    group.add_argument("--device-class", type=int, choices=NAMES, metavar="N",
                       help="run the kernels that a device of class 0 to 5 takes (default: 3; device in host memory only)")  # fmt: skip


class _Quiet(argparse.ArgumentParser):
    def error(self, message: str) -> None:
        """The whole command's parser comes later and complains."""


def name_device(argv: Sequence[str]) -> None:
    """Names the device as the option in a command's arguments asks, if it stands there."""
    parser = _Quiet(add_help=False, allow_abbrev=False)
    add_option(parser)
    asked = parser.parse_known_args(argv)
    if asked and asked[0].device_class in NAMES:
        os.environ[VARIABLE] = NAMES[asked[0].device_class]


def check(device_class: int | None) -> None:
    """OrreryError if the device has come before it could be named."""
    if device_class is not None and os.environ.get(VARIABLE) != NAMES[device_class]:
        raise OrreryError(f"--device-class comes too late: name the device by {VARIABLE} before torch is imported")
