#!/bin/sh
# A handler that the agent starts for each message, in shell: keeps the message as a file of its own.
#
#   usi -c /etc/orvel/settings set q_handler_meter /usr/local/lib/handlers/executable.sh
#
# The files are made in $HANDLER_FOLDER of the agent's environment, or else in /var/spool/messages, which must be there.
# A file appears under its final name when its message is whole; until then its name begins with a dot.
set -eu
umask 077 # the agent starts programs with mask 0
folder=${HANDLER_FOLDER:-/var/spool/messages}

fail() { # the agent gives /dev/null for standard output and error: the system's log is the place for words
  logger -s -t "${0##*/}" "a message is lost: $1"
  exit 1
}

part=$(mktemp "$folder/.XXXXXX") || fail "no file can be made in $folder"
trap 'rm -f "$part"' EXIT
trap 'exit 1' INT TERM

# The message ends where standard input ends. A sender that says nothing any more is not waited for longer than this.
timeout 30 cat >"$part" || fail "it did not come in whole"
mv "$part" "$folder/$(date +%s)-${part##*.}" || fail "it can't be kept"
