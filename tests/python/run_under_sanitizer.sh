#!/usr/bin/env bash
# Runs Python tests with the extension module under the address and undefined-behaviour sanitizers (asan) or the
# thread sanitizer (tsan): the given ones, or a selection that reaches the C++ library in different ways (asan) or
# with threads (tsan). Leaks are not checked, because the interpreter releases much only at its end. Programs that
# tests start inherit the environment, and with it the sanitizer.
#
# Not selected for asan:
# - cli/test_extract_scans.py compares the memory of whole runs, which grows with every block under the sanitizer;
# - core/test_reference_three_point.py, plotting/test_waveform_plot.py and system_wave/test_{command,offset}.py pass
#   but take long, and call the library as other selected tests do; fuzz/, simulation/ and most of io/ hardly call it.
# Not selected for tsan: tests that read or write LAZ. lazrs has threads of its own and is not instrumented, so the
# sanitizer does not see their synchronisation and reports a race inside lazrs.
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
parallel=(--numprocesses "$(nproc)" --dist loadfile)
if [[ $sanitizer == tsan ]]; then
  libraries=(libtsan.so libstdc++.so.6)
  # In the worker processes of pytest-xdist the thread sanitizer fails to allocate its own tables.
  parallel=()
  default=(tests/python/core/test_{driver,driver_threads}.py tests/python/extraction/test_pipeline.py)
  # The thread sanitizer cannot run with the random address layout of some kernels.
  if setarch --addr-no-randomize true 2>/dev/null; then
    run=(setarch --addr-no-randomize env)
  fi
else
  libraries=(libasan.so libubsan.so libstdc++.so.6)
  default=(
    # arrays, scanners and on-board echoes, one call at a time
    tests/python/core/test_{driver,driver_arrays,driver_threads,modes,online,scanner}.py
    tests/python/core/test_{deconvolved_signal,reference_deconvolution}.py
    tests/python/core/test_driver_reports.py tests/python/analysis/test_waveform_views.py
    # blocks from files and callers: views, gaps, empty and long blocks, workers with a driver each
    tests/python/test_{api,real_data}.py tests/python/extraction
    tests/python/io/pulsewaves/test_real_files.py
    tests/python/system_wave/test_description.py
    # the command line: reports, truncated files, scan containers
    tests/python/cli/test_{extract,convert,report,unreadable}.py
    # invalid files, arrays and scanner descriptions
    tests/python/hostile/test_hostile.py
    # text from columns
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
# The interpreter is built without sanitizers, so their libraries must be loaded before it starts, and with them the
# C++ library, whose exceptions the sanitizer intercepts.
preload=
for library in "${libraries[@]}"; do
  preload+="$("$compiler" -print-file-name="$library") "
done
reports=$(mktemp -d)
trap 'rm -rf -- "$reports"' EXIT
# Python's own allocator would hide the bounds of its objects. Reports go to files, since pytest keeps what a test prints.
run_tests() {
  "${run[@]}" LD_PRELOAD="$preload" PYTHONMALLOC=malloc PYTHONPATH="$package" \
    TSAN_OPTIONS="halt_on_error=1:log_path=$reports/report:suppressions=$PWD/tests/python/thread_sanitizer.supp" \
    UBSAN_OPTIONS=print_stacktrace=1 ASAN_OPTIONS=detect_leaks=0:strict_string_checks=1 \
    "$python" -m pytest -q -p no:cacheprovider "${parallel[@]}" "${tests[@]}"
}

# Whether the thread sanitizer ended the program because of its own tables, without a finding: when threads start, it now
# and then asks for the shadow of all memory below an address of the heap, 0x1ec... bytes, which no system has.
failed_to_allocate() {
  grep -qs '^==[0-9]*==ERROR: ThreadSanitizer failed to allocate 0x1ec' "$reports"/* &&
    ! grep -q 'WARNING: ThreadSanitizer' "$reports"/*
}

for attempt in 1 2 3 4 5; do
  status=0
  run_tests || status=$?
  cat -- "$reports"/* 2>/dev/null || true
  if [[ $status -eq 0 ]] || ! failed_to_allocate; then
    break
  fi
  printf 'the thread sanitizer ended without a finding (run %d)\n' "$attempt"
  rm -f -- "$reports"/*
done
exit "$status"
