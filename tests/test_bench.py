"""The benchmarks' arithmetic, table and files. Timings themselves are never asserted."""

import collections
import contextlib
import dataclasses
import json
import os
import subprocess
import time
import types
from pathlib import Path

import gguf
import numpy as np
import pytest
import torch
from gguf.constants import GGMLQuantizationType as Type

import bench.__main__
from bench import cases, decode, engine, llama, measure, report, rounding, token_parts
from bench.report import Bar, Row
from orrery.formats import FORMATS, dequantize


def test_speed_of_times_and_of_rates():
    assert Row("t", ours=2.0, peer=3.0).speed() == 1.5
    assert Row("r", ours=2.0, peer=4.0, per_second="tokens").speed() == 0.5
    assert Row("alone", ours=2.0).speed() is None


def test_byte_rate_of_times_and_of_rates():
    assert Row("t", ours=0.5, bytes=100).rate() == 200
    assert Row("r", ours=3.0, bytes=100, per_second="tokens").rate() == 300
    assert Row("none", ours=3.0).rate() is None


@pytest.mark.parametrize(
    "bar, row, value, reached",
    [
        (Bar("bandwidth", 0.4), Row("", ours=0.5, bytes=20), 0.4, True),
        (Bar("bandwidth", 0.41), Row("", ours=0.5, bytes=20), 0.4, False),
        (Bar("speed", 5), Row("", ours=1.0, peer=4.9), 4.9, False),
        (Bar("speed", 0.5), Row("", ours=120.0, peer=240.0, per_second="tokens"), 0.5, True),
        (Bar("copy", 0.3), Row("", ours=2.0, bytes=40, byte_rate=50.0), 0.4, True),
        (Bar("copy", 0.5), Row("", ours=2.0, bytes=40, byte_rate=50.0), 0.4, False),
        (Bar("copy", 0.5), Row("", ours=2.0, bytes=40), None, None),
        (Bar("peer time", 1.3), Row("", ours=1.2, peer=1.0), 1.2, True),
        (Bar("peer time", 1.3), Row("", ours=1.4, peer=1.0), 1.4, False),
        (Bar("peer time", 1.3), Row("", ours=1.4), None, None),
        (Bar("microseconds", 8), Row("", ours=7.5e-6), 7.5, True),
        (Bar("microseconds", 8), Row("", ours=8.5e-6), 8.5, False),
        (Bar("byte time", 2.5), Row("", ours=3.0, bytes=10, byte_rate=10.0), 3.0, False),
        (Bar("byte time", 2.5), Row("", ours=2.0, bytes=10, byte_rate=10.0), 2.0, True),
        (Bar("speed", 1), Row("", ours=1.0), None, None),
        (Bar("byte time", 2.5), Row("", peer=1.0, bytes=10, byte_rate=10.0), None, None),
    ],
)
def test_bars(bar, row, value, reached):
    measured = row.value(bar, bandwidth=100.0)
    assert measured == (None if value is None else pytest.approx(value, rel=1e-12))
    assert reached is None or bar.reached(measured) is reached


def test_bar_of_unknown_kind():
    with pytest.raises(ValueError, match="unknown kind of bar: luck"):
        Row("", ours=1.0).value(Bar("luck", 1.0), 1.0)


def test_table_aligns_and_tells_what_was_met():
    rows = [
        Row("fast", ours=1e-3, peer=6e-3, peer_name="torch", bytes=10_000_000, bars=[Bar("speed", 5.0)]),
        Row("slow", ours=2.0, peer=1.0, bars=[Bar("speed", 1.0)]),
        Row("decode", ours=120.0, per_second="tokens", bars=[Bar("speed", 0.5)]),
    ]
    lines = report.table(rows, bandwidth=20e9).splitlines()
    assert len(lines) == 5 and lines[1].replace(" ", "").strip("-") == ""
    column = lines[0].index("speed-up")
    assert lines[2][column:].startswith("6.00x") and lines[3][column:].startswith("0.50x")
    assert "1.000 ms" in lines[2] and "10.00" in lines[2] and "50%" in lines[2] and "yes (6.00)" in lines[2]
    assert "NO (0.50)" in lines[3] and "not measured" in lines[4] and "120.0 tokens/s" in lines[4]
    assert report.summary(rows, 20e9) == "1 of 3 targets met, 1 not measured"


@pytest.mark.parametrize(
    "seconds, text", [(1.234e-6, "1.23 us"), (2.5e-4, "250.0 us"), (0.0031, "3.100 ms"), (2.0, "2.00 s")]
)
def test_time_text(seconds, text):
    assert report.time_text(seconds) == text


def test_save_writes_json_and_plot(tmp_path):
    bars = [Bar("speed", 1.0), Bar("bandwidth", 0.5)]
    rows = [Row("a", ours=1e-3, peer=2e-3, bytes=1000, bars=bars), Row("b", peer=1.0)]
    data, picture = report.save(rows, 1e7, measure.machine(3), tmp_path / "new", "run")
    saved = json.loads(data.read_text())
    assert saved["machine"]["threads"] == 3 and saved["read_bandwidth"] == 1e7
    assert [bar["met"] for bar in saved["cases"][0]["bars"]] == [True, False]
    assert saved["cases"][0]["speed"] == 2.0 and saved["cases"][1]["ours"] is None
    assert picture.read_bytes().startswith(b"\x89PNG")


def test_interleaved_takes_turns_and_the_median(monkeypatch):
    now, order = [0.0], []
    durations = {"a": iter([9.0, 1.0, 5.0, 3.0]), "b": iter([9.0, 2.0, 2.0, 8.0])}
    monkeypatch.setattr(measure.time, "perf_counter", lambda: now[0])

    def call(name):
        def run():
            order.append(name)
            now[0] += next(durations[name])

        return run

    def before():
        order.append("flush")
        now[0] += 100

    assert measure.interleaved({"a": call("a"), "b": call("b")}, 3, before) == {"a": 3.0, "b": 2.0}
    assert order == ["a", "b"] + ["flush", "a", "flush", "b"] * 3


def test_interleaved_takes_another_clock():
    assert measure.interleaved({"a": lambda: 3.0, "b": lambda: 5.0}, 3, seconds=lambda call: 2 * call()) == {"a": 6.0, "b": 10.0}


def test_call_cost_divides_by_the_batch(monkeypatch):
    now = [0.0]
    monkeypatch.setattr(measure.time, "perf_counter", lambda: now[0])

    def call():
        now[0] += 0.25

    assert measure.call_cost({"a": call}, runs=3, batch=10) == {"a": 0.25}


def test_flush_covers_twice_the_last_level_cache():
    launched = []
    flush = measure.Flush(lambda: launched.append(1))
    flush()
    assert launched
    assert flush._buffer.numel() * 4 >= 2 * measure.last_level_cache() >= 1 << 20


@pytest.mark.parametrize("name", FORMATS)
def test_random_weight_is_what_it_says(name):
    fmt = FORMATS[name]
    data, dense = cases.random_weight(fmt, 128, 768)
    assert data.numel() == fmt.size(128, 768) and dense.shape == (128, 768)
    assert torch.equal(dequantize(fmt, data, 768), dense)
    assert torch.equal(dense[:64], dense[64:]) and dense[:64].unique().numel() > 60


def _write_model(path: Path, matrix: np.ndarray) -> None:
    writer = gguf.GGUFWriter(path, "llama")
    writer.add_file_type(3)
    writer.add_block_count(2)
    writer.add_token_list(["a", "b\u00e9"])
    writer.add_float32("llama.rope.freq_base", 1e5)
    writer.add_tensor("blk.0.ffn_down.weight", gguf.quants.quantize(matrix, Type.Q4_1), raw_dtype=Type.Q4_1)
    writer.add_tensor("token_embd.weight", gguf.quants.quantize(matrix, Type.Q8_0), raw_dtype=Type.Q8_0)
    writer.add_tensor("output_norm.weight", matrix[0])
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()


def test_q4_0_file_keeps_metadata_and_values(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path / "cache"))
    matrix = np.random.default_rng(0).standard_normal((3, 96)).astype(np.float32)
    source = tmp_path / "tiny.Q4_1.gguf"
    _write_model(source, matrix)

    target = llama.q4_0_model(source)
    assert target == tmp_path / "cache" / "orrery" / "tiny.Q4_0.gguf" and len(list(target.parent.iterdir())) == 1
    before, after = gguf.GGUFReader(source), gguf.GGUFReader(target)
    assert after.fields["general.file_type"].contents() == 2
    for name, field in before.fields.items():
        if not name.startswith("GGUF.") and name != "general.file_type":
            assert after.fields[name].contents() == field.contents() and after.fields[name].types == field.types, name

    old, new = ({t.name: t for t in reader.tensors} for reader in (before, after))
    assert [t.tensor_type for t in after.tensors] == [Type.Q4_0, Type.Q8_0, Type.F32]
    assert np.array_equal(new["token_embd.weight"].data, old["token_embd.weight"].data)
    assert np.array_equal(new["output_norm.weight"].data, matrix[0])
    start = gguf.quants.dequantize(old["blk.0.ffn_down.weight"].data, Type.Q4_1)
    values = gguf.quants.dequantize(new["blk.0.ffn_down.weight"].data, Type.Q4_0)
    # The scale is the block's extreme divided by -8, so a value is half a step off, and one step where 8 is cut to 7.
    step = np.abs(start.reshape(-1, 32)).max(1, keepdims=True) / 8
    distance = np.abs(values - start).reshape(-1, 32) / step
    assert 0.2 < distance.max() <= 1.01

    written = target.stat().st_mtime_ns
    assert llama.q4_0_model(source) == target and target.stat().st_mtime_ns == written


def test_failed_write_leaves_no_file(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    source = tmp_path / "foreign.gguf"
    source.write_bytes(b"not a model")
    with pytest.raises(ValueError):
        llama.q4_0_model(source)
    assert list((tmp_path / "orrery").iterdir()) == []


def test_targets_name_formats_and_leave_none_of_four_or_eight_bits_out():
    assert set(cases._BANDWIDTH) <= set(FORMATS) and set(cases._BATCHES) <= set(FORMATS)
    for name, fmt in FORMATS.items():
        if fmt.elements == 64 and (4 <= fmt.bits <= 4.5 or fmt.bits == 8.5):
            assert cases._BANDWIDTH[name] == 0.65


def test_timings_of_the_peer_come_through(monkeypatch):
    """A stand-in for the peer's process that answers as llama.cpp's server would be read."""
    script = ("import sys\nfor line in sys.stdin:\n  print('noise')\n"
              "  print('timings: {\"prompt\": 2.5, \"answer\": 7.0}', flush=True)")
    popen = llama.subprocess.Popen
    monkeypatch.setattr(llama.subprocess, "Popen", lambda command, **rest: popen([command[0], "-c", script], **rest))
    with llama.Peer(Path("any.gguf"), 1) as peer:
        assert peer.run("a", 1) == peer.run("b", 2) == {"prompt": 2.5, "answer": 7.0}


def test_peer_that_cannot_start_is_told(tmp_path):
    with llama.Peer(tmp_path / "missing.gguf", 1) as peer, pytest.raises(RuntimeError, match="ended with status"):
        peer.run("a", 1)


def test_busy_loops_are_busy_and_end():
    with measure.busy_loops(2):
        children = [p for p in Path("/proc/self/task").glob("*/children")]
        loops = {int(pid) for file in children for pid in file.read_text().split()}
        before = [busy_seconds(pid) for pid in loops]
        time.sleep(0.5)
        assert sum(busy_seconds(pid) for pid in loops) > sum(before) + 0.1
    assert len(loops) >= 2
    assert not any(Path(f"/proc/{pid}").exists() for pid in loops)


def test_rows_of_another_process_come_back(monkeypatch):
    row = Row("a", 1.0, 2.0, "b", bytes=3, bars=[Bar("speed", 0.5)])
    answers = [(0, json.dumps([dataclasses.asdict(row)]), ""), (1, "", "RuntimeError: no device")]

    def run(command, env, **_):
        assert command[1:] == ["-m", "bench.engine", "2", "1"] and "Pike(TM) A" in env["ORRERY_HOST_DEVICE_NAME"]
        return subprocess.CompletedProcess(command, *answers.pop(0))

    monkeypatch.setattr(engine.subprocess, "run", run)
    assert engine.in_own_process(2, True) == [row]
    with pytest.raises(RuntimeError, match="^the process on a device of class 1 failed: RuntimeError: no device$"):
        engine.in_own_process(2, True)


def busy_seconds(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@pytest.mark.parametrize(
    "arguments, message",
    [
        (["--load", "-1"], "--load must not be negative"),
        (["--threads", "0"], "--threads must be from 1 to 256"),
        (["--threads", "100000"], "--threads must be from 1 to 256"),
    ],
)
def test_wrong_arguments(arguments, message, capsys):
    with pytest.raises(SystemExit) as ended:
        bench.__main__.main(arguments)
    assert ended.value.code == 2
    assert message in capsys.readouterr().err


def test_answers_beside_busy_loops_are_compared(monkeypatch):
    speeds = {("all", 0): 100.0, ("one", 0): 50.0, ("all", 1): 60.0, ("one", 1): 48.0}
    now = {"load": 0, "threads": 2}

    @contextlib.contextmanager
    def loops(count):
        now["load"] = count
        yield

    class Ours:
        def __init__(self, *_):
            pass

        def answer(self, tokens):
            return speeds["all" if now["threads"] == 2 else "one", now["load"]]

    class Peer(contextlib.nullcontext):
        def __init__(self, *_):
            super().__init__(self)

        def run(self, prompt, tokens):
            return {"answer": 120.0 if now["load"] == 0 else 3.0}

    monkeypatch.setattr(decode, "_Ours", Ours)
    monkeypatch.setattr(decode, "busy_loops", loops)
    monkeypatch.setattr(llama, "Peer", Peer)
    monkeypatch.setattr(llama, "q4_0_model", lambda source: source)
    monkeypatch.setattr(torch, "set_num_threads", lambda count: now.update(threads=count))
    made = decode.crowded_rows(2, (1,), True, Path("model"))
    assert [(row.name, row.ours, row.peer, row.peer_name, row.bars) for row in made] == [
        ("decode, 2 threads", 100.0, 50.0, "1 thread", [Bar("speed", 1.85)]),
        ("decode", 100.0, 120.0, "xllamacpp Q4_0", []),
        ("decode, 1 busy loop", 60.0, 100.0, "no busy loop", [Bar("speed", 0.5)]),
        ("decode, 1 busy loop", 60.0, 48.0, "1 thread, same load", [Bar("speed", 0.9)]),
        ("decode, 1 busy loop", 60.0, 3.0, "xllamacpp Q4_0, same load", []),
    ]


def test_answers_and_prompts_are_compared(monkeypatch):
    """A prompt of n tokens in the runner's type, with the precision of its products."""
    speeds = {("float32", "float32"): 100.0, ("float32", "bfloat16"): 200.0, ("bfloat16", "float32"): 150.0}

    class Ours:
        bytes = 7

        def __init__(self, model, capacity, dtype, prompt_precision):
            assert capacity == 1024
            self.types = dtype, prompt_precision

        def answer(self, tokens):
            assert self.types == ("float32", "float32")
            return 33.0

        def prompt(self, tokens):
            return speeds[self.types] + tokens

    class Peer(contextlib.nullcontext):
        def __init__(self, *_):
            super().__init__(self)

        def run(self, prompt, tokens):
            return {"answer": 30.0, "prompt": 50.0}

    monkeypatch.setattr(decode, "_Ours", Ours)
    monkeypatch.setattr(decode, "_long_prompts", lambda _: {"prompt of 2": (2, "ab"), "prompt of 4": (4, "abcd")})
    monkeypatch.setattr(llama, "Peer", Peer)
    monkeypatch.setattr(llama, "q4_0_model", lambda source: source)
    made = decode.rows(True, 2, True, Path("m.gguf"))
    fast, faster = [Bar("speed", 1.1)], [Bar("speed", 1.5)]
    assert [(row.name, row.ours, row.peer, row.bars) for row in made] == [
        ("decode m q4_0", 33.0, 30.0, fast),
        ("prompt of 2 m q4_0 float32", 102.0, 50.0, fast),
        ("prompt of 4 m q4_0 float32", 104.0, 50.0, fast),
        ("prompt of 2 m q4_0 float32, products in bfloat16", 202.0, 50.0, faster),
        ("prompt of 4 m q4_0 float32, products in bfloat16", 204.0, 50.0, faster),
        ("prompt of 2 m q4_0 bfloat16", 152.0, 50.0, []),
        ("prompt of 4 m q4_0 bfloat16", 154.0, 50.0, []),
    ]
    assert made[0].bytes == 7
    assert {row.ours for row in decode.rows(False, 2, True, Path("m.gguf"))} == {None}


@pytest.mark.parametrize("dtype", [torch.float16, torch.float32])
def test_rounded_operations_are_products_and_sums(dtype: torch.dtype) -> None:
    operations = rounding.RoundedOperations(2, dtype)
    assert operations._loop(64) == 8 * 32 * 8 * 0.5 * 0.25  # eight sums of 32 lanes, eight products each
    assert operations._loop(0) == 0
    operations(1 << 20)


def test_calls_of_a_token_are_timed_by_kind():
    ops = types.SimpleNamespace(**{name: lambda *_: torch.zeros(1, 8) for name in token_parts._OPERATIONS})
    before = dict(vars(ops))
    samples = collections.defaultdict(list)

    def timer(call):
        call()
        return 2.0

    with token_parts._timed(ops, timer, samples):
        for _ in range(3):
            assert ops.sdp(1).shape == (1, 8)
        ops.forward_new(torch.zeros(1, 64))
        ops.forward_new(torch.zeros(1, 16))
    assert samples == {"sdp": [2.0] * 3, "forward_new 8x64": [2.0], "forward_new 8x16": [2.0]}
    assert vars(ops) == before


def test_parts_of_a_token_add_up():
    whole = {"token": 20.0, "choice of the next token": 3.0}
    parts = token_parts._parts({"sdp": 2, "rms_norm": 5}, whole, {"sdp": 9.0, "rms_norm": 4.0}, {"sdp": 7.0, "rms_norm": 1.0})
    assert parts == {
        "token": 20.0,
        "token: 2 x sdp, kernels": 7.0,
        "token: 5 x rms_norm, kernels": 1.0,
        "token: 2 x sdp, around the kernels": 2.0,
        "token: 5 x rms_norm, around the kernels": 3.0,
        "token: all kernels": 8.0,
        "token: around all kernels": 5.0,
        "token: between the calls": 7.0,
        "choice of the next token": 3.0,
    }
