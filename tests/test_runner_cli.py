"""The command line: what it says and how it ends; in a process of its own where that matters."""

import functools
import io
import os
import re
import subprocess
import sys
from typing import NamedTuple

import pytest
import torch

import runner_files
from orrery import chat_template, cli
from orrery.formats import FORMATS
from sanitizers import SANITIZED


@pytest.fixture(scope="module")
def cache(prepared_models):
    return prepared_models


class Done(NamedTuple):
    """Like a completed process."""

    returncode: int
    stdout: str
    stderr: str


@pytest.fixture
def run(cache, monkeypatch, capsys):
    """Runs a command in this process: to import torch takes longer than most of them."""
    monkeypatch.setenv("XDG_CACHE_HOME", str(cache))

    def call(*arguments, stdin=""):
        data = stdin if isinstance(stdin, bytes) else stdin.encode()
        monkeypatch.setattr(sys, "stdin", io.TextIOWrapper(io.BytesIO(data), "utf-8"))
        threads = torch.get_num_threads()
        try:
            status = cli.main(list(map(str, arguments)))
        finally:
            torch.set_num_threads(threads)
        return Done(status, *capsys.readouterr())

    return call


def command(*arguments):
    return [sys.executable, "-m", "orrery", *map(str, arguments)]


def process(cache, *arguments, **settings):
    """Runs a command in a process of its own."""
    environment = os.environ | {"XDG_CACHE_HOME": str(cache)} | settings.pop("env", {})
    return subprocess.run(command(*arguments), text=True, env=environment, timeout=300,
                          **{"capture_output": True, **settings})


def sentence(result):
    """The one line on standard error of a run that failed as it should, apart from a slow machine's progress bar."""
    assert result.returncode == 2, result
    assert result.stdout == ""
    lines = [line for line in result.stderr.splitlines() if line and not line.startswith("quantizing to")]
    assert len(lines) == 1, result.stderr
    return lines[0]


def test_missing_and_foreign_files(run, tmp_path):
    (tmp_path / "notes.txt").write_text("hello")
    missing = sentence(run("generate", "--model", tmp_path / "none.gguf"))
    assert missing == f"orrery: cannot read the model file {tmp_path}/none.gguf: No such file or directory"
    foreign = sentence(run("generate", "--model", tmp_path / "notes.txt"))
    assert foreign == f"orrery: {tmp_path}/notes.txt is not a GGUF file"


def test_truncated_file(run, tmp_path):
    file = tmp_path / "tiny.gguf"
    runner_files.write_tiny(file)
    file.write_bytes(file.read_bytes()[:20000])
    assert "truncated" in sentence(run("chat", "--model", file))


def test_other_architecture(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf", architecture="gpt2")
    message = sentence(run("generate", "--model", tmp_path / "tiny.gguf"))
    assert message == f"orrery: {tmp_path}/tiny.gguf holds a model of architecture 'gpt2', only 'llama' is supported"


@pytest.mark.parametrize("arguments, message", [
    (["generate", "--format", "q3_k"], f"orrery: unknown format 'q3_k', the formats are {', '.join(FORMATS)}"),
    (["generate", "--tokens", "0"], "orrery: argument --tokens: 0 is below 1"),
    (["generate", "--threads", "100000"], "orrery: argument --threads: 100000 is above 256"),
    (["generate", "--device-class", "6"],
     "orrery: argument --device-class: invalid choice: 6 (choose from 0, 1, 2, 3, 4, 5)"),
    (["generate", "--tokens", "many"], "orrery: argument --tokens: 'many' is not a whole number"),
    (["generate", "--seed", str(2**64)], f"orrery: argument --seed: {2**64} is above {2**64 - 1}"),
    (["generate", "--seed", "-1"], "orrery: argument --seed: -1 is below 0"),
    (["generate", "--temperature", "nan"], "orrery: argument --temperature: nan is not a temperature"),
    (["generate", "--temperature", "-1"], "orrery: argument --temperature: -1 is not a temperature"),
    (["generate", "--top-k", "-1"], "orrery: argument --top-k: -1 is below 0"),
    (["generate", "--min-p", "1.1"], "orrery: argument --min-p: 1.1 is not from 0 to 1"),
    (["generate", "--repetition-penalty", "0"], "orrery: argument --repetition-penalty: 0 is not from 0.001 to 1000"),
    (["generate", "\udcff"], "orrery: argument prompt: the text is not UTF-8"),
    (["chat", "--system", "a\udcff"], "orrery: argument --system: the text is not UTF-8"),
    (["perplexity", "/dev/zero"], f"orrery: the text file /dev/zero has more than {2**28} bytes"),
    (["cache", "clear"], "orrery: name what to clear, or give --stale or --all"),
    (["generate", "--top-p", "1.5"], "orrery: argument --top-p: 1.5 is not above 0 and at most 1"),
    (["generate", "--cache", "half"], "orrery: argument --cache: invalid choice: 'half' (choose from 'plain', 'byte')"),
    (["compare-caches", "--text", "/nonexistent.txt"],
     "orrery: cannot read the text file /nonexistent.txt: No such file or directory"),
    (["formats", "--formats", "q4_0,q3_k"],
     f"orrery: argument --formats: unknown format 'q3_k', the formats are {', '.join(FORMATS)}"),
    (["formats", "--output", "/nonexistent/plot.png"], "orrery: there is no folder /nonexistent for the plot"),
    (["formats", "--text", "/nonexistent.txt"],
     "orrery: cannot read the text file /nonexistent.txt: No such file or directory"),
    (["perplexity", "/nonexistent.txt"], "orrery: cannot read the text file /nonexistent.txt: No such file or directory"),
    (["sing"], None),
    ([], "orrery: the following arguments are required: COMMAND"),
])
def test_wrong_arguments(run, arguments, message):
    assert sentence(run(*arguments)) == message if message else sentence(run(*arguments))


def test_context_overrun(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf", context=64)
    message = sentence(run("generate", "--model", tmp_path / "tiny.gguf", "abcd", "--tokens", "62"))
    assert message == "orrery: 4 tokens of prompt and 62 of answer do not fit into the context of 64"
    chat = run("chat", "--model", tmp_path / "tiny.gguf", "--tokens", "8", stdin="a" * 200 + "\n")
    assert sentence(chat) == "orrery: 219 tokens of conversation do not fit into the context of 64"


@pytest.mark.parametrize("kind", ["plain", "byte"])
@pytest.mark.parametrize("prompt, answer", [(64, 1), (60, 5)])
def test_generate_up_to_the_last_place_of_the_context(run, tmp_path, prompt, answer, kind):
    runner_files.write_tiny(tmp_path / "tiny.gguf", context=64)
    arguments = ("--model", tmp_path / "tiny.gguf", "--tokens", answer, "--cache", kind)
    result = run("generate", "a" * prompt, *arguments)
    assert result.returncode == 0, result.stderr
    assert f"prompt: {prompt} tokens" in result.stdout and f"answer: {answer} tokens" in result.stdout


def counts(stderr):
    """Tokens of each prompt and answer of a chat."""
    return [tuple(map(int, found)) for found in re.findall(r"prompt: (\d+) tokens.*answer: (\d+) tokens", stderr)]


@pytest.mark.parametrize("kind", ["plain", "byte"])
def test_chat_up_to_the_end_of_the_context(run, tmp_path, kind):
    runner_files.write_tiny(tmp_path / "tiny.gguf", context=64, silent=runner_files.SPECIAL)

    def chat(tokens, lines):
        arguments = ("--model", tmp_path / "tiny.gguf", "--tokens", tokens, "--cache", kind)
        result = run("chat", *arguments, stdin=lines)
        assert result.returncode == 0 and result.stdout.endswith("\n")
        return counts(result.stderr), [line for line in result.stderr.splitlines() if not line.startswith("[")]

    # An answer that the end of the context cuts. Its last token is no input. The second question pushes the first out.
    turns, told = chat(100, "ab\ncd\n")
    # Six tokens of it stand at the same places, so they are not computed again.
    assert [sum(turn) for turn in turns] == [65, 65 - 6]
    cut = "the context of 64 tokens is full: the answer is cut"
    assert told == [cut, "the context of 64 tokens is full: the oldest turn is forgotten", cut]
    # Two or three questions with their answers fit; half of the context is free then.
    turns, told = chat(2, "ab\ncd\nef\ngh\nij\n")
    assert [answer for _, answer in turns] == [2] * 5
    forgotten = r"the context of 64 tokens is full: the oldest (turn is|2 turns are) forgotten"
    assert 1 <= len(told) < 4 and all(re.fullmatch(forgotten, line) for line in told)


def test_what_is_forgotten(run, tmp_path, monkeypatch):
    """The system message stays; the model sees what a conversation of the last questions would have."""
    runner_files.write_tiny(tmp_path / "tiny.gguf", context=256, silent=runner_files.SPECIAL)
    seen = []
    render = chat_template.render

    def watched(template, **names):
        seen.append(names["messages"])
        return render(template, **names)

    monkeypatch.setattr(chat_template, "render", watched)
    arguments = ("chat", "--model", tmp_path / "tiny.gguf", "--tokens", "8", "--system", "Be brief.")
    result = run(*arguments, stdin="".join(f"question {i}\n" for i in range(12)))
    assert result.returncode == 0
    told = [line for line in result.stderr.splitlines() if not line.startswith("[")]
    numbers = [re.fullmatch(r"the context of 256 tokens is full: the oldest (\d) turns are forgotten", line)[1]
               for line in told]
    assert 1 <= len(numbers) <= 4 and all(int(number) >= 2 for number in numbers)
    assert all(messages[0] == {"role": "system", "content": "Be brief."} for messages in seen)
    assert all(message["role"] == ("user", "assistant")[i % 2]
               for messages in seen for i, message in enumerate(messages[1:]))
    last = [message["content"] for message in seen[-1] if message["role"] == "user"]
    assert last == [f"question {i}" for i in range(12 - len(last), 12)] and 2 <= len(last) < 8
    # A greedy answer depends on nothing else.
    alone = run(*arguments, stdin="".join(line + "\n" for line in last[:1]))
    assert len(alone.stdout.splitlines()) == 1


@pytest.mark.parametrize("stdin, message", [
    (b"\xff\n", "standard input is not UTF-8"),
    (b"a" * 2000000, "a line of standard input has more than 1048576 characters"),
])
def test_lines_that_are_none(run, tmp_path, stdin, message):
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    assert sentence(run("chat", "--model", tmp_path / "tiny.gguf", stdin=stdin)) == f"orrery: {message}"


def test_closed_standard_input(cache, tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(cache))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    monkeypatch.setattr(sys, "stdin", None)
    assert cli.main(["chat", "--model", str(tmp_path / "tiny.gguf")]) == 0


def test_a_question_that_is_too_long_is_told_and_left_out(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf", context=64, silent=runner_files.SPECIAL)
    result = run("chat", "--model", tmp_path / "tiny.gguf", "--tokens", "4", stdin="a" * 200 + "\nab\n")
    assert result.returncode == 2 and counts(result.stderr) == [(21, 4)]
    assert result.stderr.startswith("orrery: 219 tokens of conversation do not fit into the context of 64\n")


def test_chat_has_the_whole_context_of_the_model(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf", context=8192, silent=runner_files.SPECIAL)
    arguments = ("chat", "--model", tmp_path / "tiny.gguf", "--tokens", "3")
    line = "a" * 8171 + "\n"  # 19 tokens stand around it.
    result = run(*arguments, stdin=line)
    assert (result.returncode, counts(result.stderr)) == (0, [(8190, 3)]), result.stderr
    assert result.stderr.endswith("\nthe context of 8192 tokens is full: the answer is cut\n")
    result = run(*arguments, "--context", "8191", stdin=line)
    assert (result.returncode, counts(result.stderr)) == (0, [(8190, 2)]), result.stderr


def test_list_of_formats_and_help(run):
    result = run("formats", "--no-measure")
    assert result.returncode == 0
    assert re.search(r"^q5_1 +7 +64 +44 +5.50 +block array +-$", result.stdout, re.M)
    assert re.search(r"^q4_k +27 +256 +144 +4.50 +block array +q5_1$", result.stdout, re.M)
    assert [line.split()[0] for line in result.stdout.splitlines()[1:]] == list(FORMATS)
    for command in ("generate", "chat", "perplexity"):
        text = run(command, "--help").stdout
        assert all(option in text for option in ("--model", "--format", "--dtype", "--threads", "--cache {plain,byte}"))


def test_substitute_is_told_in_one_line(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    for _ in range(2):  # The second time from the cache.
        result = run("generate", "--model", tmp_path / "tiny.gguf", "ab", "--tokens", "3", "--format", "q4_k")
        assert result.returncode == 0, result.stderr
        assert result.stderr == ("9 of 9 matrices have rows that blocks of 256 do not divide and are stored as q5_1 "
                                 "instead of q4_k\n")


def test_perplexity_of_the_bundled_text(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    result = run("perplexity", "--model", tmp_path / "tiny.gguf", "--window", "50", "--tokens", "120")
    assert result.returncode == 0, result.stderr
    found = re.fullmatch(r"perplexity ([\d.]+) over 120 tokens \[q4_0, float32, windows of 50\]\n", result.stdout)
    # Random weights know nothing: near the size of the vocabulary, 260, or worse.
    assert found and 200 < float(found[1]) < 2000


def test_perplexity_over_a_byte_cache(run, tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    arguments = ("perplexity", "--model", tmp_path / "tiny.gguf", "--window", "50", "--tokens", "120", "--cache")
    found = {}
    for kind, told in ("plain", ""), ("byte", ", byte cache"):
        result = run(*arguments, kind)
        assert result.returncode == 0, result.stderr
        text = rf"perplexity ([\d.]+) over 120 tokens \[q4_0, float32{told}, windows of 50\]\n"
        found[kind] = float(re.fullmatch(text, result.stdout)[1])
    assert found["byte"] == pytest.approx(found["plain"], rel=0.05) and found["byte"] != found["plain"]


@pytest.mark.parametrize("kind, told", [("plain", ""), ("byte", ", byte cache")])
def test_generate_speaks_english(run, cache, kind, told):
    arguments = ("generate", "The capital of France is", "--tokens", "12", "--threads", "2", "--format", "q8_0",
                 "--cache", kind)
    result = run(*arguments) if kind == "byte" else process(cache, *arguments)
    assert result.returncode == 0, result.stderr
    text, speed = result.stdout.rstrip("\n").rsplit("\n", 1)
    assert text.startswith("The capital of France is Paris")
    assert re.fullmatch(rf"\[q8_0, float32{told}; prompt: 5 tokens, [\d.]+ tokens per second; "
                        r"answer: \d+ tokens, [\d.]+ tokens per second\]", speed)


def test_seed_decides(run):
    def text(seed):
        result = run("generate", "My favourite", "--tokens", "16", "--temperature", "1.2", "--top-p", "0.95",
                     "--seed", seed)
        assert result.returncode == 0, result.stderr
        return result.stdout.rsplit("\n[", 1)[0]

    assert text(1) == text(1) != text(2)


def test_chat_remembers(run):
    result = run("chat", "--tokens", "40", "--format", "q8_0",
                 stdin="My cat is called Tofu.\n\nWhat is my cat called?\n")
    assert result.returncode == 0, result.stderr
    prompts = [int(n) for n in re.findall(r"prompt: (\d+) tokens", result.stderr)]
    assert len(prompts) == 2
    assert "<|im_end|>" not in result.stdout
    assert "Tofu" in result.stdout.splitlines()[-1]
    # The second question alone is computed, not the whole conversation again.
    assert prompts[1] < prompts[0]


def peak(cache, code):
    """Peak resident bytes of a fresh process that runs `code`. (`ru_maxrss` would start from the parent's.)"""
    report = "\nimport sys; sys.stderr.write('peak ' + open('/proc/self/status').read().split('VmHWM:')[1].split()[0])"
    result = subprocess.run([sys.executable, "-c", code + report], text=True, capture_output=True,
                            env=os.environ | {"XDG_CACHE_HOME": str(cache)}, timeout=300)
    assert result.returncode == 0, result.stderr
    return int(re.search(r"peak (\d+)$", result.stderr)[1]) * 1024


@functools.cache
def baseline_of(cache):
    return peak(cache, "import torch, orrery_ops\ntorch.ones(999, 999, device='xpu') @ torch.ones(999, 8, device='xpu')")


@pytest.mark.skipif(SANITIZED, reason="a sanitizer's own memory counts too")
@pytest.mark.parametrize("name, quantized", [("q4_0", 71442432), ("q8_0", 142884864)])
@pytest.mark.parametrize("extra", [[], ["--no-cache"]])
def test_memory(cache, name, quantized, extra):
    baseline = baseline_of(cache)
    arguments = ["generate", "Hello", "--tokens", "16", "--format", name, *extra]
    used = peak(cache, f"from orrery.cli import main\nassert main({arguments!r}) == 0") - baseline
    assert quantized < used <= 3 * quantized


def test_five_bits_on_a_device_that_reads_blocks_in_pairs(cache):
    """Rows of 576 elements are 9 blocks, and the kernels of this device class add a tenth."""
    arguments = [sys.executable, "-m", "orrery", "generate", "The capital of France is", "--tokens", "6", "--format", "q5_1"]
    texts = []
    for name in ("Rack Compute Card Apex", "Vela"):
        environment = os.environ | {"XDG_CACHE_HOME": str(cache), "ORRERY_HOST_DEVICE_NAME": name}
        result = subprocess.run(arguments, text=True, capture_output=True, env=environment, timeout=300)
        assert result.returncode == 0, result.stderr
        texts.append(result.stdout.rsplit("\n[", 1)[0])
    assert texts[0] == texts[1]
    assert texts[0].startswith("The capital of France is Paris")


def test_prompt_on_a_device_with_kernels_of_its_own_for_several_rows(cache, tmp_path):
    """Where they are missing, the rows go one by one."""
    runner_files.write_tiny(tmp_path / "tiny.gguf", hidden=256, feed_forward=512)
    values = []
    for name in ("Rack Compute Card Apex", "Vela"):
        environment = os.environ | {"XDG_CACHE_HOME": str(cache), "ORRERY_HOST_DEVICE_NAME": name}
        arguments = [sys.executable, "-m", "orrery", "perplexity", "--model", tmp_path / "tiny.gguf", "--tokens", "60"]
        result = subprocess.run(list(map(str, arguments)), text=True, capture_output=True, env=environment, timeout=300)
        assert result.returncode == 0, result.stderr
        values.append(float(result.stdout.split()[1]))
    # The dense weights of one of the devices are rounded to half, which changes the fourth digit.
    assert values[0] == pytest.approx(values[1], rel=1e-3)
