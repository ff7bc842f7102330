#!/usr/bin/env bash
# Branch coverage of the whole suite: builds the tree with Clang's
# source-based coverage, runs every test (and the boxlane program they
# start), and lists each branch outcome that no test takes. Such an outcome
# is a fault no test can catch: dropping that check or turning it around
# goes unnoticed. Pair it with scripts/mutate.sh, which measures the rest.
#
#   scripts/coverage.sh               summary per file, then the list's path
#   COVERAGE_DIR=build/cov scripts/coverage.sh
#
# The list, one outcome a line, "file:line:col [never true|never false|
# never reached] source", goes to $COVERAGE_DIR/missed-branches.txt; lines
# no test executes go to $COVERAGE_DIR/missed-lines.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}" "${BOXLANE_READER_PACKAGES[@]}" clang llvm
command -v npm >/dev/null || ensure_packages nodejs npm

build=${COVERAGE_DIR:-build/coverage}
flags="-fprofile-instr-generate -fcoverage-mapping"
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate -DCMAKE_SHARED_LINKER_FLAGS=-fprofile-instr-generate >/dev/null
install_npm_packages "$build/npm"
cmake --build "$build"

# One profile per process (%p): the tests start the program many times.
profiles=$PWD/$build/profiles
rm -rf "$profiles"
LLVM_PROFILE_FILE="$profiles/%p-%m.profraw" ctest --test-dir "$build" -j "$(nproc)" >"$build/ctest.log" 2>&1 ||
  echo "coverage: some tests failed (see $build/ctest.log); the lists cover the runs that were made" >&2
llvm-profdata merge -sparse "$profiles"/*.profraw -o "$build/suite.profdata"

objects=("$build/libboxlane.so")
while IFS= read -r exe; do objects+=(-object "$exe"); done < <(
  find "$build" "$build/tests" -maxdepth 1 -type f -perm -u+x -name 'boxlane*' | sort)
cov=(-instr-profile="$build/suite.profdata" -ignore-filename-regex='(^/usr/|/(tests|bench|fuzz|examples)/)')

llvm-cov report "${objects[@]}" "${cov[@]}" 2>/dev/null

# The text view has a "Branch (line:col): [True: n, False: m]" line under each
# condition, once for every instantiation of a template; an outcome counts as
# taken when any instantiation takes it. File names become relative to here.
: >"$build/missed-lines.txt"
llvm-cov show "${objects[@]}" "${cov[@]}" -show-branches=count -show-line-counts -use-color=false 2>/dev/null |
  awk -v root="$PWD/" -v lines="$build/missed-lines.txt" '
    function relative(path) {
      while (sub(/[^\/]+\/\.\.\//, "", path)) {}
      sub("^" root, "", path)
      return path
    }
    /^\/.*:$/ { file = relative(substr($0, 1, length($0) - 1)); delete text; next }
    match($0, /^ *[0-9]+\|/) {
      split($0, cell, "|")
      line = cell[1] + 0
      text[line] = substr($0, length(cell[1]) + length(cell[2]) + 3)
      if (cell[2] ~ /^ *0$/) { sub(/^ */, "", text[line]); print file ":" line ": " text[line] > lines }
      next
    }
    /Branch \([0-9]+:[0-9]+\): \[True: / {
      s = $0; sub(/.*Branch \(/, "", s)  # "19:7): [True: 297k, False: 0]"
      at = s; sub(/\).*/, "", at)
      t = s; sub(/.*True: /, "", t); sub(/,.*/, "", t)
      f = s; sub(/.*False: /, "", f); sub(/\].*/, "", f)
      key = file ":" at
      if (!(key in seen)) { order[++n] = key; seen[key] = 1; split(at, lc, ":"); source[key] = text[lc[1] + 0] }
      if (t != "0") taken_true[key] = 1
      if (f != "0") taken_false[key] = 1
    }
    END {
      for (i = 1; i <= n; i++) {
        key = order[i]
        if (key in taken_true && key in taken_false) continue
        kind = key in taken_true ? "never false" : key in taken_false ? "never true" : "never reached"
        s = source[key]; sub(/^ */, "", s)
        print key " [" kind "] " s
      }
    }' >"$build/missed-branches.txt"

echo
echo "coverage: $(wc -l <"$build/missed-branches.txt") branch outcomes no test takes: $build/missed-branches.txt"
echo "coverage: $(wc -l <"$build/missed-lines.txt") lines no test executes: $build/missed-lines.txt"
