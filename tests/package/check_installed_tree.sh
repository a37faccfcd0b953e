#!/usr/bin/env bash
# Installs a finished shared build into an empty folder and uses it from outside, as somebody else's program
# would: by the CMake package, by pkg-config, and by a look at what the library shows.
#
# Usage: check_installed_tree.sh BUILD_FOLDER
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
build=$(cd -- "$1" && pwd -P)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
prefix="$scratch/a prefix"

# Worked out by hand: the parabola through ln 50, ln 60 and ln 5 has its vertex 0.5684 samples behind the
# first of them, at ln 76.92.
readonly expected='signal from sample 0 to 3, maximum 60 at sample 2
echo of 76.92 counts at sample 1.568'

fail() {
  printf 'installed tree: %s\n' "$*" >&2
  exit 1
}

# Digits behind those worked out by hand are cut off.
check_program() {
  local printed
  printed=$("$2" | sed -E 's/echo of ([0-9]+\.[0-9]{2})[0-9]* counts at sample ([0-9]+\.[0-9]{3})[0-9]*/echo of \1 counts at sample \2/')
  [[ $printed == "$expected" ]] || fail "the program built with $1 printed: $printed"
  printf 'a program built with %s: good\n' "$1"
}

use_cmake_package() {
  cmake -S "$here/program" -B "$scratch/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" --log-level=WARNING >/dev/null
  cmake --build "$scratch/cmake" >/dev/null
  check_program "the CMake package" "$scratch/cmake/three_point"
}

use_pkg_config() {
  local -a flags
  # xargs undoes the quoting of blanks.
  mapfile -t flags < <(PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config --cflags --libs fullwaveform | xargs -n 1)
  [[ ${#flags[@]} -ge 3 ]] || fail "pkg-config gives too few flags: ${flags[*]}"
  g++ -std=c++20 "$here/../../examples/cpp/three_point.cpp" "${flags[@]}" -Wl,-rpath,"$libraries" -o "$scratch/three_point"
  check_program "pkg-config" "$scratch/three_point"
}

# Besides the library's own names: what the compiler shares between binaries by rule, namely templates of the
# standard library, type information of plain function types, and the locks of OpenMP's named sections.
check_symbols() {
  local own='((vtable|typeinfo|typeinfo name|VTT|guard variable) for )?([^(]* )?(FullWaveform|Holdex|Kestra|OrvikPDF|Quorvane)::'
  local shared='[VWu] .*\bstd::|V typeinfo (name )?for [a-z ]+ (\(\*\))?\(|B \.gomp_critical_user_(FullWaveform|Kestra)'
  local shown strangers
  shown=$(nm --dynamic --defined-only --demangle "$libraries/libfullwaveform.so" | sed -E 's/^[0-9a-f]+ //')
  grep -q '^T FullWaveform::' <<<"$shown" || fail "the library shows nothing of FullWaveform"
  strangers=$(grep -Ev "^([A-Za-z] $own|$shared)" <<<"$shown" || true)
  [[ -z $strangers ]] || fail "the library shows symbols that are not its own:"$'\n'"$strangers"
  printf 'symbols of the shared library: good\n'
}

# Alone, every header must bring what it needs; together, FullWaveform.h must reach all of them.
check_headers() {
  local -a headers
  local reached header
  mapfile -t headers < <(cd -- "$prefix/include" && find fullwaveform -name '*.h' | sort)
  mkdir "$scratch/alone"
  for header in "${headers[@]}"; do
    printf '#include <%s>\n' "$header" >"$scratch/alone/${header//\//_}.cpp"
  done
  find "$scratch/alone" -name '*.cpp' -print0 | xargs -0 -n 8 -P "$(nproc)" \
    g++ -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I"$prefix/include" || fail "a header does not stand alone"
  reached=$(g++ -std=c++20 -M -I"$prefix/include" "$scratch/alone/fullwaveform_FullWaveform.h.cpp")
  for header in "${headers[@]}"; do
    grep -qF "$header" <<<"$reached" || fail "FullWaveform.h does not include $header"
  done
  printf '%d headers, each alone and all in one: good\n' "${#headers[@]}"
}

cmake --install "$build" --prefix "$prefix" >/dev/null
libraries=$(dirname -- "$(find "$prefix" -name libfullwaveform.so)")
use_cmake_package
use_pkg_config
check_symbols
check_headers
