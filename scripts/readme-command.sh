#!/usr/bin/env bash
# Prints the README's command that follows the marker <!-- NAME --> (the
# first indented line after it), so that CI runs exactly what the README says.
#   scripts/readme-command.sh first-command
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
name=$1
command=$(awk -v marker="<!-- $name -->" '
  found && /^    [^ ]/ { sub(/^    /, ""); print; exit }
  index($0, marker) == 1 { found = 1 }
' "$root/README.md")
if [ -z "$command" ]; then
  echo "README.md has no command after <!-- $name -->" >&2
  exit 1
fi
printf '%s\n' "$command"
