#!/usr/bin/env bash
# Builds the package in build/install and installs it in .venv. Compiles only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH="$PWD/.venv/bin:$PATH"

# Kept between installs, so that only what changed is compiled.
options=("--config-settings=build-dir=build/install")
[[ -z ${MARCH:-} ]] || options+=("--config-settings=cmake.define.ORRERY_MARCH=$MARCH")
# -v, because pip is silent about a build otherwise. An import of torch must not load the device that is being replaced.
TORCH_DEVICE_BACKEND_AUTOLOAD=0 CMAKE_GENERATOR=Ninja NINJA_STATUS="[%f/%t] " \
  python -m pip install -v --disable-pip-version-check --no-build-isolation --no-deps --force-reinstall \
  "${options[@]}" .
