"""The real model on the operators against an independent float32 Llama with the same dequantized matrices."""

from pathlib import Path

import pytest
import torch

import runner_files
from orrery import OrreryError, formats, gguf_model, prepare
from orrery.formats import FORMATS
from orrery.generate import Sampling, generate, perplexity
from orrery.model import Model
from orrery.tokenizer import ChatTokenizer
from reference_llama import ReferenceLlama

NOVEL = (Path(__file__).parent / "data" / "pride_and_prejudice.txt").read_text()
PROMPTS = ("The capital of France is", "def fibonacci(n):\n    ", "Once upon a time there was a miller who had 3 sons.")
TOKENS = 64


@pytest.fixture(scope="module")
def source():
    return gguf_model.read(gguf_model.bundled_model())


@pytest.fixture(scope="module")
def tokenizer(source):
    return ChatTokenizer(source.vocabulary)


@pytest.fixture(scope="module")
def reference(source):
    return ReferenceLlama(source.sizes)


@pytest.fixture(scope="module", params=FORMATS)
def prepared(request, tmp_path_factory):
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("XDG_CACHE_HOME", str(tmp_path_factory.mktemp("cache")))
        return prepare.load(gguf_model.bundled_model(), FORMATS[request.param])


@pytest.fixture(scope="module")
def q8_0():
    return prepare.load(gguf_model.bundled_model(), FORMATS["q8_0"], cache=False)


def dequantized(prepared):
    """The file's matrices by name, as the quantized model holds them."""
    s = prepared.sizes
    tied = "output" not in prepared.tensors
    shapes = gguf_model.expected_shapes(s)
    result = {theirs: prepared.tensors[ours].cpu() for ours, theirs in prepare.norms(s).items()}
    for ours, parts in prepare.matrices(s, tied).items():
        whole = formats.dequantize(prepared.format, prepared.tensors[ours].cpu(), shapes[parts[0]][1])
        result |= dict(zip(parts, whole.split([shapes[part][0] for part in parts])))
    return result


def all_logits(model, tokens):
    model.rewind(0)
    return torch.cat([model.step(token).float().cpu() for token in tokens])


def test_logits_and_greedy_tokens(prepared, tokenizer, reference):
    reference.load(dequantized(prepared).__getitem__)
    clear = 0
    for text in PROMPTS:
        prompt = tokenizer.encode(text)
        model = Model(prepared, torch.float32, len(prompt) + TOKENS)
        answer = list(generate(model, prompt, TOKENS, frozenset(), Sampling()))
        assert len(answer) == TOKENS
        tokens = prompt + answer
        expected = reference.logits(tokens[:-1])
        difference = (all_logits(model, tokens[:-1]) - expected).abs()
        assert difference.mean() < 1e-2
        # Where the two best logits lie closer than the largest difference at that place, either token is right.
        best, second = expected.topk(2).values[len(prompt) - 1 :].unbind(1)
        sure = best - second > difference.amax(1)[len(prompt) - 1 :]
        agree = expected.argmax(1)[len(prompt) - 1 :] == torch.tensor(answer)
        assert agree[sure].all()
        clear += int(sure.sum())
    # The comparison says something only if few places are open.
    assert clear > 0.95 * TOKENS * len(PROMPTS)


def test_q8_0_perplexity(q8_0, source, tokenizer, reference):
    tokens = tokenizer.encode(NOVEL)
    reference.load(lambda name: source.rows(name).reshape(source.stored[name].shape))
    expected = reference.perplexity(tokens, 512)
    assert perplexity(Model(q8_0, torch.float32, 512), tokens) == pytest.approx(expected, rel=0.005)


# Both types carry fewer digits than float32 through sums of 576 and 1536 products and 30 layers: half 11 bits, bfloat16
# 8. The logits' spread is about 3.
@pytest.mark.parametrize("dtype, bound", [(torch.float16, 0.15), (torch.bfloat16, 1.0)])
def test_narrow_types_stay_close(q8_0, tokenizer, dtype, bound):
    tokens = tokenizer.encode(NOVEL)[:48]
    exact = all_logits(Model(q8_0, torch.float32, 48), tokens)
    narrow = all_logits(Model(q8_0, dtype, 48), tokens)
    assert narrow.isfinite().all()
    assert (narrow - exact).abs().mean() < bound


def test_rewind_gives_the_same_bits(q8_0, tokenizer):
    tokens = tokenizer.encode(NOVEL)[:12]
    model = Model(q8_0, torch.float32, 12)
    first = all_logits(model, tokens)
    model.rewind(5)
    again = torch.cat([model.step(token).cpu() for token in tokens[5:]])
    assert torch.equal(first[5:], again)


def test_threads_do_not_change_a_bit(q8_0, tokenizer):
    tokens = tokenizer.encode(NOVEL)[:6]
    threads = torch.get_num_threads()
    results = []
    try:
        for count in (1, 2, 3):
            torch.set_num_threads(count)
            results.append(all_logits(Model(q8_0, torch.float32, 6), tokens))
    finally:
        torch.set_num_threads(threads)
    assert torch.equal(results[0], results[1]) and torch.equal(results[0], results[2])


def test_full_context(q8_0):
    model = Model(q8_0, torch.float32, 2)
    model.step(5, logits=False)
    model.step(6, logits=False)
    with pytest.raises(OrreryError, match="^the context of 2 tokens is full$"):
        model.step(7)
    with pytest.raises(OrreryError, match="^8193 tokens do not fit into the model's context of 8192$"):
        Model(q8_0, torch.float32, 8193)


@pytest.mark.parametrize("untied", [False, True])
@pytest.mark.parametrize("name", FORMATS)
def test_tiny_model_with_its_own_output_matrix(tmp_path, monkeypatch, name, untied):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    runner_files.write_tiny(tmp_path / "tiny.gguf", untied=untied)
    made = prepare.load(tmp_path / "tiny.gguf", FORMATS[name])
    cached = prepare.load(tmp_path / "tiny.gguf", FORMATS[name])
    assert ("output" in made.tensors) == untied
    tokens = [5, 99, 5, 200]
    assert torch.equal(all_logits(Model(made, torch.float32, 4), tokens), all_logits(Model(cached, torch.float32, 4), tokens))
    assert (cached.sizes, cached.vocabulary, cached.format) == (made.sizes, made.vocabulary, made.format)
    # An odd number of 64-element blocks a row in one product, an even one in the other.
    assert (made.sizes.feed_forward // 64 % 2, made.sizes.hidden // 64 % 2) == (1, 0)


def test_broken_cache_is_made_again(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    fmt = FORMATS["q4_1"]
    made = prepare.load(tmp_path / "tiny.gguf", fmt)
    file = prepare.cache_file(tmp_path / "tiny.gguf", fmt)
    whole = file.read_bytes()
    for broken in (b"", b"ORRERY01", whole[:100], whole[:-1], b"\0" * len(whole)):
        file.write_bytes(broken)
        again = prepare.load(tmp_path / "tiny.gguf", fmt)
        assert all(torch.equal(again.tensors[name].cpu(), made.tensors[name].cpu()) for name in made.tensors)
        assert file.read_bytes() == whole
    assert list(file.parent.iterdir()) == [file]


def test_cache_that_cannot_be_written(tmp_path, monkeypatch):
    (tmp_path / "file").write_text("")
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path / "file"))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    assert prepare.load(tmp_path / "tiny.gguf", FORMATS["q8_0"]).quantized_bytes > 0
