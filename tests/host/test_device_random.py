"""Random numbers: the device has generators of its own, which draw what the CPU's would."""

import orrery_host  # noqa: F401
import pytest
import torch


@pytest.mark.parametrize("draw", [torch.rand, torch.randn])
def test_a_seed_gives_the_numbers_of_the_cpu(draw):
    torch.manual_seed(11)
    xpu = draw(3, 5, device="xpu")
    torch.manual_seed(11)
    assert torch.equal(xpu.cpu(), draw(3, 5)) and xpu.device.type == "xpu"


def test_default_generators_are_apart():
    torch.manual_seed(1)
    expected = torch.rand(4, device="xpu")
    torch.manual_seed(1)
    torch.rand(100)
    assert torch.equal(torch.rand(4, device="xpu"), expected)


@pytest.mark.parametrize("seed", [torch.xpu.manual_seed, torch.xpu.manual_seed_all])
def test_seeds(seed):
    seed(9)
    first = torch.rand(4, device="xpu")
    assert not torch.equal(torch.rand(4, device="xpu"), first)
    seed(9)
    assert torch.equal(torch.rand(4, device="xpu"), first) and torch.xpu.initial_seed() == 9


def test_own_generator():
    generator = torch.Generator("xpu").manual_seed(4)
    assert generator.device == torch.device("xpu", 0)
    first = torch.randint(0, 1000, (9,), device="xpu", generator=generator)
    state = generator.get_state()
    second = torch.empty(9, device="xpu").normal_(generator=generator)
    generator.set_state(state)
    assert torch.equal(torch.empty(9, device="xpu").normal_(generator=generator), second)
    assert torch.equal(torch.randint(0, 1000, (9,), device="xpu", generator=generator.manual_seed(4)), first)


def test_state_of_the_default_generator():
    state = torch.xpu.get_rng_state()
    first = torch.rand(4, device="xpu")
    torch.xpu.set_rng_state(state)
    assert torch.equal(torch.rand(4, device="xpu"), first)


def test_a_generator_of_the_cpu_is_refused():
    with pytest.raises(RuntimeError, match="Expected a 'xpu' device type for generator but found 'cpu'"):
        torch.rand(3, device="xpu", generator=torch.Generator())


def test_operators_that_draw():
    torch.manual_seed(2)
    weights = torch.tensor([0.1, 0.0, 0.9], device="xpu")
    drawn = torch.multinomial(weights, 1000, replacement=True)
    assert drawn.device == weights.device and 50 < (drawn == 0).sum() < 150 and (drawn == 1).sum() == 0
    kept = torch.nn.functional.dropout(torch.ones(10_000, device="xpu"), 0.25)
    assert 7_000 < kept.count_nonzero() < 8_000
    assert torch.equal(torch.randperm(50, device="xpu").sort().values, torch.arange(50, device="xpu"))
