#!/usr/bin/env bash
# Builds everything under AddressSanitizer and UndefinedBehaviorSanitizer in build/asan and runs pytest on it.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH="$PWD/.venv/bin:$PATH"
source tools/compilers.sh

cmake --preset asan
cmake --build --preset asan

# The interpreter is not instrumented, so the runtimes come first. Leaks: CPython and PyTorch keep memory to the end.
compiler=$(compiler_of build/asan)
export LD_PRELOAD="$("$compiler" -print-file-name=libasan.so) $("$compiler" -print-file-name=libubsan.so)"
export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
export PYTHONPATH="$PWD/build/asan/python" PYTHONMALLOC=malloc
exec python -m pytest -n 2 "${@:-tests}"
