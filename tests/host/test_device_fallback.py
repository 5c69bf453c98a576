"""Operators without a kernel of their own: PyTorch's own samples of all its operators, against the CPU bit for bit."""

import sys
import types
import unittest
import warnings

import orrery_host  # noqa: F401
import pytest
import torch
from torch.utils._pytree import tree_leaves, tree_map

# The list of samples imports this package for a base class of PyTorch's own tests only.
if "expecttest" not in sys.modules:
    sys.modules["expecttest"] = types.ModuleType("expecttest")
    sys.modules["expecttest"].TestCase = unittest.TestCase

with warnings.catch_warnings():
    warnings.simplefilter("ignore")
    from torch.testing._internal.common_methods_invocations import op_db

LEFT_OUT = {
    "sparse.sampled_addmm": "sparse tensors",
    "sparse.mm": "sparse tensors",
    "to_sparse": "sparse tensors",
    "tensor_split": "takes its indices on the CPU only, on every device",
    "nn.functional.linear_cross_entropy": "chooses the type that it sums in by the device's name",
}
# What these hold is left open.
UNDEFINED_VALUES = ("empty", "new_empty", "empty_like", "empty_permuted", "empty_strided", "new_empty_strided")
SAMPLES = 6
DTYPES = (torch.float32, torch.bfloat16, torch.complex64, torch.int64, torch.bool)

OPERATORS = {f"{op.name}.{op.variant_test_name}".rstrip("."): op for op in op_db if op.dtypes}


def on_xpu(value):
    def move(leaf):
        if isinstance(leaf, torch.Tensor):
            return leaf.detach().to("xpu")
        if isinstance(leaf, torch.device) or (isinstance(leaf, str) and leaf == "cpu"):
            return torch.device("xpu")
        return leaf

    return tree_map(move, value)


def cloned(value):
    return tree_map(lambda leaf: leaf.detach().clone() if isinstance(leaf, torch.Tensor) else leaf, value)


def run(op, sample, place):
    """The operator's result for the sample, its tensors put in place by the function given."""
    torch.manual_seed(7)
    return op.op(place(sample.input), *place(sample.args), **place(sample.kwargs))


def samples(op, dtype):
    torch.manual_seed(3)
    found = []
    for sample in op.sample_inputs("cpu", dtype, requires_grad=False):
        try:
            found.append((sample, run(op, sample, cloned)))
        except Exception:  # a sample that this build of the CPU cannot run says nothing about the device
            continue
        if len(found) == SAMPLES:
            break
    return found


def compare(name, got, expected):
    got, expected = tree_leaves(got), tree_leaves(expected)
    assert len(got) == len(expected)
    for one, other in zip(got, expected):
        if not isinstance(other, torch.Tensor):
            assert one == other or (one != one and other != other)
            continue
        assert one.device.type == "xpu"
        assert one.shape == other.shape and one.dtype == other.dtype
        if name not in UNDEFINED_VALUES:
            torch.testing.assert_close(one.cpu(), other, rtol=0, atol=0, equal_nan=True)


@pytest.fixture
def one_thread():
    """The samples are tiny: waking other threads takes longer than they do."""
    before = torch.get_num_threads()
    torch.set_num_threads(1)
    yield
    torch.set_num_threads(before)


@pytest.mark.parametrize("dtype", DTYPES, ids=lambda dtype: str(dtype).removeprefix("torch."))
def test_operators(dtype, one_thread):
    checked, failed = 0, {}
    for label, op in OPERATORS.items():
        if op.name in LEFT_OUT or dtype not in op.dtypes:
            continue
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            for sample, expected in samples(op, dtype):
                try:
                    compare(op.name, run(op, sample, on_xpu), expected)
                    checked += 1
                except Exception as error:
                    failed[label] = str(error).strip().split("\n")[0]
                    break
    assert not failed, "\n".join(f"{label}: {text}" for label, text in failed.items())
    assert checked > {torch.float32: 2000, torch.bfloat16: 1500, torch.complex64: 1000}.get(dtype, 500)


def test_names_above_are_operators():
    assert LEFT_OUT.keys() <= {op.name for op in op_db}
    assert len(OPERATORS) > 600


def test_a_layer_runs():
    layer = torch.nn.Sequential(torch.nn.Linear(19, 33), torch.nn.GELU(), torch.nn.LayerNorm(33)).eval()
    x = torch.randn(5, 19)
    with torch.no_grad():
        expected = layer(x)
        assert torch.equal(layer.to("xpu")(x.to("xpu")).cpu(), expected)
        with torch.inference_mode():
            assert torch.equal(layer(x.to("xpu")).cpu(), expected)


def test_default_device():
    with torch.device("xpu"):
        assert torch.ones(3).device == torch.tensor([1, 2]).device == torch.device("xpu", 0)
    assert torch.ones(3).device.type == "cpu"
