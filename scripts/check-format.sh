#!/usr/bin/env bash
# Checks (or, with --fix, applies) the C++ formatting of the library, its
# public header and the tools against .clang-format. Files listed in
# .clang-format-ignore are skipped.
set -euo pipefail
cd "$(dirname "$0")/.."

fix=0
if [ "${1:-}" = "--fix" ]; then
  fix=1
fi

mapfile -t ignored < <(grep -v -e '^#' -e '^$' .clang-format-ignore)
files=()
while IFS= read -r f; do
  skip=0
  for i in "${ignored[@]}"; do
    [ "$f" = "$i" ] && skip=1
  done
  [ $skip -eq 0 ] && files+=("$f")
done < <(git ls-files 'src/*.cpp' 'src/*.h' 'include/*.h' 'tools/*.cpp' 'tools/*.h')

if [ $fix -eq 1 ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
clang-format --dry-run --Werror "${files[@]}"
echo "clang-format: ${#files[@]} files formatted as .clang-format says"
