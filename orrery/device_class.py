"""`--device-class`: which kernels the device in host memory takes. Its name has to be set before torch registers it."""

from __future__ import annotations

import argparse
import os
import sys

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


def choose(device_class: int | None) -> None:
    """Names the device, if a class is given. OrreryError if torch has been imported already."""
    if device_class is None or os.environ.get(VARIABLE) == NAMES[device_class]:
        return
    if "torch" in sys.modules:
        raise OrreryError(f"--device-class comes too late: name the device by {VARIABLE} before torch is imported")
    os.environ[VARIABLE] = NAMES[device_class]
