#!/usr/bin/env bash
# Fault injection: applies one small fault at a time (from scripts/mutations.txt)
# to a copy of the tree, rebuilds it with the sanitizers of scripts/test.sh,
# runs the tests and reports per room how many faults the suite caught.
#
#   scripts/mutate.sh                 every fault, the whole suite
#   scripts/mutate.sh tools packet    only faults in these rooms
#   MUTATE_ONLY=12,30 scripts/mutate.sh   only these faults (numbers as listed)
#   MUTATE_FILTER='Mux.*:Probe*' ...  only the tests this GoogleTest filter selects
#   MUTATE_KILLERS=1 ...              every test program runs whole, and each result
#                                     line names the tests that failed: which test
#                                     alone catches a fault, which only repeat others
#                                     (what the programs said: build/mutate/logs/N.log)
#   MUTATE_PROGRAMS='packet parse' ...  only these rooms' test programs run (the
#                                     program of tools alone takes minutes)
#
# The working tree is never touched: tracked files (as they are now, edits
# included) are copied to build/mutate/src, built in build/mutate/build.
# A fault that does not compile counts as neither caught nor missed. The suite
# first runs once without a fault and must pass: a test that fails anyway
# would count every fault as caught.
# Results go to build/mutate/results.txt, one line per fault.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}" "${BOXLANE_READER_PACKAGES[@]}" perl
command -v npm >/dev/null || ensure_packages nodejs npm

list=${MUTATE_LIST:-scripts/mutations.txt}
work=${MUTATE_DIR:-build/mutate}
src=$work/src
build=$work/build
results=$work/results.txt
rooms=("$@")

# Only files whose content differs are copied, so a rerun rebuilds only
# what changed (a fault left in place by an interrupted run included).
mkdir -p "$src"
git ls-files -z | grep -zv "^fuzz/corpus/" | while IFS= read -r -d '' f; do
  cmp -s "$f" "$src/$f" || { mkdir -p "$src/$(dirname "$f")" && cp "$f" "$src/$f"; }
done
# Files deleted from the tree since the last run go from the copy too.
git ls-files -z | grep -zv "^fuzz/corpus/" | sort -z >"$work/tracked"
(cd "$src" && find . -type f -printf '%P\0') | sort -z | comm -z -13 "$work/tracked" - |
  (cd "$src" && xargs -0r rm -f --)
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBOXLANE_SANITIZE=address >/dev/null
# With MUTATE_PROGRAMS only those test programs are built: each fault relinks
# every program of the static library, the benchmarks and fuzzers included.
targets=()
for r in ${MUTATE_PROGRAMS:-}; do targets+=(--target "boxlane_test_$r"); done
install_npm_packages "$build/npm"
if ! nice -n 10 cmake --build "$build" "${targets[@]}" -j2 >"$work/build.log" 2>&1; then
  echo "mutate: the tree does not build without a fault (see $work/build.log)" >&2
  exit 1
fi

# The faults: "@ path | what it breaks", then "- text" (found exactly once in
# the file) and "+ replacement", where \n stands for a line break (followed
# by the next line's indentation). Other lines are comments.
declare -a files whats olds news
n=0
while IFS= read -r line || [ -n "$line" ]; do
  case "$line" in
    '@ '*)
      n=$((n + 1))
      rest=${line#@ }
      files[n]=${rest%% | *}
      whats[n]=${rest#* | }
      ;;
    '- '*) old=${line#- } && olds[n]=${old//\\n/$'\n'} ;;
    '+ '*) new=${line#+ } && news[n]=${new//\\n/$'\n'} ;;
  esac
done <"$list"

wanted() {  # fault number, room
  if [ -n "${MUTATE_ONLY:-}" ]; then
    [[ ",$MUTATE_ONLY," == *",$1,"* ]] || return 1
  fi
  [ ${#rooms[@]} -eq 0 ] && return 0
  local r
  for r in "${rooms[@]}"; do [ "$r" = "$2" ] && return 0; done
  return 1
}

# Every test program, the fault's own room first, stopping at the first
# failure: what ctest runs, one process per room. With MUTATE_KILLERS every
# program runs whole and the failing tests' names go to $work/killers; a
# program that dies or hangs names the test it was running.
run_suite() {
  local r bin status failed=0 order=("$1")
  for r in frame platform packet parse tools; do [ "$r" = "$1" ] || order+=("$r"); done
  [ -n "${MUTATE_FILTER:-}" ] || order+=(c99)
  [ -z "${MUTATE_PROGRAMS:-}" ] || mapfile -t order < <(printf '%s\n' "${order[@]}" | grep -Fx -f <(printf '%s\n' $MUTATE_PROGRAMS))
  : >"$work/killers"
  for r in "${order[@]}"; do
    bin=$build/tests/boxlane_test_$r
    [ -x "$bin" ] || continue
    status=0
    timeout 900 nice -n 10 "$bin" ${MUTATE_FILTER:+--gtest_filter="$MUTATE_FILTER"} >"$work/room.log" 2>&1 || status=$?
    cat "$work/room.log"
    [ "$status" = 0 ] && continue
    [ -n "${MUTATE_KILLERS:-}" ] || return 1
    failed=1
    # The tests that failed; where none did (the program died, hung or was
    # stopped by a sanitizer), the test it was running, as the rest did not run.
    sed -n 's/^\[  FAILED  \] \([^ ,]*\)[ ,].*(.*$/\1/p' "$work/room.log" | sort -u >"$work/room.killers"
    [ -s "$work/room.killers" ] ||
      sed -n 's/^\[ RUN      \] \([^ ]*\).*$/\1/p' "$work/room.log" | tail -n 1 >"$work/room.killers"
    [ -s "$work/room.killers" ] || echo "boxlane_test_$r" >"$work/room.killers"
    cat "$work/room.killers" >>"$work/killers"
  done
  return $failed
}

if ! run_suite none >"$work/test.log" 2>&1; then
  echo "mutate: the suite fails without a fault (see $work/test.log); no fault can be judged" >&2
  exit 1
fi

declare -A caught missed
: >"$results"
restore() { [ -n "${current:-}" ] && cp "$work/original" "$src/$current"; current=; }
trap restore EXIT
trap 'restore; exit 130' INT TERM
for i in $(seq 1 "$n"); do
  file=${files[i]}
  room=${file%%/*}
  wanted "$i" "$room" || continue
  target=$src/$file
  count=$(FROM=${olds[i]} perl -0ne 'my $c = () = /\Q$ENV{FROM}\E/g; print $c' "$target")
  if [ "$count" != 1 ]; then
    echo "$i	STALE	$room	$file	${whats[i]} (text found $count times)" | tee -a "$results"
    continue
  fi
  cp "$target" "$work/original"
  current=$file
  FROM=${olds[i]} TO=${news[i]} perl -0pi -e 's/\Q$ENV{FROM}\E/$ENV{TO}/' "$target"
  if ! nice -n 10 cmake --build "$build" "${targets[@]}" -j2 >"$work/build.log" 2>&1; then
    verdict=BROKEN
  elif run_suite "$room" >"$work/test.log" 2>&1; then
    verdict=MISSED
    missed[$room]=$((${missed[$room]:-0} + 1))
  else
    verdict=CAUGHT
    caught[$room]=$((${caught[$room]:-0} + 1))
  fi
  restore
  killers=
  if [ -n "${MUTATE_KILLERS:-}" ] && [ "$verdict" = CAUGHT ]; then
    killers="	$(paste -sd' ' "$work/killers")"
    # What each program said, to find which checks of a test caught the fault.
    mkdir -p "$work/logs" && cp "$work/test.log" "$work/logs/$i.log"
  fi
  echo "$i	$verdict	$room	$file	${whats[i]}$killers" | tee -a "$results"
done
# The tree back as it was, so the next run starts from a clean build.
nice -n 10 cmake --build "$build" "${targets[@]}" -j2 >/dev/null 2>&1 || true

echo
printf '%-10s %7s %7s %7s\n' room caught missed score
for room in frame platform parse packet tools; do
  c=${caught[$room]:-0} m=${missed[$room]:-0}
  [ $((c + m)) -eq 0 ] && continue
  printf '%-10s %7d %7d %6d%%\n' "$room" "$c" "$m" $((100 * c / (c + m)))
done | tee -a "$results"

# With MUTATE_KILLERS: each test with the faults it catches and how many of them
# no other test catches; a test that alone catches none only repeats others.
if [ -n "${MUTATE_KILLERS:-}" ]; then
  echo
  awk -F'\t' '$2 == "CAUGHT" && NF > 5 {
      n = split($6, t, " ")
      for (i = 1; i <= n; i++) { all[t[i]]++; if (n == 1) alone[t[i]]++ }
    }
    END { for (k in all) printf "%5d %5d  %s\n", all[k], alone[k], k }' "$results" |
    sort -k2,2n -k1,1n | { echo "caught alone  test"; cat; } | tee -a "$results"
fi
