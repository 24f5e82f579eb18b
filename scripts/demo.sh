#!/usr/bin/env bash
# The main job for real: the agent against a local cloud, from registration to a clean stop. Installs and builds what is
# missing. Exit status 0 only if every step happened.
#
# usage: demo.sh [--keep] [--proxy http|https|socks4|socks5]
#   --keep    leave lab and agent running at the end, to play with; what they say goes to files
#   --proxy   all of it through a real proxy of this kind, in a network of its own with no other way to cloud and broker
# ORVEL_BIN names another agent than the one that is built here.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
keep=
proxy=
usage() { echo "usage: demo.sh [--keep] [--proxy http|https|socks4|socks5]" >&2; exit 2; }
arguments=("$@")
while [[ $# -gt 0 ]]; do
  case $1 in
    --keep) keep=1 ;;
    --proxy) proxy=${2:-}; shift; [[ $proxy =~ ^(https?|socks[45])$ ]] || usage ;;
    *) usage ;;
  esac
  shift
done

build=${ORVEL_DEMO_BUILD:-$root/build}
agent=${ORVEL_BIN:-$build/bin/orvel}
python=/usr/bin/python3
lab_pid=
agent_pid=

lab() { "$root/lab/orvel-lab" --dir "$folder/lab" "$@"; }
step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
fail() { printf '\ndemo failed: %s\nlogs: %s\n' "$*" "$folder" >&2; exit 1; }
agent_is_gone() { ! kill -0 "$agent_pid" 2>/dev/null; }

value() {  # value KEY: one value of lab.json, list elements a line each
  $python - "$folder/lab/lab.json" "$1" <<'PYTHON'
import json, sys
value = json.load(open(sys.argv[1]))[sys.argv[2]]
print(*(value if isinstance(value, list) else [value]), sep="\n")
PYTHON
}

end_everything() {
  [[ -z $agent_pid ]] || kill "$agent_pid" 2>/dev/null || true
  [[ -z $lab_pid ]] || kill "$lab_pid" 2>/dev/null || true
}

control() {  # control JSON: a request to the control port that must answer 0
  local reply
  reply=$(lab control "$1")
  echo "$1  ->  $reply"
  [[ $reply == *'"result":0'* || $reply == *'"result": 0'* ]] || fail "the control port answered $reply"
}

session=0
wait_for_session() {
  session=$((session + 1))
  lab wait connected "$session" >/dev/null || fail "session $session did not come up"
}

deliver() {  # deliver HANDLER SIZE: a random message arrives as it was sent
  base64 -w 0 /dev/urandom | head -c "$2" >"$folder/sent" || true
  lab send "$1" --file "$folder/sent" >/dev/null
  lab wait received "$1" 1 >/dev/null || fail "nothing arrived at the handler $1"
  cmp "$folder/sent" "$folder"/lab/received/"$1"/001 || fail "$1 received other bytes than were sent"
  echo "$1: $2 bytes, byte for byte ($(sha256sum <"$folder/sent" | cut -c1-16)...)"
}

show_session() {  # the broker's newest session: TLS 1.2, or, as the device is behind a proxy, plain TCP
  lab status --json | $python -c '
import json, sys
status = json.load(sys.stdin)
session = status["sessions"][-1]
print("connected with", session["tls"] or "plain TCP", session["cipher"] or "", "identity", session["identity"])
assert session["tls"] == (None if status["proxy"] else "TLSv1.2") and session["identity"], session' ||
    fail "no session of the right kind with an identity"
}

show_proxy() {  # what the proxy has seen, and that nothing went past it
  lab status --json | $python -c '
import json, sys
status = json.load(sys.stdin)
proxy = status["proxy"]
for name in ("cloud", "broker"):
    port = str(status[name]["port"])
    seen = [line for line in proxy["log"].splitlines() if port in line]
    assert seen, (name, proxy["log"])
    print(f"{name}, port {port}, for instance: {seen[-1]}")
print(proxy["through"], "connections through", proxy["name"] + ",", proxy["past"], "packets past it")
assert proxy["through"] >= 8 and proxy["past"] == 0, proxy' || fail "the proxy has not seen it all"
}

show_state() {  # show_state TEXT: waits until the newest state document holds TEXT, and shows it
  local state deadline=$((SECONDS + ${ORVEL_LAB_DEADLINE:-20}))
  while state=$(find "$folder/lab/received/event_sink" -type f | sort | tail -n 1 | xargs cat | tr -d '\n\t'); do
    [[ $state != *"$1"* ]] || break
    [[ $SECONDS -lt $deadline ]] || fail "event_sink was not told $1, but $state"
    sleep 0.1
  done
  echo "event_sink: $state"
}

build_all() {
  step "build"
  "$root/scripts/install-deps.sh"
  cmake -S "$root" -B "$build" -G Ninja >/dev/null
  cmake --build "$build" --target orvel usi_tool
}

go_on_in_own_network() {
  local unshare=(unshare --net)
  [[ $(id -u) -eq 0 ]] || unshare+=(--map-current-user --keep-caps)
  ORVEL_DEMO_NETWORK=own exec "${unshare[@]}" "$0" "${arguments[@]}"
}

if [[ -z ${ORVEL_DEMO_NETWORK:-} ]]; then
  [[ -n ${ORVEL_BIN:-} ]] || build_all
  [[ -z $proxy ]] || go_on_in_own_network
fi
started=$SECONDS
folder=$(mktemp -d /tmp/orvel-demo-XXXXXX)
trap end_everything EXIT

step "a local cloud: HTTPS endpoints, broker, handlers${proxy:+; a proxy of the kind $proxy, and no other way to them}"
ORVEL_BIN=$agent "$root/lab/orvel-lab" --dir "$folder/lab" up ${proxy:+--proxy "$proxy"} \
  >"$folder/timeline" 2>&1 &
lab_pid=$!
lab wait up >/dev/null
tail -n +1 -f --pid="$lab_pid" "$folder/timeline" > >(sed -u 's/^/  lab | /') &
timeline_pid=$!

step "the agent starts and registers"
mapfile -t command < <(value agent_command)
printf '%s ' "${command[@]}"
echo
"${command[@]}" >"$folder/agent.log" 2>&1 &
agent_pid=$!
lab wait registered >/dev/null || fail "the agent did not register"

step "the cloud's user claims the device; the device is told through its control port"
lab claim >/dev/null
control '{"command": "on_claim", "service": "demo", "claimed": true}'
wait_for_session
show_session

step "one message for each kind of handler"
deliver tcp 300
deliver unix 70000
deliver exec 5000

step "pause and resume through the control port"
control '{"command": "pause_connections"}'
lab wait disconnected >/dev/null
show_state '"connected":false'
control '{"command": "resume_connections"}'
wait_for_session
show_state '"connected":true'

step "a control request that comes as a message to the agent itself"
lab send agent '{"command": "pause_connections"}' >/dev/null
lab wait disconnected >/dev/null || fail "the agent did not carry the request out"
control '{"command": "resume_connections"}'
wait_for_session

step "the broker drops the session; the agent reconnects"
lab drop >/dev/null
wait_for_session

if [[ -n $proxy ]]; then
  step "the proxy's word on it"
  show_proxy
fi

if [[ -n $keep ]]; then
  step "everything is left running"
  trap - EXIT
  kill "$timeline_pid"  # the last that writes to this script's output
  echo "try:  lab/orvel-lab --dir $folder/lab send tcp hello   (or --help)"
  echo "logs: $folder/agent.log, $folder/timeline (the lab's)"
  echo "stop: kill $agent_pid $lab_pid"
  exit 0
fi

step "the agent is asked to stop"
pid_file=$(value pid_file)
[[ $(cat "$pid_file") == "$agent_pid" ]] || fail "the pid file does not name the agent"
kill -TERM "$agent_pid"
status=0
wait "$agent_pid" || status=$?
[[ $status -eq 0 ]] || fail "the agent ended with status $status"
[[ ! -e $pid_file ]] || fail "the pid file is still there"
agent_is_gone || fail "the agent still runs"
agent_pid=
echo "exit status 0, pid file removed"
kill "$lab_pid"
wait "$lab_pid" || fail "the lab did not end well"
lab_pid=
rm -rf "$folder"
printf '\nall of it happened, in %d s\n' $((SECONDS - started))
