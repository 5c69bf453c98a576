"""Reading of GGUF files: sizes, matrices, and each kind of file that is not served."""

import dataclasses
import re

import pytest
import torch

import runner_files
from orrery import OrreryError, gguf_model
from reference_llama import halves


def test_sizes_and_tensors(tmp_path):
    tensors = runner_files.write_tiny(tmp_path / "tiny.gguf")
    model = gguf_model.read(tmp_path / "tiny.gguf")
    s = model.sizes
    assert (s.layers, s.hidden, s.heads, s.kv_heads, s.head_dim, s.feed_forward) == (2, 128, 2, 1, 64, 192)
    assert (s.vocabulary, s.context, s.rope_base, s.eps) == (260, 64, 10000.0, pytest.approx(1e-5))
    for name, tensor in tensors.items():
        expected = torch.from_numpy(tensor)
        if name.endswith(gguf_model.ROTATED):
            expected = halves(expected, s.heads if "attn_q" in name else s.kv_heads)
        assert torch.equal(model.rows(name).view(tensor.shape), expected), name
    part = model.rows("blk.1.ffn_down.weight", 99, 500)
    assert torch.equal(part, torch.from_numpy(tensors["blk.1.ffn_down.weight"][99:]))


@pytest.mark.parametrize("head_dim", gguf_model.HEAD_SIZES)
def test_rows_of_query_and_key_come_in_two_halves_a_head(tmp_path, head_dim):
    """Any part of them, from the middle of a head to the middle of another."""
    tensors = runner_files.write_tiny(tmp_path / "tiny.gguf", hidden=384)
    model = gguf_model.read(tmp_path / "tiny.gguf")
    name = "blk.1.attn_q.weight"
    whole = torch.from_numpy(tensors[name])[: 3 * head_dim]
    model = dataclasses.replace(model, sizes=dataclasses.replace(model.sizes, head_dim=head_dim))
    expected = halves(whole, len(whole) // head_dim)
    for first, count in ((0, 1), (1, 1), (head_dim - 1, 2), (head_dim // 2, head_dim), (17, 2 * head_dim)):
        assert torch.equal(model.rows(name, first, count), expected[first : first + count]), (first, count)


def test_quantized_tensors_are_read_by_rows():
    model = gguf_model.read(gguf_model.bundled_model())
    from gguf import GGUFReader
    from gguf.quants import dequantize

    reader = GGUFReader(model.path)
    for name in ("token_embd.weight", "blk.7.attn_k.weight"):
        tensor = next(t for t in reader.tensors if t.name == name)
        whole = torch.from_numpy(dequantize(tensor.data[:192], tensor.tensor_type).copy())
        expected = halves(whole, model.sizes.kv_heads) if "attn_k" in name else whole
        assert torch.equal(model.rows(name, 3, 100), expected[3:103])


@pytest.mark.parametrize("content", [b"", b"GG", b"not a model", b"PK\x03\x04" * 100])
def test_foreign_file(tmp_path, content):
    file = tmp_path / "model.gguf"
    file.write_bytes(content)
    with pytest.raises(OrreryError, match=f"^{re.escape(str(file))} is not a GGUF file$"):
        gguf_model.read(file)


def test_missing_file(tmp_path):
    with pytest.raises(OrreryError, match="^cannot read the model file .*none.gguf: No such file or directory$"):
        gguf_model.read(tmp_path / "none.gguf")
    with pytest.raises(OrreryError, match="Is a directory$"):
        gguf_model.read(tmp_path)


@pytest.mark.parametrize("share", [0.0, 0.001, 0.01, 0.1, 0.5, 0.99, 0.9999])
def test_truncated_file(tmp_path, share):
    file = tmp_path / "tiny.gguf"
    runner_files.write_tiny(file)
    content = file.read_bytes()
    file.write_bytes(content[: max(4, int(len(content) * share))])
    with pytest.raises(OrreryError, match="truncated"):
        gguf_model.read(file)


@pytest.mark.parametrize("change, message", [
    ({"architecture": "gpt2"}, "^.* holds a model of architecture 'gpt2', only 'llama' is served$"),
    ({"leave_out": "blk.1.ffn_up.weight"}, "^the model file lacks the tensor blk.1.ffn_up.weight$"),
    ({"leave_out": "token_embd.weight"}, "^the model file lacks the tensor token_embd.weight$"),
    ({"extra": "blk.0.attn_q.bias"}, "^the model file has a tensor that this runner does not use: blk.0.attn_q.bias$"),
    ({"extra": "rope_freqs.weight"}, "^the model scales its rotary frequencies, which is not served$"),
    ({"heads": 4}, "^a head size of 32 is not served, only 64, 96 and 128 are$"),
    ({"pre": "tekken"}, "^the pre-tokenizer 'tekken' is not served, the runner serves 'default', 'llama-bpe', 'qwen2', "
     "'smollm'$"),
])
def test_models_that_are_not_served(tmp_path, change, message):
    runner_files.write_tiny(tmp_path / "tiny.gguf", **change)
    with pytest.raises(OrreryError, match=message):
        gguf_model.read(tmp_path / "tiny.gguf")
