"""Views share the bytes of their base tensor, whichever kernel made them."""

import orrery_host  # noqa: F401
import pytest
import torch

VIEWS = {
    "view": lambda t: t.view(-1, 6),
    "view as bytes": lambda t: t.view(torch.uint8),
    "reshape": lambda t: t.reshape(2, -1),
    "transpose": lambda t: t.transpose(0, 1),
    "permute": lambda t: t.permute(2, 0, 1),
    "select": lambda t: t[1],
    "slice": lambda t: t[:, 1:, ::2],
    "narrow": lambda t: t.narrow(1, 1, 2),
    "diagonal": lambda t: t.diagonal(dim1=0, dim2=1),
    "expand": lambda t: t[:, :1].expand(-1, 5, -1),
    "unsqueeze": lambda t: t.unsqueeze(1),
    "squeeze": lambda t: t[:1].squeeze(0),
    "unfold": lambda t: t.unfold(2, 3, 2),
    "as_strided": lambda t: t.as_strided((3, 2), (2, 5), 4),
    "split": lambda t: t.split(2, dim=2)[1],
    "unbind": lambda t: t.unbind(1)[2],
    "detach": lambda t: t.detach(),
    "movedim": lambda t: t.movedim(0, -1),
    "real": lambda t: torch.view_as_complex(t.view(3, 4, 3, 2)).real,
    "imag": lambda t: torch.view_as_complex(t.view(3, 4, 3, 2)).imag,
    "as real": lambda t: torch.view_as_real(torch.view_as_complex(t.view(3, 4, 3, 2))),
    "alias": lambda t: torch.ops.aten.alias(t),
}


@pytest.mark.parametrize("name", VIEWS)
def test_view(name):
    make = VIEWS[name]
    cpu = torch.arange(72.0).reshape(3, 4, 6)
    xpu = cpu.to("xpu")
    expected, view = make(cpu), make(xpu)
    assert view.device == xpu.device
    assert view.shape == expected.shape and view.stride() == expected.stride()
    assert view.storage_offset() == expected.storage_offset()
    assert view.untyped_storage().data_ptr() == xpu.untyped_storage().data_ptr()
    assert torch.equal(view.cpu(), expected)
    if name != "expand":
        view.fill_(7)
        expected.fill_(7)
        assert torch.equal(xpu.cpu(), cpu)


def test_in_place_keeps_identity():
    x = torch.ones(4, device="xpu")
    address = x.data_ptr()
    assert x.add_(1) is x and x.relu_() is x and x.clamp_(0, 5) is x
    assert x.data_ptr() == address and x.tolist() == [2, 2, 2, 2]


def test_out_keeps_identity_and_bytes():
    x, out = torch.arange(6.0, device="xpu"), torch.full((6,), float("nan"), device="xpu")
    address = out.data_ptr()
    assert torch.cumsum(x, 0, out=out) is out
    assert out.data_ptr() == address and out.tolist() == [0, 1, 3, 6, 10, 15]


def test_out_into_a_view():
    whole = torch.zeros(3, 4, device="xpu")
    torch.cumsum(torch.ones(3, device="xpu"), 0, out=whole[:, 1])
    assert torch.equal(whole.cpu()[:, 1], torch.tensor([1.0, 2.0, 3.0])) and whole.sum().item() == 6


@pytest.mark.parametrize("operator", [torch.cumsum, torch.cumprod, torch.logcumsumexp])
def test_out_grows(operator):
    x = torch.rand(3, 50, device="xpu")
    out = torch.empty(0, device="xpu")
    storage = out.untyped_storage()
    assert operator(x, 1, out=out) is out
    assert torch.equal(out, operator(x, 1))
    assert out.device == x.device and out.untyped_storage().data_ptr() == storage.data_ptr()


def test_out_of_several_results():
    x = torch.rand(5, 7, device="xpu")
    values, indices = torch.empty(0, device="xpu"), torch.empty(0, dtype=torch.int64, device="xpu")
    torch.sort(x, dim=1, out=(values, indices))
    assert torch.equal(x.gather(1, indices), values) and torch.equal(values.cpu(), x.cpu().sort(dim=1).values)


def test_two_views_of_one_storage_in_a_call():
    x = torch.arange(10.0, device="xpu")
    x[5:].add_(x[:5])
    assert x.tolist() == [0, 1, 2, 3, 4, 5, 7, 9, 11, 13]


def test_resize_keeps_the_beginning():
    x = torch.arange(6.0, device="xpu")
    x.resize_(3, 1000)
    assert x.shape == (3, 1000) and x.flatten()[:6].tolist() == [0, 1, 2, 3, 4, 5]


def test_memory_format():
    x = torch.empty(2, 3, 4, 5, device="xpu", memory_format=torch.channels_last)
    assert x.is_contiguous(memory_format=torch.channels_last)
    assert torch.empty_like(x).stride() == x.stride() and x.contiguous().is_contiguous()


def test_views_know_their_base_and_version():
    x = torch.zeros(4, device="xpu")
    view = x[1:]
    assert view._base is x
    before = x._version
    view.add_(1)
    assert x._version == before + 1


def test_index_put_and_masks():
    x = torch.zeros(4, 3, device="xpu")
    x[torch.tensor([0, 2])] = 1  # CPU indices are taken
    x[torch.tensor([3], device="xpu"), 1] = 5
    x[x == 5] = 6
    assert x.tolist() == [[1, 1, 1], [0, 0, 0], [1, 1, 1], [0, 6, 0]]
