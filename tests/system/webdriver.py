"""A headless Chromium, driven over the WebDriver protocol (https://www.w3.org/TR/webdriver2/)."""

from __future__ import annotations

import base64
import json
import re
import shutil
import subprocess
import urllib.error
import urllib.request
from pathlib import Path
from typing import Any

from orvel_lab import DEADLINE, wait_until

TAB, ENTER, SPACE, END, HOME, UP, DOWN = "\ue004", "\ue007", " ", "\ue010", "\ue011", "\ue013", "\ue015"
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the protocol's key of an element's reference
STARTED = re.compile(r"started successfully on port (\d+)")

# Nothing but the page of the test is loaded, from nowhere but this machine.
ARGUMENTS = [
    "--headless=new",
    "--no-sandbox",  # root has none
    "--disable-gpu",
    "--disable-dev-shm-usage",
    "--disable-lcd-text",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-default-apps",
    "--disable-sync",
    "--no-first-run",
    "--no-proxy-server",
    "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE localhost",
]


class BrowserFailure(AssertionError):
    """The browser refuses what was asked of it; the text says why."""


class Browser:
    """One browser with one window, from the constructor to stop()."""

    def __init__(self, folder: Path) -> None:
        self._driver = _start_driver(folder)
        self._base = f"http://127.0.0.1:{_port_of(self._driver)}"
        options = {"args": [*ARGUMENTS, f"--user-data-dir={folder / 'profile'}"], "binary": _program("chromium")}
        capabilities = {"goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}
        try:
            session = self._ask("POST", "/session", {"capabilities": {"alwaysMatch": capabilities}})
        except BaseException:
            self.stop()
            raise
        self._base += f"/session/{session['sessionId']}"

    def stop(self) -> None:
        if "/session/" in self._base:
            self._ask("DELETE", "", None)
        self._driver.terminate()
        self._driver.wait(DEADLINE)
        self._driver.stdout.close()

    # Pages.

    def open(self, url: str) -> None:
        self._ask("POST", "/url", {"url": url})

    def show_as(self, *, width: int = 1280, height: int = 900, dark: bool = False, phone: bool = False) -> None:
        """The size of the window, and the colours that its user prefers."""
        size = {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": phone}
        self._develop("Emulation.setDeviceMetricsOverride", size)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self._develop("Emulation.setEmulatedMedia", {"features": [scheme]})

    def run(self, script: str, *arguments: Any) -> Any:
        """The result of a function's body in JavaScript."""
        return self._ask("POST", "/execute/sync", {"script": script, "args": arguments})

    def wait(self, expression: str, what: str, *arguments: Any) -> Any:
        """The first true value of an expression in JavaScript."""
        return wait_until(lambda: self.run(f"return {expression}", *arguments), f"page: {what}")

    def complaints(self) -> list[str]:
        """Errors and warnings that the browser's console has got since the last call."""
        entries = self._ask("POST", "/se/log", {"type": "browser"})
        return [entry["message"] for entry in entries if entry["level"] in ("SEVERE", "WARNING")]

    def screenshot(self) -> bytes:
        """A PNG of what the window shows."""
        return base64.b64decode(self._ask("GET", "/screenshot"))

    # What a user does.

    def click(self, selector: str) -> None:
        self._element(selector, "click", {})

    def type(self, selector: str, text: str) -> None:
        """In place of what is there."""
        self._element(selector, "clear", {})
        self._element(selector, "value", {"text": text})

    def choose(self, selector: str, option: str) -> None:
        self.click(f"{selector} option[value='{option}']")

    def press(self, *keys: str) -> None:
        """Keys for whatever has the focus."""
        for key in keys:
            actions = [{"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]
            self._ask("POST", "/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def name_of_focused(self) -> str:
        """What a screen reader calls the element that has the focus."""
        element = self._ask("GET", "/element/active")[ELEMENT]
        return self._ask("GET", f"/element/{element}/computedlabel")

    # The protocol.

    def _element(self, selector: str, what: str, document: dict[str, Any]) -> None:
        found = self._ask("POST", "/element", {"using": "css selector", "value": selector})
        self._ask("POST", f"/element/{found[ELEMENT]}/{what}", document)

    def _develop(self, command: str, parameters: dict[str, Any]) -> None:
        self._ask("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def _ask(self, method: str, path: str, document: Any = None) -> Any:
        body = None if document is None else json.dumps(document).encode()
        headers = {"Content-Type": "application/json"}
        request = urllib.request.Request(self._base + path, body, headers, method=method)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=4 * DEADLINE) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            why = json.load(error)["value"]
            raise BrowserFailure(f"{method} {path} {document}: {why['error']}: {why['message']}") from None


def _program(name: str) -> str:
    found = shutil.which(name)
    if found is None:
        raise BrowserFailure(f"there is no {name}: scripts/install-deps.sh installs it")
    return found


def _start_driver(folder: Path) -> subprocess.Popen[str]:
    command = [_program("chromedriver"), "--port=0", f"--log-path={folder / 'chromedriver.log'}"]
    return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)


def _port_of(driver: subprocess.Popen[str]) -> int:
    said = ""
    for line in driver.stdout:
        said += line
        if found := STARTED.search(line):
            return int(found[1])
    raise BrowserFailure(f"chromedriver did not start: {said}")
