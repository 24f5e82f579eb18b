#!/usr/bin/env bash
# Builds the fuzz targets and runs them, two at a time: any input, and what the agent makes of it is compared with a
# second, naive reading in the target.
#
# usage: run.sh [--long] [--seed N] [TARGET...]      (default: all targets)
#   --long     10 million runs or 5 minutes each, whichever comes first; new inputs are kept in build-fuzz/found for the
#              next time. Without it: the corpus and 5 seconds each.
#   --seed N   the same random numbers again
#
# An input that fails is left in build-fuzz/failed. Once mended, it becomes a unit test and a file in fuzz/corpus/TARGET.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${ORVEL_FUZZ_BUILD:-build-fuzz}
at_once=2
seed=0  # chosen by the fuzzer
limits=(-max_total_time=5)
long=
targets=()
while [[ $# -gt 0 ]]; do
  case $1 in
    --long) long=yes; limits=(-runs=10000000 -max_total_time="${ORVEL_FUZZ_SECONDS:-300}") ;;
    --seed) seed=$2; shift ;;
    -*) echo "usage: run.sh [--long] [--seed N] [TARGET...]" >&2; exit 2 ;;
    *) targets+=("$1") ;;
  esac
  shift
done
if [[ ${#targets[@]} -eq 0 ]]; then
  for source in fuzz/*_fuzz.cpp; do
    targets+=("$(basename "$source" _fuzz.cpp)")
  done
fi

options=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DORVEL_FUZZ=ON -DBUILD_TESTING=OFF)
if command -v ccache >/dev/null; then options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B "$build" -G Ninja "${options[@]}" >/dev/null
cmake --build "$build" --target "${targets[@]/%/_fuzz}" | tail -n 1

memory=/dev/shm
[[ -w $memory ]] || memory=/tmp
TMPDIR=$(mktemp -d "$memory/orvel-fuzz-run-XXXXXX")  # files that targets work on, new inputs of a short run
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT
mkdir -p "$build/failed" "$build/found" "$build/logs"

run_target() {
  local target=$1 new=$TMPDIR/$1-new dictionary=fuzz/dictionaries/$1.dict
  local arguments=("${limits[@]}" -seed="$seed" -timeout=30 -print_final_stats=1 -verbosity=1
    -artifact_prefix="$build/failed/$target-")
  [[ -z $long ]] || new=$build/found/$target
  [[ ! -f $dictionary ]] || arguments+=(-dict="$dictionary")
  mkdir -p "$new"
  rm -f "$build/logs/$target.failed"
  "$build/bin/${target}_fuzz" "${arguments[@]}" "$new" "fuzz/corpus/$target" >"$build/logs/$target" 2>&1 ||
    touch "$build/logs/$target.failed"
}

for target in "${targets[@]}"; do
  while (($(jobs -rp | wc -l) >= at_once)); do
    wait -n
  done
  run_target "$target" &
done
wait

total=0
failed=()
printf '%-20s %12s %10s %10s\n' target runs coverage corpus
for target in "${targets[@]}"; do
  log=$build/logs/$target
  runs=$(sed -nE 's/^stat::number_of_executed_units: +//p' "$log")
  read -r coverage corpus < <(sed -nE 's/^#.* cov: ([0-9]+) .* corp: ([0-9]+).*/\1 \2/p' "$log" | tail -n 1) || true
  printf '%-20s %12s %10s %10s\n' "$target" "${runs:-none}" "${coverage:-none}" "${corpus:-none}"
  total=$((total + ${runs:-0}))
  [[ ! -f $log.failed && ${runs:-0} -gt 0 ]] || failed+=("$target")
done
for target in "${failed[@]}"; do
  echo
  echo "$target failed:"
  grep -v '^#[0-9]' "$build/logs/$target" | tail -n 60
  echo "to see it again: $build/bin/${target}_fuzz FILE (named above)"
done
if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzz: ${#failed[@]} of ${#targets[@]} targets failed: ${failed[*]}"
  exit 1
fi
echo "fuzz: ${#targets[@]} targets, $total runs ok"
