#!/usr/bin/python3
"""A handler on a TCP port of this device, in Python: keeps each message as a file of its own.

  python/tcp.py 8600 /var/spool/messages
  usi -c /etc/orvel/settings set q_handler_meter 127.0.0.1:8600

Runs until SIGTERM or SIGINT. The folder must be there.
"""

import os
import socket
import sys
from pathlib import Path

from handler import serve, start_log, stop_signals

if len(sys.argv) != 3 or not sys.argv[1].isdecimal():
    sys.exit(f"usage: {sys.argv[0]} PORT FOLDER")
start_log("tcp.py")
os.umask(0o077)
stop = stop_signals()
# On loopback only: whoever reaches the port can send messages.
with socket.create_server(("127.0.0.1", int(sys.argv[1])), backlog=128) as listener:
    serve(listener, stop, Path(sys.argv[2]))
