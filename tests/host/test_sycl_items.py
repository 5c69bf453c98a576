"""A kernel generic over its item gives the same bits as sub-groups of lanes and as single work-items."""

import numpy as np
import pytest
import torch
from sycl_settings import SCHEDULES, host_settings, native, threads

SHAPES = [(8, 8), (8, 32), (16, 16), (16, 64), (32, 32), (32, 128)]
TYPES = {"half": torch.float16, "bfloat16": torch.bfloat16, "float": torch.float32, "double": torch.float64}


def halving_tree(rows):
    """Sums of x * x + x: pairs at distance WG / 2 first; torch rounds each operation to the type."""
    acc = rows * rows
    acc = acc + rows
    while acc.shape[1] > 1:
        half = acc.shape[1] // 2
        acc = acc[:, :half] + acc[:, half:]
    return acc[:, 0]


def as_array(t):
    return t.view(torch.int16).numpy() if t.dtype == torch.bfloat16 else t.numpy()


@pytest.mark.parametrize("name", TYPES)
@pytest.mark.parametrize("sub_group, work_group", SHAPES)
@pytest.mark.parametrize("scalar", [False, True])
@pytest.mark.parametrize("schedule", SCHEDULES)
def test_tree_sum(name, sub_group, work_group, scalar, schedule):
    generator = torch.Generator().manual_seed(work_group)
    rows = torch.randn(2 * 37, work_group, generator=generator, dtype=torch.float64).to(TYPES[name])
    expected = as_array(halving_tree(rows))
    for count in (1, 2, 3, 7):
        out = as_array(torch.full((2 * 37,), float("nan"), dtype=TYPES[name]))
        with host_settings(**schedule), threads(count):
            native.tree_sums(name, sub_group, work_group, scalar, as_array(rows), out)
        np.testing.assert_array_equal(out.view(np.uint8), expected.view(np.uint8))
