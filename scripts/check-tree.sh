#!/usr/bin/env bash
# Checks the house rules of the source tree that no compiler enforces:
#  - only platform/ calls the operating system: no POSIX header and no environment
#    variable is read anywhere else in the library or the tool;
#  - a folder uses another folder's code only through the exported headers (ostra/...)
#    or an internal header whose opening comment says "Shared with" that folder;
#  - with --format, every C++ file is formatted as .clang-format says.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0
fail() { echo "check-tree: $*"; status=1; }

lib_dirs=(audio engine fileio formats image kernel plugins resources surrogate tools)
files=$(git ls-files -- "${lib_dirs[@]/%//}" | grep -E '\.(cpp|h)$')

posix='#include <(unistd|fcntl|pthread|dlfcn|dirent|termios|poll|spawn|signal)\.h>|#include <sys/'
for f in $files; do
  grep -nE "$posix" "$f" | sed "s|^|$f:|" | while read -r hit; do
    echo "check-tree: operating-system header outside platform/: $hit"; done
  grep -nE '\b(std::)?(secure_)?getenv\s*\(' "$f" | sed "s|^|$f:|" | while read -r hit; do
    echo "check-tree: environment read outside platform/: $hit"; done
done | grep . && status=1

for f in $files $(git ls-files -- platform | grep -E '\.(cpp|h)$'); do
  top=${f%%/*}
  while read -r inc; do
    [ -n "$inc" ] || continue
    other=${inc%%/*}
    [ "$other" = "$top" ] && continue
    [ -f "$inc" ] || continue
    if [[ "$inc" != */internal/* ]] || ! head -n 12 "$inc" | grep -q "Shared with.*\b$top/"; then
      fail "$f includes $inc, which is not declared shared with $top/"
    fi
  done < <(sed -nE 's/^#include "([a-z_]+\/[^"]+)".*/\1/p' "$f" | grep -v '^ostra/')
done

if [ "${1:-}" = "--format" ]; then
  bad=$(git ls-files -- '*.cpp' '*.h' | xargs clang-format --dry-run 2>&1 | grep -c 'warning:' || true)
  [ "$bad" = 0 ] || fail "$bad places are not formatted as .clang-format says (run clang-format -i)"
fi

[ $status = 0 ] && echo "check-tree: ok"
exit $status
