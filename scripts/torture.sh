#!/usr/bin/env bash
# Runs one experiment that tortures the agent. Exit status 0 only if it held.
#
# usage: torture.sh NAME [--long] [OPTION...]      torture.sh lists the names
#   --long   as often as docs/reliability.md says; without it a short run
# Other options go to the experiment: --seed N where it is random.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A experiments=(
  [fuzz]="fuzz/run.sh"
  [models]="docs/models/run.sh"
)
for script in tests/torture/*.py; do
  [[ ! -f $script ]] || experiments[$(basename "$script" .py)]="/usr/bin/python3 $script"
done

if [[ $# -eq 0 ]]; then
  printf '%s\n' "${!experiments[@]}" | sort
  exit 0
fi
name=$1
shift
if [[ -z ${experiments[$name]:-} ]]; then
  echo "torture.sh: no experiment '$name'; without a name it lists them" >&2
  exit 2
fi
read -ra command <<<"${experiments[$name]}"
exec "${command[@]}" "$@"
