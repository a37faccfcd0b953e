#!/usr/bin/env bash
# Compiles every module except host/ against the headers that docs/embedding.md lists for it: a use of any other
# member of the host framework fails here, and so does a list without a member that is used.
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

# A code block whose first line is "// PATH: ..." or "// PATH" goes to that file.
"$root/tests/package/write_code_blocks.sh" "$root/docs/embedding.md" "$scratch"

mapfile -t sources < <(cd -- "$root" && find fullwaveform -name '*.cpp' -not -path 'fullwaveform/host/*' | sort)
[[ ${#sources[@]} -ge 30 ]] || { echo "found only ${#sources[@]} sources" >&2; exit 1; }
read -r -a flags < <(pkg-config --cflags eigen3 fftw3)
# The compiled tree omits the library's own headers of host/, so that they cannot be found.
mkdir "$scratch/tree"
cp -r -- "$root/fullwaveform" "$scratch/tree/fullwaveform"
rm -r -- "$scratch/tree/fullwaveform/host"
cp -r -- "$scratch/fullwaveform/host" "$scratch/tree/fullwaveform/host"
cd -- "$scratch/tree"
printf '%s\0' "${sources[@]}" | xargs -0 -n 4 -P "$(nproc)" \
  g++ -std=c++20 -fsyntax-only -w -I. "${flags[@]}" ||
  { echo "a module uses a member of host/ that docs/embedding.md does not list" >&2; exit 1; }
printf '%d sources against the host interface of docs/embedding.md: passed\n' "${#sources[@]}"
