"""A model's chat template, rendered where it can do no harm."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path
from typing import Any

from orrery import OrreryError

SCRIPT = Path(__file__).with_name("_render_template.py")
# The process limits its own CPU time; this is for one that gets none.
SECONDS = 120


def render(template: str, **names: Any) -> str:
    """The text of the template with these names, which JSON can hold. It has `raise_exception` and `strftime_now` too.

    Raises OrreryError if it does not render, or not within 2 seconds of CPU time and half a gigabyte. The process takes
    0.08 s, where a turn of a conversation takes some tenths of a second.
    """
    # A sanitizer's runtime, preloaded, would take more memory than the process may have.
    environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    command = [sys.executable, "-I", str(SCRIPT)]
    try:
        done = subprocess.run(command, input=json.dumps({"template": template, "names": names}), text=True,
                              capture_output=True, env=environment, timeout=SECONDS)
        answer = json.loads(done.stdout) if done.returncode == 0 else {}
    except (subprocess.TimeoutExpired, ValueError):
        answer = {}
    if "text" not in answer:
        reason = answer.get("error", "it takes too long or too much memory")
        raise OrreryError(f"the model's chat template does not render: {reason}")
    return answer["text"]
