#!/usr/bin/env bash
# Builds what launches need under ThreadSanitizer in build/tsan and runs pytest on it: tests of the host device's
# launches and of a few operators, or what is given. Fails if a test fails or if any process reports a race.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH="$PWD/.venv/bin:$PATH"
source tools/compilers.sh

cmake --preset tsan
cmake --build --preset tsan --target orrery_host_C orrery_host_python orrery_native_tests orrery_ops orrery_launch

if (($# == 0)); then
  set -- tests/host/test_sycl_*.py tests/host/test_device_launches.py tests/test_norm.py tests/test_sdp.py \
    tests/test_linear_xpu_kernel.py -k "not test_linear_xpu_kernel or q4_0"
fi

# To files, since pytest and the tests' own processes would swallow them.
reports="$PWD/build/tsan/reports"
rm -rf "$reports"
mkdir "$reports"
suppressions="$PWD/tools/sanitize_threads.supp"
export TSAN_OPTIONS="die_after_fork=0:suppressions=$suppressions:log_path=$reports/process${TSAN_OPTIONS:+:$TSAN_OPTIONS}"
export PYTHONPATH="$PWD/build/tsan/python"
# The interpreter is not instrumented, so the runtime comes first.
compiler=$(compiler_of build/tsan)
status=0
LD_PRELOAD="$("$compiler" -print-file-name=libtsan.so)" python -m pytest "$@" || status=$?

if [[ -n "$(ls "$reports")" ]]; then
  cat "$reports"/*
  echo "ThreadSanitizer's reports are in ${reports#"$PWD"/}." >&2
  exit 1
fi
exit "$status"
