"""What the three handlers share: keeping a message, and serving one connection after the other."""

from __future__ import annotations

import os
import select
import shutil
import signal
import socket
import syslog
import tempfile
import time
from pathlib import Path
from typing import BinaryIO

SILENCE = 30  # seconds after which a sender that says nothing is given up: while it is waited for, the agent waits


def start_log(name: str) -> None:
    """To the system's log, and to standard error where there is one."""
    syslog.openlog(name, syslog.LOG_PID | syslog.LOG_PERROR)


def keep_message(source: BinaryIO, folder: Path) -> None:
    """Keeps everything up to the end of `source` as a file. What doesn't come in whole is thrown away (OSError)."""
    with tempfile.NamedTemporaryFile(dir=folder, prefix=".", delete=False) as part:
        try:
            shutil.copyfileobj(source, part)
            part.flush()
            os.rename(part.name, folder / f"{time.time_ns()}-{Path(part.name).name[1:]}")
        except BaseException:
            os.unlink(part.name)
            raise


def keep_or_complain(source: BinaryIO, folder: Path) -> bool:
    try:
        keep_message(source, folder)
    except OSError as error:
        syslog.syslog(syslog.LOG_ERR, f"a message is lost: {error}")
        return False
    return True


def stop_signals() -> socket.socket:
    """Becomes readable at SIGTERM or SIGINT. Python tells it from its own handler, so none gets lost."""
    readable, signalled = socket.socketpair()
    signalled.setblocking(False)
    signal.set_wakeup_fd(signalled.detach())
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda _number, _frame: None)
    return readable


def serve(listener: socket.socket, stop: socket.socket, folder: Path) -> None:
    """One connection is one message. A message that is coming in when the stop comes is still kept."""
    listener.setblocking(False)
    while stop not in select.select([listener, stop], [], [])[0]:
        try:
            connection, _ = listener.accept()
        except (BlockingIOError, ConnectionAbortedError):
            continue  # it has gone meanwhile
        with connection:
            connection.settimeout(SILENCE)
            with connection.makefile("rb") as source:
                keep_or_complain(source, folder)
