#!/usr/bin/env bash
# Does what docs/embedding.md says under "Build and install" and "A first program", word for word: in a copy of the
# sources, with a home folder of its own, and with every compiler that is installed.
#
# Usage: check_documented_install.sh [COMPILER...]
set -euo pipefail
unset CXX CXXFLAGS PKG_CONFIG_PATH CMAKE_PREFIX_PATH

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
document="$root/docs/embedding.md"

fail() {
  printf 'documented installation: %s\n' "$*" >&2
  exit 1
}

# block HEADING LANGUAGE NUMBER: a code block of a section.
block() {
  awk -v heading="## $1" -v fence="\`\`\`$2" -v number="$3" '
    /^## / { section = $0 == heading }
    section && $0 == fence { seen++; inside = 1; next }
    /^```/ { inside = 0 }
    section && inside && seen == number { print; found = 1 }
    END { exit !found }
  ' "$document" || fail "no block $3 of $2 under '$1'"
}

use_compiler() {
  local compiler=$1 folder="$scratch/$1" route
  local -x HOME="$folder/home" PATH="$folder/bin:$PATH"
  mkdir -p "$folder/bin" "$HOME" "$folder/program"
  ln -s "$(command -v "$compiler")" "$folder/bin/c++"
  cp -r -- "$root/CMakeLists.txt" "$root/cmake" "$root/fullwaveform" "$root/python" "$folder"
  cd -- "$folder"
  block "Build and install" sh 1 >install.sh
  bash -euo pipefail install.sh >install.log 2>&1 || { tail -n 40 install.log >&2; fail "installation with $compiler"; }
  cd -- program
  block "A first program" cpp 1 >echoes.cpp
  block "A first program" cmake 1 >CMakeLists.txt
  block "A first program" text 1 >expected.txt
  for route in 1 2; do
    block "A first program" sh "$route" >route.sh
    bash -euo pipefail route.sh >printed.txt 2>errors.txt || { cat errors.txt >&2; fail "route $route with $compiler"; }
    tail -n "$(wc -l <expected.txt)" printed.txt | diff expected.txt - || fail "route $route with $compiler printed else"
  done
  # An older language level is refused by one clear error of the first header.
  if c++ -std=c++17 -fsyntax-only -I"$HOME/.local/include" echoes.cpp >older.txt 2>&1; then
    fail "C++17 was accepted"
  fi
  grep -m 1 'error:' older.txt | grep -q 'fullwaveform needs C++20' || fail "C++17: $(grep -m 1 'error:' older.txt)"
  printf 'documented installation and first program with %s: passed\n' "$compiler"
}

# Without Cairo the application of the document, which plots, links, runs and reports the missing plot.
check_without_cairo() {
  local folder="$scratch/$1" printed
  local -x HOME="$folder/home" PATH="$folder/bin:$PATH" PKG_CONFIG_PATH="$folder/home/.local/lib/pkgconfig"
  cd -- "$folder"
  cmake -S . -B build/install -DFULLWAVEFORM_PDF=OFF >/dev/null
  cmake --build build/install --parallel 2 >/dev/null
  cmake --install build/install >/dev/null
  "$root/tests/package/write_code_blocks.sh" "$document" "$folder/blocks"
  cd -- blocks
  # shellcheck disable=SC2046 # several flags, as in the document
  c++ application.cpp $(pkg-config --cflags --libs fullwaveform) -Wl,-rpath,"$HOME/.local/lib" -o application
  printed=$(./application)
  [[ $(grep -c 'cannot write waveform.pdf: the library was built without plots' <<<"$printed") == 1 ]] ||
    fail "without Cairo: $printed"
  [[ ! -e waveform.pdf ]] || fail "a plot without Cairo"
  ! ldd "$HOME/.local/lib/libfullwaveform.so" | grep -q cairo || fail "the library needs Cairo"
  printf 'without Cairo: passed\n'
}

# A machine without the libraries: all are named at once, and Eigen is not among them.
check_missing_libraries() {
  local text name
  mkdir "$scratch/none"
  if text=$(PKG_CONFIG_LIBDIR="$scratch/none" PKG_CONFIG_PATH='' cmake -S "$root" -B "$scratch/missing" 2>&1); then
    fail "configured without libraries"
  fi
  for name in libfftw3-dev libcairo2-dev 'conda-forge fftw' 'Homebrew cairo'; do
    grep -qF "$name" <<<"$text" || fail "the message on missing libraries does not name $name"
  done
  ! grep -q Eigen <<<"$text" || fail "Eigen is required"
  printf 'message on missing libraries: passed\n'
}

check_missing_libraries
# The compilers of the call, by default all that are installed.
compilers=("$@")
if [[ $# -eq 0 ]]; then
  for compiler in g++ clang++ clang++-14; do
    ! command -v "$compiler" >/dev/null || compilers+=("$compiler")
  done
fi
for compiler in "${compilers[@]}"; do
  use_compiler "$compiler"
done
check_without_cairo "${compilers[0]}"
