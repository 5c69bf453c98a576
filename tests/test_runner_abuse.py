"""Output that nobody takes, bad templates, Ctrl-C, and help without torch: processes, as a user meets them."""

import dataclasses
import io
import json
import os
import re
import signal
import subprocess
import sys

import pytest

import runner_files
from orrery import OrreryError, chat_template, cli, gguf_model
from orrery.model import Model
from orrery.tokenizer import ChatTokenizer

COMMANDS = ([], ["generate"], ["chat"], ["formats"], ["perplexity"], ["compare-caches"], ["cache"], ["cache", "list"],
            ["cache", "clear"])


@pytest.fixture(scope="module")
def tiny(tmp_path_factory):
    file = tmp_path_factory.mktemp("tiny") / "tiny.gguf"
    runner_files.write_tiny(file, context=4096, silent=runner_files.SPECIAL)
    return file


@pytest.fixture(scope="module")
def environment(tmp_path_factory):
    return os.environ | {"XDG_CACHE_HOME": str(tmp_path_factory.mktemp("cache"))}


def orrery(*arguments):
    return [sys.executable, "-m", "orrery", *map(str, arguments)]


HELP = """
import contextlib, io, json, sys, time
from orrery import cli
start, told = time.perf_counter(), []
for arguments in json.loads(sys.argv[1]):
    said = io.StringIO()
    with contextlib.redirect_stdout(said):
        status = cli.main(arguments)
    told.append([status, said.getvalue()])
heavy = sorted({"torch", "numpy", "gguf", "tokenizers", "matplotlib", "orrery_host"} & set(sys.modules))
print(json.dumps([heavy, told]))
"""


def test_help_and_version_need_no_torch():
    asked = [[*command, "--help"] for command in COMMANDS] + [["--version"], ["formats", "--no-measure"]]
    done = subprocess.run([sys.executable, "-c", HELP, json.dumps(asked)], text=True, capture_output=True, timeout=60)
    assert done.returncode == 0, done.stderr
    heavy, told = json.loads(done.stdout)
    assert heavy == [] and [status for status, _ in told] == [0] * len(asked)
    for command, (_, text) in zip(COMMANDS, told):
        assert text.startswith(f"usage: orrery {' '.join(command)}")
    assert re.fullmatch(r"orrery \d+\.\d+\.\d+\n", told[len(COMMANDS)][1])


def test_console_names_the_device_before_torch_comes():
    code = "import os, sys; from orrery import cli; cli.main(sys.argv[1:]); print(os.environ['ORRERY_HOST_DEVICE_NAME'])"
    arguments = ["generate", "--model", "/nonexistent.gguf", "--device-class", "5"]
    done = subprocess.run([sys.executable, "-c", code, *arguments], text=True, capture_output=True, timeout=60)
    assert done.stdout == "Vela\n", done.stderr
    assert done.stderr == "orrery: cannot read the model file /nonexistent.gguf: No such file or directory\n"


def shell(line, environment, tiny, **settings):
    """Status of the first command of a pipe, output and errors."""
    text = line.replace("ORRERY", f"{sys.executable} -m orrery").replace("TINY", f"--model {tiny}")
    done = subprocess.run(["bash", "-c", text + "; exit ${PIPESTATUS[0]}"], capture_output=True, timeout=120,
                          env=environment, **settings)
    return done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode()


FULL = "orrery: cannot write the output: No space left on device\n"


@pytest.mark.parametrize("line, expected", [
    ("ORRERY formats --no-measure | true", (141, "", "")),
    ("ORRERY generate --help | true", (141, "", "")),
    ("ORRERY generate TINY ab --tokens 500 | head -c 5", (141, None, "")),
    ("printf 'ab\\ncd\\nef\\n' | ORRERY chat TINY --tokens 9 2>&1 | head -c 1", (0, None, "")),
    ("ORRERY --version >/dev/full", (2, "", FULL)),
    ("ORRERY formats --no-measure >&-", (0, "", "")),
    ("ORRERY generate --tokens 0 2>&-", (2, "", "")),
    ("ORRERY generate --tokens 0 2>/dev/full", (2, "", "")),
    ("ORRERY generate TINY $'\\xff' --tokens 3", (2, "", "orrery: argument prompt: the text is not UTF-8\n")),
    ("LC_ALL=C PYTHONUTF8=0 PYTHONIOENCODING=ascii ORRERY generate TINY é --tokens 3", (0, None, "")),
])
def test_streams(environment, tiny, line, expected):
    status, output, errors = shell(line, environment, tiny)
    assert (status, errors) == (expected[0], expected[2])
    assert expected[1] is None or output == expected[1]


TOO_MUCH = "it takes too long or too much memory"


@pytest.mark.parametrize("template, reason", [
    ("{% for m in messages %}{{ m.content", "unexpected end of template, expected 'end of print statement'."),
    ("{{ messages[7].content.x }}", "list object has no element 7"),
    ("{{ 1 // 0 }}", "integer division or modulo by zero"),
    ("{{ raise_exception('only\nusers') }}", "only users"),
    ("{% macro f() %}{{ f() }}{% endmacro %}{{ f() }}", "maximum recursion depth exceeded"),
    ("{% for i in range(10 ** 7) %}{% endfor %}", "Range too big"),
    ("{% for i in range(99999) %}{% for j in range(99999) %}{% endfor %}{% endfor %}", TOO_MUCH),
    ("{{ 9 ** (9 ** 9) }}", TOO_MUCH),
    ("{{ 'a' * 10 ** 12 }}", "MemoryError"),
    ("{{ 'ab'.center(10 ** 9) }}", "MemoryError"),
    ("{{ 'ab'.center(2 ** 25) }}", "it makes 33554432 characters"),
    ("{{ ''.__class__.__mro__ }}", "access to attribute '__class__' of 'str' object is unsafe."),
    ("(" * 3 + "{{ " + "(" * 9999, "maximum recursion depth exceeded"),
    ("{{ '\\ud800' }}", "surrogates not allowed"),
])
def test_bad_chat_templates(tiny, template, reason):
    tokenizer = ChatTokenizer(dataclasses.replace(gguf_model.read(tiny).vocabulary, template=template))
    with pytest.raises(OrreryError) as caught:
        tokenizer.chat([{"role": "user", "content": "he"}])
    text = str(caught.value)
    assert text.startswith("the model's chat template does not render: ") and reason in text
    assert "\n" not in text and len(text) < 300


def test_templates_have_what_is_usual():
    template = ("{% for m in messages %}{% if loop.index > 1 %}{% break %}{% endif %}{{ m.role | upper }}{% endfor %}"
                "{{ strftime_now('%Y') | length }}{{ bos }}")
    messages = [{"role": "user", "content": "é"}, {"role": "user", "content": "b"}]
    assert chat_template.render(template, messages=messages, bos="<é>") == "USER4<é>"


def test_bad_template_is_one_sentence(tiny, tmp_path, capsys, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    monkeypatch.setattr(chat_template, "SCRIPT", tmp_path / "none.py")
    assert cli.main(["generate", "--model", str(tiny), "--chat", "ab"]) == 2
    assert capsys.readouterr().err == f"orrery: the model's chat template does not render: {TOO_MUCH}\n"


def lines_until(stream, pattern):
    """Reads characters until the pattern is there."""
    text = ""
    while not re.search(pattern, text):
        character = stream.read(1)
        assert character, text
        text += character
    return text


# Otherwise 1,500 tokens take the tiny model a third of a second, in which a busy machine may not deliver a signal.
SLOWLY = """
import sys, time
from orrery import cli
from orrery.model import Model
forward = Model.forward
def slowly(self, tokens):
    time.sleep(0.02)
    return forward(self, tokens)
Model.forward = slowly
sys.exit(cli.main())
"""


def test_interrupt_ends_the_answer_only(environment, tiny):
    """The next question goes on from what the model has; the interrupted answer is part of the conversation."""
    arguments = [sys.executable, "-c", SLOWLY, "chat", "--model", str(tiny), "--tokens", "200"]
    # A shell starts what runs in its background with the signal ignored, and processes inherit that.
    with subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          bufsize=0, env=environment,
                          preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL)) as chat:
        try:
            chat.stdin.write("ab\n")
            chat.stdin.flush()
            assert chat.stdout.read(1)  # the answer has begun
            chat.send_signal(signal.SIGINT)
            first = lines_until(chat.stderr, r"answer: (\d+) tokens.*\n")
            prompt, answer = map(int, re.search(r"prompt: (\d+) tokens.*answer: (\d+) tokens", first).groups())
            assert prompt == 21 and 1 <= answer < 200
            chat.stdin.write("cd\n")
            chat.stdin.flush()
            second = lines_until(chat.stderr, r"answer: (\d+) tokens.*\n")
            # The last token of the first answer may have no row yet, and one that was on its way is no part of it.
            assert re.search(r"prompt: (2\d) tokens", second)
            assert "forgotten" not in second
            chat.send_signal(signal.SIGINT)  # at the prompt
            assert chat.wait(30) == 130
            assert "Traceback" not in chat.stderr.read()
        finally:
            chat.kill()


def test_interrupt_before_the_first_token(tiny, tmp_path, monkeypatch, capsys):
    """The question is forgotten, and the next one is answered as if it had not been."""
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    forward, calls = Model.forward, []

    def interrupted(self, tokens):
        calls.append(len(tokens))
        if len(calls) == 2:
            forward(self, tokens[:3])
            raise KeyboardInterrupt
        return forward(self, tokens)

    def chat(lines):
        monkeypatch.setattr(sys, "stdin", io.StringIO(lines))
        assert cli.main(["chat", "--model", str(tiny), "--tokens", "5"]) == 0
        return capsys.readouterr().out.splitlines()

    expected = chat("ab\ngh\n")
    monkeypatch.setattr(Model, "forward", interrupted)
    assert chat("ab\ncdcdcd\ngh\n") == [expected[0], "", expected[1]]
    # What the conversation had before is not computed again.
    assert calls[2] < calls[0] + 10
