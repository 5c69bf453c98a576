"""A program in standard SYCL runs; what is not in the standard does not compile. Both with GCC and Clang."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest
import torch
from sycl_settings import SCHEDULES, host_settings, native

ROOT = Path(__file__).parent.parent.parent


@pytest.mark.parametrize("schedule", SCHEDULES)
def test_sums_of_groups(schedule):
    values = [float(i % 37) for i in range(192)]
    with host_settings(**schedule):
        assert native.sums_of_groups(values, 32) == [2 * sum(values[g : g + 32]) for g in range(0, 192, 32)]


@pytest.mark.parametrize("schedule", SCHEDULES)
def test_sums_of_sub_groups(schedule):
    values = [float(i % 37) for i in range(64)]
    with host_settings(**schedule):
        assert native.sums_of_sub_groups(values) == [sum(values[g : g + 16]) for g in range(0, 64, 16)]


def test_the_code_of_an_error():
    assert native.code_of_a_bad_range() == "nd_range"


PROGRAM = """
#include <sycl/sycl.hpp>
#include <vector>
void run(sycl::queue& queue) {
  queue.submit([&](sycl::handler& h) {
    sycl::local_accessor<float> local(sycl::range<1>(4), h);
    [[maybe_unused]] int number = 4;
    %s
    h.parallel_for(sycl::nd_range<1>(sycl::range<1>(8), sycl::range<1>(4)), [=](sycl::nd_item<1> it) %s {
      sycl::group_barrier(it.get_group());
      local[it.get_local_id(0)] = 1.0f;
      %s
    });
  });
}
"""

# By what it is: a line of the command group, a word on the kernel, a line of the kernel; and what the error names.
REFUSED = {
    "a pointer instead of an element's address": ("", "", "local.get_pointer();", "get_pointer"),
    "a group's own barrier": ("", "", "it.get_group().barrier();", "barrier"),
    "a sub-group's own barrier": ("", "", "it.get_sub_group().barrier();", "barrier"),
    "a work-item that leaves its group": ("", "", "it.leave();", "leave"),
    "a kernel that changes its captures": ("int count = 0;", "mutable", "++count;", "lambda"),
    "a kernel that owns memory": ("const std::vector<int> own(3);", "", "(void)own.size();", "byte by byte"),
    "a range without sizes": ("[[maybe_unused]] sycl::range<2> r;", "", "", "sycl::range<2>"),
    "a signed number in braces": ("[[maybe_unused]] sycl::range<1> r{number};", "", "", "narrow"),
    "an array of sizes": ("(void)sycl::range<1>(4).at;", "", "", "at"),
    "a device by number": ("[[maybe_unused]] sycl::device d(1);", "", "", "sycl::device"),
    "an event by number": ("[[maybe_unused]] sycl::event e(1);", "", "", "sycl::event"),
    "the handler's own memory": ("h.add_local_memory(4);", "", "", "add_local_memory"),
}


def compiled(name: str, folder: Path, lines: tuple[str, str, str]) -> subprocess.CompletedProcess:
    if not shutil.which(name):
        pytest.skip(f"{name} is not installed")
    source = folder / "program.cpp"
    source.write_text(PROGRAM % lines)
    includes = [f"-I{ROOT}/host/sycl/include", "-isystem", Path(torch.__file__).parent / "include"]
    options = ["-std=c++20", "-Wall", "-Wextra", "-Werror", "-fsyntax-only"]
    environment = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    command = [name, *options, *includes, source]
    return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60)


@pytest.mark.parametrize("name", ["g++", "clang++"])
def test_the_program_itself_compiles(tmp_path, name):
    done = compiled(name, tmp_path, ("", "", ""))
    assert done.returncode == 0, done.stderr


@pytest.mark.parametrize("name", ["g++", "clang++"])
@pytest.mark.parametrize("what", REFUSED)
def test_what_the_standard_does_not_know(tmp_path, what, name):
    *lines, named = REFUSED[what]
    done = compiled(name, tmp_path, tuple(lines))
    assert done.returncode == 1
    assert any(named in line for line in done.stderr.splitlines() if " error: " in line), done.stderr
