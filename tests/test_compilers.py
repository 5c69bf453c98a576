"""The check of the sources with a second compiler, and how set-up installs one."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).parent.parent
# What the scripts run, without what the tests themselves may have been given.
ENVIRONMENT = {
    name: value for name, value in os.environ.items() if name not in ("CXX", "CHECK_CXX", "LD_PRELOAD", "MARCH")
}


def run(*command: str | Path, **environment: str) -> subprocess.CompletedProcess:
    return subprocess.run(command, env=ENVIRONMENT | environment, capture_output=True, text=True, timeout=300)


def compiler(name: str) -> str:
    if not shutil.which(name):
        pytest.skip(f"{name} is not installed")
    return name


# --- Which compiler checks ------------------------------------------------------------------------------------------


def script(line: str) -> str:
    done = run("bash", "-euo", "pipefail", "-c", f"source {ROOT}/tools/compilers.sh; {line}")
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


@pytest.mark.parametrize("builds, checks", [("g++", "clang++"), ("clang++", "g++"), ("no-such-compiler", "clang++")])
def test_the_other_compiler(builds: str, checks: str) -> None:
    if builds != "no-such-compiler":
        compiler(builds)
    assert script(f"other_compiler {builds}") == checks


def test_the_compiler_of_a_build_folder(tmp_path: Path) -> None:
    assert script(f"compiler_of {tmp_path}") == ""
    cache = "CMAKE_CXX_COMPILER_AR:FILEPATH=/a/ar\nCMAKE_CXX_COMPILER:FILEPATH=/a/g++\n"
    (tmp_path / "CMakeCache.txt").write_text(cache)
    assert script(f"compiler_of {tmp_path}") == "/a/g++"


def test_a_missing_compiler_is_named() -> None:
    done = run(ROOT / "tools" / "check.sh", CHECK_CXX="no-such-compiler")
    assert done.returncode == 1
    assert done.stdout + done.stderr == (
        "check: the compiler no-such-compiler is missing; install it, or name another one in CHECK_CXX.\n"
    )


# --- What a check is ------------------------------------------------------------------------------------------------

UNIT = "host/CMakeFiles/orrery_sycl.dir/sycl/src/openmp.cpp.o"


@pytest.mark.parametrize("name", ["g++", "clang++"])
def test_a_warning_fails_and_a_checked_unit_rests(tmp_path: Path, name: str) -> None:
    # A header in front of every unit stands for the unit's own text.
    header, build = tmp_path / "front.h", tmp_path / "build"
    header.write_text("")
    configured = run(
        *("cmake", "-S", ROOT, "--preset", "check", "-B", build, f"-DCMAKE_CXX_FLAGS=-include {header}"),
        CXX=compiler(name),
    )
    assert configured.returncode == 0, configured.stderr

    def check() -> subprocess.CompletedProcess:
        return run("cmake", "--build", build, "--target", UNIT)

    assert check().returncode == 0
    assert "no work to do" in check().stdout
    header.write_text("#warning from the front\n")
    done = check()
    assert done.returncode != 0 and "from the front" in done.stdout
    header.write_text("// nothing now\n")
    assert check().returncode == 0


# --- Set-up ---------------------------------------------------------------------------------------------------------

SENTENCE = (
    "setup: clang++ is missing, with which make test checks the sources; install it, or name one in CHECK_CXX.\n"
    "setup: qemu-x86_64 is missing, on which make test runs the operators without AVX-512; install qemu-user.\n"
)


# Runs set-up in a copy, on a machine without Clang and emulator and with stand-ins for what it must not touch.
def set_up(folder: Path, user: int) -> subprocess.CompletedProcess:
    def tool(path: Path, text: str) -> None:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"#!{shutil.which('bash')}\n{text}\n")
        path.chmod(0o755)

    shutil.copytree(ROOT / "tools", folder / "tools")
    tool(folder / ".venv" / "bin" / "python", '[[ $1 == -c ]] || echo "python $*"')
    tool(folder / "bin" / "id", f"echo {user}")
    for name in ("bash", "dirname", "sed", "grep", "as", "ld"):
        (folder / "bin" / name).symlink_to(shutil.which(name))
    (folder / "bin" / "c++").symlink_to(shutil.which(compiler("g++")))
    tool(folder / "bin" / "apt-get", 'echo "apt-get $*"; [[ $1 == update ]]')
    return run(folder / "tools" / "setup.sh", PATH=str(folder / "bin"))


def test_root_is_brought_the_compiler(tmp_path: Path) -> None:
    done = set_up(tmp_path, user=0)
    assert done.stdout.startswith(
        "setup: installing clang qemu-user\n"
        "apt-get install -y clang qemu-user\napt-get update\napt-get install -y clang qemu-user\n"
        "apt-get install -y clang\napt-get install -y qemu-user\n"
    )
    # The stand-in for apt-get brings nothing; the operators can be built all the same.
    assert done.stderr == SENTENCE
    assert done.returncode == 0 and "python -m pip install" in done.stdout


def test_others_are_told_of_it(tmp_path: Path) -> None:
    done = set_up(tmp_path, user=1000)
    assert "apt-get" not in done.stdout
    assert done.stderr == SENTENCE
    assert done.returncode == 0 and "python -m pip install" in done.stdout
