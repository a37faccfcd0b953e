#!/usr/bin/env bash
# Makes libraries.min.js and its licences anew from the versions in package-lock.json; needs npm.
set -euo pipefail
here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
folder=$(mktemp -d)
trap 'rm -rf -- "$folder"' EXIT
cp -- "$here"/package*.json "$here/libraries.mjs" "$folder"
cd -- "$folder"
npm ci --silent
npx esbuild libraries.mjs --bundle --minify --format=esm --target=es2020 --legal-comments=inline \
  --outfile="$here/libraries.min.js"
for package in node_modules/d3-* node_modules/internmap node_modules/twgl.js; do
  printf '==== %s %s\n\n' "${package#node_modules/}" "$(node -p "require('./$package/package.json').version")"
  cat -- "$package"/LICENSE*
  printf '\n'
done >"$here/LICENSES.txt"
