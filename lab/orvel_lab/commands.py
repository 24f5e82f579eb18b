"""What can be asked of a lab that is up, by the other commands on its Unix socket, and by the console's page."""

from __future__ import annotations

import base64
import binascii
import math
from collections.abc import Callable, Iterator
from dataclasses import asdict
from typing import Any

from . import faults
from .broker import Session
from .channel import ChannelEnded
from .control import Control
from .fleet import Fleet
from .handlers import Sink
from .lab import Lab
from .waiting import DeadlinePassed, Event, Journal, Observer

Document = dict[str, Any]

LONGEST_FAULT = 3600  # seconds
MOST_FAULTS = 1000
TELL_SECONDS = 5.0


class Refusal(Exception):
    """A command can't be carried out; the text says why."""


class Commands:
    """Each command is a document with the member "do", and so is its answer: "done" or "error" in words.

    A member "device" is a hardware id. Without one, a command about a session means the newest, others all devices.
    """

    def __init__(
        self, lab: Lab, fleet: Fleet, events: Journal[Event], tell: Observer, status: Callable[[], Document]
    ) -> None:
        self._lab = lab
        self._fleet = fleet
        self._events = events
        self._tell = tell
        self._connect_advice = lab.cloud.advice
        self._commands: dict[str, Callable[[Document], Document]] = {
            "send": self._send,
            "claim": self._claim,
            "release": self._claim,
            "advise-connect": self._advise,
            "advise-wait": self._advise,
            "drop": self._drop,
            "fault": self._fault,
            "calm": self._calm,
            "control": self._send_control,
            "status": lambda _request: status(),
            "wait": self._wait,
        }

    def answers(self, request: Document) -> Iterator[Document]:
        if request.get("do") == "trace":
            yield from self._trace(request["recorded"])
        else:
            yield self.answer(request)

    def answer(self, request: Document) -> Document:
        try:
            return self._commands[request["do"]](request)
        except (KeyError, TypeError, AttributeError, OverflowError, binascii.Error) as error:
            return {"error": f"the command is not understood: {error!r}"}
        except ChannelEnded:
            return {"error": "the session has ended"}
        except (Refusal, DeadlinePassed, ValueError, OSError) as error:
            return {"error": str(error)}

    def _trace(self, recorded: bool) -> Iterator[Document]:
        if recorded:
            yield from (asdict(event) for event in self._events.snapshot())
            return
        index = len(self._events)
        yield asdict(Event("lab", "trace begins"))
        while True:
            try:
                news = self._events.wait(lambda events: list(events[index:]) or None, "an event", math.inf)
            except DeadlinePassed:
                return
            index += len(news)
            yield from (asdict(event) for event in news)

    # Sessions.

    def _send(self, request: Document) -> Document:
        session = self._session(request)
        payload, chunks = base64.b64decode(request["payload"]), request["chunks"]
        if any(size < 0 for size in chunks):
            raise Refusal("a chunk can't be shorter than nothing")
        session.send_message(request["handler"], payload, chunks)
        return {"done": f"{len(payload)} bytes for '{request['handler']}' went out in session {session.number}"}

    def _drop(self, request: Document) -> Document:
        session = self._session(request)
        if request["reset"]:
            session.reset()
        else:
            session.close()
        return {"done": f"session {session.number}: {session.ended_by}"}

    def _session(self, request: Document) -> Session:
        device = self._hardware_id(request)
        session = newest_session(self._lab) if device is None else open_sessions(self._lab).get(device)
        if session is None:
            raise Refusal(f"{device or 'no agent'} is{'' if device is None else ' not'} connected to the broker")
        return session

    # The cloud.

    def _claim(self, request: Document) -> Document:
        """With "tell" the devices, too, are told, through their control ports, as a service on the device would."""
        device, word = self._hardware_id(request), request["do"]
        (self._lab.cloud.claim if word == "claim" else self._lab.cloud.release)(device)
        claimed = "claimed" if word == "claim" else "not claimed"
        done = f"the cloud says now that {device or 'the device'} is {claimed}"
        return {"done": f"{done}; {self._tell_devices(device, word)}" if request.get("tell") else done}

    def _tell_devices(self, device: str | None, word: str) -> str:
        known = [device] if device else list(self._lab.cloud.devices)
        told = [self._tell_device(self._fleet.control(hardware_id), word) for hardware_id in known]
        if device:
            return "it was told" if told[0] else "it could not be told, and learns of it at its next claim check"
        return f"{sum(told)} of {len(told)} devices were told"

    def _tell_device(self, control: Control | None, word: str) -> bool:
        if control is None:
            return False
        try:
            control.connect(0).close()  # not started, it is not waited for
            control.command(f"on_{word}", TELL_SECONDS, service="lab", claimed=word == "claim")
        except (DeadlinePassed, OSError, ValueError):
            return False
        return True

    def _advise(self, request: Document) -> Document:
        device = self._hardware_id(request)
        whom = device or "agents"
        if request["do"] == "advise-connect":
            self._lab.cloud.advise(self._connect_advice, device)
            return self._done(f"the advisor sends {whom} to {self._lab.broker_host} port {self._lab.broker.port}")
        seconds = int(request["seconds"])
        self._lab.cloud.advise_wait(seconds, device)
        return self._done(f"the advisor tells {whom} to wait {f'{seconds} s' if seconds > 0 else 'for ever'}")

    # Faults.

    def _fault(self, request: Document) -> Document:
        where, what = request["where"], request["what"]
        seconds, times = float(request["seconds"]), int(request["times"])
        if what not in faults.KINDS:
            raise Refusal(f"no fault '{what}'; there are {', '.join(faults.KINDS)}")
        if not (0 < seconds <= LONGEST_FAULT and 1 <= times <= MOST_FAULTS):
            raise Refusal(f"a fault has 1 to {LONGEST_FAULT} seconds and comes 1 to {MOST_FAULTS} times")
        if where == "session":
            return self._done(faults.disturb_session(self._session(request), what, seconds))
        if where == "connection":
            return self._done(faults.disturb_connections(self._lab, what, seconds, times))
        device = self._hardware_id(request)
        return self._done(faults.disturb_answers(self._lab, where, what, seconds, times, device))

    def _calm(self, _request: Document) -> Document:
        faults.calm(self._lab)
        return self._done("no fault is left")

    # The rest.

    def _send_control(self, request: Document) -> Document:
        reply = self._fleet.by_hand.exchange(request["document"].encode()).decode(errors="replace")
        self._tell(Event("control", f"{request['document']} -> {reply}"))
        return {"done": reply}

    def _wait(self, request: Document) -> Document:
        condition, count = request["condition"], request["count"]
        holds: dict[str, Callable[[], bool]] = {
            "up": lambda: True,
            "registered": lambda: len(self._lab.cloud.devices) >= count,
            "connected": lambda: newest_session(self._lab) is not None and len(self._lab.broker.sessions) >= count,
            "disconnected": lambda: self._lab.broker.current is None,
            "received": lambda: len(self._sink(request["handler"]).messages) >= count,
        }
        check = holds[condition]
        self._events.wait(lambda _events: True if check() else None, condition, request["deadline"])
        return {"done": condition}

    def _hardware_id(self, request: Document) -> str | None:
        device = request.get("device")
        if device is not None and device not in self._lab.cloud.devices:
            raise Refusal(f"no device {device} has registered")
        return device

    def _sink(self, name: str) -> Sink:
        if name not in self._lab.handlers:
            raise Refusal(f"no handler {name}; there are {', '.join(self._lab.handlers)}")
        return self._lab.handlers[name]

    def _done(self, text: str) -> Document:
        """What a trace would not show by itself."""
        self._tell(Event("lab", text))
        return {"done": text}


def newest_session(lab: Lab) -> Session | None:
    """The open session that was made last, once its identity has been received."""
    session = lab.broker.current
    return session if session is not None and session.identity is not None else None


def open_sessions(lab: Lab) -> dict[str, Session]:
    """By the hardware ids of their devices."""
    return {device: session for device, session in last_sessions(lab).items() if session.open}


def last_sessions(lab: Lab) -> dict[str, Session]:
    """The newest session of each device, open or ended."""
    owners = lab.cloud.devices_by_identity()
    named = ((session, owners.get(session.identity.text)) for session in lab.broker.sessions if session.identity)
    return {device.hardware_id: session for session, device in named if device}


def session_document(session: Session) -> Document:
    return {
        "number": session.number,
        "open": session.open,
        "tls": session.tls_version,
        "cipher": session.cipher,
        "identity": session.identity.describe() if session.identity else None,
        "packets": len(session.packets),
        "bytes": session.byte_count,
        "ended_by": session.ended_by,
    }
