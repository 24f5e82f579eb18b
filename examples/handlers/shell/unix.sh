#!/bin/sh
# A handler on a Unix socket, in shell: keeps each message as a file of its own.
#
#   shell/unix.sh /run/meter.sock /var/spool/messages
#   usi -c /etc/orvel/settings set q_handler_meter /run/meter.sock
#
# Runs until SIGTERM or SIGINT, and takes the socket away. The folder must be there. Needs socat, which starts
# executable.sh for each connection with the connection as its standard input, and collects what has ended.
set -eu
[ $# -eq 2 ] || { echo "usage: $0 SOCKET FOLDER" >&2; exit 2; }
socket=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
HANDLER_FOLDER=$(cd "$2" && pwd)
export HANDLER_FOLDER
cd "$(dirname "$0")"

# A killed predecessor leaves its socket, which would be in the way. Anything else at the path is not ours to remove.
[ ! -S "$socket" ] || rm "$socket"

# For the owner (and root) only: whoever may connect can send messages.
exec socat -u "UNIX-LISTEN:$socket,umask=077,backlog=128,fork,max-children=16" EXEC:./executable.sh,nofork
