"""Copies between the CPU and the device, of any layout and type."""

import io
import pickle

import orrery_host  # noqa: F401
import pytest
import torch

DTYPES = [
    torch.float64,
    torch.float32,
    torch.float16,
    torch.bfloat16,
    torch.int64,
    torch.int32,
    torch.int16,
    torch.int8,
    torch.uint8,
    torch.bool,
    torch.complex64,
]

LAYOUTS = {
    "contiguous": lambda t: t,
    "transposed": lambda t: t.transpose(0, 2),
    "every second": lambda t: t[:, ::2],
    "inner part": lambda t: t[1:, 3:7, 2:],
    "expanded": lambda t: t[:1].expand(4, -1, -1),
    "without elements": lambda t: t[:0],
    "one element": lambda t: t[1, 2, 3],
    "flipped": lambda t: t.flip(1),
}


def numbers(dtype: torch.dtype) -> torch.Tensor:
    return torch.randint(0, 100, (3, 11, 7), generator=torch.Generator().manual_seed(5)).to(dtype)


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("layout", LAYOUTS)
def test_there_and_back(layout, dtype):
    source = LAYOUTS[layout](numbers(dtype))
    there = source.to("xpu")
    assert there.device == torch.device("xpu", 0) and there.dtype == dtype
    assert there.stride() == source.to("cpu", copy=True).stride()
    back = there.cpu()
    assert back.device.type == "cpu" and torch.equal(back, source)
    assert there.storage_offset() == 0 and torch.equal(there.clone().cpu(), source)


@pytest.mark.parametrize("to", DTYPES, ids=str)
@pytest.mark.parametrize("source", [torch.float32, torch.float16, torch.int32, torch.uint8], ids=str)
def test_a_copy_that_changes_the_type(source, to):
    values = numbers(source) / 3 if source.is_floating_point else numbers(source)
    assert torch.equal(values.to("xpu", to).cpu(), values.to(to))
    assert torch.equal(values.to("xpu").to(to).cpu(), values.to(to))
    assert torch.equal(values.to("xpu").to("cpu", to), values.to(to))


@pytest.mark.parametrize("from_device, to_device", [("cpu", "xpu"), ("xpu", "cpu"), ("xpu", "xpu")])
def test_copy_into_a_part(from_device, to_device):
    source = torch.arange(12.0).reshape(3, 4).t().to(from_device)
    target = torch.full((6, 5), float("nan"), device=to_device)
    assert target[1:5, ::2].copy_(source).device.type == to_device
    expected = torch.full((6, 5), float("nan"))
    expected[1:5, ::2] = torch.arange(12.0).reshape(3, 4).t()
    assert torch.equal(target.cpu().nan_to_num(-1), expected.nan_to_num(-1))


def test_copy_broadcasts():
    target = torch.zeros(3, 4, device="xpu")
    target.copy_(torch.arange(4.0))
    assert torch.equal(target.cpu(), torch.arange(4.0).expand(3, 4))


def test_copies_do_not_share_memory():
    source = torch.ones(5)
    there = source.to("xpu")
    source.zero_()
    back = there.cpu()
    there.fill_(3)
    assert back.sum() == 5 and there.data_ptr() != source.data_ptr()


def test_same_device_makes_no_copy():
    there = torch.ones(5, device="xpu")
    assert there.to("xpu") is there and there.to("xpu:0") is there


def test_conjugate_and_negative_views_are_copied_by_value():
    values = torch.randn(5, dtype=torch.complex64)
    there = values.to("xpu")
    assert torch.equal(there.conj().cpu(), values.conj())
    assert torch.equal(there.conj().imag.cpu(), values.conj().imag)
    assert torch.equal(values.conj().to("xpu").cpu(), values.conj())


def test_half_nan_patterns_survive():
    bits = torch.arange(-(2**15), 2**15, dtype=torch.int32).to(torch.int16)
    there = bits.view(torch.float16).to("xpu").clone()
    assert torch.equal(there.view(torch.int16).cpu(), bits)


def test_set_and_data():
    there = torch.arange(6.0, device="xpu")
    alias = torch.empty(0, device="xpu").set_(there.untyped_storage(), 2, (2, 2), (2, 1))
    assert torch.equal(alias.cpu(), torch.tensor([[2.0, 3.0], [4.0, 5.0]]))
    alias.zero_()
    assert there.tolist() == [0, 1, 0, 0, 0, 0]
    assert alias.set_().shape == (0,)


def test_save_and_load():
    tensors = {"a": torch.arange(10.0, device="xpu"), "b": torch.ones(2, 3, dtype=torch.uint8, device="xpu").t()}
    tensors["view"] = tensors["a"][3:]
    file = io.BytesIO()
    torch.save(tensors, file)
    file.seek(0)
    loaded = torch.load(file)
    assert all(loaded[name].device.type == "xpu" and torch.equal(loaded[name], tensors[name]) for name in tensors)
    assert loaded["view"].untyped_storage().data_ptr() == loaded["a"].untyped_storage().data_ptr()
    file.seek(0)
    assert torch.load(file, map_location="cpu")["a"].device.type == "cpu"


def test_pickle():
    there = torch.randn(3, 5, device="xpu")
    loaded = pickle.loads(pickle.dumps(there))
    assert loaded.device == there.device and torch.equal(loaded, there)


def test_print():
    assert repr(torch.tensor([1.5, 2.0], device="xpu")) == "tensor([1.5000, 2.0000], device='xpu:0')"
    assert str(torch.arange(3, device="xpu")) == "tensor([0, 1, 2], device='xpu:0')"
    assert "..." in repr(torch.zeros(2000, dtype=torch.bfloat16, device="xpu"))
    assert repr(torch.empty(0, device="xpu")) == "tensor([], device='xpu:0')"
