"""The web console's HTTP side without a browser: who gets something, and the event stream."""

from __future__ import annotations

import http.client
import json
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest
from orvel_lab.console import KEPT_EVENTS, Ring
from running_lab import SECONDS, Running, run

HEADER = {"X-Orvel-Lab": "console"}
CLAIM = b'{"do": "claim"}'


@pytest.fixture
def lab(up) -> Running:
    return up("--console")


def port_of(lab: Running) -> int:
    return int(lab.document["console"].split(":")[2].rstrip("/"))


def ask(lab: Running, method: str, path: str, body: bytes | None = None, **headers: str) -> tuple[int, dict, bytes]:
    client = http.client.HTTPConnection("127.0.0.1", port_of(lab), timeout=SECONDS)
    try:
        client.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
        answer = client.getresponse()
        return answer.status, dict(answer.headers), answer.read()
    finally:
        client.close()


def give(lab: Running, command: Any) -> dict:
    status, _, answer = ask(lab, "POST", "/command", json.dumps(command).encode(), **HEADER)
    assert status == 200, answer
    return json.loads(answer)


@contextmanager
def stream(lab: Running, last_id: str = "") -> Iterator[Iterator[tuple[str, str, Any]]]:
    """Parts of the event stream: id, kind and document."""
    client = http.client.HTTPConnection("127.0.0.1", port_of(lab), timeout=SECONDS)
    client.request("GET", "/news", headers={"Last-Event-ID": last_id} if last_id else {})
    answer = client.getresponse()
    assert (answer.status, answer.headers["Content-Type"]) == (200, "text/event-stream")

    def parts() -> Iterator[tuple[str, str, Any]]:
        fields: dict[str, str] = {}
        for line in answer:
            name, _, value = line.decode().rstrip("\n").partition(": ")
            if name:
                fields[name] = value
                continue
            if "event" in fields:
                yield fields.get("id", ""), fields["event"], json.loads(fields["data"])
            fields = {}

    try:
        yield parts()
    finally:
        client.close()


def events(parts: Iterator[tuple[str, str, Any]], count: int) -> list[tuple[str, str]]:
    """The next so many events: their ids and summaries."""
    found = []
    while len(found) < count:
        last_id, kind, document = next(parts)
        if kind == "event":
            found.append((last_id, document["summary"]))
    return found


class TestWhoGetsSomething:
    def test_every_part_of_the_page_comes_with_a_policy_of_no_foreign_resource(self, lab: Running):
        for path in ["/", "/index.html", "/style.css", "/app.js", "/icon.svg"]:
            status, headers, body = ask(lab, "GET", path)
            assert status == 200 and body
            assert headers["Content-Security-Policy"].startswith("default-src 'self';")
            assert headers["X-Content-Type-Options"] == "nosniff"
            assert b"http://" not in body.replace(b"http://www.w3.org/2000/svg", b"") and b"https://" not in body

    @pytest.mark.parametrize("path", ["/lab.json", "/../console.py", "/console.py", "/%2e%2e/cli.py", "/command"])
    def test_nothing_else_is_given_away(self, lab: Running, path: str):
        assert ask(lab, "GET", path)[0] == 404

    def test_it_listens_on_loopback_alone(self, lab: Running):
        wanted = f":{port_of(lab):04X}"
        rows = [line.split() for name in ("tcp", "tcp6") for line in Path(f"/proc/net/{name}").read_text().splitlines()]
        assert {row[1] for row in rows if row[1].endswith(wanted) and row[3] == "0A"} == {f"0100007F{wanted}"}

    @pytest.mark.parametrize("host", ["lab.example", "lab.example:80", "127.0.0.1", "localhost:1", ""])
    def test_another_host_name_that_leads_here_is_refused(self, lab: Running, host: str):
        for method, path in [("GET", "/"), ("GET", "/news"), ("POST", "/command")]:
            status, _, answer = ask(lab, method, path, CLAIM, Host=host, **HEADER)
            assert (status, b"names of this machine only" in answer) == (403, True)

    @pytest.mark.parametrize("origin", ["http://lab.example", "null", "https://127.0.0.1", "http://127.0.0.1:1"])
    def test_a_page_of_another_origin_is_refused(self, lab: Running, origin: str):
        status, _, answer = ask(lab, "POST", "/command", CLAIM, Origin=origin, **HEADER)
        assert (status, b"its own page only" in answer) == (403, True)

    def test_its_own_page_is_served_under_both_names(self, lab: Running):
        for name in ("127.0.0.1", "localhost"):
            host = f"{name}:{port_of(lab)}"
            assert ask(lab, "POST", "/command", CLAIM, Host=host, Origin=f"http://{host}", **HEADER)[0] == 200

    def test_a_form_of_another_page_can_not_give_a_command(self, lab: Running):
        assert ask(lab, "POST", "/command", CLAIM, Content_Type="text/plain")[0] == 403
        assert ask(lab, "OPTIONS", "/command", Access_Control_Request_Method="POST")[0] == 501

    def test_a_port_that_is_taken_is_refused(self, lab: Running, tmp_path: Path):
        done = run("--dir", str(tmp_path / "other"), "up", "--console", str(port_of(lab)))
        assert done.returncode == 1 and "Address already in use" in done.stderr


class TestCommands:
    @pytest.mark.parametrize(
        "body, status",
        [
            (b"{", 400),
            (b"[]", 400),
            (b"\xff", 400),
            (b"{}", 200),
            (b'{"do": "control", "document": "{}"}', 200),
            (b'{"do": "wait"}', 200),
            (b'{"do": ["send"]}', 200),
            (b'{"do": "send"}', 200),
            (b'{"do": "claim", "device": "nobody"}', 200),
            (b'{"do": "claim", "device": ["nobody"]}', 200),
            (b'{"do": "advise-wait", "seconds": null}', 200),
            (b'{"do": "advise-wait", "seconds": Infinity}', 200),
            (b'{"do": "fault", "where": "session", "what": "fire", "seconds": 1, "times": 1}', 200),
            (b'{"do": "fault", "where": "moon", "what": "slow", "seconds": 1, "times": 1}', 200),
            (b'{"do": "fault", "where": "claim", "what": "slow", "seconds": NaN, "times": 1}', 200),
            (b'{"do": "fault", "where": "claim", "what": "slow", "seconds": 1, "times": 1e9}', 200),
        ],
    )
    def test_what_is_no_command_is_told(self, lab: Running, body: bytes, status: int):
        got, _, answer = ask(lab, "POST", "/command", body, **HEADER)
        assert (got, bool(json.loads(answer)["error"])) == (status, True)

    def test_a_command_without_end_is_refused(self, lab: Running):
        assert ask(lab, "POST", "/command", **HEADER, Content_Length=str(10**9))[0] == 413

    def test_commands_are_those_of_the_command_line(self, lab: Running):
        assert give(lab, {"do": "advise-wait", "seconds": 7})["done"] == "the advisor tells agents to wait 7 s"
        assert lab.status()["advice"] == {"_type": "ActionWait", "period": 7}
        assert "the advisor sends agents" in give(lab, {"do": "advise-connect"})["done"]
        assert give(lab, {"do": "drop", "reset": False})["error"] == "no agent is connected to the broker"


class TestStream:
    def test_it_begins_with_the_lab_its_devices_and_what_has_happened(self, lab: Running):
        give(lab, {"do": "calm"})
        with stream(lab) as parts:
            (_, kind, document), (_, then, devices) = next(parts), next(parts)
            assert (kind, document["folder"]) == ("lab", lab.document["folder"])
            assert (then, devices) == ("devices", [])
            assert [text for _, text in events(parts, 1)] == ["no fault is left"]
            give(lab, {"do": "advise-wait", "seconds": 1})
            assert [text for _, text in events(parts, 1)] == ["the advisor tells agents to wait 1 s"]

    def test_it_goes_on_behind_the_last_event_that_a_page_has_seen(self, lab: Running):
        for seconds in (1, 2, 3):
            give(lab, {"do": "advise-wait", "seconds": seconds})
        with stream(lab) as parts:
            seen = events(parts, 3)
        give(lab, {"do": "calm"})
        for last, expected in [(1, [*(text for _, text in seen[2:]), "no fault is left"]), (2, ["no fault is left"])]:
            with stream(lab, seen[last][0]) as parts:
                assert [text for _, text in events(parts, len(expected))] == expected

    def test_an_id_of_another_run_or_none_at_all_begins_with_the_oldest(self, lab: Running):
        for _ in range(2):
            give(lab, {"do": "calm"})
        for last_id in ("0123abcd-2", "nonsense", "-", "--1"):
            with stream(lab, last_id) as parts:
                assert len(events(parts, 2)) == 2

    def test_what_is_forgotten_meanwhile_is_counted(self, lab: Running):
        give(lab, {"do": "calm"})
        with stream(lab) as parts:
            [(seen, _)] = events(parts, 1)
        for _ in range(KEPT_EVENTS + 1):
            give(lab, {"do": "calm"})
        with stream(lab, seen) as parts:
            assert next(document for _, kind, document in parts if kind == "gap") == 1

    def test_it_ends_with_the_lab(self, lab: Running):
        with stream(lab) as parts:
            next(parts)
            lab.stop()
            assert [kind for _, kind, _ in parts if kind == "event"] == []
        assert lab.process.returncode == 0


class TestRing:
    def test_it_keeps_the_newest_only(self):
        ring = Ring(size=3)
        for number in range(1, 6):
            ring.append({"n": number})
        assert ring.after(0) == [(number, {"n": number}) for number in (3, 4, 5)]
        assert ring.after(4) == [(5, {"n": 5})]
        assert ring.after(5) == []

    def test_a_wait_ends_with_news_or_with_the_ring(self):
        ring = Ring()
        assert ring.wait_after(0, 0)
        ring.append({})
        assert ring.wait_after(0, SECONDS)
        assert ring.rest(0)
        ring.end()
        assert not ring.wait_after(1, SECONDS) and not ring.rest(SECONDS)
