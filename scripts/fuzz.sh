#!/usr/bin/env bash
# Builds the libFuzzer targets with Clang (address and undefined-behaviour
# sanitizers) and runs one: scripts/fuzz.sh TARGET SECONDS [more libFuzzer flags]
# TARGET is parser, writer, helpers, streams, hevc, fragments, index or commands (or all). Findings land in
# build/fuzz/findings/TARGET; the run fails on any.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
ensure_packages "${BOXLANE_BUILD_PACKAGES[@]}" clang libclang-rt-14-dev

target=${1:?usage: scripts/fuzz.sh TARGET|all SECONDS}
seconds=${2:?usage: scripts/fuzz.sh TARGET|all SECONDS}
shift 2
build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBOXLANE_SANITIZE=address \
  -DBOXLANE_BUILD_FUZZ=ON -DBOXLANE_BUILD_TESTS=OFF -DBOXLANE_BUILD_TOOLS=OFF -DBOXLANE_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" >/dev/null

targets=("$target")
[ "$target" = all ] && targets=(parser writer helpers streams hevc fragments index commands)
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t"
  findings="$build/findings/$t"
  mkdir -p "$corpus" "$findings"
  seeds=()
  [ -d "fuzz/corpus/$t" ] && seeds=("fuzz/corpus/$t")
  echo "== fuzz_$t for ${seconds}s"
  "$build/fuzz/fuzz_$t" "$corpus" "${seeds[@]}" -dict=fuzz/dict/mp4.dict -max_total_time="$seconds" \
    -artifact_prefix="$findings/" -print_final_stats=1 -rss_limit_mb=4096 "$@" 2>&1 | tail -n 12
  if compgen -G "$findings/*" >/dev/null; then
    echo "fuzz_$t found a problem: $(ls "$findings")" >&2
    exit 1
  fi
done
