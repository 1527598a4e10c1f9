#!/usr/bin/env bash
# Checks that the C++ lines changed since BASE follow .clang-format (only the
# changed lines: older code is not reformatted by the way).
#   bash scripts/check-format.sh [BASE]      (default: main)
# Prints the differences and fails when there are any.
set -euo pipefail
cd "$(dirname "$0")/.."

base=${1:-main}
if ! command -v git-clang-format >/dev/null; then
  echo "git-clang-format is missing; run as root: apt-get install -y --no-install-recommends clang-format" >&2
  exit 1
fi

# Against the fork point, so that what BASE gained meanwhile is not counted.
fork=$(git merge-base "$base" HEAD)
mapfile -t files < <(git diff --name-only --diff-filter=ACMR "$fork" -- '*.cpp' '*.h')
if [ ${#files[@]} -eq 0 ]; then
  echo "format: no C++ file changed since $base"
  exit 0
fi

differences=$(git clang-format --quiet --style=file --diff "$fork" -- "${files[@]}" || true)
if [ -n "$differences" ] && [ "$differences" != "no modified files to format" ]; then
  echo "$differences"
  echo "format: the changed lines above do not follow .clang-format (fix with: git clang-format $base)" >&2
  exit 1
fi
echo "format: ${#files[@]} changed C++ files follow .clang-format"
