#!/bin/sh
# A handler on a TCP port of this device, in shell: keeps each message as a file of its own.
#
#   shell/tcp.sh 8600 /var/spool/messages
#   usi -c /etc/orvel/settings set q_handler_meter 127.0.0.1:8600
#
# Runs until SIGTERM or SIGINT. The folder must be there. Needs socat, which starts executable.sh for each connection
# with the connection as its standard input, and collects what has ended.
set -eu
[ $# -eq 2 ] || { echo "usage: $0 PORT FOLDER" >&2; exit 2; }
HANDLER_FOLDER=$(cd "$2" && pwd)
export HANDLER_FOLDER
cd "$(dirname "$0")"

# On loopback only: whoever reaches the port can send messages. At most 16 programs at once; further connections wait.
exec socat -u "TCP4-LISTEN:$1,bind=127.0.0.1,reuseaddr,backlog=128,fork,max-children=16" EXEC:./executable.sh,nofork
