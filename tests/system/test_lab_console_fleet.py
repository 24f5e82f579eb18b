"""One lab, a hundred agents, and the web console that shows them all."""

from __future__ import annotations

import os

from console_site import ConsoleSite, MakeConsole
from orvel_lab import wait_until
from webdriver import UP

COUNT = int(os.environ.get("ORVEL_FLEET_AGENTS", "100"))  # fewer where a sanitizer makes each of them large
DEVICES = [f"DEVICE{number:07d}" for number in range(1, COUNT + 1)]
CHOSEN, RELEASED = DEVICES[-2], DEVICES[6]
DELIVERED = "Sended 14 bytes to local handler"

ON_TOP = """
const {left, top} = document.activeElement.getBoundingClientRect();
return document.elementFromPoint(left + 5, top + 5) === document.activeElement;
"""


def test_a_hundred_agents_are_told_apart(make_console: MakeConsole):
    site = make_console("--agents", str(COUNT), "--claimed")
    wait_until(lambda: site.text("#connected-count") == str(COUNT), f"{COUNT} connected devices")
    assert site.devices() == DEVICES
    assert len({device["id"] for device in site.lab.status()["devices"]}) == COUNT
    site.keep_screenshot("console-fleet")

    send_to(site, CHOSEN, b"for you alone!")
    site.wait_for_agent_log(DELIVERED, CHOSEN)
    assert [device for device in DEVICES if DELIVERED in site.agent_log(device)] == [CHOSEN]
    assert site.received("exec") == [b"for you alone!"]

    site.choose(CHOSEN)
    site.browser.press(*[UP] * (COUNT // 2))
    assert site.text("#chosen-title") == DEVICES[COUNT - 2 - COUNT // 2]
    assert site.browser.run(ON_TOP), "the focus is hidden below the table's head"

    site.choose(RELEASED)
    assert "it was told" in site.do("claim", "release")
    site.wait_for_states(RELEASED, registered=True, claimed=False, connected=False)
    assert site.text("#connected-count") == str(COUNT - 1)

    site.choose("")
    assert f"{COUNT} of {COUNT} devices were told" in site.do("claim", "release")
    wait_until(lambda: site.text("#connected-count") == "0", "no connected device")


def send_to(site: ConsoleSite, device: str, message: bytes) -> None:
    site.choose(device)
    site.browser.type("#chunks li textarea", message.decode())
    site.do("message", "send")
    wait_until(lambda: site.received("exec"), "the message")
