#!/usr/bin/env bash
# Builds the wheels for x86-64 Linux into dist/: one for CPython 3.11 and one for the stable ABI of 3.12 and later. They
# run with glibc 2.17 or later, contain FFTW and the C++ standard library, and draw no plots in C++ (no Cairo).
#
# Usage: wheels/build.sh
#
# Downloads are kept in build/wheel: the tools of tools.txt and the sources of FFTW, both of known hash.
# Variables:
#   PYTHONS        interpreters, 3.11 and a later one; default: those found in PATH, pyenv and uv
#   FFTW_TARBALL   fftw-3.3.10.tar.gz; default: fetched with apt-get as the sources of Debian's package
#   DEBIAN_MIRROR  default http://deb.debian.org/debian
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
. wheels/interpreters.sh

readonly glibc=2.17 largest=5000000 # bytes
readonly fftw_sha256=56c932549852cddcfafdab3820b0200c7742675be92179e59e6215b340e26467
work=$PWD/build/wheel
readonly work tools=$work/tools fftw=$work/fftw
export ZIG_GLOBAL_CACHE_DIR=$work/zig-cache

say() { printf '%s\n' "$*"; }
fail() {
  printf 'wheels: %s\n' "$*" >&2
  exit 1
}

# venv FOLDER INTERPRETER PINS: a virtual environment with exactly these packages, made again when they change.
venv() {
  local stamp=$1/pins.sha256
  if [[ -x $1/bin/python ]] && sha256sum --status --check "$stamp" 2>/dev/null; then
    return
  fi
  say "Installing $3 into ${1#"$PWD/"}"
  rm -rf -- "$1"
  "$2" -m venv "$1"
  "$1/bin/python" -m pip --disable-pip-version-check --quiet install --require-hashes --only-binary :all: \
    --requirement "$3" || fail "pip could not install $3; is the Python package index reachable?"
  sha256sum "$3" >"$stamp"
}

# The compilers under one name each, as configure and CMake expect them.
write_compilers() {
  local name
  mkdir -p "$work/bin"
  for name in cc c++; do
    printf '#!/bin/sh\nexec "%s/bin/python-zig" %s -target x86_64-linux-gnu.%s "$@"\n' "$tools" "$name" "$glibc" \
      >"$work/bin/$name"
    chmod +x "$work/bin/$name"
  done
}

# In folders of its own, so that neither root nor a change of the system's sources is needed.
fetch_fftw() {
  local apt=$work/apt
  command -v apt-get >/dev/null || fail "no apt-get; set FFTW_TARBALL to fftw-3.3.10.tar.gz"
  mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial"
  printf 'deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s bookworm main\n' \
    "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" >"$apt/sources.list"
  local -a options=(-qq -o Dir::Etc::SourceList="$apt/sources.list" -o Dir::Etc::SourceParts=/dev/null
    -o Dir::State::Lists="$apt/lists" -o Dir::Cache="$apt/cache" -o APT::Sandbox::User="$(id -un)")
  (
    cd -- "$apt"
    apt-get "${options[@]}" update
    apt-get "${options[@]}" source --download-only fftw3=3.3.10-1
  ) || fail "apt-get could not fetch the sources of FFTW; set FFTW_TARBALL to fftw-3.3.10.tar.gz"
  mv -- "$apt/fftw3_3.3.10.orig.tar.gz" "$1"
}

# A static library with the vector kernels of Debian's package, so that both give the same digits.
build_fftw() {
  local tarball=${FFTW_TARBALL:-$work/fftw-3.3.10.tar.gz}
  if [[ -e $fftw/complete ]]; then
    return
  fi
  [[ -e $tarball ]] || fetch_fftw "$tarball"
  sha256sum --status --check <<<"$fftw_sha256  $tarball" || fail "$tarball is not FFTW 3.3.10: its SHA-256 differs"
  say "Building FFTW"
  rm -rf -- "$fftw" "$work/fftw-3.3.10"
  tar -C "$work" -xf "$tarball"
  (
    cd -- "$work/fftw-3.3.10"
    ./configure --quiet --prefix="$fftw" CC="$work/bin/cc" CFLAGS="-O3 -g0" --with-pic --disable-fortran \
      --disable-doc --disable-dependency-tracking --enable-sse2 --enable-avx
    make --silent --jobs="$(nproc)"
    make --silent install
  ) >"$work/fftw.log" 2>&1 || { tail -n 20 "$work/fftw.log" >&2; fail "FFTW could not be built: $work/fftw.log"; }
  rm -rf -- "$work/fftw-3.3.10"
  touch "$fftw/complete"
}

# Without OpenMP, which only the plots of the C++ library use. nanobind uses the standard streams without their header.
build_wheel() {
  local environment
  environment=$work/env-$(version_of "$1")
  venv "$environment" "$1" wheels/backend.txt
  say "Building the wheel of $("$1" --version)"
  env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER CC="$work/bin/cc" CXX="$work/bin/c++" \
    CXXFLAGS="-include cstdio" PKG_CONFIG_LIBDIR="$fftw/lib/pkgconfig" \
    "$environment/bin/python" -m pip --disable-pip-version-check --quiet wheel --no-build-isolation --no-deps \
    --config-settings build-dir="$work/cmake/{wheel_tag}" --config-settings cmake.define.FULLWAVEFORM_OPENMP=OFF \
    --wheel-dir "$work/raw" .
}

# auditwheel refuses a wheel that needs a newer glibc or a library that not every system has.
repair() {
  PATH="$tools/bin:$PATH" "$tools/bin/auditwheel" repair --only-plat --plat "manylinux_${glibc/./_}_x86_64" \
    --wheel-dir dist "$1" 2>"$work/auditwheel.log" || { cat "$work/auditwheel.log" >&2; fail "auditwheel refused $1"; }
}

check() {
  local bytes
  [[ $1 != *-abi3-* ]] || "$tools/bin/abi3audit" --strict "$1" >"$work/abi3audit.log" 2>&1 ||
    { cat "$work/abi3audit.log" >&2; fail "$1 does not keep to the stable ABI"; }
  bytes=$(stat --format %s "$1")
  [[ $bytes -le $largest ]] || fail "$1 has $bytes bytes; at most $largest are allowed"
  say "$1: $bytes bytes"
}

main() {
  local python version wheel earlier='' later=''
  [[ $(uname -sm) == "Linux x86_64" ]] || fail "built on x86-64 Linux only"
  while IFS= read -r python; do
    version=$(version_of "$python")
    if [[ $version == 3.11 ]]; then
      earlier=$python
    elif [[ -z $later ]]; then
      later=$python
    fi
  done < <(interpreters)
  [[ -n $earlier ]] || fail "Python 3.11 not found; name it: PYTHONS='.../python3.11 .../python3.12'"
  [[ -n $later ]] || fail "no Python 3.12 or later found; name it: PYTHONS='.../python3.11 .../python3.12'"
  mkdir -p "$work"
  venv "$tools" "$earlier" wheels/tools.txt
  write_compilers
  build_fftw
  # Equal sources give equal archives.
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
  export SOURCE_DATE_EPOCH
  rm -rf -- "$work/raw"
  rm -f -- dist/fullwaveform-*.whl
  for python in "$earlier" "$later"; do
    build_wheel "$python"
  done
  for wheel in "$work"/raw/*.whl; do
    repair "$wheel"
  done
  for wheel in dist/fullwaveform-*.whl; do
    check "$wheel"
  done
}

main "$@"
