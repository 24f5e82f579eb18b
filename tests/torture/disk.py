#!/usr/bin/python3
"""Disks that are full, read-only or gone, and power cuts while settings are stored.

log       The log's folder is full, or read-only, from the start and later again; full of the log's own generations;
          removed while the agent runs. It connects, delivers and answers all the same, says on standard error what it
          could not write, and writes again as soon as it can.
settings  The settings' folder is read-only or full from the start and later again, or locked by a settings tool that is
          stopped in the midst of its commit. The agent carries on, the file stays as it is, byte for byte, and what
          could not be stored is stored later, without a loss of what others have stored meanwhile.
power     The settings tool is killed at each of its system calls, and with it everything is lost that was not synced,
          in each combination: afterwards there are the old settings or the new ones, and once the tool has ended
          well, the new ones in every case; the next change succeeds. `retry` does the same change again after a kill
          without a power cut, and then cuts the power. `control` takes the syncing away, and has to find losses.

Each ends with status 0. A sanitizer's build of the tool can't be stopped at its calls: with it `power` and
`settings-locked` are left out. The disks are small ones in memory, in a mount namespace of the experiment's own.
"""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from support.rounds import Round, Tally, run, sanitizer  # noqa: E402  (found only now)
from support.disks import SmallDisk  # noqa: E402
from support.powercut import STORES, TOOL, Lost, PowerCut  # noqa: E402
from support.tracing import Traced  # noqa: E402
from orvel_lab import Agent, Lab, wait_until  # noqa: E402

INSIDE = "ORVEL_TORTURE_NAMESPACE"
PATIENCE = 120
REPORT = "sig_usr2 handler."
NOT_WRITTEN = "Log rotation function failed"
CYCLES, LONG_CYCLES = 1, 20  # full and free again, and so on
GENERATION_REPORTS, LONG_GENERATION_REPORTS = 100, 3_000
KILL_STEP, LONG_KILL_STEP = 7, 1  # how far apart the second kills of `retry` are


# --- an agent on bad disks


class Life:
    """A connected agent whose log and settings may lie on disks of their own. Used by `with`."""

    def __init__(self, this: Round, log: Path | None = None, settings: Path | None = None) -> None:
        self.this = this
        self.lab = Lab(this.folder / "lab", registered=True, claimed=True, authority=this.authority)
        self.sink = self.lab.tcp_handler("meter")
        for sink in (self.sink, self.lab.event_sink):
            sink.folder = None  # in memory only
        self.log_file = (log or self.lab.folder) / "orvel.log"
        self.connectivity = self.log_file.with_name("connectivity.log")
        self.lab.settings_path = (settings or self.lab.folder) / "settings"
        self.lab.write_settings()

    def __enter__(self) -> Life:
        self.lab.start()
        return self

    def __exit__(self, *failure: object) -> None:
        self.lab.__exit__(*failure)

    def start(self, *options: str) -> Agent:
        files = ["--log_file", self.log_file, "--connectivity_log_file", self.connectivity]
        self.agent = self.lab.start_agent("--log_debug", *files, *options)
        self.agent.log_file = self.log_file
        self.session = self.lab.broker.expect_session(PATIENCE)
        self.check()
        return self.agent

    def check(self) -> None:
        """It delivers, answers and reports."""
        before = len(self.sink.messages)
        self.session.packets.wait_for_count(1, "its identity", PATIENCE)
        self.session.send_message("meter", b"message %d" % before)
        assert self.sink.wait_for_count(before + 1, PATIENCE)[-1] == b"message %d" % before
        assert self.agent.control.exchange(b"", deadline=PATIENCE) == b'{"result":-1}'
        self.report()
        self.this.tally.counts["looks at the agent"] += 1

    def report(self) -> None:
        reports = self.agent.count(REPORT)
        self.agent.signal(signal.SIGUSR2)
        self.agent.wait_for_count(REPORT, reports + 1, PATIENCE)

    def reconnect(self) -> None:
        """Changes of the state have to be written: disconnected, connected."""
        self.session.close()
        self.session = self.lab.broker.expect_session(PATIENCE)
        self.check()

    def end(self) -> None:
        self.check()
        assert self.agent.stop(PATIENCE) == 0
        self.this.tally.counts["orderly ends"] += 1


def cycles(this: Round) -> range:
    return range(LONG_CYCLES if this.long else CYCLES)


# --- the log


def log(this: Round) -> None:
    LOGS[this.name.partition("-")[2]](this)
    this.tally.counts["log disks"] += 1


def _check_writes_again(life: Life) -> None:
    """The log takes lines again, and what follows too."""

    def written() -> bool:
        life.report()
        return REPORT in life.agent.log_file_text.removeprefix(before)  # another file by now, perhaps

    before = life.agent.log_file_text
    wait_until(written, "a line in the log file", PATIENCE)
    failures = life.agent.count(NOT_WRITTEN)
    life.reconnect()
    assert life.agent.count(NOT_WRITTEN) == failures, "lines are lost"
    assert "connected" in life.connectivity.read_text()


def _check_does_not_write(life: Life, why: str) -> None:
    """Lines are lost, which standard error tells; nothing else is."""
    failures = life.agent.count(NOT_WRITTEN)
    life.reconnect()
    life.report()
    assert life.agent.count(NOT_WRITTEN) > failures
    life.agent.assert_logged(f"log_rotation_fwrite(): {why}")


def log_full(this: Round) -> None:
    with SmallDisk(this.folder / "log", 256) as disk, Life(this, log=disk.path) as life:
        disk.fill()
        life.start()
        for _ in cycles(this):
            _check_does_not_write(life, "No space left on device")
            disk.free()
            _check_writes_again(life)
            disk.fill()
        life.end()


def log_generations(this: Round) -> None:
    """A full disk takes new lines as long as there are old generations to give up."""
    with SmallDisk(this.folder / "log", 128) as disk, Life(this, log=disk.path) as life:
        life.connectivity = this.folder / "connectivity.log"  # which has no generations of its own to give up
        life.start("--log_file_size", "8K", "--log_file_cnt", "4")

        def old() -> list[Path]:
            return [path for path in disk.path.iterdir() if path.name.startswith("orvel.log.")]

        wait_until(lambda: life.report() or len(old()) >= 4, "old generations", PATIENCE)
        disk.fill()
        oldest = max(int(path.name.split(".")[2]) for path in old())
        given_up = [path for path in old() if int(path.name.split(".")[2]) == oldest]
        failures = life.agent.count(NOT_WRITTEN)
        wait_until(lambda: life.report() or not any(path.exists() for path in given_up), "fewer of them", PATIENCE)
        for _ in range(LONG_GENERATION_REPORTS if this.long else GENERATION_REPORTS):
            life.report()  # what is moved away for a new file can be given up for it
        assert life.agent.count(NOT_WRITTEN) == failures, "a line was lost"
        disk.free()
        _check_writes_again(life)
        life.end()


def log_read_only(this: Round) -> None:
    with SmallDisk(this.folder / "log", 256) as disk, Life(this, log=disk.path) as life:
        disk.set_writable(False)
        life.start()
        for _ in cycles(this):
            _check_does_not_write(life, "Read-only file system")
            disk.set_writable(True)
            _check_writes_again(life)
            disk.set_writable(False)
        life.end()


def log_removed(this: Round) -> None:
    folder = this.folder / "log"
    folder.mkdir()
    with Life(this, log=folder) as life:
        life.start()
        for _ in cycles(this):
            life.log_file.unlink()
            _check_writes_again(life)
            _remove(folder)
            _check_does_not_write(life, "No such file or directory")
            folder.write_text("in its place\n")
            _check_does_not_write(life, "Not a directory")
            folder.unlink()
            folder.mkdir()
            _check_writes_again(life)
        _remove(folder)
        life.end()


def _remove(folder: Path) -> None:
    """Tried again when a line has come in between."""
    wait_until(lambda: shutil.rmtree(folder, ignore_errors=True) or not folder.exists(), "an empty folder")


LOGS = {"full": log_full, "generations": log_generations, "read_only": log_read_only, "removed": log_removed}


# --- the settings


def settings(this: Round) -> None:
    SETTINGS[this.name.partition("-")[2]](this)
    this.tally.counts["settings disks"] += 1


def _check_does_not_store(life: Life, why: str) -> None:
    before = _files(life.lab.settings_path.parent)
    complaint = f"Can't commit nvram, error: {why}."
    known = life.agent.count(complaint)
    life.reconnect()
    assert life.agent.count(complaint) > known
    assert _files(life.lab.settings_path.parent) == before


def _check_stores_again(life: Life) -> None:
    _check_is_stored(life)
    # What was still to be said of the bad disk has been said with the reconnect.
    complaints = life.agent.count("Can't commit nvram")
    _check_is_stored(life)
    assert life.lab.setting("q_version")
    assert life.agent.count("Can't commit nvram") == complaints


def _check_is_stored(life: Life) -> None:
    life.reconnect()
    stored = {"q_agent_connected": "1", "q_agent_pid": str(life.agent.pid), "q_agent_registered": "1"}
    for key, value in stored.items():
        life.lab.wait_for_setting(key, value, PATIENCE)


def _files(folder: Path) -> dict[str, bytes]:
    return {path.name: path.read_bytes() for path in folder.iterdir()}


def _on_bad_disk(this: Round, disk: SmallDisk, spoil, mend, why: str) -> None:
    with Life(this, settings=disk.path) as life:
        spoil()
        life.start()
        for _ in cycles(this):
            _check_does_not_store(life, why)
            mend()
            _check_stores_again(life)
            spoil()
        before = _files(disk.path)
        life.end()
        assert _files(disk.path) == before
        mend()
        subprocess.run([TOOL, "-c", life.lab.settings_path, "set", "later", "1"], check=True)
        assert life.lab.setting("later") == "1"


def settings_full(this: Round) -> None:
    with SmallDisk(this.folder / "store", 64) as disk:
        _on_bad_disk(this, disk, disk.fill, disk.free, "No space left on device")


def settings_read_only(this: Round) -> None:
    with SmallDisk(this.folder / "store", 64) as disk:
        spoil, mend = (lambda: disk.set_writable(False)), (lambda: disk.set_writable(True))
        _on_bad_disk(this, disk, spoil, mend, "Read-only file system")


def settings_locked(this: Round) -> None:
    """The tool holds the lock, has written its new file, and stands before giving it its name."""
    store = this.folder / "store"
    store.mkdir()
    with Life(this, settings=store) as life:
        life.start()
        for number in cycles(this):
            tool = _stopped_tool(life, f"others{number}")
            _check_does_not_store(life, "Settings file locked by another process")
            assert tool.release() == 0
            _check_stores_again(life)
            assert life.lab.setting(f"others{number}") == "value"
        tool = _stopped_tool(life, "unfinished")
        before = _files(store)
        life.end()
        assert _files(store) == before
        tool.kill()
        life.lab.change_setting("later", "1")
        assert (life.lab.setting("later"), life.lab.setting("unfinished")) == ("1", None)


def _stopped_tool(life: Life, key: str) -> Traced:
    tool = Traced([TOOL, "-c", life.lab.settings_path, "set", key, "value"])
    tool.run_to("renameat")
    return tool


SETTINGS = {"full": settings_full, "read_only": settings_read_only, "locked": settings_locked}


# --- power cuts


def power(this: Round) -> None:
    name = this.name.partition("-")[2]
    if name == "control":
        _check_loss_is_seen(this)
        return
    if name == "retry":
        cut = PowerCut(this, STORES["change"])
        cut.retry_after_each_kill(cut.kill_at_each_call(), LONG_KILL_STEP if this.long else KILL_STEP)
    else:
        this.tally.measure("system calls", PowerCut(this, STORES[name]).kill_at_each_call())


def _check_loss_is_seen(this: Round) -> None:
    """Without any sync the settings are lost in some states: a model that does not show that shows nothing."""
    try:
        PowerCut(this, STORES["control"]).kill_at_each_call()
    except Lost:
        this.tally.counts = Tally().counts
        this.tally.counts["losses seen without sync"] += 1
        return
    raise AssertionError("without sync nothing is lost: the model of the disk is too kind")


# --- all of it


def names(_long: bool) -> list[str]:
    agents = [f"settings-{name}" for name in SETTINGS] + [f"log-{name}" for name in LOGS]
    chosen = [*sorted(agents, reverse=True), "power-retry", *(f"power-{name}" for name in STORES)]
    traced = [name for name in chosen if name.startswith("power") or name == "settings-locked"]
    return [name for name in chosen if not (sanitizer() and name in traced)]


def summary(tally: Tally) -> str:
    counts = tally.counts
    left_out = "; without power cuts and without a locked file" if sanitizer() else ""
    return (
        f"{counts['log disks']} bad log folders and {counts['settings disks']} bad settings folders, the agent looked "
        f"at {counts['looks at the agent']} times, {counts['orderly ends']} orderly ends; {counts['kills']} kills of a "
        f"commit with up to {tally.highest.get('system calls', 0):.0f} system calls, {counts['power cuts']} power "
        f"cuts, {counts['states of a disk']} different states of a disk, each with the old or the new settings"
        f"{left_out}"
    )


def enter_namespace() -> None:
    """Starts this program anew where it may mount."""
    if os.environ.get(INSIDE):
        return
    user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    command = ["unshare", *user, "--mount", "--propagation", "private", sys.executable, *sys.argv]
    os.execvpe(command[0], command, {**os.environ, INSIDE: "1"})


if __name__ == "__main__":
    enter_namespace()
    sys.exit(run("disk", __doc__, names, {"log": log, "settings": settings, "power": power}, summary))
