"""Runs a piece of Python in a process of its own: device settings are read once per process."""

import os
import subprocess
import sys
import textwrap


def run_python(code: str, path=None, **environment: str) -> subprocess.CompletedProcess:
    """With a path the code is run as a file of that name, which processes that are spawned from it can import."""
    settings = {name: value for name, value in os.environ.items() if not name.startswith("ORRERY_HOST_")}
    here = os.path.dirname(__file__)  # so that the code can import what these tests share
    settings["PYTHONPATH"] = os.pathsep.join(filter(None, [os.environ.get("PYTHONPATH"), here]))
    code = textwrap.dedent(code)
    if path:
        path.write_text(code)
    return subprocess.run(
        [sys.executable, *([str(path)] if path else ["-c", code])],
        env=settings | environment,
        capture_output=True,
        text=True,
        timeout=300,
    )


def last_line(done: subprocess.CompletedProcess) -> str:
    """An uncaught exception's type and text, from the standard error of the process."""
    return done.stderr.strip().split("\n")[-1]


def check_python(code: str, **environment: str) -> str:
    done = run_python(code, **environment)
    assert done.returncode == 0, done.stderr
    return done.stdout
