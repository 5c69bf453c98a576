"""Preparing a model: the cache file, the file's own blocks, formats for rows that a block does not divide."""

import pytest
import torch

import runner_files
from orrery import formats, gguf_model, prepare
from orrery.formats import FORMATS
from orrery.model import Model

LARGE = [name for name, fmt in FORMATS.items() if fmt.elements == 256]


@pytest.mark.parametrize("untied", [False, True])
@pytest.mark.parametrize("name", FORMATS)
def test_cache_keeps_the_model(tmp_path, monkeypatch, name, untied):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    runner_files.write_tiny(tmp_path / "tiny.gguf", untied=untied)
    made = prepare.load(tmp_path / "tiny.gguf", FORMATS[name])
    cached = prepare.load(tmp_path / "tiny.gguf", FORMATS[name])
    assert ("output" in made.tensors) == untied
    assert (cached.sizes, cached.vocabulary, cached.format, cached.formats) == (
        made.sizes, made.vocabulary, made.format, made.formats)
    assert all(torch.equal(cached.tensors[n].cpu(), t.cpu()) for n, t in made.tensors.items())
    # An odd number of 64-element blocks a row in one product, an even one in the other.
    assert (made.sizes.feed_forward // 64 % 2, made.sizes.hidden // 64 % 2) == (1, 0)
    first, second = (Model(p, torch.float32, 4) for p in (made, cached))
    assert torch.equal(first.forward([5, 99, 5, 200]).cpu(), second.forward([5, 99, 5, 200]).cpu())


def test_broken_cache_is_made_again(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    fmt = FORMATS["q4_1"]
    made = prepare.load(tmp_path / "tiny.gguf", fmt)
    file = prepare.cache_file(tmp_path / "tiny.gguf", fmt)
    whole = file.read_bytes()
    for broken in (b"", b"ORRERY02", b"ORRERY03", whole[:100], whole[:-1], b"\0" * len(whole)):
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


@pytest.mark.parametrize("name", LARGE)
def test_blocks_of_the_file_are_taken_as_they_are(tmp_path, monkeypatch, name):
    """Query and key lie in the format, value in another: the joined matrix has the bytes of two and our codes of one."""
    file, other = tmp_path / "tiny.gguf", "q6_k" if name != "q6_k" else "q4_k"
    tensors = runner_files.write_tiny(file, hidden=256, feed_forward=512, stored={
        "attn_q.weight": name, "attn_k.weight": name, "attn_v.weight": other, "ffn_down.weight": name})
    fmt, model, quantized = FORMATS[name], gguf_model.read(file), []
    quantize_rows = formats.quantize_rows

    def counted(fmt, matrix, *rest):
        quantized.append(matrix.numel())
        quantize_rows(fmt, matrix, *rest)

    monkeypatch.setattr(formats, "quantize_rows", counted)
    made = prepare.load(file, fmt, cache=False)
    assert sum(quantized) == made.weights - 2 * (256 + 64 + 512) * 256

    def raw(tensor):
        return torch.from_numpy(model.raw_rows(tensor)).view(-1)

    assert torch.equal(made.tensors["1.down"].cpu(), raw("blk.1.ffn_down.weight"))
    value = formats.quantize(fmt, torch.from_numpy(tensors["blk.1.attn_v.weight"]))
    joined = torch.cat((raw("blk.1.attn_q.weight"), raw("blk.1.attn_k.weight"), value))
    assert torch.equal(made.tensors["1.qkv"].cpu(), joined)


@pytest.mark.parametrize("name", LARGE)
def test_substitute_for_rows_that_blocks_do_not_divide(tmp_path, name):
    runner_files.write_tiny(tmp_path / "tiny.gguf", feed_forward=256)
    fmt = FORMATS[name]
    made = prepare.load(tmp_path / "tiny.gguf", fmt, cache=False)
    assert {n for n, f in made.formats.items() if f is fmt} == {"0.down", "1.down"}
    assert {f.name for n, f in made.formats.items() if "down" not in n} == {fmt.substitute}
    assert made.remark == (f"7 of 9 matrices have rows that blocks of 256 do not divide and are stored as "
                           f"{fmt.substitute} instead of {name}")
    rows = sum(t.numel() for n, t in made.tensors.items() if "down" in n and n in made.formats)
    assert rows == 2 * fmt.size(128, 256)
    assert made.weights == sum(a * b for a, b in (
        (260, 128), (2 * 256, 128), (2 * 128, 128), (2 * 512, 128), (2 * 128, 256)))


def test_no_remark_where_all_rows_fit(tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    assert prepare.load(tmp_path / "tiny.gguf", FORMATS["nf3"], cache=False).remark == ""
