"""orrery.quantize and QuantizedWeight: padding and substitutes, files, what is refused; the package's lazy names."""

from __future__ import annotations

import copy
import pickle
import re
import subprocess
import sys

import pytest
import safetensors.torch
import torch

import orrery
from orrery import OrreryError, QuantizedWeight, formats
from orrery.formats import FORMATS


def refused(call, kind, text):
    with pytest.raises(kind) as caught:
        call()
    assert type(caught.value) is kind and str(caught.value) == text


@pytest.mark.parametrize("name", FORMATS)
def test_values_are_those_of_the_format(name):
    matrix = torch.randn(5, 512, generator=torch.Generator().manual_seed(1))
    weight = orrery.quantize(matrix, name)
    assert (weight.format, weight.requested, weight.shape, weight.code) == (name, name, (5, 512), FORMATS[name].code)
    exact = formats.dequantize(FORMATS[name], formats.quantize(FORMATS[name], matrix), 512)
    assert torch.equal(weight.dequantize(), exact)
    assert torch.equal(weight.dequantize(torch.float16), exact.half())
    assert weight.nbytes == weight.data.numel() == FORMATS[name].size(*weight.stored)


@pytest.mark.parametrize("name, rows, columns, stored", [
    ("q4_0", 1, 64, (8, 64)), ("q4_0", 4, 512, (4, 512)), ("q4_0", 1, 512, (2, 512)),
    ("q4_0", 97, 576, (104, 576)), ("q4_0", 3, 100, (4, 128)),
    ("q4_1", 1, 512, (2, 512)), ("nf4", 3, 64, (4, 64)), ("nf4", 4, 65, (4, 128)), ("nf3", 3, 64, (3, 64)),
    ("q8_0", 1, 64, (4, 64)), ("q8_0", 3, 256, (3, 256)), ("fp8_e5m2", 1, 192, (4, 192)), ("fp8_e4m3", 1, 1, (1, 64)),
    ("fp4", 1, 64, (8, 64)), ("fp6", 5, 256, (6, 256)), ("q5_0", 3, 576, (3, 640)), ("q5_1", 3, 128, (3, 128)),
    ("q4_k", 3, 256, (3, 256)), ("q4_k", 3, 512, (3, 512)),
])
def test_padding(name, rows, columns, stored):
    matrix = torch.randn(rows, columns)
    weight = orrery.quantize(matrix, name)
    assert weight.stored == stored == FORMATS[name].stored_size(rows, columns)
    assert weight.dequantize().shape == (rows, columns)
    # What the matrix itself becomes does not depend on the padding.
    fmt = FORMATS[name]
    whole = torch.nn.functional.pad(matrix, (0, -columns % fmt.elements))
    exact = formats.dequantize(fmt, formats.quantize(fmt, whole), whole.shape[1])[:, :columns]
    assert torch.equal(weight.dequantize(), exact)


def test_this_device_reads_single_blocks_of_five_bits():
    assert FORMATS["q5_1"].stored_size(8, 576, any_device=False) == (8, 576)
    assert FORMATS["q4_0"].stored_size(3, 512, any_device=False) == (4, 512)


def test_a_substitute_is_told():
    for name, fmt in FORMATS.items():
        weight = orrery.quantize(torch.randn(2, 320), name)
        assert weight.requested == name and weight.format == (fmt.substitute or name)
    weight = orrery.quantize(torch.randn(2, 320), "q4_k")
    assert repr(weight) == ("QuantizedWeight(2 x 320, q5_1, asked for as q4_k, stored as 2 x 384, 528 bytes on cpu)")
    assert repr(orrery.quantize(torch.randn(2, 512))) == "QuantizedWeight(2 x 512, q4_0, 544 bytes on cpu)"


def test_other_types_are_computed_in_float32(xpu):
    matrix = torch.randn(3, 100)
    for dtype in (torch.float16, torch.bfloat16, torch.float64):
        given = matrix.to(dtype)
        assert torch.equal(orrery.quantize(given, "q4_1").data, orrery.quantize(given.float(), "q4_1").data)
    there = orrery.quantize(matrix.to(xpu).t().contiguous().t(), "q4_1")
    assert there.device.type == "xpu" and torch.equal(there.data.cpu(), orrery.quantize(matrix, "q4_1").data)
    assert torch.equal(there.dequantize().cpu(), there.to("cpu").dequantize())
    parameter = torch.nn.Parameter(matrix)
    assert not orrery.quantize(parameter, "q4_1").data.requires_grad


def test_moving():
    weight = orrery.quantize(torch.randn(3, 100), "q4_k")
    there = weight.to("xpu")
    assert there.device == torch.device("xpu:0") and there.to("xpu") is there and weight.to("cpu") is weight
    assert (there.requested, there.format, there.shape) == ("q4_k", "q5_1", (3, 100))
    for other in (copy.deepcopy(weight), pickle.loads(pickle.dumps(weight))):
        assert torch.equal(other.data, weight.data) and repr(other) == repr(weight)


def test_matrices_that_do_not_fit():
    matrix = torch.randn(2, 64)
    refused(lambda: orrery.quantize(matrix, "q3"), ValueError,
            f"unknown format 'q3', the formats are {', '.join(FORMATS)}")
    refused(lambda: orrery.quantize([[1.0]]), TypeError,
            "matrix must be a tensor of float32, float16, bfloat16 or float64, not list")
    refused(lambda: orrery.quantize(matrix.long()), TypeError,
            "matrix must be a tensor of float32, float16, bfloat16 or float64, not int64")
    for size in ((64,), (1, 2, 64), (0, 64), (2, 0)):
        refused(lambda: orrery.quantize(torch.zeros(size)), ValueError,
                f"matrix must be [rows, columns] with at least one of each, not {list(size)}")
    matrix[0, 3], matrix[1, 5] = float("nan"), float("-inf")
    refused(lambda: orrery.quantize(matrix), ValueError, "matrix holds 2 values that are not finite")
    refused(lambda: orrery.quantize(torch.tensor([[1e300]], dtype=torch.float64)), ValueError,
            "matrix holds 1 values that are not finite")


@pytest.mark.parametrize("name", FORMATS)
def test_values_too_large_for_half_are_refused(name):
    for largest in (400.0, 1e3, 3e4, 1e5, 1e6, -1e6):
        matrix = torch.randn(2, 256, generator=torch.Generator().manual_seed(1))
        matrix[1, 77] = largest
        try:
            weight = orrery.quantize(matrix, name)
        except ValueError as error:
            assert str(error) == f"matrix holds {largest:g}, which is too large for {name}"
            assert abs(largest) > 400
        else:
            assert weight.dequantize(torch.float16).isfinite().all()
            assert abs(largest) < 1e5
            assert (weight.dequantize(torch.float16)[1, 77] - largest).abs() <= abs(largest) / 2


def test_bytes_that_do_not_fit():
    weight = orrery.quantize(torch.randn(3, 100), "q4_0")
    text = "data of 3 x 100 elements in q4_0 must be 272 contiguous bytes, not "
    refused(lambda: QuantizedWeight(weight.data[:-1], "q4_0", 3, 100), ValueError, text + "[271]")
    refused(lambda: QuantizedWeight(weight.data.view(2, 136), "q4_0", 3, 100), ValueError, text + "[2, 136]")
    refused(lambda: QuantizedWeight(weight.data.char(), "q4_0", 3, 100), TypeError,
            "data must be a tensor of uint8, not int8")
    refused(lambda: QuantizedWeight(weight.data, "q4", 3, 100), ValueError,
            f"unknown format 'q4', the formats are {', '.join(FORMATS)}")
    refused(lambda: QuantizedWeight(weight.data, "q4_0", 0, 100), ValueError,
            "a weight has at least one row and one column, not [0, 100]")


def test_files(tmp_path):
    for name in FORMATS:
        weight = orrery.quantize(torch.randn(3, 300), name).to("xpu")
        weight.save(tmp_path / "w.safetensors")
        read = QuantizedWeight.load(tmp_path / "w.safetensors")
        assert read.device.type == "cpu" and repr(read) == repr(weight.to("cpu"))
        assert torch.equal(read.data, weight.data.cpu())
    assert QuantizedWeight.load(str(tmp_path / "w.safetensors"), "xpu").device.type == "xpu"


def test_files_that_are_something_else(tmp_path):
    path = tmp_path / "w.safetensors"
    with pytest.raises(FileNotFoundError):
        QuantizedWeight.load(path)
    safetensors.torch.save_file({"data": torch.zeros(3)}, path)
    refused(lambda: QuantizedWeight.load(path), OrreryError,
            f"{path} holds no weight that QuantizedWeight.save wrote")
    weight = orrery.quantize(torch.randn(3, 100), "q4_0")
    weight.save(path)
    good = path.read_bytes()
    for bad in (b"", good[:5], good[:100], good[:-1], b"\xff" * 100, good + b"x"):
        path.write_bytes(bad)
        with pytest.raises(OrreryError, match=f"^{re.escape(str(path))} is no safetensors file, or a damaged one: "):
            QuantizedWeight.load(path)
    for wrong, right in ((b'"rows":"9"', b'"rows":"3"'), (b'"rows":"x"', b'"rows":"3"'),
                         (b'"rows":"-"', b'"rows":"3"'), (b"q4_9", b"q4_0")):
        assert right in good
        path.write_bytes(good.replace(right, wrong))
        with pytest.raises(OrreryError, match=f"^{re.escape(str(path))} is damaged: "):
            QuantizedWeight.load(path)
    fields = {"kind": "orrery quantized weight 1", "format": "q4_0", "requested": "q4_0", "columns": "100"}
    for rows in ("9" * 30, "0"):
        safetensors.torch.save_file({"data": weight.data}, path, metadata=fields | {"rows": rows})
        with pytest.raises(OrreryError, match="is damaged: "):
            QuantizedWeight.load(path)


def test_importing_the_package_does_not_bring_pytorch():
    code = """
        import sys, orrery
        assert "torch" not in sys.modules and "quantize" in dir(orrery)
        assert orrery.__version__ and "torch" not in sys.modules
        try:
            orrery.nothing
        except AttributeError as error:
            assert str(error) == "module 'orrery' has no attribute 'nothing'"
        from orrery import quantize
        assert "torch" in sys.modules and orrery.quantize is quantize
    """
    lines = "\n".join(line[8:] for line in code.splitlines())
    done = subprocess.run([sys.executable, "-c", lines], capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
