#!/usr/bin/env bash
# Measures the agent against the floor: the least that any program could do with the same libraries and system calls.
# Prints a table and, when all is measured as often as it should be, writes it to bench/results.json and
# docs/performance.md, which explains the rows. --growth draws that page's plots, too.
#
# usage: bench.sh [--pairs N] [--growth] [ROW...]      (default: all rows, each as often as it needs)
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
  sed -n '2,6s/^# \{0,1\}//p' "$0"
  exit 0
fi
folder=${ORVEL_BENCH_BUILD:-build-bench}
options=(-DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DORVEL_BENCH=ON)
if command -v ccache >/dev/null; then
  options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$folder" -G Ninja "${options[@]}" >/dev/null
cmake --build "$folder" --target bench_programs usi_tool >/dev/null
exec /usr/bin/python3 bench/run.py --build "$folder" "$@"
