#!/usr/bin/env bash
# Copies this small repository to a temporary directory, commits it, and runs citation-refresh
# over it twice: once to anchor its docs' citations, and once after the code changed (lines
# inserted above declarations, one declaration deleted), showing a citation moved and one lost.
#
#   examples/native/run.sh            # uses build/.../citation-refresh, else the one on PATH
#   CITATION_REFRESH=/path/to/citation-refresh examples/native/run.sh
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
program="${CITATION_REFRESH:-$root/build/hosts/native/command/citation-refresh}"
if [ ! -x "$program" ]; then program="$(command -v citation-refresh)" || {
  echo "run.sh: build citation-refresh first (./scripts/setup.sh)" >&2; exit 2; }
fi
program="$(realpath "$program")"  # the run below works in another directory

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cp -r "$here/." "$work/"
rm -f "$work/run.sh"
cd "$work"
git init -q -b main
git -c user.name=example -c user.email=example@example.org add -A
git -c user.name=example -c user.email=example@example.org commit -q -m "code and docs"

echo "== first run: anchors every citation, changes no page"
"$program"
echo
echo "== the code changes: three lines above every declaration, largest() deleted"
python3 - <<'PY'
path = "src/shapes.py"
text = open(path).read()
text = text.replace("import math\n", "import math\nimport functools\n\nUNIT = 1.0\n", 1)
text = text.replace("\n\ndef largest(shapes):\n    return max(shapes, key=lambda shape: shape.area())\n", "\n")
open(path, "w").write(text)
PY
git --no-pager diff --stat
echo
echo "== --check (as in CI): exit 1, writes nothing"
"$program" --check || echo "(exit $?)"
echo
echo "== second run: moves the citations, reports the lost one"
"$program"
echo
git --no-pager diff --color=never -U0 docs/
echo
echo "== docs/ now holds (commit .citation-anchors.json with the pages):"
ls -A docs
