"""Reading of GGUF files: sizes, matrices, and each kind of file that is not supported."""

import dataclasses
import json
import os
import re
import shutil
import struct
import subprocess
import sys

import pytest
import torch

import runner_files
from orrery import OrreryError, gguf_header, gguf_model
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


def test_header_and_rows_are_those_of_another_reader():
    model = gguf_model.read(gguf_model.bundled_model())
    from gguf import GGUFReader
    from gguf.quants import dequantize

    reader = GGUFReader(model.path)
    header = gguf_header.read(model.path)
    entries = {key: field.contents() for key, field in reader.fields.items() if not key.startswith("GGUF.")}
    assert header.entries == entries and len(entries) == 33
    tensors = {t.name: gguf_header.Stored(t.tensor_type, tuple(map(int, t.shape[::-1])), t.data_offset, t.n_bytes)
               for t in reader.tensors}
    assert header.tensors == tensors and len(tensors) == 272
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
    ({"architecture": "gpt2"}, "^.* holds a model of architecture 'gpt2', only 'llama' is supported$"),
    ({"leave_out": "blk.1.ffn_up.weight"}, "^the model file lacks the tensor blk.1.ffn_up.weight$"),
    ({"leave_out": "token_embd.weight"}, "^the model file lacks the tensor token_embd.weight$"),
    ({"extra": "blk.0.attn_q.bias"}, "^the model file has a tensor that this runner does not use: blk.0.attn_q.bias$"),
    ({"extra": "rope_freqs.weight"}, "^the model scales its rotary frequencies, which is not supported$"),
    ({"heads": 4}, "^a head size of 32 is not supported, only 64, 96 and 128 are$"),
    ({"pre": "tekken"}, "^the pre-tokenizer 'tekken' is not supported, the runner supports 'default', 'llama-bpe', "
     "'qwen2', 'smollm'$"),
])
def test_models_that_are_not_supported(tmp_path, change, message):
    runner_files.write_tiny(tmp_path / "tiny.gguf", **change)
    with pytest.raises(OrreryError, match=message):
        gguf_model.read(tmp_path / "tiny.gguf")


def put(file, key, value, behind=4):
    """Writes bytes behind a key, over its value; behind a tensor's name they are its sizes, type and offset."""
    data = bytearray(file.read_bytes())
    at = data.index(len(key).to_bytes(8, "little") + key.encode()) + 8 + len(key) + behind
    data[at : at + len(value)] = value
    file.write_bytes(data)


def whole(number, size=4):
    return number.to_bytes(size, "little")


BAD = "FILE is truncated or not a valid GGUF file: "
# Key, bytes behind its type, the sentence.
DAMAGES = [
    ("llama.block_count", whole(2**32 - 1), 4,
     "the model file's llama.block_count is 4294967295, a whole number from 1 to 2147483647 was expected"),
    ("llama.block_count", whole(2**31 - 1), 4,
     "the model file says that there are 2147483647 layers, but has 20 tensors"),
    ("llama.block_count", whole(3), 4, "the model file lacks the tensor blk.2.attn_norm.weight"),
    ("llama.block_count", whole(0), 4,
     "the model file's llama.block_count is 0, a whole number from 1 to 2147483647 was expected"),
    ("llama.block_count", whole(6) + struct.pack("<f", 2.0), 0,
     "the model file's llama.block_count is 2.0, a whole number from 1 to 2147483647 was expected"),
    ("llama.attention.head_count", whole(0), 4,
     "the model file's llama.attention.head_count is 0, a whole number from 1 to 2147483647 was expected"),
    ("llama.attention.head_count_kv", whole(2**31 - 1), 4,
     "2 query heads do not divide among 2147483647 key/value heads"),
    ("llama.embedding_length", whole(2**31 - 1), 4,
     "a head size of 1073741823 is not supported, only 64, 96 and 128 are"),
    ("llama.rope.freq_base", struct.pack("<f", float("nan")), 4,
     "the model file's llama.rope.freq_base is nan, a number above 0 was expected"),
    ("llama.rope.freq_base", whole(99), 0, BAD + "a value in its header is of the unknown type 99"),
    ("llama.rope.freq_base", whole(9), 0, BAD + "a value in its header is of the unknown type 1176256512"),
    # An array of texts: its length stands behind the types of the value and of its elements.
    ("tokenizer.ggml.tokens", whole(2**62, 8), 8, BAD + "its header says that 4611686018427387904 texts follow"),
    ("tokenizer.ggml.tokens", whole(2**40, 8), 16, BAD + "it ends within its header"),
    ("tokenizer.ggml.token_type", whole(2**62, 8), 8, BAD + "its header says that 4611686018427387904 numbers follow"),
    ("tokenizer.ggml.tokens", whole(9), 4, BAD + "a value in its header is of the unknown type 9"),
    ("tokenizer.ggml.model", b"\xff\xfe", 12, BAD + "a text in its header is not UTF-8"),
    ("output_norm.weight", whole(2**32 - 1), 0, BAD + "the tensor 'output_norm.weight' has 4294967295 dimensions"),
    ("output_norm.weight", whole(2**62, 8), 4, BAD + "the tensor 'output_norm.weight' reaches over its end"),
    ("output_norm.weight", whole(0, 8), 4, "the tensor output_norm.weight has shape (0,), (128,) was expected"),
    ("output_norm.weight", whole(1234), 12, BAD + "the tensor 'output_norm.weight' is of the unknown type 1234"),
    ("output_norm.weight", whole(24), 12, "the model file has tensors in the type I8, which is not supported"),
    ("output_norm.weight", whole(12), 12,
     BAD + "the tensor 'output_norm.weight' has rows of 128 elements, which blocks of 256 do not divide"),
    ("output_norm.weight", whole(2**64 - 32, 8), 16, BAD + "the tensor 'output_norm.weight' reaches over its end"),
]
READ = """
import json, sys
from pathlib import Path
from orrery import OrreryError, gguf_model
for file in sys.argv[1:]:
    try:
        gguf_model.read(Path(file))
        print(json.dumps(None))
    except OrreryError as error:
        print(json.dumps(str(error)))
"""


@pytest.fixture(scope="module")
def damaged(tmp_path_factory):
    """What reading each of the damaged files says, from one process: what it read today it would wait for, or fill the
    memory with, tomorrow."""
    folder = tmp_path_factory.mktemp("damaged")
    tiny = folder / "tiny.gguf"
    runner_files.write_tiny(tiny)
    files = []
    for number, (key, value, behind, _) in enumerate(DAMAGES):
        files.append(folder / f"{number}.gguf")
        shutil.copy(tiny, files[-1])
        put(files[-1], key, value, behind)
    os.mkfifo(folder / "pipe")
    files += [folder / "pipe", "/dev/zero", "/dev/full"]
    done = subprocess.run([sys.executable, "-c", READ, *map(str, files)], text=True, capture_output=True, timeout=120)
    assert done.returncode == 0, done.stderr
    return [(str(file), json.loads(line)) for file, line in zip(files, done.stdout.splitlines(), strict=True)]


@pytest.mark.parametrize("number", range(len(DAMAGES)), ids=lambda i: f"{DAMAGES[i][0]}-{i}")
def test_damaged_header(damaged, number):
    file, said = damaged[number]
    assert said == DAMAGES[number][3].replace("FILE", file)


def test_a_pipe_or_a_device_is_no_model(damaged):
    for file, said in damaged[len(DAMAGES) :]:
        assert said == f"the model file {file} is not a regular file"


@pytest.mark.parametrize("at, value, message", [
    (4, whole(1), "its version is 1, not 2 or 3"),
    (4, whole(3)[::-1], "its version is 50331648, not 2 or 3"),
    (8, whole(2**64 - 1, 8), "its header says that 18446744073709551615 tensors follow"),
    (16, whole(2**60, 8), "its header says that 1152921504606846976 entries follow"),
])
def test_damaged_counts(tmp_path, at, value, message):
    file = tmp_path / "tiny.gguf"
    runner_files.write_tiny(file)
    data = bytearray(file.read_bytes())
    data[at : at + len(value)] = value
    file.write_bytes(data)
    with pytest.raises(OrreryError) as caught:
        gguf_model.read(file)
    assert str(caught.value) == f"{file} is truncated or not a valid GGUF file: {message}"


def test_limits_of_a_header(tmp_path, monkeypatch):
    """A damaged length in a file of gigabytes is not read to its end."""
    file = tmp_path / "tiny.gguf"
    runner_files.write_tiny(file)
    monkeypatch.setattr(gguf_header, "MOST_BYTES", 400)
    with pytest.raises(OrreryError, match="valid GGUF file: its header is too long$"):
        gguf_model.read(file)
    monkeypatch.setattr(gguf_header, "MOST_BYTES", 1 << 26)
    monkeypatch.setattr(gguf_header, "MOST_ELEMENTS", 100)
    with pytest.raises(OrreryError, match="valid GGUF file: its header says that 260 texts follow$"):
        gguf_model.read(file)
