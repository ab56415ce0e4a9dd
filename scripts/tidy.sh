#!/usr/bin/env bash
# Runs clang-tidy with the checks in .clang-tidy over the library's and the host's sources, two
# files at a time, against the compile commands of a configured build (build/ci unless given).
# The tests and benchmarks are left out: they would double the time and their code ships to
# no one. Exits non-zero on the first finding, which .clang-tidy makes an error.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build/ci}"
cd "$root"
if [ ! -f "$build/compile_commands.json" ]; then
  echo "tidy: $build/compile_commands.json is missing; configure the build first" >&2
  exit 1
fi
tidy="$(command -v clang-tidy-14 || command -v clang-tidy)"
# The generated sources of the build folder are not ours to check.
files=$(/usr/bin/python3 - "$build/compile_commands.json" "$root" <<'PY' | sort -u
import json, sys
root = sys.argv[2] + "/"
for entry in json.load(open(sys.argv[1])):
    name = entry["file"]
    if name.startswith(root + "src/") or name.startswith(root + "host/"):
        print(name)
PY
)
# clang-tidy counts the warnings it found in system headers and then hid; only findings matter.
set +e
printf '%s\n' $files | xargs -r -P2 -n4 "$tidy" -p "$build" --quiet 2>&1 |
  grep -v -E '^[0-9]+ warnings? generated\.$'
status=${PIPESTATUS[1]}
set -e
if [ "$status" -ne 0 ]; then
  echo "tidy: findings above" >&2
  exit 1
fi
echo "tidy: clean ($(printf '%s\n' $files | wc -l) files)"
