"""The cloud's HTTPS side: registration, claim status, discovery and the advisor.

Left alone it behaves like a small cloud; each endpoint can be scripted with replies that come first.
"""

from __future__ import annotations

import base64
import collections
import copy
import hashlib
import json
import socket
import ssl
import threading
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from typing import Any
from urllib.parse import parse_qs, urlsplit

from .channel import Channel, ChannelEnded
from .listener import Listener, Listening, ReservedPort
from .waiting import Event, Journal, Observer, Wake, ignore

MAX_HEAD = 64 * 1024
REASONS = {
    100: "Continue", 200: "OK", 201: "Created", 204: "No Content", 301: "Moved Permanently", 302: "Found",
    400: "Bad Request", 401: "Unauthorized", 403: "Forbidden", 404: "Not Found", 405: "Method Not Allowed",
    409: "Conflict", 411: "Length Required", 429: "Too Many Requests", 500: "Internal Server Error",
    502: "Bad Gateway", 503: "Service Unavailable",
}

# What the agent asks for: kind, method, path. The settings hold the first component of the paths only.
REGISTER, CLAIM, DISCOVERY, ADVISOR = "register", "claim", "discovery", "advisor"
ENDPOINTS = {
    REGISTER: ("POST", "/register"),
    CLAIM: ("GET", "/claimed/v2"),
    DISCOVERY: ("POST", "/discovery/v3/"),
    ADVISOR: ("GET", "/advisor/v2"),
}
BASE_PATHS = {REGISTER: "/register", CLAIM: "/claimed", DISCOVERY: "/discovery", ADVISOR: "/advisor"}

WRONG_SERIAL_NUMBER = 1062
BAD_AUTHORIZATION = 1001


@dataclass
class Request:
    """One request as it arrived. `kind` is the endpoint, "other" when there is none."""

    kind: str
    method: str
    target: str
    headers: list[tuple[str, str]]
    body: bytes
    connection: int
    device: str | None = None  # the hardware id of the one that asks, as far as the cloud knows it
    time: float = field(default_factory=time.time)
    status: int | None = None  # of the reply, once that has been begun
    reply: Reply | None = None  # the same
    scripted: bool = False  # is the reply a script's?

    @property
    def path(self) -> str:
        return urlsplit(self.target).path

    @property
    def query(self) -> dict[str, str]:
        return {key: values[-1] for key, values in parse_qs(urlsplit(self.target).query, True).items()}

    @property
    def json(self) -> Any:
        return json.loads(self.body)

    def header(self, name: str) -> str | None:
        """The value of a header, its name in any case; None when the request has none."""
        return next((value for key, value in self.headers if key.lower() == name.lower()), None)


@dataclass
class Reply:
    """One reply of a script.

    The body is bytes, text, or anything else, which becomes JSON. A `Content-Length` among the headers replaces the
    true one. `raw` replaces the whole answer, status line included. `cut` sends only that many bytes of the answer.
    `delay` (seconds) and `stall` (until release() is called) come before the first byte, or, with `stall_at`, behind
    that many bytes. `end` says how the connection ends: "" not yet (but "cut" when the answer is cut), "close" in
    order, "cut" without TLS's close message, "half-close" (reading on), "reset".
    """

    status: int = 200
    body: Any = b""
    headers: dict[str, str] = field(default_factory=dict)
    raw: bytes | None = None
    cut: int | None = None
    delay: float = 0
    stall: bool = False
    stall_at: int = 0
    end: str = ""
    released: Wake = field(default_factory=Wake, repr=False)
    taken: bool = False  # has a request got it?

    def release(self) -> None:
        self.released.set()

    @classmethod
    def error(cls, status: int, code: int, message: str) -> Reply:
        """A refusal, with the headers in which the cloud tells why."""
        return cls(status, headers={"X-Error-Code": str(code), "X-Error-Message": message})

    @classmethod
    def wrong_serial_number(cls) -> Reply:
        return cls.error(403, WRONG_SERIAL_NUMBER, "Wrong serial number")

    def encode(self) -> bytes:
        if self.raw is not None:
            return self.raw
        body = self._encoded_body()
        headers = {"Content-Type": "application/json", "Content-Length": str(len(body)), **self.headers}
        if self.end:
            headers["Connection"] = "close"
        head = f"HTTP/1.1 {self.status} {REASONS.get(self.status, 'Status')}\r\n"
        head += "".join(f"{name}: {value}\r\n" for name, value in headers.items())
        return head.encode() + b"\r\n" + body

    def _encoded_body(self) -> bytes:
        if isinstance(self.body, bytes):
            return self.body
        return self.body.encode() if isinstance(self.body, str) else json.dumps(self.body).encode()


# What a script holds: a reply, or what becomes of the cloud's own.
Scripted = Reply | Callable[[Reply], Reply]


@dataclass
class Device:
    """What the cloud knows of one device."""

    hardware_id: str
    model: str
    id: str
    claim_code: str
    claimed: bool = False
    advice: dict[str, Any] | None = None  # the advisor's answer to this one alone; None: the one for all

    @property
    def authorization(self) -> str:
        return f"{self.id}:{self.claim_code}"

    @property
    def token(self) -> str:
        """Its own one, for a cloud with own_tokens."""
        return f"token of {self.id}"


class Cloud(Listening):
    """Listens on a loopback port of its own from start() to stop()."""

    def __init__(self, context: ssl.SSLContext, observer: Observer = ignore) -> None:
        self.context = context  # TLS of the connections accepted from now on
        self.observer = observer
        self.check_authorization = True
        self.own_tokens = False  # where the advice has a token, does each device get one by which it is known?
        self.devices: dict[str, Device] = {}  # by hardware id
        self.advice: dict[str, Any] = {"_type": "ActionWait", "period": 1}  # the advisor's answer
        self.tls_failures: Journal[str] = Journal()
        self._requests: Journal[Request] = Journal()
        self._claimed_at_once = False
        self._scripts: dict[tuple[str, str | None], collections.deque[Scripted]] = {}  # by endpoint and hardware id
        self._lock = threading.Lock()  # scripts, devices, connection count
        self._connections = 0
        self.listener = Listener(ReservedPort([socket.AF_INET]), self._serve, "cloud")
        self.port = self.listener.address.port

    def url(self, kind: str, host: str = "127.0.0.1") -> str:
        """The endpoint's address as the agent's settings hold it."""
        return f"https://{host}:{self.port}{BASE_PATHS[kind]}"

    # What it knows and says.

    def register(self, hardware_id: str, model: str = "Unknown") -> Device:
        """The device of a hardware id, made known if it is not."""
        with self._lock:
            if hardware_id not in self.devices:
                digest = hashlib.sha256(hardware_id.encode()).hexdigest().upper()
                device = Device(hardware_id, model, f"LAB-{digest[:12]}", digest[12:20], self._claimed_at_once)
                self.devices[hardware_id] = device
            return self.devices[hardware_id]

    def devices_by_identity(self) -> dict[str, Device]:
        """Each by all that it may tell the broker as its identity."""
        with self._lock:
            return {text: device for device in self.devices.values() for text in (device.id, device.token)}

    def claim(self, hardware_id: str | None = None) -> None:
        """Claims one device, or every one, those of the future included."""
        self._set_claimed(True, hardware_id)

    def release(self, hardware_id: str | None = None) -> None:
        self._set_claimed(False, hardware_id)

    def advise(self, advice: dict[str, Any], hardware_id: str | None = None) -> None:
        """What the advisor answers from now on: to one device, or to all, whatever single ones were told before."""
        with self._lock:
            if hardware_id is not None:
                self.devices[hardware_id].advice = advice
                return
            self.advice = advice
            for device in self.devices.values():
                device.advice = None

    def advise_connect(
        self,
        broker: str,
        port: int | str | None,
        token: bytes | None = None,
        agent_keepalive: str | None = None,
        broker_keepalive: str | None = None,
        heartbeat: int | str | None = None,
    ) -> None:
        """The advisor names a broker from now on; what is None is left out of its answer."""
        members = {
            "broker": broker,
            "token": None if token is None else base64.b64encode(token).decode(),
            "port": None if port is None else str(port),
            "agentKeepalive": agent_keepalive,
            "brokerKeepalive": broker_keepalive,
            "agentHeartbeat": None if heartbeat is None else str(heartbeat),
        }
        present = {key: value for key, value in members.items() if value is not None}
        self.advise({"_type": "ActionConnect", **present})

    def advise_wait(self, seconds: int, hardware_id: str | None = None) -> None:
        self.advise({"_type": "ActionWait", "period": seconds}, hardware_id)

    # What tests script and see.

    def script(self, kind: str, *replies: Scripted, hardware_id: str | None = None) -> None:
        """These replies come next on that endpoint, behind those scripted before; then it behaves by itself again.

        They are for all devices, or for a certain one, whose own come first.
        """
        if kind not in ENDPOINTS:
            raise ValueError(f"no such endpoint: {kind}; there are {', '.join(ENDPOINTS)}")
        with self._lock:
            self._scripts.setdefault((kind, hardware_id), collections.deque()).extend(replies)

    def forget_scripts(self) -> None:
        """Behaves by itself again on every endpoint."""
        with self._lock:
            self._scripts.clear()

    @property
    def scripted_count(self) -> int:
        """How many scripted replies are still to come."""
        with self._lock:
            return sum(map(len, self._scripts.values()))

    def requests(self, kind: str | None = None) -> list[Request]:
        return _of_kind(self._requests.snapshot(), kind)

    def wait_for_request(self, kind: str | None = None, count: int = 1, deadline: float | None = None) -> Request:
        """The `count`-th request of that kind (of any kind) since the start."""

        def find(requests: Sequence[Request]) -> Request | None:
            fitting = _of_kind(requests, kind)
            return fitting[count - 1] if len(fitting) >= count else None

        return self._requests.wait(find, f"cloud: {kind or 'any'} request {count}", deadline)

    def wait_until(self, find, what: str, deadline: float | None = None):
        """The first result of `find(requests)` that is not None; called again after each request and reply."""
        return self._requests.wait(find, f"cloud: {what}", deadline)

    def _set_claimed(self, claimed: bool, hardware_id: str | None) -> None:
        word = "claimed" if claimed else "released"
        with self._lock:
            if hardware_id is not None:
                self.devices[hardware_id].claimed = claimed
            else:
                self._claimed_at_once = claimed
                for device in self.devices.values():
                    device.claimed = claimed
        if hardware_id is None:
            self._tell(f"devices are {word} from now on")
        else:
            self._tell(f"{hardware_id} is {word} from now on", device=hardware_id)

    # A connection, on its own thread.

    def _serve(self, accepted: socket.socket) -> None:
        channel = Channel(accepted, self.listener.stopping, self.context)
        with self._lock:
            self._connections += 1
            number = self._connections
        end = ""
        try:
            channel.handshake()
            end = self._converse(channel, number)
            if end in ("close", "half-close"):
                channel.half_close()
            while end == "half-close" and channel.read():
                pass
        except ssl.SSLError as error:
            self.tls_failures.append(error.reason or str(error))
            self._tell(f"TLS failed: {error.reason or error}")
        except _BadRequest as error:
            self._tell(f"request not understood: {error}")
        except (ChannelEnded, OSError):
            pass  # the lab stops, or the agent gave up: what had arrived is recorded
        finally:
            channel.finish(reset=end == "reset")

    def _converse(self, channel: Channel, number: int) -> str:
        """Answers request after request; gives the way in which the connection is to end."""
        reader = _RequestReader(channel, number)
        while request := reader.next():
            reply = self._take(request)
            self._answer(channel, request, reply)
            if reply.end or reply.cut is not None:
                return reply.end or "cut"
        return "close"

    def _take(self, request: Request) -> Reply:
        request.device = self._asking(request)
        self._requests.append(request)
        scripted = self._next_scripted(request)
        if scripted is None:
            return self._default_reply(request)
        request.scripted = True
        reply = scripted if isinstance(scripted, Reply) else scripted(self._default_reply(request))
        reply.taken = True
        return reply

    def _next_scripted(self, request: Request) -> Scripted | None:
        with self._lock:
            for whose in (request.device, None):
                if script := self._scripts.get((request.kind, whose)):
                    return script.popleft()
        return None

    def _asking(self, request: Request) -> str | None:
        if request.kind == REGISTER:
            try:
                return str(request.json["hardwareId"])
            except (ValueError, KeyError, TypeError):
                return None
        device = self._device_of(request)
        return device.hardware_id if device else None

    def _answer(self, channel: Channel, request: Request, reply: Reply) -> None:
        encoded = reply.encode()[: reply.cut]
        if reply.stall_at:
            channel.write(encoded[: reply.stall_at])
        if reply.delay:
            channel.pause(reply.delay, reply.released)
        if reply.stall:
            channel.pause(None, reply.released)
        request.reply, request.status = reply, _status_of(encoded)
        self._requests.touch()
        self._tell_exchange(request, encoded)
        channel.write(encoded[reply.stall_at :])

    # The cloud's own behaviour.

    def _default_reply(self, request: Request) -> Reply:
        if request.kind == "other":
            known = any(request.path == path for _, path in ENDPOINTS.values())
            return Reply(405 if known else 404, {"error": f"no {request.method} here"})
        if request.kind == REGISTER:
            return self._reply_to_register(request)
        device = self._device_of(request)
        if device is None and self.check_authorization:
            return Reply.error(401, BAD_AUTHORIZATION, "Unknown device or wrong claim code")
        if request.kind == CLAIM:
            known = device or Device("", "", "UNKNOWN", "", self._claimed_at_once)
            return Reply(200, {"_type": "Device", "deviceId": known.id, "claimed": known.claimed})
        if request.kind == DISCOVERY:
            return Reply(200, {})
        return Reply(200, self._advice_for(device))

    def _advice_for(self, device: Device | None) -> dict[str, Any]:
        advice = self.advice if device is None or device.advice is None else device.advice
        if device is not None and self.own_tokens and "token" in advice:
            return {**advice, "token": base64.b64encode(device.token.encode()).decode()}
        return copy.copy(advice)

    def _reply_to_register(self, request: Request) -> Reply:
        try:
            hardware_id, model = request.json["hardwareId"], request.json["model"]
        except (ValueError, KeyError, TypeError):
            return Reply.error(400, 1000, "No hardwareId and model in the document")
        device = self.register(hardware_id, model)
        return Reply(201, {"deviceId": device.id, "claimCode": device.claim_code})

    def _device_of(self, request: Request) -> Device | None:
        given = request.header("Authorization")
        with self._lock:
            return next((device for device in self.devices.values() if device.authorization == given), None)

    def _tell(self, what: str, **details: Any) -> None:
        self.observer(Event("cloud", what, details))

    def _tell_exchange(self, request: Request, answer: bytes) -> None:
        self._tell(
            f"{request.kind}: {request.method} {request.target} -> {request.status or 'no status'}",
            device=request.device,
            kind=request.kind,
            method=request.method,
            target=request.target,
            headers=request.headers,
            body=request.body.decode(errors="backslashreplace"),
            status=request.status,
            answer=answer[:4096].decode(errors="backslashreplace"),
        )


class _BadRequest(Exception):
    pass


class _RequestReader:
    """Cuts a connection's stream into requests."""

    def __init__(self, channel: Channel, connection: int) -> None:
        self._channel = channel
        self._connection = connection
        self._pending = b""

    def next(self) -> Request | None:
        """The next request; None when the client has finished."""
        while b"\r\n\r\n" not in self._pending:
            if len(self._pending) > MAX_HEAD:
                raise _BadRequest("the head is too long")
            if not self._read_more():
                if self._pending:
                    raise _BadRequest(f"ends in the middle of its head: {self._pending[:80]!r}")
                return None
        head, _, self._pending = self._pending.partition(b"\r\n\r\n")
        method, target, headers = _parse_head(head)
        named = {name.lower(): value for name, value in headers}
        if named.get("expect", "").lower() == "100-continue":
            self._channel.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        length = named.get("content-length", "0")
        if not length.isdigit() or "transfer-encoding" in named:
            raise _BadRequest("a body without a plain length")
        while len(self._pending) < int(length):
            if not self._read_more():
                raise _BadRequest("ends in the middle of its body")
        body, self._pending = self._pending[: int(length)], self._pending[int(length) :]
        return Request(_kind(method, target), method, target, headers, body, self._connection)

    def _read_more(self) -> bool:
        data = self._channel.read()
        self._pending += data
        return bool(data)


def _parse_head(head: bytes) -> tuple[str, str, list[tuple[str, str]]]:
    request_line, *lines = head.decode("latin-1").split("\r\n")
    words = request_line.split(" ")
    if len(words) != 3 or not words[2].startswith("HTTP/1."):
        raise _BadRequest(f"bad request line {request_line!r}")
    headers = []
    for line in lines:
        name, colon, value = line.partition(":")
        if not colon:
            raise _BadRequest(f"bad header line {line!r}")
        headers.append((name, value.strip(" \t")))
    return words[0], words[1], headers


def _kind(method: str, target: str) -> str:
    asked = method, urlsplit(target).path
    return next((kind for kind, endpoint in ENDPOINTS.items() if endpoint == asked), "other")


def _of_kind(requests: Sequence[Request], kind: str | None) -> list[Request]:
    return [request for request in requests if kind is None or request.kind == kind]


def _status_of(encoded: bytes) -> int | None:
    words = encoded.split(b"\r\n", 1)[0].split(b" ")
    return int(words[1]) if len(words) > 1 and words[0].startswith(b"HTTP/") and words[1].isdigit() else None
