"""A proxy of any kind (HTTP, HTTPS, SOCKS4, SOCKS5): well-behaved, or bad in exactly the way that a test asks for."""

from __future__ import annotations

import base64
import collections
import socket
import ssl
import threading
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

from .channel import Channel, ChannelEnded
from .listener import Listener, Listening, ReservedPort, UnixPath, join
from .packets import cut
from .waiting import DEADLINE, DeadlinePassed, Journal, Wake

HTTP_CONNECTED = b"HTTP/1.1 200 Connection established\r\n\r\n"
HTTP_AUTHENTICATE = (
    b"HTTP/1.1 407 Proxy Authentication Required\r\n"
    b'Proxy-Authenticate: Basic realm="lab"\r\n'
    b"Content-Length: 0\r\n\r\n"
)
SOCKS4_GRANTED = b"\0\x5a" + bytes(6)
SOCKS5_NO_METHOD, SOCKS5_PASSWORD = b"\5\0", b"\5\2"
SOCKS5_REGISTERED, SOCKS5_NOT_REGISTERED = b"\1\0", b"\1\1"
SOCKS5_GRANTED = b"\5\0\0\1" + bytes(6)

# The values of the agent's setting q_qcloud_use_proxy.
KINDS = {"http": 1, "https": 2, "socks4": 3, "socks5": 4}

Address = tuple[str, int]
Size = Callable[[bytes], int | None]


@dataclass(frozen=True)
class Answer:
    """What a proxy answers to one request of its client, and what it does then.

    data      None is the good answer
    then      "go on" with the client's next request, or, behind its last one, with the tunnel;
              "silence" (reads on and says nothing more), "half-close" (reading on), "close", "reset",
              "cut" (ends the TCP stream without TLS's close message)
    rest      in pieces of so many bytes, 1 for each byte alone; whole unless given
    gap       seconds between two pieces: pieces of a plain stream may join on their way all the same
    stall     waits for release() before it answers
    in_clear  HTTPS: at the client's first bytes, in place of TLS
    """

    data: bytes | None = None
    then: str = "silence"
    rest: int | None = None
    gap: float = 0
    stall: bool = False
    in_clear: bool = False
    released: Wake = field(default_factory=Wake, repr=False)

    def release(self) -> None:
        self.released.set()


ENDS = {"close": "lab closed", "reset": "lab reset", "cut": "lab cut"}
BEHAVIOURS = ("go on", "silence", "half-close", *ENDS)


class ProxyConnection:
    """One accepted connection. What it tells may be asked from any thread."""

    def __init__(self, proxy: ScriptedProxy, number: int, accepted: socket.socket, script: Sequence[Answer]) -> None:
        self.number = number
        self.requests: list[bytes] = []  # each exactly as it came, without what may have followed at once
        self.target: Address | None = None  # what the client wished, as soon as it has said it
        self.ended_by = ""  # who ended it and how, once it has ended
        self._proxy = proxy
        self._script = collections.deque(script)
        self._channel = Channel(accepted, proxy.listener.stopping, proxy.context)
        self._received = bytearray()
        self._read_so_far = 0  # of what was received: the requests
        self._silent = False
        self._ending = ""
        self._ended = threading.Event()

    @property
    def received(self) -> bytes:
        """Every byte that the client has sent, decrypted: requests, and what it has sent into the tunnel."""
        return bytes(self._received)

    @property
    def tls_version(self) -> str | None:
        return self._channel.tls.version() if self._channel.tls else None

    @property
    def tls_resumed(self) -> bool | None:
        """Whether the client has taken up an earlier TLS session."""
        return self._channel.tls.session_reused if self._channel.tls else None

    def wait_for_bytes(self, count: int, deadline: float | None = None) -> bytes:
        """Everything received, once it is so much."""
        what = f"proxy connection {self.number}: {count} bytes"
        return self._proxy.connections.wait(
            lambda _: self.received if len(self._received) >= count else None, what, deadline
        )

    def wait_for_requests(self, count: int, deadline: float | None = None) -> list[bytes]:
        what = f"proxy connection {self.number}: request {count}"
        return self._proxy.connections.wait(
            lambda _: self.requests if len(self.requests) >= count else None, what, deadline
        )

    def wait_for_silence(self, deadline: float | None = None) -> None:
        """Waits until the proxy has said its last word."""
        what = f"proxy connection {self.number}: silence"
        self._proxy.connections.wait(lambda _: self._silent or None, what, deadline)

    def wait_ended(self, deadline: float | None = None) -> str:
        """Waits for the end of the connection, from either side; gives `ended_by`."""
        if not self._ended.wait(DEADLINE if deadline is None else deadline):
            raise DeadlinePassed(f"proxy connection {self.number} did not end in time")
        return self.ended_by

    # The life of the connection, on its own thread.

    def run(self) -> None:
        try:
            self._start_tls()
            self._shake_hands()
            self._tunnel()
            self.ended_by = "client closed"
        except ChannelEnded:
            self.ended_by = self._ending or "lab stopped"
        except ssl.SSLError as error:
            self.ended_by = f"TLS failed: {error.reason or error}"
        except (ConnectionAbortedError, EOFError):
            self.ended_by = "client closed"
        except OSError as error:
            self.ended_by = f"client reset: {error.strerror}"
        finally:
            self._finish()

    def _finish(self) -> None:
        if self.ended_by == "lab closed":
            try:
                self._channel.half_close()
            except (ChannelEnded, OSError):
                pass  # the client was quicker
        self._channel.finish(reset=self.ended_by == "lab reset")
        self._ended.set()
        self._proxy.connections.touch()

    def _start_tls(self) -> None:
        if self._script and self._script[0].in_clear:
            self._channel.read()
            self._answer(b"")
        self._channel.handshake()

    # The dialogs: each ends when the tunnel is open.

    def _shake_hands(self) -> None:
        dialogs = {"http": self._http, "https": self._http, "socks4": self._socks4, "socks5": self._socks5}
        dialogs[self._proxy.kind]()

    def _http(self) -> None:
        while True:
            request = self._read_request(http_size)
            self.target = http_target(request)
            if self._proxy.credentials is None or self._proxy.credentials == basic_credentials(request):
                self._answer(HTTP_CONNECTED)
                return
            self._answer(HTTP_AUTHENTICATE)

    def _socks4(self) -> None:
        request = self._read_request(socks4_size)
        self.target = socket.inet_ntoa(request[4:8]), int.from_bytes(request[2:4], "big")
        self._answer(SOCKS4_GRANTED)

    def _socks5(self) -> None:
        self._read_request(socks5_greeting_size)
        self._answer(SOCKS5_NO_METHOD if self._proxy.credentials is None else SOCKS5_PASSWORD)
        request = self._read_request(socks5_size)
        if is_socks5_password(request):
            right = self._proxy.credentials in (None, socks5_credentials(request))
            self._answer(SOCKS5_REGISTERED if right else SOCKS5_NOT_REGISTERED)
            request = self._read_request(socks5_size)
        self.target = socks5_target(request)
        self._answer(SOCKS5_GRANTED)

    # Their steps.

    def _read_request(self, size: Size) -> bytes:
        while (count := size(bytes(self._received[self._read_so_far :]))) is None:
            if not self._read():
                raise EOFError
        request = bytes(self._received[self._read_so_far : self._read_so_far + count])
        self._read_so_far += count
        self.requests.append(request)
        self._proxy.connections.touch()
        return request

    def _read(self) -> bytes:
        data = self._channel.read()
        self._received += data
        self._proxy.connections.touch()
        return data

    def _answer(self, good: bytes) -> None:
        answer = self._script.popleft() if self._script else Answer(then="go on")
        if answer.stall:
            self._channel.pause(None, answer.released)
        data = good if answer.data is None else answer.data
        for number, piece in enumerate(cut(data, [], answer.rest or max(1, len(data)))):
            if number and answer.gap:
                self._channel.pause(answer.gap)
            self._channel.write(piece)
        if answer.then in ENDS:
            self._ending = ENDS[answer.then]
            raise ChannelEnded
        if answer.then == "half-close":
            self._channel.half_close()
        if answer.then != "go on":
            self._swallow()

    def _swallow(self) -> None:
        self._silent = True
        self._proxy.connections.touch()
        while self._read():
            pass
        raise EOFError

    def _tunnel(self) -> None:
        """Everything from one side to the other, until both have ended."""
        server = self._connect_to_target()
        back = threading.Thread(target=self._pump_back, args=(server,), name="proxy-tunnel")
        back.start()
        try:
            server.write(self._received[self._read_so_far :])
            while data := self._read():
                server.write(data)
            server.half_close()
        except BaseException:
            server.end()
            raise
        finally:
            join(back)

    def _connect_to_target(self) -> Channel:
        address = self._proxy.target or self.target
        try:
            return Channel(socket.create_connection(address, DEADLINE), self._proxy.listener.stopping)
        except OSError as error:
            self._ending = f"no way to {address}: {error}"
            raise ChannelEnded from None

    def _pump_back(self, server: Channel) -> None:
        try:
            while data := server.read():
                self._channel.write(data)
            self._channel.half_close()
        except (ChannelEnded, OSError):
            self._channel.end()
        finally:
            self._ending = self._ending or "server closed"
            server.finish()


class ScriptedProxy(Listening):
    """Listens on a loopback port of its own from start() to stop().

    kind         "http", "https", "socks4" or "socks5"; tunnels only, no plain HTTP requests
    context      TLS of an HTTPS proxy, for the connections accepted from now on
    target       where every tunnel leads, whatever the client wishes; None leaves it to the client
    credentials  user name and password that the client has to give
    """

    def __init__(
        self,
        kind: str,
        context: ssl.SSLContext | None = None,
        target: Address | None = None,
        credentials: tuple[str, str] | None = None,
        address: ReservedPort | UnixPath | None = None,
    ) -> None:
        if kind not in KINDS:
            raise ValueError(f"no such kind of proxy: {kind}; there are {', '.join(KINDS)}")
        self.kind = kind
        self.context = context
        self.target = target
        self.credentials = credentials
        self.connections: Journal[ProxyConnection] = Journal()
        self.listener = Listener(address or ReservedPort(), self._serve, f"{kind}-proxy")
        self.port = self.listener.address.port
        self._scripts: collections.deque[Sequence[Answer]] = collections.deque()
        self._returned = 0
        self._lock = threading.Lock()

    def __enter__(self) -> ScriptedProxy:
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def script(self, *connections: Answer | Sequence[Answer], times: int = 1) -> None:
        """For the next connections, one after the other: the answer, or one for each request of the client.

        Behind the last answer that a connection has a script for, and behind the last connection, all is good again.
        """
        scripts = [[script] if isinstance(script, Answer) else list(script) for script in connections]
        for answer in (answer for script in scripts for answer in script):
            if answer.then not in BEHAVIOURS:
                raise ValueError(f"no such behaviour: {answer.then}; there are {', '.join(BEHAVIOURS)}")
        with self._lock:
            self._scripts.extend(scripts * times)

    def expect_connection(self, deadline: float | None = None) -> ProxyConnection:
        """The next accepted connection that no earlier call has returned."""
        self._returned += 1
        return self.wait_for_connections(self._returned, deadline)[self._returned - 1]

    def wait_for_connections(self, count: int, deadline: float | None = None) -> list[ProxyConnection]:
        return self.connections.wait_for_count(count, f"{self.kind} proxy: connection {count}", deadline)

    @property
    def requests(self) -> list[bytes]:
        """What clients have asked for so far, connection by connection."""
        return [request for connection in self.connections.snapshot() for request in connection.requests]

    def _serve(self, accepted: socket.socket) -> None:
        with self._lock:
            script = self._scripts.popleft() if self._scripts else []
            connection = ProxyConnection(self, len(self.connections) + 1, accepted, script)
            self.connections.append(connection)
        connection.run()


# The formats. A size is that of the message at the beginning of some bytes, or None while it is not complete.


def http_size(data: bytes) -> int | None:
    end = data.find(b"\r\n\r\n")
    return None if end < 0 else end + 4


def http_target(request: bytes) -> Address:
    host, _, port = request.split(b" ")[1].decode().rpartition(":")
    return host.strip("[]"), int(port)


def basic_credentials(request: bytes) -> tuple[str, str] | None:
    """User name and password of a Proxy-Authorization header (RFC 7617)."""
    for line in request.split(b"\r\n"):
        name, _, value = line.partition(b": Basic ")
        if name == b"Proxy-Authorization":
            user, _, password = base64.b64decode(value.strip()).decode().partition(":")
            return user, password
    return None


def socks4_size(data: bytes) -> int | None:
    """Version, command, port, address, and the user's id, which ends with a zero byte."""
    end = data.find(b"\0", 8)
    return None if end < 0 else end + 1


def socks5_greeting_size(data: bytes) -> int | None:
    """Version, number of methods, methods (RFC 1928)."""
    return 2 + data[1] if len(data) >= 2 and len(data) >= 2 + data[1] else None


def socks5_size(data: bytes) -> int | None:
    """User name and password (RFC 1929), or the wish for a tunnel (RFC 1928)."""
    try:
        if is_socks5_password(data):
            size = 3 + data[1] + data[2 + data[1]]
        else:
            size = 6 + {1: 4, 3: 1 + data[4], 4: 16}[data[3]]
    except IndexError:
        return None
    return size if len(data) >= size else None


def is_socks5_password(request: bytes) -> bool:
    return request[0] == 1


def socks5_credentials(request: bytes) -> tuple[str, str]:
    user = request[2 : 2 + request[1]]
    return user.decode(), request[3 + request[1] :].decode()


def socks5_target(request: bytes) -> Address:
    kind, port = request[3], int.from_bytes(request[-2:], "big")
    if kind == 3:
        return request[5:-2].decode(), port
    return socket.inet_ntop(socket.AF_INET if kind == 1 else socket.AF_INET6, request[4:-2]), port
