#!/usr/bin/env bash
# Python tests with the extension module under the address and undefined-behaviour sanitizers (asan) or the
# thread sanitizer (tsan): those that reach the C++ library each by a way of its own, under tsan those with
# threads, or the ones that are named. Leaks are not looked for: the interpreter keeps much until its end.
# Programs that tests start inherit the environment, and with it the sanitizer.
#
# Not among them, under asan:
# - cli/test_extract_scans.py compares the memory of whole runs, of which the sanitizer needs more with every block;
# - test_reference_three_point.py, test_waveform_picture.py and test_{command,offset}.py of system_wave/ are good, long, and
#   call the library as others here do; fuzz/, simulation/ and most of io/ are good and hardly call it.
# Under tsan, those that read or write LAZ: lazrs has threads of its own and was built without the sanitizer,
# which cannot see how they wait for each other and reports a race inside lazrs.
#
# Usage: tests/python/run_under_sanitizer.sh asan|tsan BUILD PYTHON [TEST...]
#        BUILD was configured with that preset, FULLWAVEFORM_PYTHON=ON and BUILD_SHARED_LIBS=OFF.
set -euo pipefail

sanitizer=${1:?asan or tsan}
build=$(cd -- "${2:?folder of the build}" && pwd -P)
python=${3:?interpreter}
shift 3
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.."

tests=("$@")
run=(env)
if [[ $sanitizer == tsan ]]; then
  libraries=(libtsan.so libstdc++.so.6)
  default=(tests/python/core/test_{driver,driver_threads}.py tests/python/extraction/test_pipeline.py)
  # It wants the addresses where it expects them; not every kernel's random layout obliges.
  if setarch --addr-no-randomize true 2>/dev/null; then
    run=(setarch --addr-no-randomize env)
  fi
else
  libraries=(libasan.so libubsan.so libstdc++.so.6)
  default=(
    # arrays, scanners and records, one call at a time
    tests/python/core/test_{driver,driver_arrays,driver_threads,modes,online,scanner}.py
    tests/python/core/test_{deconvolved_signal,reference_deconvolution}.py
    tests/python/analysis/test_{reports,waveform_views}.py
    # blocks as files and callers bring them: views, gaps, empty and long blocks, workers with a driver each
    tests/python/test_{api,real_data}.py tests/python/extraction
    tests/python/io/pulsewaves/test_records.py
    tests/python/system_wave/test_description.py
    # the command: texts of reports, files cut off in the middle, by way of a scan container
    tests/python/cli/test_{extract,convert,report,unreadable}.py
    # broken files, arrays and descriptions of scanners
    tests/python/hostile/test_hostile.py
    # lines of text out of columns
    tests/python/io/echo_writers/test_tables.py
  )
fi
if [[ ${#tests[@]} -eq 0 ]]; then
  tests=("${default[@]}")
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
for library in "${libraries[@]}"; do
  preload+="$("$compiler" -print-file-name="$library") "
done
# Python's own allocator would hide where its objects end.
"${run[@]}" LD_PRELOAD="$preload" PYTHONMALLOC=malloc PYTHONPATH="$package" TSAN_OPTIONS=halt_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1 ASAN_OPTIONS=detect_leaks=0:strict_string_checks=1 \
  "$python" -m pytest -q -p no:cacheprovider "${tests[@]}"
