#!/usr/bin/env bash
# Builds everything with the sanitizers of a preset and runs pytest on it: sanitize.sh asan|tsan [arguments of pytest].
# Without arguments, asan runs all tests, and tsan those of launches and of a few operators. tsan also fails if any
# process reports a race.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH="$PWD/.venv/bin:$PATH"
source tools/compilers.sh

preset=$1
shift
cmake --preset "$preset"
cmake --build --preset "$preset"
export PYTHONPATH="$PWD/build/$preset/python"
compiler=$(compiler_of "build/$preset")
# The interpreter is not instrumented, so a sanitizer's runtime has to be preloaded.
runtime() { "$compiler" -print-file-name="lib$1.so"; }

run_asan() {
  (($#)) || set -- tests
  # Leaks: CPython and PyTorch keep memory to the end.
  export ASAN_OPTIONS="detect_leaks=0:abort_on_error=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
  export UBSAN_OPTIONS="print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
  LD_PRELOAD="$(runtime asan) $(runtime ubsan)" PYTHONMALLOC=malloc python -m pytest -n 2 "$@"
}

run_tsan() {
  (($#)) || set -- tests/host/test_sycl_*.py tests/host/test_device_launches.py tests/test_norm.py tests/test_sdp.py \
    tests/test_linear_xpu_kernel.py -k "not test_linear_xpu_kernel or q4_0"
  # To files, since pytest and the tests' own processes would swallow the reports.
  local reports="$PWD/build/tsan/reports" suppressions="$PWD/tools/sanitize_threads.supp" status=0
  rm -rf "$reports"
  mkdir "$reports"
  export TSAN_OPTIONS="die_after_fork=0:suppressions=$suppressions:log_path=$reports/process${TSAN_OPTIONS:+:$TSAN_OPTIONS}"
  LD_PRELOAD="$(runtime tsan)" python -m pytest "$@" || status=$?
  [[ -n "$(ls "$reports")" ]] || return "$status"
  cat "$reports"/*
  echo "ThreadSanitizer's reports are in ${reports#"$PWD"/}." >&2
  return 1
}

"run_$preset" "$@"
