#!/usr/bin/env bash
# check_exports.sh library header…: fails unless the library exports exactly the functions that the
# headers declare.
set -euo pipefail

library=$1
shift

exported=$(nm -D --defined-only "$library" | awk '{ print $3 }' | sort)
# A declaration begins a line and its name stands before the first parenthesis.
declared=$(sed -nE '/^typedef/d; s/^[a-z].*[ *]([a-z0-9_]+)\(.*$/\1/p' "$@" | sort)

if [[ -z $declared ]]; then
  echo "no function found in $*" >&2
  exit 1
fi
diff --label exported <(printf '%s\n' "$exported") --label declared <(printf '%s\n' "$declared")
