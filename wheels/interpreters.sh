# Sourced by build.sh and by the test of the wheels.
# shellcheck shell=bash

# The interpreters of the variable PYTHONS or, for each version from 3.11, the first of PATH, pyenv and uv that runs; one
# path per line.
interpreters() {
  local version candidate path
  if [[ -n ${PYTHONS-} ]]; then
    tr ' ' '\n' <<<"$PYTHONS"
    return
  fi
  for version in 3.11 3.12 3.13 3.14; do
    for candidate in "python$version" \
      "${PYENV_ROOT:-$HOME/.pyenv}/versions/$version".*/"bin/python$version" \
      "${XDG_DATA_HOME:-$HOME/.local/share}/uv/python/cpython-$version".*/"bin/python$version"; do
      if path=$("$candidate" -c 'import sys; print(sys.executable)' 2>/dev/null); then
        printf '%s\n' "$path"
        break
      fi
    done
  done
}

# The version of an interpreter, as 3.12.
version_of() { "$1" -c 'import sys; print("%d.%d" % sys.version_info[:2])'; }
