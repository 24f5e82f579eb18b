#!/usr/bin/env bash
# Everything that must hold before a change lands: style, structure, and all tests, plain and under the sanitizers.
#
# usage: test.sh [STAGE ...]      (default: all, in this order)
#   style     clang-format, include circles and their picture, sizes, docs/behaviour.md against the tests, the models'
#             steps against the source
#   plain     release build, unit and system tests
#   clang     clang build with -Wthread-safety, the benchmark's programs too; clang-tidy
#   install   cmake --install, and a second build against the installed settings library
#   asan      all tests under the address, leak and undefined-behaviour sanitizers
#   tsan      all tests under the thread sanitizer
#   torture   each experiment of scripts/torture.sh in its short form
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

python=/usr/bin/python3
jobs=$(nproc)
# System tests mostly wait for each other's programs: more of them than processors run at once.
workers=${ORVEL_TEST_WORKERS:-$((jobs * 2))}
total_passed=0
total_failed=0

stage() {
  echo
  echo "== $* ($(date +%T))"
}

own_sources() {
  git ls-files -co --exclude-standard -- 'src/*.h' 'src/*.cpp' 'platform/*.h' 'platform/*.cpp' 'fuzz/*.h' \
    'fuzz/*.cpp' 'bench/*.h' 'bench/*.cpp' 'bench/*.c' 'examples/*.c' 'examples/*.cpp' 'tests/*.h' 'tests/*.cpp' \
    'tests/*.c'
}

build() {
  cmake --preset "$1" -G Ninja >/dev/null
  cmake --build --preset "$1"
}

count() {  # count FILE PATTERN: adds the number that PATTERN captures in FILE
  sed -nE "s/$2/\\1/p" "$1" | tail -n 1
}

run_tests() {  # run_tests BUILD_FOLDER
  local folder=$1 output unit_total unit_failed system_passed system_failed status=0
  output=$(mktemp)
  ctest --test-dir "$folder" -j "$jobs" --output-on-failure --timeout 300 >"$output" 2>&1 || status=1
  grep -vE '^ *[0-9]+/[0-9]+ Test .* Passed|^ +Start ' "$output" || true
  unit_total=$(count "$output" '.* tests failed out of ([0-9]+).*')
  unit_failed=$(count "$output" '.*, ([0-9]+) tests failed out of.*')
  ORVEL_BIN=$PWD/$folder/bin/orvel $python -m pytest tests/system -q -n "$workers" -p no:cacheprovider \
    >"$output" 2>&1 || status=1
  tail -n 60 "$output"
  system_passed=$(count "$output" '.*[^0-9]([0-9]+) passed.*')
  [[ -n $system_passed ]] || system_passed=$(count "$output" '^([0-9]+) passed.*')
  system_failed=$(count "$output" '^(.*[^0-9])?([0-9]+) failed.*')
  rm -f "$output"
  total_passed=$((total_passed + ${unit_total:-0} - ${unit_failed:-0} + ${system_passed:-0}))
  total_failed=$((total_failed + ${unit_failed:-0}))
  [[ $status -eq 0 ]] || { total_failed=$((total_failed + 1)); finish; exit 1; }
}

run_style() {
  stage "format, includes, sizes, behaviours, steps of the models"
  own_sources | xargs clang-format --dry-run -Werror
  $python scripts/includes.py check
  $python scripts/check-sizes.py
  $python scripts/check-behaviour.py
  $python docs/models/check_steps.py
}

run_plain() {
  stage "release build and tests"
  build release
  $python scripts/footprint.py build/bin/orvel
  run_tests build
}

run_clang() {
  stage "clang build with thread-safety analysis, clang-tidy"
  CC=clang CXX=clang++ cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=OFF -DORVEL_BENCH=ON \
    >/dev/null
  cmake --build build-clang --target all bench_programs
  git ls-files -co --exclude-standard -- 'src/*.cpp' 'platform/*.cpp' |
    xargs -P "$jobs" -n 4 clang-tidy -p build-clang --quiet 2>/dev/null
}

run_install() {
  stage "installation, and a build against the installed settings library"
  local prefix
  prefix=$(mktemp -d)
  build release
  cmake --install build --prefix "$prefix" >/dev/null
  "$prefix/bin/orvel" --version
  rm -rf build-system  # it would look for the library where the run before had it
  CMAKE_PREFIX_PATH=$prefix cmake -S . -B build-system -G Ninja -DORVEL_USI=system -DBUILD_TESTING=OFF >/dev/null
  cmake --build build-system
  build-system/bin/orvel --version
  rm -rf "$prefix"
}

run_asan() {
  stage "address, leak and undefined-behaviour sanitizers"
  build asan
  ORVEL_BURST_MESSAGES=2000 ORVEL_FLEET_AGENTS=10 run_tests build-asan
}

run_tsan() {
  stage "thread sanitizer"
  build tsan
  # The process ends with its threads still there: a thread that ended and waits to be joined is no leak.
  TSAN_OPTIONS=report_thread_leaks=0 ORVEL_BURST_MESSAGES=2000 ORVEL_FLEET_AGENTS=10 run_tests build-tsan
}

# The first two use all processors by themselves; the others mostly wait, so that two at a time are no worse.
run_torture() {
  stage "experiments, each in its short form"
  local logs name names failed
  build release
  names=$(scripts/torture.sh | grep -vxE 'fuzz|models')
  logs=$(mktemp -d)
  experiment() {
    local outcome=passed
    scripts/torture.sh "$1" >"$logs/$1" 2>&1 || outcome=failed
    touch "$logs/$1.$outcome"
    if [[ $outcome == failed ]]; then tail -n 200 "$logs/$1"; else tail -n 1 "$logs/$1"; fi
  }
  export ORVEL_BIN=$PWD/build/bin/orvel
  experiment fuzz
  experiment models
  for name in $names; do
    while (($(jobs -rp | wc -l) >= 2)); do wait -n; done
    experiment "$name" &
  done
  wait
  failed=0
  for name in fuzz models $names; do  # one that has ended without a word has failed
    if [[ -e $logs/$name.passed ]]; then total_passed=$((total_passed + 1)); else failed=$((failed + 1)); fi
  done
  total_failed=$((total_failed + failed))
  rm -rf "$logs"
  [[ $total_failed -eq 0 ]] || { finish; exit 1; }
}

finish() {
  echo
  echo "$total_passed passed, $total_failed failed"
}

stages=("$@")
[[ $# -gt 0 ]] || stages=(style plain clang install asan tsan torture)
for name in "${stages[@]}"; do
  case $name in
    style | plain | clang | install | asan | tsan | torture) "run_$name" ;;
    *) echo "test.sh: no stage '$name'" >&2; exit 2 ;;
  esac
done
finish
