"""Keys and values in one byte per element: their bytes, what a model says with them, and what they take."""

import collections
import math
import re
import subprocess
import sys

import numpy as np
import pytest
import torch

import orrery_host
import runner_files
from orrery import OrreryError, cache_survey, cli, formats, gguf_model, kv_cache, prepare
from orrery import model as model_module
from orrery.formats import FORMATS
from orrery.model import Model
from reference_llama import ReferenceLlama, byte_code, byte_value, one_byte_cache
from sanitizers import SANITIZED
from test_runner_model import dequantized, passed, split, stepped

KEY, VALUE = 48, 24
TYPES = (torch.float32, torch.float16, torch.bfloat16)
TOKENS = [(37 * i + 11) % 256 for i in range(60)]


@pytest.fixture(scope="module")
def tiny_file(tmp_path_factory):
    file = tmp_path_factory.mktemp("tiny") / "tiny.gguf"
    runner_files.write_tiny(file, hidden=256, feed_forward=512, context=8192)
    return file


def tiny(file, name="q8_0", dtype=torch.float32, cache="byte", capacity=64):
    return Model(prepare.load(file, FORMATS[name], cache=False), dtype, capacity, cache)


def test_reference_code_is_that_of_the_definition():
    """A zero, both limits and what lies beyond them, a middle, and the edges of a cell."""
    x = torch.tensor([0.0, -0.0, 1e-4, 124.0, -1e9, math.inf, 1.0625, 1.0, 1.124, -1.125])
    assert byte_code(x, KEY).tolist() == [0, 128, 0, 127, 255, 127, 72, 72, 72, 201]
    assert byte_value(byte_code(x, KEY), KEY).tolist() == [
        0.0020751953125, -0.0020751953125, 0.0020751953125, 124.0, -124.0, 124.0, 1.0625, 1.0625, 1.0625, -1.1875]
    assert byte_value(np.array([0, 255], np.uint8), VALUE).tolist() == [0.0002593994140625, -15.5]


# q4_0 takes the fused projections in its steps, nf4 the single ones.
@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", ["q4_0", "nf4"])
@pytest.mark.parametrize("parts", [[60], [1] * 60, [17, 1, 42]])
def test_bytes_are_those_of_the_plain_keys_and_values(tiny_file, name, dtype, parts):
    """Those of the first layer, which no attention comes before; the second one's differ where a code hangs on a hair."""
    models = [tiny(tiny_file, name, dtype, cache) for cache in ("plain", "byte")]
    for model in models:
        model.cache.data.fill_(77 if model.cache.data.dtype == torch.uint8 else math.nan)
        for part in split(TOKENS, parts):
            model.step(part[0]) if len(part) == 1 else model.forward(part)
    plain, coded = (model.cache.data.cpu() for model in models)
    for index, offset in (0, KEY), (1, VALUE):
        expected = byte_code(plain[index].float(), offset)
        assert np.array_equal(coded[index, :, :, :60].numpy(), expected[:, :, :60])
    assert coded[:, :, :, 60:].eq(77).all()


# The spread of the tiny model's logits is 1.6. Where the byte of an element is another one than the reference's, since it
# lies at the edge of a cell, the element is an eighth off. Half carries 11 bits through every product and sum, bfloat16 8.
BOUNDS = {torch.float32: 4e-3, torch.float16: 0.03, torch.bfloat16: 0.25}


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", ["q4_0", "nf4", "q8_0"])
def test_logits_are_those_of_a_model_that_sees_the_bytes(tiny_file, name, dtype):
    made = prepare.load(tiny_file, FORMATS[name], cache=False)
    reference = ReferenceLlama(made.sizes)
    reference.load(dequantized(made).__getitem__)
    expected, plain = reference.logits(TOKENS, one_byte_cache()), reference.logits(TOKENS)
    model = Model(made, dtype, 64, "byte")
    for parts in ([60], [1] * 60, [20, 40], [1, 33, 26]):
        model.rewind(0)
        rows = [stepped(model, part) if len(part) == 1 else passed(model, part) for part in split(TOKENS, parts)]
        distance = (torch.cat(rows) - expected).abs().mean()
        print(name, dtype, parts, distance, (expected - plain).abs().mean())
        assert distance < BOUNDS[dtype], parts
    if dtype == torch.float32:
        assert (expected - plain).abs().mean() > 3 * BOUNDS[dtype]


@pytest.mark.parametrize("cache", kv_cache.KINDS)
@pytest.mark.parametrize("name", ["q4_0", "nf4"])
def test_kernels_that_are_launched(tiny_file, name, cache):
    model = tiny(tiny_file, name, cache=cache)

    def kernels(run):
        with orrery_host.record_launches() as launches:
            run()
        return collections.Counter(launch.kernel for launch in launches)

    layers, coded = runner_files.LAYERS, cache == "byte"
    causal, over_keys = ("sdp_fp8_causal_kernel", "sdp_fp8_kernel") if coded else ("sdp_causal_kernel", "sdp_kernel")
    for run, attention, count in [
        (lambda: model.forward(TOKENS[:20]), causal, 1),
        (lambda: model.forward(TOKENS[:35]), over_keys, 2),  # Two blocks of rows behind the first tokens.
        (lambda: model.step(7), over_keys, 1),
    ]:
        found = kernels(run)
        assert {kernel: n for kernel, n in found.items() if "sdp" in kernel} == {attention: count * layers}
        assert found["quantize_key_value_kernel"] == layers * coded


def test_size():
    """At the bundled model's sizes a quarter of float32 and half of float16."""
    sizes = gguf_model.read(gguf_model.bundled_model()).sizes
    device = torch.device("xpu")

    def size(kind, dtype):
        before = torch.xpu.memory_allocated()
        cache = kv_cache.KINDS[kind](sizes, 2048, dtype, device)
        taken = torch.xpu.memory_allocated() - before
        # A block of memory is rounded up; the byte cache has a row besides.
        assert cache.data.nbytes <= taken < cache.data.nbytes * 1.001 + 65536
        return cache.data.nbytes

    elements = 2 * sizes.layers * sizes.kv_heads * sizes.head_dim * 2048
    assert size("byte", torch.float32) == elements == 2048 * 23040
    assert size("plain", torch.float32) == 4 * elements
    assert size("plain", torch.float16) == 2 * elements


@pytest.mark.parametrize("cache", kv_cache.KINDS)
def test_the_whole_context_in_one_prompt(tiny_file, cache):
    model = tiny(tiny_file, cache=cache, capacity=8192)
    tokens = [(31 * i * i + 7 * i) % 256 for i in range(8192)]
    last = model.forward(tokens).cpu()
    assert model.position == 8192 and last.isfinite().all()
    with pytest.raises(OrreryError, match="^the context of 8192 tokens is full$"):
        model.step(7)
    model.rewind(8191)
    # The last place, by a step: the dense weights of a prompt are rounded to half.
    assert (model.step(tokens[-1]).cpu() - last).abs().mean() < 4e-3
    # Other ways to the same place.
    model.rewind(8000)
    assert (model.forward(tokens[8000:]).cpu() - last).abs().mean() < 4e-3
