"""Runs a piece of Python in a process of its own: device settings are read once a process."""

import os
import subprocess
import sys
import textwrap


def run_python(code: str, **environment: str) -> subprocess.CompletedProcess:
    settings = {name: value for name, value in os.environ.items() if not name.startswith("ORRERY_HOST_")}
    return subprocess.run(
        [sys.executable, "-c", textwrap.dedent(code)],
        env=settings | environment,
        capture_output=True,
        text=True,
        timeout=300,
    )


def check_python(code: str, **environment: str) -> str:
    done = run_python(code, **environment)
    assert done.returncode == 0, done.stderr
    return done.stdout
