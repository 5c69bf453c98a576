"""Keys and values in one byte per element: their bytes, what a model says with them, and what they take."""

import collections
import math
import re

import numpy as np
import pytest
import torch

import orrery_host
import orrery_ops
import runner_files
from orrery import OrreryError, cache_survey, cli, formats, gguf_model, kv_cache, prepare
from orrery.formats import FORMATS
from orrery.model import Model
from reference_llama import ReferenceLlama, byte_code, byte_value, one_byte_cache
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
    """In the first layer, which no attention comes before. The second one's differ where a code hangs on a hair."""
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


def bound(name, dtype, parts):
    """Largest mean distance of a tiny model's logits from a reference that sees the bytes; their spread is about 1.6.

    An element at the edge of a cell may get another byte than the reference's and is an eighth off then. With float32
    that takes more than another order of additions: dense weights that are rounded to half, as those of q4_0 and q8_0,
    or `sdp_fp8`, which multiplies query and key in half. Half carries 11 bits through every product and sum, bfloat16 8.
    """
    if dtype == torch.float32:
        return 0.03 if name != "nf4" else 2e-5 if len(parts) == 1 else 0.012
    return {torch.float16: 0.045, torch.bfloat16: 0.15}[dtype]


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
        assert distance < bound(name, dtype, parts), parts
    # So the bytes are seen: without them the reference is that far away.
    assert (expected - plain).abs().mean() > 0.1


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
    assert size("byte", torch.float32) == elements == 2048 * 11520
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
    # Other ways to the last place: a step, and rows behind others. The dense weights of a prompt are rounded to half, and
    # so is the query of a step over bytes.
    bound = {"plain": 4e-3, "byte": 0.02}[cache]
    model.rewind(8191)
    assert (model.step(tokens[-1]).cpu() - last).abs().mean() < bound
    model.rewind(8000)
    assert (model.forward(tokens[8000:]).cpu() - last).abs().mean() < bound


@pytest.mark.parametrize("kind", kv_cache.KINDS)
def test_steps_from_any_place(tiny_file, kind, monkeypatch):
    """Places that a step leaves for the next one serve no other: one after a rewind, a prompt, or an interruption."""
    made = prepare.load(tiny_file, FORMATS["q4_0"], cache=False)
    steady, model = (Model(made, torch.float32, 64, kind) for _ in range(2))

    def interrupt(*_):
        raise KeyboardInterrupt

    def interrupted_step():
        """In the first layer, whose row has been written."""
        with monkeypatch.context() as patch, pytest.raises(KeyboardInterrupt):
            patch.setattr(orrery_ops, "mlp_forward_xpu", interrupt)
            model.step(250)

    expected = [stepped(steady, TOKENS[:10]), steady.forward(TOKENS[10:11]), stepped(steady, TOKENS[11:20])]
    first = stepped(model, TOKENS[:3] + [250] * 4)[:3]
    model.rewind(3)
    found = [torch.cat([first, stepped(model, TOKENS[3:8])])]
    interrupted_step()
    assert model.position == 8
    found[0] = torch.cat([found[0], stepped(model, TOKENS[8:10])])
    interrupted_step()
    found += [model.forward(TOKENS[10:11]), stepped(model, TOKENS[11:20])]
    assert all(map(torch.equal, found, expected))


def test_keys_are_rotated_into_the_cache(tiny_file):
    """Those of float32 without a copy of them, those of other types from a place of their own."""
    data = torch.zeros(1, 8, 1, 64, device="xpu").transpose(1, 2)  # one head of 8 rows
    for kind, dtype, direct in (("plain", torch.float32, True), ("plain", torch.float16, False),
                                ("byte", torch.float32, False), ("plain", torch.bfloat16, True)):
        cache = tiny(tiny_file, dtype=dtype, cache=kind).cache
        place = cache.room_for(1, 5, data)
        assert place.shape == data.shape
        assert (place.data_ptr() == cache.rows(1, 5, 8)[0].data_ptr()) == direct
        assert (place.data_ptr() == data.data_ptr()) == (not direct)


def test_what_the_code_clamps():
    sizes = gguf_model.Sizes(layers=2, hidden=64, heads=1, kv_heads=1, head_dim=64, feed_forward=64, vocabulary=3,
                             context=9, rope_base=1e4, eps=1e-5)
    cache = kv_cache.PlainCache(sizes, 5, torch.float32, torch.device("xpu"))
    cache.data.fill_(1.0)
    cache.data[:, :, :, 3:] = 1e9  # Behind the rows that count.
    keys, values = cache.data[::2], cache.data[1::2]
    keys[1, 0, 0, 2, :3] = torch.tensor([124.0, -124.1, 0.0020751953125], device="xpu")
    keys[0, 0, 0, 0, :2] = torch.tensor([0.002, -0.0], device="xpu")
    values[0, 0, 0, 1, :4] = torch.tensor([-16.0, 15.6, 124.0, 0.0003], device="xpu")
    of_keys, of_values = cache_survey.clamped_by_bytes(cache, 3)
    assert (of_keys.elements, of_keys.above, of_keys.below) == (2 * 3 * 64, 1, 2)
    assert (of_values.elements, of_values.above, of_values.below) == (2 * 3 * 64, 3, 0)
    assert str(of_keys) == ("keys: of 384 elements 1 (0.260%) are above 124 and 2 (0.521%) below 0.002075")
    assert str(of_values) == ("values: of 384 elements 3 (0.781%) are above 15.5 and 0 (0.000%) below 0.000259")


def test_command_that_compares_both(tiny_file, capsys):
    assert cli.main(["compare-caches", "--model", str(tiny_file), "--tokens", "100", "--window", "60", "--no-cache",
                     "--format", "q8_0"]) == 0
    header, *rows, keys, values = capsys.readouterr().out.splitlines()
    assert header.split() == ["cache", "tokens", "bytes/token", "MB", "perplexity", "tokens/s"]
    (plain, *of_plain), (coded, *of_bytes) = (row.split() for row in rows)
    assert (plain, coded) == ("plain", "byte") == tuple(kv_cache.KINDS)
    # Two layers of one head of 64 keys and values.
    assert of_plain[:2] == ["60", "1024"] and of_bytes[:2] == ["60", "256"]
    assert float(of_bytes[3]) == pytest.approx(float(of_plain[3]), rel=0.05) and of_bytes[3] != of_plain[3]
    assert float(of_plain[4]) > 0 and float(of_bytes[4]) > 0
    # The last window of 100 tokens in windows of 60 puts 39 rows into the cache.
    assert re.fullmatch(r"keys: of 4992 elements \d+ \([\d.]+%\) are above 124 and \d+ \([\d.]+%\) below 0.002075", keys)
    assert re.fullmatch(r"values: of 4992 elements .* above 15.5 and .* below 0.000259", values)
    assert tuple(cli.CACHES) == tuple(kv_cache.KINDS)


def test_formats_over_a_byte_cache(tiny_file, tmp_path):
    from orrery import survey

    found = []
    for kind in kv_cache.KINDS:
        result, = survey.measure(tiny_file, [FORMATS["q8_0"]], cli.bundled_text(), window=40, limit=80, answer=2,
                                 cache=False, kv_cache=kind)
        found.append(result.perplexity)
    assert found[1] == pytest.approx(found[0], rel=0.05) and found[1] != found[0]
