"""Preparing a model: the cache file, the file's own blocks, formats for rows that a block does not divide."""

import math
import os
import re
import struct
import time
import warnings

import pytest
import torch

import runner_files
from orrery import cli, formats, gguf_header, gguf_model, prepare
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


def damages(whole):
    """What may become of a cache file: by name, its bytes."""
    header = 20 + int.from_bytes(whole[8:16], "little")

    def flipped(at, count=8):
        return whole[:at] + bytes(byte ^ 0x55 for byte in whole[at : at + count]) + whole[at + count :]

    return {
        "empty": b"", "an older version": b"ORRERY03" + whole[8:], "magic alone": whole[:8], "cut header": whole[:100],
        "cut by a byte": whole[:-1], "a byte more": whole + b"x", "zeros": b"\0" * len(whole),
        "huge header": flipped(15, 1), "length of the header": flipped(8, 1), "checksum": flipped(16, 1),
        "sizes": flipped(whole.index(b'"hidden"') + 10, 1), "vocabulary": flipped(header // 2),
        "first tensor": flipped(header), "middle": flipped((header + len(whole)) // 2),
        "last byte": flipped(len(whole) - 1, 1),
    }


def test_damaged_cache_is_made_anew(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    fmt = FORMATS["q4_1"]
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        made = prepare.load(tmp_path / "tiny.gguf", fmt)
    file = prepare.cache_file(tmp_path / "tiny.gguf", fmt)
    whole = file.read_bytes()
    for name, broken in damages(whole).items():
        assert broken != whole
        file.write_bytes(broken)
        with pytest.warns(RuntimeWarning) as caught:
            again = prepare.load(tmp_path / "tiny.gguf", fmt)
        assert [str(w.message) for w in caught] == [f"the prepared model {file} is damaged and is made anew"], name
        assert all(torch.equal(again.tensors[name].cpu(), made.tensors[name].cpu()) for name in made.tensors), name
        assert file.read_bytes() == whole, name
    assert list(file.parent.iterdir()) == [file]


def test_a_cache_that_cannot_be_read_is_as_none(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    prepare.cache_file(tmp_path / "tiny.gguf", FORMATS["q4_1"]).mkdir(parents=True)
    assert prepare.load(tmp_path / "tiny.gguf", FORMATS["q4_1"]).quantized_bytes > 0


def spoil(file, name, values):
    """Writes floats over the first ones of a tensor."""
    data = bytearray(file.read_bytes())
    offset = gguf_header.read(file).tensors[name].offset
    struct.pack_into(f"<{len(values)}f", data, offset, *values)
    file.write_bytes(data)


NAN, INF = math.nan, math.inf


@pytest.mark.parametrize("name", FORMATS)
def test_weights_that_are_no_numbers_are_counted_and_taken_as_0(tmp_path, monkeypatch, name):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    file, largest = tmp_path / "tiny.gguf", 256.0 if name == "fp6" else 32768.0
    runner_files.write_tiny(file, hidden=256, feed_forward=256)
    for tensor, values in (("token_embd.weight", [NAN, 1.0, INF, -INF, largest]), ("blk.1.attn_norm.weight", [NAN]),
                           ("blk.0.ffn_up.weight", [1e38, -32800.0]), ("blk.1.attn_v.weight", [-NAN] * 256)):
        spoil(file, tensor, values)
    text = f"262 weights of {file} are NaN, infinite or above {largest:.0f} in magnitude and are taken as 0"
    for _ in range(2):  # The second time from the cache.
        with pytest.warns(RuntimeWarning) as caught:
            made = prepare.load(file, FORMATS[name])
        assert [str(w.message) for w in caught] == [text] and made.unusable == 262
    assert made.tensors["1.attention_norm"][0].item() == 0
    spoil(file, "token_embd.weight", [0.0, 1.0, 0.0, 0.0, largest])
    spoil(file, "blk.1.attn_norm.weight", [0.0])
    spoil(file, "blk.0.ffn_up.weight", [0.0, 0.0])
    spoil(file, "blk.1.attn_v.weight", [0.0] * 256)
    clean = prepare.load(file, FORMATS[name], cache=False)
    assert clean.unusable == 0
    assert all(torch.equal(tensor.cpu(), clean.tensors[key].cpu()) for key, tensor in made.tensors.items())
    assert Model(made, torch.float32, 4).forward([5, 99]).isfinite().all()


@pytest.mark.parametrize("name", LARGE)
def test_blocks_of_the_file_whose_scale_is_no_number(tmp_path, name):
    """Their weights are taken as 0."""
    file, fmt = tmp_path / "tiny.gguf", FORMATS[name]
    runner_files.write_tiny(file, hidden=256, feed_forward=512, stored={"blk.1.ffn_down.weight": name})
    stored = gguf_header.read(file).tensors["blk.1.ffn_down.weight"]
    for at in prepare.SCALES[name]:
        for bits in (0x7C00, 0xFC01):
            data = bytearray(file.read_bytes())
            struct.pack_into("<H", data, stored.offset + 3 * fmt.block_bytes + at, bits)
            (tmp_path / "bad.gguf").write_bytes(data)
            count, model = prepare.Count(), gguf_model.read(tmp_path / "bad.gguf")
            data = prepare.quantized_rows(model, ["blk.1.ffn_down.weight"], fmt, lambda done: None, count)
            # A minimum that is no number does not touch the sub-blocks that have none.
            assert 0 < count.unusable <= 256
            assert formats.dequantize(fmt, data, 512).isfinite().all()
    count = prepare.Count()
    data = prepare.quantized_rows(gguf_model.read(file), ["blk.1.ffn_down.weight"], fmt, lambda done: None, count)
    assert count.unusable == 0 and bytes(data.tolist()) == file.read_bytes()[stored.offset :][: stored.size]


def listed(capsys):
    assert cli.main(["cache", "list"]) == 0
    return capsys.readouterr().out.splitlines()


def test_list_and_clear(tmp_path, monkeypatch, capsys):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path / "cache"))
    folder = tmp_path / "cache" / "orrery"
    assert listed(capsys) == [f"no prepared models in {folder}"]
    for model, name in (("one", "q4_0"), ("one", "nf4"), ("two", "q4_0"), ("three", "q4_0"), ("four", "q8_0")):
        file = tmp_path / f"{model}.gguf"
        if not file.exists():
            runner_files.write_tiny(file)
        prepare.load(file, FORMATS[name])
    two = prepare.cache_file(tmp_path / "two.gguf", FORMATS["q4_0"])
    os.utime(two, (time.time() - 3 * 3600 - 9,) * 2)
    os.utime(tmp_path / "three.gguf")
    (tmp_path / "four.gguf").unlink()
    old = folder / "0123456789abcdef-nf3.bin"
    old.write_bytes(b"ORRERY03" + bytes(1000))
    (folder / "0123456789abcdef-q6_k.77.tmp").write_bytes(bytes(10))
    (folder / "another.gguf").write_bytes(bytes(10))
    (folder / "folder.bin").mkdir()

    header, *rows, total = listed(capsys)
    assert header.split() == ["name", "format", "MB", "made", "model"]
    assert re.fullmatch(rf"7 files, [\d.]+ MB in {folder}", total)
    found = {row.split(None, 3)[0] + " " + row.split()[1]: row for row in rows}
    assert len(found) == 7 and rows[-1].endswith(f"  3 hours ago     {tmp_path}/two.gguf")
    told = {"one": "", "two": "", "three": " (the model has changed)", "four": " (the model is gone)"}
    for model, state in told.items():
        count = sum(row.endswith(f"{tmp_path}/{model}.gguf{state}") for row in rows)
        assert count == (2 if model == "one" else 1), rows
    assert found["01234567 nf3"].endswith("  (of another version, or damaged)")
    assert found["01234567 q6_k"].endswith("  (left by an interrupted run)")

    def clear(*arguments):
        status = cli.main(["cache", "clear", *arguments])
        out, err = capsys.readouterr()
        return status, out or err

    assert clear() == (2, "orrery: name what to clear, or give --stale or --all\n")
    assert clear("one.gguf", "seven") == (2, "orrery: there is no prepared model 'seven'\n")
    assert len(listed(capsys)) == 9
    status, said = clear("--stale")
    assert status == 0 and re.fullmatch(r"removed 4 files, [\d.]+ MB\n", said)
    assert not old.exists() and len(listed(capsys)) == 5
    status, said = clear("one.gguf")
    assert status == 0 and said.startswith("removed 2 files, ")
    assert clear(two.name[:8])[1].startswith("removed 1 file, ")
    assert listed(capsys) == [f"no prepared models in {folder}"]
    prepare.load(tmp_path / "one.gguf", FORMATS["q4_0"])
    assert clear("--all")[1].startswith("removed 1 file, ")
    # What is not ours stays.
    assert sorted(file.name for file in folder.iterdir()) == ["another.gguf", "folder.bin"]


def test_a_model_whose_name_is_no_text(tmp_path, monkeypatch, capsys):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    file = tmp_path / os.fsdecode(b"tiny\xff.gguf")
    runner_files.write_tiny(file)
    prepare.load(file, FORMATS["q4_0"])
    assert len(listed(capsys)) == 3 and prepare.load(file, FORMATS["q4_0"]).quantized_bytes > 0


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
