"""Several devices at one lab: each has its own claim, advice, faults and session."""

from __future__ import annotations

import base64
import json
from dataclasses import replace

import pytest
from lab_clients import ask, connected, receive, trusting
from orvel_lab import Lab, Packet, Reply, Type
from orvel_lab.commands import open_sessions
from orvel_lab.packets import heartbeat_response, plain_message

ONE, OTHER = "DEVICE0000001", "DEVICE0000002"


@pytest.fixture
def devices(lab: Lab) -> dict[str, dict[str, str]]:
    """The header that each device sends, by its hardware id."""
    return {name: {"Authorization": lab.cloud.register(name).authorization} for name in (ONE, OTHER)}


def answer(lab: Lab, target: str, header: dict[str, str]) -> dict:
    return json.loads(ask(lab.cloud, lab.authority, "GET", target, **header)[2])


class TestCloud:
    def test_a_claim_may_be_one_devices_alone(self, lab: Lab, devices):
        def claimed() -> list[bool]:
            return [answer(lab, "/claimed/v2", header)["claimed"] for header in devices.values()]

        lab.cloud.claim(ONE)
        assert claimed() == [True, False]
        lab.cloud.claim()
        lab.cloud.release(ONE)
        assert claimed() == [False, True]

    def test_advice_may_be_one_devices_alone_until_all_get_another(self, lab: Lab, devices):
        def kinds() -> list[str]:
            return [answer(lab, "/advisor/v2", header)["_type"] for header in devices.values()]

        lab.cloud.advise_wait(5, OTHER)
        assert kinds() == ["ActionConnect", "ActionWait"]
        lab.cloud.advise_wait(5)
        assert kinds() == ["ActionWait", "ActionWait"]
        lab.cloud.advise_connect("localhost", 1)
        assert kinds() == ["ActionConnect", "ActionConnect"]

    def test_each_device_may_get_a_token_of_its_own(self, lab: Lab, devices):
        lab.cloud.own_tokens = True
        tokens = [base64.b64decode(answer(lab, "/advisor/v2", header)["token"]) for header in devices.values()]
        owners = lab.cloud.devices_by_identity()
        assert [owners[token.decode()].hardware_id for token in tokens] == [ONE, OTHER]
        assert [owners[lab.cloud.devices[name].id].hardware_id for name in (ONE, OTHER)] == [ONE, OTHER]

    def test_a_script_may_be_for_one_device_and_its_own_comes_first(self, lab: Lab, devices):
        def status(name: str) -> int:
            return ask(lab.cloud, lab.authority, "GET", "/claimed/v2", **devices[name])[0]

        lab.cloud.script("claim", Reply(500))
        lab.cloud.script("claim", Reply(503), hardware_id=OTHER)
        assert lab.cloud.scripted_count == 2
        assert [status(name) for name in (OTHER, OTHER, ONE, OTHER)] == [503, 500, 200, 200]
        assert lab.cloud.scripted_count == 0

    def test_a_registration_may_be_scripted_for_one_device(self, lab: Lab):
        def status(name: str) -> int:
            return ask(lab.cloud, lab.authority, "POST", "/register", {"hardwareId": name, "model": "M"})[0]

        lab.cloud.script("register", Reply(500), hardware_id=OTHER)
        assert [status(name) for name in (ONE, OTHER, OTHER)] == [201, 500, 201]
        assert [request.device for request in lab.cloud.requests("register")] == [ONE, OTHER, OTHER]

    def test_a_script_may_change_the_clouds_own_reply(self, lab: Lab, devices):
        lab.cloud.claim()
        lab.cloud.script("claim", lambda reply: replace(reply, status=201, delay=0.01))
        status, _, body = ask(lab.cloud, lab.authority, "GET", "/claimed/v2", **devices[ONE])
        assert (status, json.loads(body)["claimed"]) == (201, True)
        assert lab.cloud.requests("claim")[0].scripted

    def test_a_script_for_no_endpoint_is_refused(self, lab: Lab):
        with pytest.raises(ValueError, match="no such endpoint: moon"):
            lab.cloud.script("moon", Reply(500))


class TestBroker:
    def test_sessions_are_known_by_token_or_id(self, lab: Lab, devices):
        lab.cloud.own_tokens = True
        context = trusting(lab.authority)
        with connected(lab, context) as first, connected(lab, context) as second:
            first.sendall(Packet(Type.IDENTITY_TOKEN, (lab.cloud.devices[ONE].token.encode(),)).encode())
            second.sendall(Packet(Type.IDENTITY_AGENT_ID, (lab.cloud.devices[OTHER].id.encode(),)).encode())
            for _ in range(2):
                lab.broker.expect_session().expect_identity()
            sessions = open_sessions(lab)
            assert set(sessions) == {ONE, OTHER}
            for name, client in [(ONE, first), (OTHER, second)]:
                message = plain_message("h", name.encode())
                sessions[name].send(message)
                assert receive(client, len(message.encode())) == message.encode()

    def test_a_stall_may_have_its_time(self, lab: Lab):
        lab.broker.plan("stall", seconds=0.01)
        assert lab.broker.planned_count == 1
        with connected(lab, trusting(lab.authority)):
            assert lab.broker.expect_session().open
        assert lab.broker.planned_count == 0

    def test_a_slow_session_sends_each_packet_in_pieces_and_none_into_another(self, lab: Lab):
        with connected(lab, trusting(lab.authority)) as client:
            session = lab.broker.expect_session()
            session.slowness = 0.2
            client.sendall(Packet(Type.HEARTBEAT, (bytes(16),)).encode())
            expected = [plain_message("h", bytes(100)).encode(), heartbeat_response(0).encode()]
            session.send(plain_message("h", bytes(100)))
            data, records = b"", 0
            while len(data) < sum(map(len, expected)):
                data += client.recv(65536)  # one record at a time
                records += 1
            assert data in (b"".join(expected), b"".join(reversed(expected)))
            assert records == 20
            assert session.heartbeat_at is not None


def test_a_command_line_names_a_device(up):
    running = up()
    for name in (ONE, OTHER):
        running.register(name)
    running.run("wait", "registered", "2")
    running.run("claim", "--device", OTHER)
    running.run("advise", "wait", "5", "--device", ONE)
    devices = {device["hardware_id"]: device for device in running.status()["devices"]}
    assert [devices[name]["claimed"] for name in (ONE, OTHER)] == [False, True]
    assert [devices[name]["advice"] for name in (ONE, OTHER)] == [{"_type": "ActionWait", "period": 5}, None]
    assert f"{OTHER} is not connected" in running.run("send", "tcp", "x", "--device", OTHER, status=1)
    assert "no device NOBODY has registered" in running.run("drop", "--device", "NOBODY", status=1)
