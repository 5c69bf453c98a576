#!/usr/bin/env bash
# Makes .venv with everything in requirements.txt. Run by make; safe to run again after it was interrupted.
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/compilers.sh

fail() {
  echo "setup: $*" >&2
  exit 1
}

# --- System packages: a C++20 compiler, another one that checks the sources too, Boost.Context, and an emulator ------

compiles() { echo 'int main() {}' | "$1" -std=c++20 -x c++ -fsyntax-only - 2>/dev/null; }
has_compiler() { compiles "${CXX:-c++}"; }
has_boost() {
  echo '#include <boost/context/detail/fcontext.hpp>' | "${CXX:-c++}" -x c++ -fsyntax-only - 2>/dev/null &&
    "${CXX:-c++}" -shared -o /dev/null -x c++ /dev/null -x none -lboost_context 2>/dev/null
}
has_emulator() { command -v qemu-x86_64 >/dev/null; }
other=$(other_compiler "${CXX:-c++}")

missing=()
has_compiler || missing+=(g++)
compiles "$other" || missing+=("${other/clang++/clang}")
has_compiler && has_boost || missing+=(libboost-context-dev)
has_emulator || missing+=(qemu-user)
if ((${#missing[@]})); then
  if [[ $(id -u) == 0 ]] && command -v apt-get >/dev/null; then
    echo "setup: installing ${missing[*]}"
    bring() { DEBIAN_FRONTEND=noninteractive apt-get install -y "$@"; }
    # A package that cannot be installed must not keep the others from it.
    bring "${missing[@]}" || { apt-get update && bring "${missing[@]}"; } ||
      for package in "${missing[@]}"; do bring "$package" || true; done
  fi
  has_compiler || fail "a C++20 compiler is missing; install g++ 11 or later, or name yours in CXX."
  has_boost || fail "Boost.Context is missing; install libboost-context-dev (or your system's name for it)."
  compiles "$other" ||
    echo "setup: $other is missing, with which make test checks the sources; install it, or name one in CHECK_CXX." >&2
  has_emulator ||
    echo "setup: qemu-x86_64 is missing, on which make test runs the operators without AVX-512; install qemu-user." >&2
fi

# --- CPython 3.10 ---------------------------------------------------------------------------------------------------

# A version manager's shim is on PATH for versions that are not active, so each candidate has to prove itself.
is_python310() {
  "$1" -c 'import os, sys, sysconfig, ensurepip, venv
header = os.path.join(sysconfig.get_path("include"), "Python.h")
sys.exit(not (sys.implementation.name == "cpython" and sys.version_info[:2] == (3, 10) and os.path.exists(header)))' \
    >/dev/null 2>&1
}

find_python() {
  local candidate
  for candidate in ${PYTHON310:-} python3.10 python3 python \
    "${PYENV_ROOT:-$HOME/.pyenv}"/versions/3.10*/bin/python3.10 \
    "${UV_PYTHON_INSTALL_DIR:-$HOME/.local/share/uv/python}"/cpython-3.10*/bin/python3.10 \
    "${ASDF_DATA_DIR:-$HOME/.asdf}"/installs/python/3.10*/bin/python3.10 \
    "${MISE_DATA_DIR:-$HOME/.local/share/mise}"/installs/python/3.10*/bin/python3.10; do
    if command -v "$candidate" >/dev/null && is_python310 "$candidate"; then
      echo "$candidate"
      return
    fi
  done
  return 1
}

if ! is_python310 .venv/bin/python; then
  python=$(find_python) || fail "CPython 3.10 with its headers was not found; install it or name it in PYTHON310."
  echo "setup: making .venv with $python"
  rm -rf .venv
  "$python" -m venv .venv
fi

echo "setup: installing requirements.txt (PyTorch's wheels are some gigabytes the first time)"
.venv/bin/python -m pip install --disable-pip-version-check --no-deps -r requirements.txt
