"""What a lab knows of each device: a row for the console's page."""

from __future__ import annotations

import json
import threading
from pathlib import Path
from typing import Any

from .broker import Session
from .cloud import Device
from .commands import last_sessions
from .fleet import Fleet
from .lab import EVENT_SINK, Lab
from .waiting import Event

LONGEST_DOCUMENT = 4096
LONGEST_NAME = 100


class Roster:
    """The last documents of each device are gathered from the lab's events; all else the lab itself remembers."""

    def __init__(self, lab: Lab, fleet: Fleet) -> None:
        self._lab = lab
        self._fleet = fleet
        self._documents: dict[str, dict[str, Any]] = {}  # by hardware id, then by kind
        self._lock = threading.Lock()

    def observe(self, event: Event) -> str | None:
        """Takes in what an event tells, and gives the hardware id of the device that it is about."""
        details = event.details
        device = details.get("device")
        if event.source == "cloud" and "answer" in details:
            exchange = {"request": details["body"], "answer": details["answer"], "status": details["status"]}
            self._keep(device, details["kind"], event.time, exchange)
        elif event.source == "broker":
            owner = self._lab.cloud.devices_by_identity().get(details.get("identity") or "")
            device = owner.hardware_id if owner else None
        elif event.source == "handler" and details["handler"] == EVENT_SINK:
            device = hardware_id_of_state(details["message"])
            self._keep(device, "state", event.time, {"document": details["message"]})
        return device

    def rows(self) -> list[dict[str, Any]]:
        sessions = last_sessions(self._lab)
        devices = dict(self._lab.cloud.devices)
        names = [*devices, *(name for name in self._fleet.hardware_ids if name not in devices)]
        return [self._row(name, devices.get(name), sessions.get(name)) for name in sorted(names)]

    def _row(self, hardware_id: str, device: Device | None, session: Session | None) -> dict[str, Any]:
        with self._lock:
            documents = dict(self._documents.get(hardware_id, {}))
        return {
            "hardware_id": hardware_id,
            "id": device.id if device else "",
            "model": device.model if device else "",
            "registered": device is not None,
            "claimed": bool(device and device.claimed),
            "advice": device.advice if device else None,
            "documents": documents,
            **session_part(session),
        }

    def _keep(self, hardware_id: str | None, kind: str, time: float, document: dict[str, Any]) -> None:
        """Of devices that are no part of the lab nothing is kept: there could be any number of them."""
        if hardware_id is None or hardware_id not in self._lab.cloud.devices:
            return
        short = {key: text[:LONGEST_DOCUMENT] if isinstance(text, str) else text for key, text in document.items()}
        with self._lock:
            self._documents.setdefault(hardware_id, {})[kind] = {"time": time, **short}


def session_part(session: Session | None) -> dict[str, Any]:
    if session is None:
        return {"connected": False, "session": None, "since": None, "ended_by": "", "heartbeat": None, "slow": 0}
    beat = session.heartbeat
    return {
        "connected": session.open,
        "session": session.number,
        "since": session.opened_at if session.open else session.ended_at,
        "ended_by": session.ended_by,
        "heartbeat": {"time": session.heartbeat_at, "sequence": beat.sequence} if beat else None,
        "slow": session.slowness if session.open else 0,
    }


def hardware_id_of_state(document: str) -> str | None:
    """A state document names its sender by the process id alone; the agent's command line says more."""
    try:
        pid = int(json.loads(document)["pid"])
        words = Path(f"/proc/{pid}/cmdline").read_bytes().decode(errors="replace").split("\0")
        return words[words.index("--hardware_id") + 1][:LONGEST_NAME]
    except (ValueError, KeyError, TypeError, IndexError, OSError):
        return None
