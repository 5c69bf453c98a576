"""The class of the device at load, seen in what forward_new launches, in a process of its own for each name."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from typing import Any

import pytest

import orrery_dispatch as dispatch

LAUNCH = """
import json, sys, torch, orrery_host, orrery_ops
types = {"Half": torch.float16, "Float": torch.float32, "Double": torch.float64, "BFloat16": torch.bfloat16}
out = []
for code, name, state, size in json.loads(sys.argv[1]):
    x = torch.zeros(1, state, dtype=types[name], device="xpu")
    w = torch.zeros(size, dtype=torch.uint8, device="xpu")
    with orrery_host.record_launches() as launches:
        try:
            orrery_ops.forward_new(x, w, code, 0)
        except RuntimeError as error:
            out.append(str(error))
            continue
    out.append([[l.name, l.kernel, list(l.global_size), list(l.local_size), l.sub_group_size, l.waited, l.file,
                 l.instance] for l in launches])
print(json.dumps(out))
"""

NAMES = {
    "Rack Compute Card Apex 1550": 0,
    "Pike(TM) A770 Graphics": 1,
    "Rack Compute Card Span 170": 2,
    "a processor": 3,
    "Pike(TM) B580 Graphics": 4,
    "Vela Graphics": 5,
    "Vela with Pike(TM) A": 1,
}
BLOCK = {2: 34, 3: 36, 6: 44, 7: 44, 8: 68}
TYPES = ("Half", "Float", "Double", "BFloat16")
SIZES = ((64, 1), (1088, 3), (576, 99), (256, 32), (4096, 0))


def run(device_name: str, asked: list) -> subprocess.CompletedProcess:
    variables = os.environ | {"ORRERY_HOST_DEVICE_NAME": device_name}
    return subprocess.run(
        [sys.executable, "-c", LAUNCH, json.dumps(asked)], capture_output=True, text=True, env=variables, timeout=300
    )


@pytest.mark.parametrize("device_name, cls", NAMES.items())
def test_each_class_launches_its_own_instances(device_name: str, cls: int) -> None:
    cases = [(code, name, state, rows) for code in BLOCK for name in TYPES for state, rows in SIZES]
    asked = [(code, name, state, state // 64 * rows * BLOCK[code]) for code, name, state, rows in cases]
    done = run(device_name, asked)
    assert done.returncode == 0, done.stderr
    for case, seen in zip(cases, json.loads(done.stdout), strict=True):
        code, name, state, rows = case
        want = dispatch.decide(code, name, 1, state, rows, 0, cls)
        if want["family"] != "one_row":
            assert seen == f"orrery_ops: {want['kernel']} is not built yet", case
            continue
        assert_launch(seen, want, case)


def assert_launch(seen: Any, want: dict[str, Any], case: Any) -> None:
    assert len(seen) == 1, (case, seen)
    record, kernel, global_size, local_size, sub_group, waited, file, instance = seen[0]
    assert (record, kernel) == ("gridrun_kernel", want["kernel"]), case
    assert (global_size, local_size) == (list(want["global"]), list(want["local"])), case
    assert (sub_group, waited, file) == (want["sub_group"], False, "linear_xpu_kernel"), case
    # The instance's numbers end in those of the shape: rows only where the kernel has them as an argument.
    assert f"{want['sub_group']}, {want['work_group']}" in instance, (case, instance)


def test_the_class_is_that_of_the_default_name_otherwise() -> None:
    environment = {key: value for key, value in os.environ.items() if key != "ORRERY_HOST_DEVICE_NAME"}
    done = subprocess.run(
        [sys.executable, "-c", LAUNCH, json.dumps([(2, "Half", 64, 34 * 9)])],
        capture_output=True, text=True, env=environment, timeout=300,
    )  # fmt: skip
    assert done.returncode == 0, done.stderr
    assert_launch(json.loads(done.stdout)[0], dispatch.decide(2, "Half", 1, 64, 9, 0, 3), "default")
