#!/usr/bin/env bash
# Verifies the models of the protocols between threads, over their whole state space, and shows that each mistake
# that can be seeded in one makes it fail.
#
# usage: run.sh [--long]      --long verifies the true models with larger bounds, too
set -euo pipefail
cd "$(dirname "$0")"

models=$PWD
folder=${ORVEL_TORTURE_BUILD:-$PWD/../../build-torture}/models
memory_limit=4096  # MiB, for each verifier
deepest=1000000

# What is run: model, property ("states": assertions in all states, also in those in which nothing can move; otherwise the
# name of a formula), bounds or mistake, and the outcome.
true_models=(
  "session states -DLISTENER_REQUESTS=2 -DWORKER_REQUESTS=1"
  "session stops_end -DLISTENER_REQUESTS=1 -DWORKER_REQUESTS=1"
  "delivery states -DPRODUCERS=2 -DMESSAGES=2"
  "delivery everything_ends -DPRODUCERS=2 -DMESSAGES=2"
  "watchdog states -DHANGUPS=2 -DKILLS=2"
  "signals states -DUSER_SIGNALS=3"
)
larger_models=(
  "session states -DLISTENER_REQUESTS=2 -DWORKER_REQUESTS=2"
  "session states -DLISTENER_REQUESTS=3 -DWORKER_REQUESTS=1"
  "session stops_end -DLISTENER_REQUESTS=2 -DWORKER_REQUESTS=1"
  "delivery states -DPRODUCERS=3 -DMESSAGES=2"
  "delivery states -DPRODUCERS=2 -DMESSAGES=4"
  "delivery everything_ends -DPRODUCERS=2 -DMESSAGES=3"
  "watchdog states -DHANGUPS=5 -DKILLS=5"
  "signals states -DUSER_SIGNALS=12"
)
mistakes=(
  "session states -DMISTAKE_WAKE_BEFORE_CLEAR"
  "session states -DMISTAKE_TEST_OUTSIDE_LOCK"
  "session states -DMISTAKE_NO_HTTP_WAKE"
  "session states -DMISTAKE_SIGNAL_ONCE"
  "session states -DMISTAKE_SIGNAL_BLOCKED"
  "session states -DMISTAKE_NO_JOIN"
  "session stops_end -DMISTAKE_CALL_BEGUN_ANEW"
  "session states -DMISTAKE_PAUSE_WITHOUT_WAKE"
  "session states -DMISTAKE_RESUME_WAKES_FIRST"
  "session states -DMISTAKE_COMMANDS_AT_ONCE"
  "session states -DMISTAKE_NO_SECOND_LOOK"
  "session states -DMISTAKE_REFUSER_AT_GATE -DLISTENER_REQUESTS=3"
  "delivery states -DMISTAKE_LOOK_BEFORE_QUEUE -DWITHOUT_SHUTDOWN"
  "delivery states -DMISTAKE_TEST_OUTSIDE_LOCK -DWITHOUT_SHUTDOWN"
  "delivery states -DMISTAKE_LEAVE_WITHOUT_LOOK -DWITHOUT_SHUTDOWN"
  "delivery states -DMISTAKE_LEAVE_OUTSIDE_LOCK -DWITHOUT_SHUTDOWN"
  "delivery states -DMISTAKE_NO_POOL_LOCK -DWITHOUT_SHUTDOWN"
  "delivery states -DMISTAKE_SECOND_WORKER -DWITHOUT_SHUTDOWN"
  "delivery states -DMISTAKE_DEQUEUE_WITHOUT_LOCK -DWITHOUT_SHUTDOWN"
  "watchdog states -DMISTAKE_BLOCK_AFTER_FORK"
  "watchdog states -DMISTAKE_NO_HANDLER"
  "watchdog states -DMISTAKE_UNBLOCKED_FIRST"
  "watchdog states -DMISTAKE_TEST_THEN_PAUSE"
  "watchdog states -DMISTAKE_REAPED_AND_WATCHED"
  "signals states -DMISTAKE_NO_BYTE"
  "signals states -DMISTAKE_BYTE_BEFORE_FLAG"
  "signals states -DMISTAKE_NO_LOOK_AT_FLAGS"
  "signals states -DMISTAKE_HANDLERS_FIRST"
  "signals states -DMISTAKE_READY_BEFORE_PIPE"
  "signals states -DMISTAKE_TERM_NOTED_LATE"
  "signals states -DMISTAKE_TWO_EXITS"
)

# Makes the verifier in the current folder and runs it. Its report is in the file "report".
verify() {  # verify MODEL PROPERTY DEFINES...
  local model=$1 property=$2 with=(-DSAFETY) options=() speed=-O2
  shift 2
  if [[ $property != states ]]; then
    set -- "$@" -DLIVENESS
    with=(-DNFAIR=3)
    options=(-a -f)
  fi
  spin "$@" -a "$models/$model.pml" >spin.log || return
  [[ $* != *MISTAKE* ]] || speed=-O0  # found before a better verifier is compiled
  # Invalid end states are the models' own affair: their judge knows who may wait for what.
  gcc $speed -w "${with[@]}" -DMEMLIM=$memory_limit -DVECTORSZ=2048 -o pan pan.c || return
  ./pan -E "-m$deepest" "${options[@]}" >report 2>&1
}

from_report() {  # from_report FILE PATTERN: what PATTERN captures on the first line that has it
  sed -nE "s/$2/\\1/p" "$1" | head -n 1
}

# One line of the table. Fails when the outcome is another than the expected one ("holds" or "fails").
run_one() {  # run_one EXPECTED MODEL PROPERTY DEFINES...
  local expected=$1 place outcome=holds begin=$EPOCHREALTIME seconds
  shift
  place=$folder/$(tr -c 'A-Za-z0-9\n' _ <<<"$*")
  rm -rf "$place"
  mkdir -p "$place"
  cd "$place"
  verify "$@" || true
  [[ -f report ]] || echo "no report" >report
  if grep -qE '^pan:1: (assertion violated|acceptance cycle)' report; then
    outcome=fails
  elif ! grep -q 'errors: 0$' report || grep -qE 'not completed|too small|memory limit' report; then
    outcome=broken
  fi
  seconds=$(awk "BEGIN { printf \"%.1f\", $EPOCHREALTIME - $begin }")
  printf '%-9s %-16s %-50s %10s %7s %7s  %s\n' "$1" "$2" "${*:3}" "$(from_report report '^ *([0-9]+) states, stored.*')" \
    "$(from_report report '.*depth reached ([0-9]+).*')" "$seconds" "$outcome"
  [[ $outcome == "$expected" ]] && return
  echo "models: expected that it $expected; see $place/report, and there: spin ${*:3} -k $1.pml.trail -t -p $models/$1.pml" >&2
  return 1
}

run_all() {  # run_all EXPECTED RUN...
  local expected=$1
  shift
  export -f run_one verify from_report
  export models folder memory_limit deepest
  # Two at a time; a verifier may need up to its whole memory limit.
  printf '%s\n' "$@" | xargs -P 2 -I{} bash -euo pipefail -c "run_one $expected {}"
}

begin=$SECONDS
runs=("${true_models[@]}")
[[ ${1:-} != --long ]] || runs+=("${larger_models[@]}")
/usr/bin/python3 check_steps.py
printf '%-9s %-16s %-50s %10s %7s %7s  %s\n' model property "bounds or mistake" states depth seconds outcome
run_all holds "${runs[@]}"
run_all fails "${mistakes[@]}"
echo "models: ${#runs[@]} verifications hold, ${#mistakes[@]} mistakes found, $((SECONDS - begin)) s ok"
