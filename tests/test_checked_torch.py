"""torch.ops.orrery under PyTorch's own machinery: opcheck, fake tensors, compilation, tracing, and gradients that an
operator does not have."""

from __future__ import annotations

import pytest
import torch
from torch.fx.experimental.proxy_tensor import make_fx

import orrery
import orrery_ops

op = torch.ops.orrery
NAMES = ["linear", "dequantize", "rms_norm", "attention", "quantize_key_value", "dequantize_key_value", "rotary_"]


def samples(name):
    """Arguments and keywords of an operator."""
    generator = torch.Generator().manual_seed(3)

    def random(*size, dtype=torch.float32):
        return torch.randn(size, generator=generator).to(dtype).to("xpu")

    def codes(*size):
        return torch.randint(0, 256, size, generator=generator, dtype=torch.uint8).to("xpu")

    weight = orrery.quantize(torch.randn(5, 100, generator=generator)).to("xpu")
    matrix = weight.data, weight.code, 5, 100
    inverse, positions = random(32).abs(), torch.arange(3, device="xpu")
    query, key, value = random(2, 4, 3, 64), random(2, 2, 7, 64), random(2, 2, 7, 64)
    small = random(1, 2, 3, 64), random(1, 2, 3, 64)
    return {
        "linear": [
            ((random(3, 100), *matrix), {}),
            ((random(2, 3, 100).requires_grad_(), *matrix, random(5).requires_grad_()), {}),
            ((random(100, dtype=torch.float16).requires_grad_(), *matrix), {}),
        ],
        "dequantize": [(matrix, {}), (matrix, {"dtype": torch.bfloat16})],
        "rms_norm": [((random(3, 64), random(64), 1e-5), {}), ((random(2, 3, 50), random(50), 1e-5), {})],
        "attention": [
            ((query, key, value), {}),
            ((query, key, value), {"causal": True}),
            ((query, key, value, random(3, 7)), {}),
            ((query, codes(2, 2, 7, 64) & 191, codes(2, 2, 7, 64) & 191), {}),
        ],
        "quantize_key_value": [((*small, codes(1, 2, 3, 64), codes(1, 2, 3, 64)), {})],
        "dequantize_key_value": [((codes(1, 2, 3, 64), codes(1, 2, 3, 64), *small), {})],
        "rotary_": [
            ((random(2, 4, 3, 64), random(2, 1, 3, 64), positions, inverse), {}),
            ((random(1, 4, 3, 64, dtype=torch.bfloat16), random(1, 1, 3, 64, dtype=torch.bfloat16), positions, inverse),
             {"interleaved": True}),
        ],
    }[name]


def test_all_operators_are_here():
    registered = {name for name in torch._C._dispatch_get_all_op_names() if name.startswith("orrery::")}
    assert registered == {f"orrery::{name}" for name in (*NAMES, "stored_size")}
    assert len([name for name in dir(orrery_ops) if not name.startswith("_")]) == 29


def test_schemas_tell_what_is_written():
    assert str(op.rotary_.default._schema) == (
        "orrery::rotary_(Tensor(a!) query, Tensor(b!) key, Tensor positions, Tensor inv_freq, "
        "bool interleaved=False) -> ()")


@pytest.mark.parametrize("name", NAMES)
def test_opcheck(xpu, name):
    for args, kwargs in samples(name):
        torch.library.opcheck(getattr(op, name).default, args, kwargs)


@pytest.mark.parametrize("name", [name for name in NAMES if name not in ("linear", "dequantize")])
def test_a_gradient_that_is_missing_is_an_error(xpu, name):
    """For each argument that could require one."""
    run = getattr(op, name)
    for args, kwargs in samples(name):
        for i, argument in enumerate(run.default._schema.arguments):
            if i >= len(args) or not isinstance(args[i], torch.Tensor) or not args[i].is_floating_point():
                continue
            given = list(args)
            given[i] = args[i].clone().requires_grad_()
            with pytest.raises(RuntimeError) as caught:
                run(*given, **kwargs)
            assert str(caught.value) == (
                f"orrery::{name} has no gradient, but {argument.name} requires one: call it under torch.no_grad() or "
                f"with {argument.name}.detach()")
            with torch.no_grad():
                run(*given, **kwargs)
            with torch.inference_mode():
                run(*args, **kwargs)


def test_a_derivative_in_forward_mode_is_an_error_too(xpu):
    x, norm = torch.randn(2, 64, device=xpu), torch.ones(64, device=xpu)
    with torch.autograd.forward_ad.dual_level():
        dual = torch.autograd.forward_ad.make_dual(x, torch.ones_like(x))
        with pytest.raises(RuntimeError, match="^orrery::rms_norm has no gradient, but x requires one: "):
            orrery.rms_norm(dual, norm)
        weight = orrery.quantize(torch.randn(3, 64)).to(xpu)
        with pytest.raises(RuntimeError, match="jvp is not implemented"):
            orrery.linear(dual, weight)


def test_writing_counts_as_a_change(xpu):
    """So that autograd notices if a tensor was changed that it had kept."""
    (query, key, *rest), _ = samples("rotary_")[0]
    scale = torch.ones(1, device=xpu, requires_grad=True)
    loss = (scale * query).sum()
    before = query._version, key._version
    op.rotary_(query, key, *rest)
    assert (query._version, key._version) == (before[0] + 1, before[1] + 1)
    with pytest.raises(RuntimeError, match="modified by an inplace operation"):
        loss.backward()


def block(heads, norm, weights):
    """A block of a model: norm, projections, attention, projection."""
    query_key_value, out = weights

    def run(x):
        rows = orrery.linear(orrery.rms_norm(x, norm, 1e-5), query_key_value)
        query, key, value = rows.view(*x.shape[:2], 3, heads, 64).permute(2, 0, 3, 1, 4).unbind(0)
        attended = orrery.attention(query, key, value, causal=True)
        return x + orrery.linear(attended.transpose(1, 2).flatten(2), out)

    return run


@pytest.fixture(scope="module")
def model(xpu):
    generator = torch.Generator().manual_seed(4)
    weights = [orrery.quantize(torch.randn(rows, 128, generator=generator) / 11, "q8_0").to(xpu) for rows in (384, 128)]
    return block(2, torch.ones(128, device=xpu), weights)


def inputs(*rows):
    return [torch.randn(2, n, 128, generator=torch.Generator().manual_seed(n)).to("xpu") for n in rows]


@pytest.mark.parametrize("dynamic", [False, True])
def test_a_block_compiles_without_a_break(model, dynamic):
    torch._dynamo.reset()
    compiled = torch.compile(model, backend="aot_eager", fullgraph=True, dynamic=dynamic)
    with torch.no_grad():
        for x in inputs(5, 5, 9):
            torch.testing.assert_close(compiled(x), model(x), rtol=0, atol=0)


def test_gradients_through_compiled_code(xpu):
    torch._dynamo.reset()
    weight = orrery.quantize(torch.randn(5, 100), "nf4").to(xpu)

    def loss(x, bias):
        return orrery.linear(x, weight, bias).sin().sum()

    compiled = torch.compile(loss, backend="aot_eager", fullgraph=True, dynamic=True)
    for n in (2, 3, 7):
        grads = []
        for run in (loss, compiled):
            x = torch.randn(n, 100, generator=torch.Generator().manual_seed(n)).to(xpu).requires_grad_()
            bias = torch.ones(5, device=xpu, requires_grad=True)
            run(x, bias).backward()
            grads.append((x.grad, bias.grad))
        for ours, theirs in zip(*grads):
            torch.testing.assert_close(ours, theirs)


@pytest.mark.parametrize("mode", ["real", "fake", "symbolic"])
def test_traces_agree_on_other_inputs(model, mode):
    first, *others = inputs(6, 6, 6) if mode != "symbolic" else inputs(6, 4, 11)
    others += [first * 2 + 1]
    with torch.no_grad():
        graph = make_fx(model, tracing_mode=mode, _allow_non_fake_inputs=True)(first)  # the weights
        assert {"orrery::linear", "orrery::rms_norm", "orrery::attention"} <= {
            node.target.name().split(".")[0] for node in graph.graph.nodes if hasattr(node.target, "name")}
        for x in others:
            torch.testing.assert_close(graph(x), model(x), rtol=0, atol=0)


def test_in_place_operators_compile(xpu):
    torch._dynamo.reset()
    (query, key, positions, inverse), _ = samples("rotary_")[0]

    def run(q, k):
        q, k = q + 1, k + 1
        orrery.rotary_(q, k, positions, inverse)
        codes = [torch.zeros(k.shape, dtype=torch.uint8, device=k.device) for _ in range(2)]
        orrery.quantize_key_value(k, k, *codes)
        return q, k, *codes

    compiled = torch.compile(run, backend="aot_eager", fullgraph=True)
    for ours, theirs in zip(compiled(query, key), run(query, key)):
        assert torch.equal(ours, theirs)


def test_wrong_sizes_are_told_while_compiling(model):
    torch._dynamo.reset()
    with torch.no_grad(), pytest.raises(Exception, match="weight must be \\[64\\] for rows of 64 elements"):
        torch.compile(model, backend="aot_eager", fullgraph=True)(torch.randn(2, 3, 64, device="xpu"))


def test_meta_tensors():
    x = torch.empty(4, 100, device="meta")
    weight = torch.empty(272, dtype=torch.uint8, device="meta")
    assert op.linear(x, weight, 2, 3, 100).shape == (4, 3)
    with pytest.raises(ValueError, match="x must be"):
        op.linear(x[:, :5], weight, 2, 3, 100)
