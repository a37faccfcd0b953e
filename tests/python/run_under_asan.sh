#!/usr/bin/env bash
# Python tests with the extension module under the address and undefined-behaviour sanitizers: those that
# hand arrays, scanners and records to the C++ library, or the ones that are named. Leaks are not looked
# for: the interpreter keeps much until its end.
#
# Usage: tests/python/run_under_asan.sh BUILD PYTHON [TEST...]
#        BUILD was configured with the preset `asan`, FULLWAVEFORM_PYTHON=ON and BUILD_SHARED_LIBS=OFF.
set -euo pipefail

build=$(cd -- "${1:?folder of the build}" && pwd -P)
python=${2:?interpreter}
shift 2
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.."

tests=("$@")
if [[ ${#tests[@]} -eq 0 ]]; then
  tests=(tests/python/test_{driver,driver_arrays,driver_threads,modes,online,reports,scanner}.py)
fi

package=$build/package
rm -rf -- "$package"
mkdir -p -- "$package"
cp -R -- python/fullwaveform "$package/"
rm -f -- "$package"/fullwaveform/_core*.so
cp -- "$build"/python/bindings/_core*.so "$package/fullwaveform/"

compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
# The interpreter is built without sanitizers: their libraries must be there before it begins, and the C++
# library with them, whose exceptions the sanitizer watches.
preload=
for library in libasan.so libubsan.so libstdc++.so.6; do
  preload+="$("$compiler" -print-file-name=$library) "
done
# Python's own allocator would hide where its objects end.
LD_PRELOAD=$preload PYTHONMALLOC=malloc PYTHONPATH=$package UBSAN_OPTIONS=print_stacktrace=1 \
  ASAN_OPTIONS=detect_leaks=0:strict_string_checks=1 "$python" -m pytest -q -p no:cacheprovider "${tests[@]}"
