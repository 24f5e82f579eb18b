"""The schemas of all documents: what fits them, what doesn't, and that each test's exchanges are held against them."""

from __future__ import annotations

import copy
import json
from typing import Any

import pytest
from documents import SCHEMAS, bad_documents, complaints, exchanged_documents, schema, schema_names
from orvel_lab import Agent, Lab

PROTOCOL = SCHEMAS.parent / "protocol.md"
DISSECTOR = "../packaging/wireshark/orvel.lua"


def examples() -> list[tuple[str, dict[str, Any]]]:
    return [(name, example) for name in schema_names() for example in schema(name).schema["examples"]]


def optional(name: str, document: dict[str, Any]) -> set[str]:
    """Members of the example that may be left out."""
    members = {
        "advisor-reply": {"port", "token", "agentKeepalive", "brokerKeepalive", "agentHeartbeat"},
        "control-request": {"discovery_time"} if document.get("command") == "send_discovery" else set(),
    }
    return members.get(name, set())


class TestSchemas:
    @pytest.mark.parametrize(("name", "document"), examples())
    def test_an_example_fits_until_a_member_is_wrong_missing_or_too_much(self, name: str, document: dict[str, Any]):
        assert complaints(name, document) == []
        assert complaints(name, {**document, "surplus": 1})
        for member in document:
            assert complaints(name, {**document, member: None}), member
            assert complaints(name, {**document, member: {}}), member
            without = copy.copy(document)
            del without[member]
            assert bool(complaints(name, without)) == (member not in optional(name, document)), member

    @pytest.mark.parametrize(
        ("name", "document"),
        [
            ("advisor-reply", {"_type": "ActionConnect", "broker": "b", "port": 443}),
            ("advisor-reply", {"_type": "ActionConnect", "broker": "b", "agentKeepalive": "10,5"}),
            ("advisor-reply", {"_type": "ActionConnect", "broker": "b", "period": 1}),
            ("advisor-reply", {"_type": "ActionWait", "period": -1}),
            ("advisor-reply", {"_type": "ActionSleep", "period": 1}),
            ("claim-reply", {"_type": "Device", "deviceId": "X", "claimed": True, "owned": True}),
            ("control-reply", {"result": -2}),
            ("control-request", {"command": "dance"}),
            ("control-request", {"command": "pause_connections", "carrier_id": "c"}),
            ("register-reply", {"deviceId": "lower", "claimCode": "c"}),
            ("state", {"event": 5, "daemon": False, "pid": 1, "registered": True, "claimed": True, "connected": True}),
            ("state", b"{"),
            ("state", []),
        ],
    )
    def test_what_does_not_fit_is_told(self, name: str, document: Any):
        assert complaints(name, document)

    def test_the_protocol_page_links_them_and_the_dissector(self):
        page = PROTOCOL.read_text()
        assert [name for name in schema_names() if f"](schemas/{name}.json)" not in page] == []
        assert f"]({DISSECTOR})" in page and (PROTOCOL.parent / DISSECTOR).exists()


@pytest.fixture
def life(lab: Lab) -> tuple[Lab, Agent]:
    """A device from its registration to its session, which has said and heard a document of every kind."""
    lab.settings["q_use_discovery"] = "1"
    lab.tcp_handler("event_sink_meter")
    agent = lab.start_agent("--log_debug", "--service_id", "meter")
    lab.cloud.wait_for_request("discovery")
    lab.cloud.claim()
    assert agent.control.command("on_claim", service="meter", claimed=True) == 0
    lab.broker.expect_session()
    lab.event_sink.wait_for_document(connected=True)
    lab.handlers["event_sink_meter"].wait_for_count(1)
    agent.stop()
    return lab, agent


class TestExchanges:
    def test_a_life_holds_documents_of_every_kind(self, life: tuple[Lab, Agent]):
        lab, _ = life
        assert sorted({name for name, _ in exchanged_documents(lab)}) == schema_names()
        assert bad_documents(lab) == []

    @pytest.mark.breaks(*schema_names())
    def test_whatever_is_changed_in_one_is_told_unless_the_test_breaks_it_on_purpose(self, life: tuple[Lab, Agent]):
        lab, agent = life
        requests = {request.kind: request for request in lab.cloud.requests()}
        changes = {
            "register-request": lambda: change_body(requests["register"]),
            "discovery-request": lambda: change_body(requests["discovery"]),
            "register-reply": lambda: requests["register"].reply.body.update(surplus=1),
            "advisor-reply": lambda: requests["advisor"].reply.body.update(port=443),
            "state": lambda: lab.event_sink.messages.append(b'{"event":0}'),
            "service-claim": lambda: lab.handlers["event_sink_meter"].messages.append(b'{"service":"s","claimed":1}'),
            "control-request": lambda: agent.control.requests.append(({"command": "pause_connections", "x": 1}, 0)),
            "control-reply": lambda: agent.control.replies.append(b'{"result":7}'),
        }
        for number, (name, change) in enumerate(changes.items(), 1):
            change()
            told = {text.split(":")[0] for text in bad_documents(lab)}
            assert told == set(list(changes)[:number])
            assert bad_documents(lab, tolerated=tuple(told - {name}))[0].startswith(f"{name}: ")

    def test_what_an_agent_has_not_understood_and_a_script_are_the_tests_own_affair(self, life: tuple[Lab, Agent]):
        lab, agent = life
        agent.control.requests.append(({"command": "on_claim"}, -1))
        request = lab.cloud.requests("advisor")[0]
        request.reply.body, request.scripted = {"_type": "x"}, True
        assert bad_documents(lab) == []


def change_body(request: Any) -> None:
    request.body = json.dumps({**request.json, "surplus": 1}).encode()
