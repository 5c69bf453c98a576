"""x += y of float rows, which the device adds itself where nothing has to be converted: the CPU's bits, and its errors."""

import orrery_host  # noqa: F401
import pytest
import torch

SPECIAL = [0.0, -0.0, 1e-45, -1.2e-38, 3e38, 3.4e38, float("inf"), float("-inf"), float("nan"), 1.0, 16777216.0, -0.1]


def bits(tensor: torch.Tensor) -> torch.Tensor:
    return tensor.cpu().reshape(-1).view(torch.uint8)


def values(*sizes: int, seed: int = 0) -> torch.Tensor:
    return torch.randn(sizes, generator=torch.Generator().manual_seed(seed))


PAIRS = {
    "row": lambda: (values(1, 576), values(1, 576, seed=1)),
    "no elements": lambda: (values(0, 5), values(0, 5)),
    "no dimensions": lambda: (values(), values()),
    "special values": lambda: (torch.tensor(SPECIAL).repeat(12), torch.tensor(SPECIAL).repeat_interleave(12)),
    "views": lambda: (values(7, 99)[3:5], values(300)[17:215].view(2, 99)),
    "long": lambda: (values(50000), values(50000, seed=1)),
    "transposed": lambda: (values(19, 7).t(), values(7, 19)),
    "gaps": lambda: (values(9, 10)[:, :7], values(9, 20)[:, 3:10]),
    "broadcast": lambda: (values(9, 7), values(7)),
    "double added": lambda: (values(7), values(7).double()),
    "half": lambda: (values(99).half(), values(99, seed=1).half()),
    "integers": lambda: (torch.arange(9), torch.arange(9)),
    "number": lambda: (values(7), 0.1),
    "number of no dimensions": lambda: (values(7), torch.tensor(0.1)),
}


@pytest.mark.parametrize("alpha", [1, 1.0, -1.3])
@pytest.mark.parametrize("name", PAIRS)
def test_the_bits_of_the_cpu(name, alpha):
    x, y = PAIRS[name]()
    if not x.is_floating_point():
        alpha = round(alpha)
    on_device, other = x.to("xpu"), y.to("xpu") if isinstance(y, torch.Tensor) and y.dim() else y
    if x.stride() != on_device.stride():
        on_device = torch.empty_strided(x.shape, x.stride(), dtype=x.dtype, device="xpu").copy_(x)
    before = on_device.data_ptr(), on_device._version
    result = on_device.add_(other, alpha=alpha)
    assert result is on_device
    assert (on_device.data_ptr(), on_device._version) == (before[0], before[1] + 1)
    assert torch.equal(bits(on_device), bits(x.add_(y, alpha=alpha)))


def test_a_tensor_added_to_itself_doubles():
    x = values(99).to("xpu")
    twice = (2 * x).cpu()
    assert torch.equal(x.add_(x).cpu(), twice)


def test_another_view_of_the_same_elements():
    x = values(99).to("xpu")
    twice = (2 * x).cpu()
    assert torch.equal(x.add_(x.view(99)).cpu(), twice)


def test_views_that_overlap_in_part_are_refused_as_on_the_cpu():
    messages = []
    for device in "cpu", "xpu":
        x = torch.zeros(9, device=device)
        with pytest.raises(RuntimeError) as raised:
            x[1:].add_(x[:-1])
        messages.append(str(raised.value).splitlines()[0])
    assert messages[0] == messages[1] and "memory" in messages[0]


def test_a_cpu_tensor_is_refused():
    with pytest.raises(RuntimeError, match="^Expected all tensors to be on the same device, but found at least two"):
        torch.zeros(3, device="xpu").add_(torch.zeros(3))


def test_sizes_that_do_not_fit_are_refused_as_on_the_cpu():
    messages = []
    for device in "cpu", "xpu":
        with pytest.raises(RuntimeError) as raised:
            torch.zeros(3, device=device).add_(torch.zeros(4, device=device))
        messages.append(str(raised.value))
    assert messages[0] == messages[1]


def test_gradients_flow():
    x = values(5).to("xpu").requires_grad_()
    y = values(5, seed=1).to("xpu").requires_grad_()
    (x * 2).add_(y).sum().backward()
    assert x.grad.tolist() == [2.0] * 5 and y.grad.tolist() == [1.0] * 5


def test_a_leaf_that_needs_a_gradient_is_refused():
    with pytest.raises(RuntimeError, match="a leaf Variable that requires grad"):
        torch.zeros(3, device="xpu", requires_grad=True).add_(torch.zeros(3, device="xpu"))
