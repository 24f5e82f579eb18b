"""The lab's web console in a browser, with real agents: what the page is told to do, the agents meet."""

from __future__ import annotations

import json
import re
import subprocess
from collections.abc import Callable, Iterator

import pytest
from console_site import FIRST, ConsoleSite, MakeConsole
from orvel_lab import DEADLINE, wait_until


@pytest.fixture
def site(make_console: MakeConsole) -> ConsoleSite:
    """One agent that is connected, and chosen in the page."""
    made = make_console("--agents", "1", "--claimed")
    made.wait_connected()
    made.choose(FIRST)
    return made


@pytest.fixture
def run_agent() -> Iterator[Callable[[list[str]], None]]:
    """Runs an agent by its command line."""
    started: list[subprocess.Popen[bytes]] = []
    yield lambda command: started.append(subprocess.Popen([*command, "--disable_console"]))
    for agent in started:
        agent.terminate()
        assert agent.wait(DEADLINE) == 0


class TestDevices:
    def test_an_empty_lab_says_how_to_start_an_agent(self, make_console: MakeConsole):
        site = make_console()
        assert site.devices() == []
        assert site.lab.document["agent_command_line"] in site.text("#no-devices")
        assert site.text("#device-count") == "0"
        assert site.browser.run("return document.querySelector('#message-form fieldset').disabled")

    def test_a_device_is_shown_from_registration_to_its_session_and_back(self, make_console: MakeConsole):
        site = make_console("--agents", "1", "--heartbeat", "1")
        site.wait_for_states(FIRST, registered=True, claimed=False, connected=False)
        site.choose(FIRST)
        assert "it was told" in site.do("claim", "claim")
        site.wait_connected()
        site.wait_for_session(1)
        [device] = site.lab.status()["devices"]
        assert device["claimed"] and device["id"] in site.text("#chosen-state")
        assert site.text(f"tr[data-device='{FIRST}'] td:nth-child(2)") == device["id"]
        site.wait_for_text("#chosen-state", "heartbeat 1 at")
        assert re.fullmatch(r"\d\d:\d\d:\d\d", site.text(f"tr[data-device='{FIRST}'] td:nth-child(7)"))
        assert site.text("#connected-count") == "1"

        assert "it was told" in site.do("claim", "release")
        site.wait_for_states(FIRST, registered=True, claimed=False, connected=False)
        site.wait_for_text("#chosen-state", "session 1 ended")

    def test_the_last_documents_of_a_device_are_shown(self, site: ConsoleSite):
        def document(kind: str) -> str:
            site.browser.run(f"document.querySelector('[data-kind={kind}]').open = true")
            return site.text(f"[data-kind={kind}] pre")

        wait_until(lambda: json.loads(document("state"))["connected"], "a state document that says connected")
        assert f'"{FIRST}"' in document("register") and "HTTP/1.1 201" in document("register")
        assert '"claimed": true' in document("claim")
        assert '"_type": "ActionConnect"' in document("advisor")

    def test_an_agent_that_is_started_by_hand_is_a_device_like_others(self, make_console: MakeConsole, run_agent):
        site = make_console("--claimed")
        run_agent(site.lab.document["agent_command"])
        hardware_id = site.lab.document["hardware_id"]
        site.wait_connected(hardware_id)
        site.choose(hardware_id)
        assert "it was told" in site.do("claim", "release")
        site.wait_for_states(hardware_id, registered=True, claimed=False, connected=False)


class TestMessages:
    def test_a_message_of_several_chunks_arrives_at_a_handlers_program(self, site: ConsoleSite):
        site.browser.type("#message-form [name=handler]", "exec")
        site.browser.type("#chunks li:nth-child(1) textarea", "Grüße, ")
        site.browser.click("#add-chunk")
        site.browser.choose("#chunks li:nth-child(2) select", "hex")
        site.browser.type("#chunks li:nth-child(2) textarea", "00 ff 3C 2f62\n3e")
        assert "15 bytes for 'exec'" in site.do("message", "send")
        wait_until(lambda: site.received("exec"), "the message")
        assert site.received("exec") == ["Grüße, ".encode() + b"\x00\xff</b>"]
        site.wait_for_event("plain message for 'exec', 15 bytes in 2 chunks")

    def test_what_is_no_hex_is_told_and_not_sent(self, site: ConsoleSite):
        site.browser.choose("#chunks li:nth-child(1) select", "hex")
        site.browser.type("#chunks li:nth-child(1) textarea", "0g")
        site.press("message", "send")
        assert site.text("#result") == "Chunk 1 is not made of pairs of hexadecimal digits"
        assert "plain message" not in site.text("#events")

    def test_a_chunk_can_be_removed(self, site: ConsoleSite):
        site.browser.type("#chunks li:nth-child(1) textarea", "first")
        site.browser.click("#add-chunk")
        site.browser.type("#chunks li:nth-child(2) textarea", "second")
        site.browser.click("#chunks li:nth-child(1) button")
        site.do("message", "send")
        wait_until(lambda: site.received("exec"), "the message")
        assert site.received("exec") == [b"second"]


class TestCloudAndSession:
    def test_the_advisor_lets_a_device_wait_and_connect_again(self, site: ConsoleSite):
        site.browser.type("#advice-form [name=seconds]", "1")
        site.do("advice", "advise-wait")
        site.wait_for_text("#chosen-state", "own advice: wait 1 s")
        assert site.text("#advice").startswith("connect to")  # others are still told to connect
        site.do("session", "drop")
        site.wait_for_agent_log("Wait command received from adviser. Sleeping for 1 secs.")
        site.wait_for_states(FIRST, registered=True, claimed=True, connected=False)
        site.do("advice", "advise-connect")
        site.wait_connected()
        site.wait_for_session(2)

    def test_what_the_advisor_says_to_all_replaces_what_it_said_to_one(self, site: ConsoleSite):
        site.do("advice", "advise-wait")
        site.choose("")
        site.browser.type("#advice-form [name=seconds]", "0")
        site.do("advice", "advise-wait")
        site.wait_for_text("#advice", "wait for ever")
        site.choose(FIRST)
        assert "own advice" not in site.text("#chosen-state")

    @pytest.mark.parametrize("how, ended", [("drop", "lab closed"), ("reset", "lab reset")])
    def test_a_session_that_is_dropped_comes_again(self, site: ConsoleSite, how: str, ended: str):
        assert site.do("session", how) == f"Session 1: {ended}"
        site.wait_for_session(2)
        assert [session["ended_by"] for session in site.lab.status()["sessions"]] == [ended, ""]

    def test_a_command_that_is_not_possible_says_why(self, make_console: MakeConsole):
        site = make_console("--agents", "1")
        site.wait_for_states(FIRST, registered=True, claimed=False, connected=False)
        site.choose(FIRST)
        assert site.browser.run("return document.querySelector('#session-form fieldset').disabled")
        site.press("fault", "fault")
        assert site.text("#result") == f"{FIRST} is not connected to the broker"


class TestFaults:
    def test_a_slow_session_delivers_whole_and_is_shown(self, site: ConsoleSite):
        assert "takes 0.5 s" in site.inject("session", "slow", seconds=0.5)
        site.wait_for_text("#chosen-state", "slow: 0.5 s a packet")
        assert site.text("#fault-count") == "1"
        site.browser.type("#chunks li textarea", "in ten pieces")
        site.do("message", "send")
        wait_until(lambda: site.received("exec"), "the message")
        assert site.received("exec") == [b"in ten pieces"]
        assert site.agent_log().count("Reading packet header.") >= 1
        site.do("fault", "calm")
        site.wait_for_text("#fault-count", "0")

    def test_garbage_in_a_session_gets_to_the_agent(self, site: ConsoleSite):
        assert "64 bytes of garbage" in site.inject("session", "garbage")
        site.wait_for_event("sends 64 raw bytes")
        site.do("session", "drop")
        site.wait_for_session(2)

    def test_a_reset_ends_the_session(self, site: ConsoleSite):
        site.inject("session", "reset")
        site.wait_for_event("session 1: ended: lab reset")
        site.wait_for_session(2)

    @pytest.mark.parametrize("what", ["slow", "garbage", "reset"])
    def test_the_next_connection_meets_a_fault_and_a_later_one_is_good(self, site: ConsoleSite, what: str):
        site.inject("connection", what, seconds=0.5)
        site.wait_for_text("#fault-count", "1")
        site.do("session", "drop")
        site.wait_for_session(2 if what == "slow" else 3)
        site.wait_for_text("#fault-count", "0")

    @pytest.mark.parametrize("what", ["slow", "garbage", "reset"])
    def test_the_advisors_next_answer_is_spoilt_and_a_later_one_is_good(self, site: ConsoleSite, what: str):
        site.inject("advisor", what, seconds=0.5)
        site.wait_for_text("#fault-count", "1")
        site.do("session", "drop")
        site.wait_for_session(2)
        site.wait_for_text("#fault-count", "0")
        asked = site.lab.status()["requests"]["advisor"]
        assert asked == (2 if what == "slow" else 3)

    def test_faults_can_be_taken_back(self, site: ConsoleSite):
        site.inject("connection", "reset", times=5)
        site.inject("register", "garbage", times=3)
        site.wait_for_text("#fault-count", "8")
        assert site.do("fault", "calm") == "No fault is left"
        site.wait_for_text("#fault-count", "0")
        site.do("session", "drop")
        site.wait_for_session(2)


class TestTimeLine:
    def test_packets_and_exchanges_are_shown_whole(self, site: ConsoleSite):
        def open_first(kind: str) -> str:
            site.browser.choose("#kind", kind)
            return wait_until(opened, f"the first of the {kind}, opened")

        def opened() -> str:
            shown = site.text("#events li:last-child pre")
            if not shown:  # a click misses while the list moves on
                site.browser.click("#events li:last-child summary")
            return shown

        assert "Authorization" not in open_first("exchanges")  # the first is the registration
        shown = site.text("#events li:last-child pre")
        assert FIRST in shown and "HTTP/1.1 201" in shown
        assert re.search(r"0000  01 01 00 .*  \.\.\.", open_first("packets"))
        assert "identity token" in site.text("#events li:last-child summary")
        site.browser.choose("#kind", "deliveries")
        site.wait_for_event("event_sink: ")

    def test_it_can_be_narrowed_held_and_cleared(self, make_console: MakeConsole):
        site = make_console("--agents", "2", "--claimed")
        second = "DEVICE0000002"
        for device in (FIRST, second):
            site.wait_connected(device)
        site.choose(second)
        site.browser.click("#only-chosen")
        assert FIRST not in site.text("#events") and second in site.text("#events")
        site.browser.click("#hold")
        site.do("session", "drop")
        site.wait_for_session(3)
        assert "ended" not in site.text("#events")
        site.browser.click("#hold")
        site.wait_for_event("ended: lab closed")
        site.browser.click("#clear")
        site.wait_for_text("#no-events", "Nothing")


class TestTheLabsEnd:
    def test_the_page_says_that_the_lab_is_gone_and_goes_on_when_it_is_back(self, make_console: MakeConsole, up):
        site = make_console("--agents", "1", "--claimed")
        site.wait_connected()
        site.choose(FIRST)
        port = site.lab.document["console"].split(":")[2].rstrip("/")
        site.lab.stop()
        site.wait_for_text("#gone", "The lab does not answer")
        assert site.text("#link") == "Lab is gone"
        assert site.browser.run("return [...document.querySelectorAll('fieldset')].every((part) => part.disabled)")

        site.lab = up("--console", port, "--agents", "2", folder=site.lab.folder)
        site.wait_for_text("#link", "Lab is up")
        assert site.text("#gone") == ""
        for device in (FIRST, "DEVICE0000002"):
            site.wait_for_states(device, registered=True, claimed=False, connected=False)
        assert "lab closed" not in site.text("#events")  # what another lab had to say is gone
        site.browser.complaints()  # the browser's own word on the lab's absence
