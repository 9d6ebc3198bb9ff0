#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds this example project against it, from a
# copy in a temporary folder:
#   - the first build converts the three scenes, a second build has nothing to do;
#   - a touched scene, and it alone, is converted again;
#   - a damaged scene fails the build with Korvex's message;
#   - the rule's wrapper fails on a run that ends with status 0 but writes no .qsn.
#
#   examples/pipeline/check.sh [BUILD]      (BUILD: the build folder, default build)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "pipeline check: $*" >&2
  [ -f "$work/log" ] && sed 's/^/  | /' "$work/log" >&2
  exit 1
}
# Korvex prints "Converting ./NAME" once a run.
converted() { grep -o 'Converting \./[^ ]*' "$work/log" | sort | tr '\n' ' ' | sed 's/ $//'; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
project=$work/project
mkdir -p "$project"
cp -r "$root/examples/pipeline/CMakeLists.txt" "$root/examples/pipeline/scenes" "$project/"
out=$work/out

cmake -S "$project" -B "$out" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" 2>&1 ||
  fail "configuring the example failed"
grep -q "$prefix/bin/Korvex" "$out/build.ninja" || fail "the rules do not run the installed Korvex"
cmake --build "$out" >"$work/log" 2>&1 || fail "the first build failed"
[ "$(converted)" = "Converting ./crate.pod Converting ./room.pod Converting ./walker.pod" ] ||
  fail "the first build did not convert the three scenes once each: $(converted)"
for f in scenes/room scenes/characters/walker scenes/props/crate; do
  [ -s "$out/$f.qsn" ] && [ -s "$out/$f.PODx" ] || fail "$f.qsn or $f.PODx is missing"
done
grep -q 'Total vertex after reduction: 72' "$work/log" || fail "the room was not welded"
echo "pipeline check: first build: $(converted)"

cmake --build "$out" >"$work/log" 2>&1 || fail "the second build failed"
grep -q 'ninja: no work to do' "$work/log" || fail "the second build did work"
echo "pipeline check: second build: $(tail -n 1 "$work/log")"

sleep 1  # a touch the build tool can tell from the last build, on coarse file times too
touch "$project/scenes/characters/walker.pod"
cmake --build "$out" >"$work/log" 2>&1 || fail "the build after a touch failed"
[ "$(converted)" = "Converting ./walker.pod" ] ||
  fail "the touch of walker.pod converted: $(converted)"
echo "pipeline check: after touching walker.pod: $(converted)"

printf 'not a scene' >"$project/scenes/props/crate.pod"
if cmake --build "$out" >"$work/log" 2>&1; then fail "the build of a damaged scene succeeded"; fi
grep -q '^Invalid input file$' "$work/log" || fail "the failed build does not show Korvex's message"
grep -q 'Korvex failed on .*crate.pod' "$work/log" || fail "the failed build does not name the scene"
[ ! -e "$out/scenes/props/crate.qsn" ] || fail "the damaged scene's old crate.qsn is left"
echo "pipeline check: damaged crate.pod fails the build with: $(grep -x -m1 'Invalid input file' "$work/log")"

# A stand-in for Korvex that ends with status 0 and writes nothing, as Korvex does when it cannot
# save or read back its intermediate file.
cat >"$work/stand-in" <<'STANDIN'
#!/bin/sh
echo "Invalid input file or save file"
exit 0
STANDIN
chmod +x "$work/stand-in"
mkdir -p "$work/run"
echo stale >"$work/run/crate.qsn"
if cmake -DKORVEX="$work/stand-in" -DSCENE="$root/examples/pipeline/scenes/props/crate.pod" \
     -DFOLDER="$work/run" -DNAME=crate.pod -DQSN=crate.qsn \
     -P "$prefix/lib/cmake/Korvex/KorvexRunScene.cmake" >"$work/log" 2>&1; then
  fail "the wrapper passed a run that wrote no .qsn"
fi
grep -q 'Invalid input file or save file' "$work/log" || fail "the wrapper hid the run's message"
grep -q 'wrote no crate.qsn' "$work/log" || fail "the wrapper did not say the .qsn is missing"
[ ! -e "$work/run/crate.qsn" ] || fail "the wrapper left the stale crate.qsn"
echo "pipeline check: a run with status 0 and no .qsn fails: $(grep -o 'Korvex wrote no crate.qsn' "$work/log")"
rm -f "$work/log"
echo "pipeline check: passed"
