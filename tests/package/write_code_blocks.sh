#!/usr/bin/env bash
# Writes the code blocks of a Markdown file that start with a comment "// PATH" or "// PATH: text" to FOLDER/PATH.
#
# Usage: write_code_blocks.sh FILE FOLDER
set -euo pipefail

awk -v folder="$2" '
  /^```/ { inside = /^```cpp$/ && !inside; first = inside; file = ""; next }
  inside && first {
    first = 0
    if (match($0, /^\/\/ [A-Za-z_\/]+\.(h|cpp)/)) {
      file = folder "/" substr($0, 4, RLENGTH - 3)
      parent = file
      sub(/\/[^\/]*$/, "", parent)
      system("mkdir -p \"" parent "\"")
    }
  }
  inside && file != "" { print > file }
' "$1"
