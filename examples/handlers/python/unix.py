#!/usr/bin/python3
"""A handler on a Unix socket, in Python: keeps each message as a file of its own.

  python/unix.py /run/meter.sock /var/spool/messages
  usi -c /etc/orvel/settings set q_handler_meter /run/meter.sock

Runs until SIGTERM or SIGINT, and takes the socket away. The folder must be there.
"""

import os
import socket
import sys
from pathlib import Path

from handler import serve, start_log, stop_signals

if len(sys.argv) != 3:
    sys.exit(f"usage: {sys.argv[0]} SOCKET FOLDER")
path = Path(sys.argv[1])
start_log("unix.py")
os.umask(0o077)  # the socket is for its owner (and root) only: whoever may connect can send messages
stop = stop_signals()
if path.is_socket():
    path.unlink()  # a killed predecessor's; anything else at the path is not ours to remove
with socket.socket(socket.AF_UNIX) as listener:
    listener.bind(str(path))
    try:
        listener.listen(128)
        serve(listener, stop, Path(sys.argv[2]))
    finally:
        path.unlink(missing_ok=True)
