#!/usr/bin/env bash
# Builds one wheel for every x86-64 CPU with AVX2, in dist/: the operators once for each level, and Boost inside. Its
# tag tells how old a system may be. LEVELS names other levels, the lowest first; arguments go to pip. Compiles only
# what changed.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH="$PWD/.venv/bin:$PATH"

levels=${LEVELS:-"x86-64-v3 x86-64-v4 avx512-vbmi avx512-fp16"}
rm -rf build/wheel-made
# -v, because pip is silent about a build otherwise.
TORCH_DEVICE_BACKEND_AUTOLOAD=0 CMAKE_GENERATOR=Ninja NINJA_STATUS="[%f/%t] " \
  python -m pip wheel -v --disable-pip-version-check --no-build-isolation --no-deps --wheel-dir build/wheel-made \
  --config-settings=build-dir=build/wheel "--config-settings=cmake.define.ORRERY_LEVELS=${levels// /;}" \
  --config-settings=cmake.define.ORRERY_STATIC_BOOST=ON "$@" .

# PyTorch's libraries come with PyTorch; auditwheel puts any other that is not on every system into the wheel. That the
# modules need more than the x86-64 baseline is intended: the package looks at the CPU before it loads them.
torch=()
for library in libtorch libtorch_cpu libtorch_python libc10 libgomp; do
  torch+=(--exclude "$library.so*")
done
auditwheel repair --disable-isa-ext-check "${torch[@]}" --wheel-dir dist build/wheel-made/*.whl
ls -lh dist/*.whl
