"""Agents of several devices at one lab, as child processes; each has its own settings, control port and files."""

from __future__ import annotations

import subprocess
from pathlib import Path

from . import settings as settings_file
from .control import Control
from .lab import Lab
from .waiting import DEADLINE

MOST_DEVICES = 1000


class Fleet:
    """The devices that the lab itself runs, and the one whose agent is started by hand."""

    def __init__(self, lab: Lab, program: Path) -> None:
        self.by_hand = Control(lab.reserve_port())
        self._lab = lab
        self._program = program
        self._controls = {lab.hardware_id: self.by_hand}
        self._agents: dict[str, subprocess.Popen[bytes]] = {}

    @property
    def hardware_ids(self) -> list[str]:
        """Of the devices whose agents the lab runs."""
        return list(self._agents)

    def control(self, hardware_id: str) -> Control | None:
        """The control port of a device; None when the lab does not know it."""
        return self._controls.get(hardware_id)

    def start(self, count: int) -> None:
        for number in range(1, count + 1):
            self._start(f"DEVICE{number:07d}")

    def stop(self) -> None:
        for agent in self._agents.values():
            agent.terminate()
        for agent in self._agents.values():
            try:
                agent.wait(DEADLINE)
            except subprocess.TimeoutExpired:
                agent.kill()
                agent.wait()

    def _start(self, hardware_id: str) -> None:
        lab = self._lab
        folder = lab.folder / "devices" / hardware_id
        folder.mkdir(parents=True)
        settings_file.write(folder / "settings", lab.settings)
        control = Control(lab.reserve_port())
        arguments = lab.agent_arguments(
            "--log_debug",
            "--disable_console",
            name=f"devices/{hardware_id}/orvel",
            control_port=control.port,
            hardware_id=hardware_id,
            settings_path=folder / "settings",
        )
        with open(folder / "output", "wb") as output:
            command = [self._program, *arguments]
            agent = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self._controls[hardware_id], self._agents[hardware_id] = control, agent
