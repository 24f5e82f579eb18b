"""A lab with its web console, and a browser that shows it."""

from __future__ import annotations

import os
from collections.abc import Callable
from pathlib import Path

from orvel_lab import wait_until
from palette_png import with_palette
from running_lab import Running
from webdriver import Browser

FIRST = "DEVICE0000001"
SCREENSHOTS = Path(__file__).resolve().parents[2] / "docs" / "screenshots"

MakeConsole = Callable[..., "ConsoleSite"]


class ConsoleSite:
    def __init__(self, lab: Running, browser: Browser, screenshots: Path) -> None:
        self.lab = lab
        self.browser = browser
        self._screenshots = screenshots
        browser.complaints()  # those of the page before
        browser.open(lab.document["console"])
        browser.wait("document.querySelector('#link').dataset.state === 'up'", "the lab is up")

    # What the page shows.

    def text(self, selector: str) -> str:
        return self.browser.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def wait_for_text(self, selector: str, text: str) -> None:
        shown = "document.querySelector(arguments[0])?.innerText.includes(arguments[1])"
        self.browser.wait(shown, f"'{text}' in {selector}", selector, text)

    def devices(self) -> list[str]:
        names = "[...document.querySelectorAll('#rows tr')].map((row) => row.dataset.device).filter(Boolean)"
        return self.browser.run(f"return {names}")

    def flag(self, device: str, column: int) -> str:
        return self.text(f"tr[data-device='{device}'] td:nth-child({column})")

    def wait_for_states(self, device: str, *, registered: bool, claimed: bool, connected: bool) -> None:
        words = ["yes" if state else "no" for state in (registered, claimed, connected)]
        wait_until(lambda: [self.flag(device, column) for column in (3, 4, 5)] == words, f"{device} is {words}")

    def wait_connected(self, device: str = FIRST) -> None:
        self.wait_for_states(device, registered=True, claimed=True, connected=True)

    def wait_for_session(self, number: int) -> None:
        self.wait_for_text("#chosen-state", f"session {number} since")

    def wait_for_event(self, text: str) -> None:
        self.wait_for_text("#events", text)

    def keep_screenshot(self, name: str) -> None:
        """In docs/screenshots when that is wished, else in the test's folder."""
        wished = os.environ.get("ORVEL_KEEP_SCREENSHOTS") == "1"
        folder = SCREENSHOTS if wished else self._screenshots
        folder.mkdir(parents=True, exist_ok=True)
        shot = self.browser.screenshot()
        (folder / f"{name}.png").write_bytes(with_palette(shot) if wished else shot)

    # What is done in it.

    def choose(self, device: str) -> None:
        button = f"tr[data-device='{device}'] button"
        self.browser.run("document.querySelector(arguments[0]).scrollIntoView({block: 'center'})", button)
        self.browser.click(button)
        self.wait_for_text("#chosen-title", device or "All devices")

    def press(self, form: str, command: str) -> None:
        """A button, and then the page's word that it has been done."""
        self.browser.run("document.querySelector('#result').dataset.state = ''")
        self.browser.click(f"#{form}-form button[value='{command}']")
        wait_until(lambda: self._result_state() in ("good", "bad"), f"the result of {command}")

    def do(self, form: str, command: str) -> str:
        """The same, which must succeed; gives what the page says."""
        self.press(form, command)
        assert self._result_state() == "good", self.text("#result")
        return self.text("#result")

    def inject(self, where: str, what: str, seconds: float = 1, times: int = 1) -> str:
        self.browser.choose("#fault-form [name=where]", where)
        self.browser.choose("#fault-form [name=what]", what)
        self.browser.type("#fault-form [name=seconds]", str(seconds))
        self.browser.type("#fault-form [name=times]", str(times))
        return self.do("fault", "fault")

    def _result_state(self) -> str:
        return self.browser.run("return document.querySelector('#result').dataset.state")

    # What the agents of the lab have to say.

    def agent_log(self, device: str = FIRST) -> str:
        log = self.lab.folder / "devices" / device / "orvel.log"
        return log.read_text(errors="replace") if log.exists() else ""

    def wait_for_agent_log(self, text: str, device: str = FIRST) -> None:
        wait_until(lambda: text in self.agent_log(device), f"'{text}' in the log of {device}")

    def received(self, handler: str) -> list[bytes]:
        folder = Path(self.lab.document["handlers"][handler]["folder"])
        return [path.read_bytes() for path in sorted(folder.glob("[0-9]*"))]
