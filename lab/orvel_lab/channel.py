"""One accepted byte stream, plain or TLS, that can be stalled, halved, reset or closed from any thread.

TLS runs over memory buffers, so that reading and writing from different threads never share an unlocked TLS
object, and so that the TCP stream can be cut with or without TLS's own farewell.
"""

from __future__ import annotations

import select
import socket
import ssl
import struct
import threading
import time

from .waiting import DEADLINE, Wake

BLOCK = 65536


class ChannelEnded(Exception):
    """The lab itself ended the channel while something was waiting on it."""


class Channel:
    """Owned by the thread that serves the connection: only that thread reads, and only it calls finish()."""

    def __init__(self, accepted: socket.socket, stopping: Wake, context: ssl.SSLContext | None = None) -> None:
        accepted.setblocking(False)
        if accepted.family != socket.AF_UNIX:
            accepted.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._socket = accepted
        self._stopping = stopping
        self._ending = Wake()
        self._closed = False
        self._tls_lock = threading.Lock()  # the TLS object and its two buffers; taken after the send lock
        self._send_lock = threading.Lock()  # one write at a time, so that bytes reach the wire in order
        self._context = context
        self.tls: ssl.SSLObject | None = None

    def handshake(self, deadline: float = DEADLINE) -> None:
        """Brings TLS up; nothing to do on a plain stream."""
        if self._context is None:
            return
        self._incoming, self._outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = self._context.wrap_bio(self._incoming, self._outgoing, server_side=True)
        limit = time.monotonic() + deadline
        while True:
            try:
                with self._tls_lock:
                    self.tls.do_handshake()
                self._flush()
                return
            except ssl.SSLWantReadError:
                self._flush()
            except ssl.SSLError:
                self._flush()  # the alert that says why
                raise
            if not self._receive(limit - time.monotonic()):
                raise ConnectionAbortedError("the peer left in the middle of the TLS handshake")

    def read(self, seconds: float | None = None) -> bytes:
        """What has arrived, b"" at the end of the stream."""
        if self.tls is None:
            return self._read_socket(seconds)
        while True:
            try:
                with self._tls_lock:
                    return self.tls.read(BLOCK)
            except (ssl.SSLZeroReturnError, ssl.SSLEOFError):
                return b""
            except ssl.SSLWantReadError:
                self._flush()
            self._receive(seconds)

    def write(self, data: bytes) -> None:
        with self._send_lock:
            if self.tls is None:
                self._write_socket(data)
                return
            with self._tls_lock:
                self.tls.write(data)
                encrypted = self._outgoing.read()
            self._write_socket(encrypted)

    def write_unprotected(self, data: bytes) -> None:
        """Bytes on the TCP stream itself, past TLS."""
        with self._send_lock:
            self._write_socket(data)

    def half_close(self, farewell: bool = True) -> None:
        """Ends the sending side: with TLS's close message first, unless told otherwise. Reading goes on."""
        if self.tls is not None and farewell:
            try:
                with self._tls_lock:
                    self.tls.unwrap()
            except ssl.SSLError:
                pass  # the peer's own close message is still to come
            self._flush()
        with self._send_lock:
            if not self._closed:
                self._socket.shutdown(socket.SHUT_WR)

    def pause(self, seconds: float | None, *released: Wake) -> None:
        """Waits that long, or until one of `released` is set, or raises ChannelEnded."""
        self._poll(select.POLLIN, seconds, watch_socket=False, others=released)

    def end(self) -> None:
        """Makes every wait on this channel raise ChannelEnded, now and later."""
        self._ending.set()

    def finish(self, reset: bool = False) -> None:
        """Closes the socket; with `reset` the peer gets a TCP reset in place of an orderly end."""
        self._ending.set()
        with self._send_lock:
            if self._closed:
                return
            self._closed = True
            if reset:
                self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self._socket.close()

    def _flush(self) -> None:
        with self._send_lock:
            with self._tls_lock:
                encrypted = self._outgoing.read()
            self._write_socket(encrypted)

    def _receive(self, seconds: float | None) -> bool:
        """Hands bytes of the TCP stream to TLS; False at the end of the stream."""
        encrypted = self._read_socket(seconds)
        with self._tls_lock:
            if encrypted:
                self._incoming.write(encrypted)
            else:
                self._incoming.write_eof()
        return bool(encrypted)

    def _read_socket(self, seconds: float | None) -> bytes:
        while True:
            self._poll(select.POLLIN, seconds)
            try:
                return self._socket.recv(BLOCK)
            except BlockingIOError:
                continue

    def _write_socket(self, data: bytes) -> None:
        if self._closed:
            raise ChannelEnded
        rest = memoryview(data)
        while rest:
            try:
                rest = rest[self._socket.send(rest) :]
            except BlockingIOError:
                self._poll(select.POLLOUT, None)

    def _poll(
        self, events: int, seconds: float | None, watch_socket: bool = True, others: tuple[Wake, ...] = ()
    ) -> None:
        poller = select.poll()
        ends = {wake.fileno() for wake in (self._ending, self._stopping)}
        for descriptor in ends | {wake.fileno() for wake in others}:
            poller.register(descriptor, select.POLLIN)
        if watch_socket:
            poller.register(self._socket.fileno(), events)
        ready = {descriptor for descriptor, _ in poller.poll(None if seconds is None else max(0.0, seconds) * 1000)}
        if ready & ends:
            raise ChannelEnded
        if not ready and watch_socket:
            raise TimeoutError("the peer sent nothing in time")
