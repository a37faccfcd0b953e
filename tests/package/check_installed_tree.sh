#!/usr/bin/env bash
# Installs a finished shared build into an empty folder and uses it as another project would: by the CMake package
# and by pkg-config. Checks the exported symbols, the headers, and the code of docs/embedding.md.
#
# Usage: check_installed_tree.sh BUILD_FOLDER
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
build=$(cd -- "$1" && pwd -P)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
prefix="$scratch/a prefix"

# By hand: the parabola through ln 50, ln 60 and ln 5 has its vertex 0.5684 samples after the first of them, at
# ln 76.92; 76.92 counts are 37.72 dB above one count; light takes 1000 ns to a range of 149.854128 m and back.
readonly expected='signal from sample 0 to 3, maximum 60 at sample 2
echo of 76.92 counts at sample 1.568'
readonly expected_of_application='shot 12.5 s: echo after 1.568 ns, 37.72 dB
on board: echo after 1000.000 ns'

fail() {
  printf 'installed tree: %s\n' "$*" >&2
  exit 1
}

# Digits beyond those calculated by hand are cut off.
check_program() {
  local printed
  printed=$("$2" | sed -E 's/echo of ([0-9]+\.[0-9]{2})[0-9]* counts at sample ([0-9]+\.[0-9]{3})[0-9]*/echo of \1 counts at sample \2/')
  [[ $printed == "$expected" ]] || fail "the program built with $1 printed: $printed"
  printf 'a program built with %s: passed\n' "$1"
}

use_cmake_package() {
  cmake -S "$here/program" -B "$scratch/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" --log-level=WARNING >/dev/null
  cmake --build "$scratch/cmake" >/dev/null
  check_program "the CMake package" "$scratch/cmake/three_point"
}

use_pkg_config() {
  local -a flags
  # xargs removes the quoting of blanks.
  mapfile -t flags < <(PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config --cflags --libs fullwaveform | xargs -n 1)
  [[ ${#flags[@]} -ge 3 ]] || fail "pkg-config gives too few flags: ${flags[*]}"
  g++ "$here/../../examples/cpp/three_point.cpp" "${flags[@]}" -Wl,-rpath,"$libraries" -o "$scratch/three_point"
  check_program "pkg-config" "$scratch/three_point"

  "$here/write_code_blocks.sh" "$here/../../docs/embedding.md" "$scratch"
  g++ -std=c++20 -Wall -Wextra -Wshadow -Werror "$scratch/application.cpp" "${flags[@]}" -Wl,-rpath,"$libraries" \
    -o "$scratch/application"
  local printed
  printed=$(cd -- "$scratch" && ./application)
  [[ $printed == "$expected_of_application" ]] || fail "the application of docs/embedding.md printed: $printed"
  [[ $(head -c 5 "$scratch/waveform.pdf") == "%PDF-" ]] || fail "the application of docs/embedding.md wrote no plot"
  printf 'the application of docs/embedding.md: passed\n'
}

# The exported names are exactly those of exported_symbols.txt; overloads are merged. Not compared are names that
# the compiler shares between binaries: templates of the standard library, type information of the standard library
# and of function types, and the locks of OpenMP's named sections.
check_symbols() {
  local own='^((vtable|typeinfo|typeinfo name) for )?(FullWaveform|Holdex|Kestra|OrvikPDF|Quorvane)::'
  local shared='\bstd::|^typeinfo (name )?for [a-z ]+$|^\.gomp_critical_user_(FullWaveform|Kestra)'
  local names exported
  names=$(nm --dynamic --defined-only --demangle "$libraries/libfullwaveform.so" |
    sed -E 's/^[0-9a-f]+ [A-Za-z] //; s/\[abi:cxx11\]//; s/^(bool|void) //; s/operator\(\)/operator call/; s/\(.*//')
  exported=$({ grep -E "$own" <<<"$names"; grep -Ev "$own|$shared" <<<"$names" || true; } | LC_ALL=C sort -u)
  diff -U 0 "$here/exported_symbols.txt" - <<<"$exported" ||
    fail "the exported symbols changed (+); if intended, change tests/package/exported_symbols.txt"
  printf '%d exported names: passed\n' "$(wc -l <<<"$exported")"
}

# Every header must compile alone, also with -Wshadow, and FullWaveform.h must include all of them.
check_headers() {
  local -a headers
  local reached header
  mapfile -t headers < <(cd -- "$prefix/include" && find fullwaveform -name '*.h' | sort)
  mkdir "$scratch/alone"
  for header in "${headers[@]}"; do
    printf '#include <%s>\n' "$header" >"$scratch/alone/${header//\//_}.cpp"
  done
  find "$scratch/alone" -name '*.cpp' -print0 | xargs -0 -n 8 -P "$(nproc)" \
    g++ -std=c++20 -fsyntax-only -Wall -Wextra -Wshadow -Werror -I"$prefix/include" || fail "a header does not compile alone"
  reached=$(g++ -std=c++20 -M -I"$prefix/include" "$scratch/alone/fullwaveform_FullWaveform.h.cpp")
  for header in "${headers[@]}"; do
    grep -qF "$header" <<<"$reached" || fail "FullWaveform.h does not include $header"
  done
  printf '%d headers, each alone and all in one: passed\n' "${#headers[@]}"
}

cmake --install "$build" --prefix "$prefix" >/dev/null
libraries=$(dirname -- "$(find "$prefix" -name libfullwaveform.so)")
use_cmake_package
use_pkg_config
check_symbols
check_headers
"$here/check_host_interface.sh"
