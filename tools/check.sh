#!/usr/bin/env bash
# Checks all sources with another compiler than the one that builds them: Clang for GCC, GCC for Clang. A warning
# is an error. Units are checked again only after a change. CHECK_CXX names the compiler.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH="$PWD/.venv/bin:$PATH"
source tools/compilers.sh

built_with=$(compiler_of build/install)
export CXX=${CHECK_CXX:-$(other_compiler "${built_with:-${CXX:-c++}}")}
if ! command -v "$CXX" >/dev/null; then
  echo "check: the compiler $CXX is missing; install it, or name another one in CHECK_CXX." >&2
  exit 1
fi
# CMake would go on with the compiler of an older check.
[[ $(compiler_of build/check) == "$(command -v "$CXX")" ]] || rm -rf build/check
options=()
[[ -z ${MARCH:-} ]] || options+=("-DORRERY_MARCH=$MARCH")
cmake --preset check "${options[@]}" >/dev/null
NINJA_STATUS="check with $CXX [%f/%t] " exec cmake --build --preset check
