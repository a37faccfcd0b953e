#!/usr/bin/env bash
# Installs the wheels of dist/ in an empty Debian system that has no compiler, no FFTW and no Python of Debian, and uses
# every format, mode and command there (every_format.py), with each interpreter at hand for which there is a wheel.
#
# Usage: check_wheels.sh    (root, for debootstrap and chroot)
#
# The empty system is kept in build/wheel/root, downloaded packages in build/wheel/packages.
# Variables:
#   PYTHONS        interpreters, not those of Debian; default: those found in PATH, pyenv and uv
#   DEBIAN_MIRROR  default http://deb.debian.org/debian
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.."
. wheels/interpreters.sh

work=$PWD/build/wheel
readonly work system=$work/root

fail() {
  printf 'test of the wheels: %s\n' "$*" >&2
  exit 1
}

# Only a finished system gets its final name. The one library of the system that a dependency needs is Expat (rasterio).
make_empty_system() {
  if [[ ! -e $system ]]; then
    printf 'Making an empty Debian system in %s\n' "${system#"$PWD/"}"
    rm -rf -- "$system.new"
    debootstrap --variant=minbase --include=libexpat1 bookworm "$system.new" "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" \
      >"$work/debootstrap.log" 2>&1 || { tail -n 5 "$work/debootstrap.log" >&2; fail "debootstrap failed"; }
    mv -- "$system.new" "$system"
  fi
  local name
  for name in python3 cc gcc c++ pkg-config; do
    [[ ! -e $system/usr/bin/$name ]] || fail "$system has $name"
  done
  [[ -z $(find "$system/usr/lib" -name 'libfftw3*') ]] || fail "$system has FFTW"
}

# The interpreter under its own path, without its packages, and the libraries of its standard modules; for every user.
copy_interpreter() {
  local prefix=$1 parent=$system$1 library
  tar -C / --exclude='*/site-packages/*' --exclude='__pycache__' --exclude='*/test' --exclude='*.a' \
    --exclude='_tkinter*' -cf - "${prefix#/}" | tar -C "$system" -xf -
  while IFS= read -r library; do
    if [[ ! -e $system$library ]]; then
      install -D -- "$library" "$system$library"
    fi
  done < <(find "$prefix/bin" "$prefix/lib" -type f \( -name 'python3.*' -o -name '*.so*' \) \
    ! -path '*/site-packages/*' ! -name '_tkinter*' -exec ldd {} + 2>/dev/null |
    awk '$2 == "=>" && $3 ~ /^\// { print $3 }' | sort -u)
  while [[ $parent != "$system" ]]; do
    chmod a+rx -- "$parent"
    parent=$(dirname -- "$parent")
  done
}

# The extras of pyproject.toml, as cluster,pandas.
extras() {
  "$1" -c 'import tomllib
print(*tomllib.load(open("pyproject.toml", "rb"))["project"]["optional-dependencies"], sep=",")'
}

check_with() {
  local python=$1 version=$2 wheel=$3 packages checks=$system/checks
  packages=$work/packages/$version
  printf 'Python %s: %s\n' "$version" "${wheel#"$PWD/"}"
  rm -f -- "$packages"/fullwaveform-*.whl
  copy_interpreter "$("$python" -c 'import sys; print(sys.base_prefix)')"
  "$python" -m pip --disable-pip-version-check --quiet download --only-binary :all: --constraint requirements.lock \
    --dest "$packages" "${wheel}[$(extras "$python")]"
  rm -rf -- "$checks"
  mkdir -p "$checks/packages" "$checks/scans"
  cp -- "$packages"/*.whl "$checks/packages"
  cp -r -- tests/package/every_format.py tests/python/support "$checks"
  chown -R 65534:65534 -- "$checks"
  # As a user without rights, with processes and shared memory of its own; neither pip nor the checks use the network.
  # shellcheck disable=SC2016 # expanded by the inner shells
  unshare --mount --pid --fork bash -euc '
    mount -t proc proc "$1/proc"
    mkdir -p "$1/dev/shm"
    mount -t tmpfs tmpfs "$1/dev/shm"
    exec chroot --userspec=65534:65534 "$1" /usr/bin/env -i PATH=/usr/bin:/bin HOME=/checks LC_ALL=C.UTF-8 PYTHONPATH=/checks sh -euc "
      $2 -m venv /checks/venv
      /checks/venv/bin/python -m pip --disable-pip-version-check --quiet install --no-index \
        --find-links /checks/packages \"/checks/packages/$3[$4]\"
      /checks/venv/bin/python /checks/every_format.py /checks/scans
    "' - "$system" "$python" "$(basename -- "$wheel")" "$(extras "$python")"
  rm -rf -- "$checks"
}

main() {
  local python version wheel count=0
  [[ $EUID -eq 0 ]] || fail "needs root, for debootstrap and chroot"
  command -v debootstrap >/dev/null || fail "debootstrap not found; install the Debian package debootstrap"
  make_empty_system
  while IFS= read -r python; do
    version=$(version_of "$python")
    case $version in
      3.11) wheel=$(echo "$PWD"/dist/fullwaveform-*-cp311-cp311-*.whl) ;;
      *) wheel=$(echo "$PWD"/dist/fullwaveform-*-cp312-abi3-*.whl) ;;
    esac
    [[ -e $wheel ]] || fail "no wheel for Python $version in dist/; ./dev wheel builds it"
    if [[ $("$python" -c 'import sys; print(sys.base_prefix)') == /usr ]]; then
      printf '%s is the interpreter of the system: not tested\n' "$python"
      continue
    fi
    check_with "$python" "$version" "$wheel"
    count=$((count + 1))
  done < <(interpreters)
  [[ $count -gt 0 ]] || fail "no interpreter found; name them: PYTHONS='.../python3.11 .../python3.12'"
  printf 'wheels with %d interpreters in an empty system: passed\n' "$count"
}

main "$@"
