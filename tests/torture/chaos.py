#!/usr/bin/python3
"""A bad network around the agent, and whether it comes back.

line   Over relays between agent and broker (TCP and TLS), cloud and proxy (HTTP, SOCKS): each connection is delayed,
       cut in pieces, reset, half-closed or stalled by a seeded plan, while messages flow. As soon as the line is calm,
       the agent is connected again and delivers, within its configured delays: a request's time-out and both delays,
       and a margin. From each session the first messages are delivered, whole, once and in order: no gap, none that had
       not arrived whole, and all that had, unless the line was reset or the agent itself ended the session. Threads and
       descriptors are as before.
lost   Packets are lost, without a reset (a network of one's own; skipped without root): a session notices that by TCP
       keepalive or heartbeat, a handshake by the kernel's keepalive, a request by its time-out; then it connects again.
names  A name server that is silent or answers nonsense (the same network, and an /etc/resolv.conf of one's own): start,
       pause, claim and stop, how long each takes, and the way back.
"""

from __future__ import annotations

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support.rounds import Tally, run  # noqa: E402  (found only now)
from chaotic.lines import KINDS, disturbed_line  # noqa: E402
from chaotic.losses import CASES, LATENESS, SKIPPED, lost  # noqa: E402
from chaotic.name_server import MANNERS  # noqa: E402
from chaotic.names import SLOWEST, failing_look_up  # noqa: E402

EVENT_NAMES = {"reset": "resets", "half-close": "half-closes", "stall": "stalls"}
LINES, LONG_LINES = 2, 8  # lives of each kind
LONG_LOSSES = 6  # of each case
BAD_MANNERS = ["absent", *(manner for manner in MANNERS if manner != "good")]
WHOSE = ("broker", "advisor", "cloud")
LOOK_UPS = ["broker-silent-0", "broker-torn-0", "broker-absent-0", "advisor-silent-0", "cloud-noise-0"]
LONG_LOOK_UPS = [
    *(f"{whose}-{manner}-2" for whose in WHOSE for manner in ("silent", "torn")),  # the slowest ones first
    *(f"{whose}-{manner}-{number}" for number in (0, 1) for whose in WHOSE for manner in BAD_MANNERS),
]
WORKERS = 8


def names(long: bool) -> list[str]:
    return [
        *(f"names-{look_up}" for look_up in (LONG_LOOK_UPS if long else LOOK_UPS)),
        *(f"line-{kind}-{number}" for number in range(LONG_LINES if long else LINES) for kind in KINDS),
        *(f"lost-{case}-{number}" for number in range(LONG_LOSSES if long else 1) for case in CASES),
    ]


def summary(tally: Tally) -> str:
    counts = tally.counts
    events = ", ".join(f"{counts[event]} {name}" for event, name in EVENT_NAMES.items())
    noticed = max(value for name, value in {**tally.highest, LATENESS: 0}.items() if name.startswith(LATENESS))
    slowest = ", ".join(f"{what} {tally.highest.get(what, 0):.1f} s" for what in ("calm", *SLOWEST))
    return (
        f"{counts['storms']} storms over {counts['connections']} connections ({events}), {counts['sessions']} sessions "
        f"({counts['complete']} surely complete), {counts['messages']} messages, {counts['cut off']} cut off, "
        f"{counts['pauses']} pauses; {counts['losses']} losses noticed within {noticed:.2f} of the time configured; "
        f"{counts['look-ups']} look-ups; slowest: {slowest}; {counts[SKIPPED]} rounds skipped"
    )


if __name__ == "__main__":
    bodies = {"line": disturbed_line, "lost": lost, "names": failing_look_up}
    sys.exit(run("chaos", __doc__, names, bodies, summary, WORKERS))
