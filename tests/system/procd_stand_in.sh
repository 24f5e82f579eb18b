#!/bin/sh
# Stands in for what a device's rc.common and procd give an init script: does one action of it, notes each call, and
# becomes the command of the instance that the script opens.
#
# usage: procd_stand_in.sh SCRIPT ACTION
# In the environment: NOTES, a file for the calls; PROG, the program in place of the script's own; PID_FILE, the agent's;
# uci_NAME, what the configuration says.

note() { echo "$*" >>"$NOTES"; }

config_load() { note config_load "$@"; }
config_get() { eval "$1=\${uci_$3-\${4-}}"; }
config_get_bool() { config_get "$@"; }

procd_open_instance() { note procd_open_instance "$@"; }
procd_set_param() {
  note procd_set_param "$@"
  [ "$1" = command ] || return 0
  shift
  command=$(printf "'%s' " "$@")
}
procd_close_instance() {
  note procd_close_instance
  eval "exec $command"
}
procd_add_reload_trigger() { note procd_add_reload_trigger "$@"; }

stop() { # procd, too, waits until its instance has ended
  note stop
  kill -TERM "$(cat "$PID_FILE")"
  while [ -e "$PID_FILE" ]; do sleep 0.05; done
}
start() {
  note start
  start_service "$@"
}

own_program=$PROG
# shellcheck source=/dev/null
. "$1"
PROG=$own_program
"$2"
