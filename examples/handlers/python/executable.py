#!/usr/bin/python3
"""A handler that the agent starts for each message, in Python: keeps the message as a file of its own.

  usi -c /etc/orvel/settings set q_handler_meter /usr/local/lib/handlers/executable.py

with handler.py beside it. The files are made in $HANDLER_FOLDER of the agent's environment, or else in
/var/spool/messages, which must be there. A file appears under its final name when its message is whole.
"""

import os
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # it would land beside the program, each time anew where that is not writable

from handler import keep_or_complain, start_log  # noqa: E402  (found only now)

start_log("executable.py")
os.umask(0o077)  # the agent starts programs with mask 0
folder = Path(os.environ.get("HANDLER_FOLDER", "/var/spool/messages"))
sys.exit(0 if keep_or_complain(sys.stdin.buffer, folder) else 1)
