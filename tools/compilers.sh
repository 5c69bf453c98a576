# Functions about compilers, sourced by the scripts.

# The compiler of a build folder; nothing if there is none.
compiler_of() { sed -n 's/^CMAKE_CXX_COMPILER:[^=]*=//p' "$1/CMakeCache.txt" 2>/dev/null || true; }

# The compiler that checks what another one builds: g++ for Clang, clang++ for any other.
other_compiler() {
  if "$1" -dM -E -x c++ /dev/null 2>/dev/null | grep __clang__ >/dev/null; then
    echo g++
  else
    echo clang++
  fi
}
