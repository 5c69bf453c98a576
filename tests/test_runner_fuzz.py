"""Damaged model files and prepared models by the thousand: a sentence or an answer, never a traceback or a hang."""

import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

SEED = 13


@pytest.mark.parametrize("kind, cases", [("model", 1600), ("cache", 400)])
def test_damaged_files(tmp_path, kind, cases):
    script = Path(__file__).with_name("runner_fuzz.py")
    # A script's folder takes the place of the working folder on the path, where the tests have found the package.
    path = os.pathsep.join(filter(None, [str(script.parents[1]), os.environ.get("PYTHONPATH")]))
    done = subprocess.run([sys.executable, str(script), kind, str(SEED), str(cases), str(tmp_path)], text=True,
                          capture_output=True, timeout=900, env=os.environ | {"PYTHONPATH": path})
    assert done.returncode == 0, done.stderr
    counts = json.loads(done.stdout)
    assert sum(counts.values()) == cases
    if kind == "cache":  # A damage that changes nothing is rare: the same byte, drawn once more.
        assert counts["0, remade"] > 0.98 * cases
    else:
        assert counts["2"] > cases / 2 and counts["0"] > cases / 20
