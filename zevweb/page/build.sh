#!/bin/sh
# Builds the page: build.sh PACKAGES OUTPUT. PACKAGES holds node_modules, OUTPUT gets the files that
# zevweb serves. The sources are copied beside the packages, where both compilers find them.
set -eu

here=$(dirname "$(readlink -f "$0")")
packages=$1
output=$2

rm -rf "$packages/src"
mkdir -p "$output"
cp -r "$here/src" "$here/tsconfig.json" "$packages"
cd "$packages"
node_modules/.bin/tsc --project tsconfig.json
node_modules/.bin/esbuild src/main.ts --bundle --minify --format=esm --target=es2022 \
  --charset=utf8 --legal-comments=none --log-level=warning "--outfile=$output/page.js"
node_modules/.bin/esbuild src/page.css --bundle --minify --log-level=warning \
  "--outfile=$output/page.css"
cp "$here/index.html" "$here/icon.svg" "$output"
# What is bundled has a licence that wants to be passed on.
for package in xterm addon-fit addon-search; do
  printf '@xterm/%s\n\n' "$package"
  cat "node_modules/@xterm/$package/LICENSE"
  printf '\n'
done > "$output/licenses.txt"
# The server sends these to browsers that take them. No time is in them: the same sources give the
# same bytes.
for file in index.html page.js page.css icon.svg; do
  gzip -9 -n -c "$output/$file" > "$output/$file.gz"
done
