"""The lab's cloud, seen from a client that is not the agent."""

from __future__ import annotations

import http.client
import json
import re
import ssl
import threading

import pytest
from lab_clients import HARDWARE_ID, SECONDS, ask, register, trusting
from orvel_lab import Authority, DeadlinePassed, Lab, Reply


class TestCloud:
    def test_a_registered_device_gets_an_id_of_the_agreed_letters_and_the_same_one_again(self, lab: Lab):
        first, second = register(lab), register(lab)
        assert first == second
        assert re.fullmatch(r"[A-Z0-9-]+:[A-Z0-9]+", first["Authorization"])
        request = lab.cloud.wait_for_request("register", count=2)
        assert request.json == {"hardwareId": HARDWARE_ID, "model": "M"}
        assert (request.status, request.method, request.path) == (201, "POST", "/register")

    def test_the_claim_status_follows_claim_and_release(self, lab: Lab):
        device = register(lab)
        seen = []
        for change in (lambda: None, lab.cloud.claim, lab.cloud.release):
            change()
            status, _, body = ask(lab.cloud, lab.authority, "GET", "/claimed/v2", **device)
            assert status == 200
            document = json.loads(body)
            assert document["_type"] and document["deviceId"] in device["Authorization"]
            seen.append(document["claimed"])
        assert seen == [False, True, False]

    def test_a_device_registered_after_the_claim_is_claimed(self, lab: Lab):
        lab.cloud.claim()
        _, _, body = ask(lab.cloud, lab.authority, "GET", "/claimed/v2", **register(lab))
        assert json.loads(body)["claimed"] is True

    def test_discovery_takes_the_report_and_keeps_its_query(self, lab: Lab):
        device = register(lab)
        target = "/discovery/v3/?i=X&e=60&s=service"
        status, _, _ = ask(lab.cloud, lab.authority, "POST", target, {"_id": "X"}, **device)
        assert status == 200
        request = lab.cloud.wait_for_request("discovery")
        assert request.query == {"i": "X", "e": "60", "s": "service"}
        assert request.json == {"_id": "X"}

    def test_the_advisor_names_the_broker_and_then_tells_to_wait(self, lab: Lab):
        device = register(lab)
        keepalives = {"agent_keepalive": "60,5,10", "broker_keepalive": "30,4,5"}
        lab.cloud.advise_connect("localhost", lab.broker.port, b"\x00\xff", heartbeat=7, **keepalives)
        status, _, body = ask(lab.cloud, lab.authority, "GET", "/advisor/v2", **device)
        assert status == 200
        assert json.loads(body) == {
            "_type": "ActionConnect",
            "broker": "localhost",
            "token": "AP8=",
            "port": str(lab.broker.port),
            "agentKeepalive": "60,5,10",
            "brokerKeepalive": "30,4,5",
            "agentHeartbeat": "7",
        }
        lab.cloud.advise_wait(12)
        _, _, body = ask(lab.cloud, lab.authority, "GET", "/advisor/v2", **device)
        assert json.loads(body) == {"_type": "ActionWait", "period": 12}

    @pytest.mark.parametrize("target", ["/claimed/v2", "/advisor/v2"])
    @pytest.mark.parametrize("given", [None, "LAB-NOBODY:CODE", "wrong code"])
    def test_a_wrong_authorization_is_refused_with_error_headers(self, lab: Lab, target: str, given: str | None):
        device = register(lab)
        if given == "wrong code":
            given = device["Authorization"] + "X"
        headers = {} if given is None else {"Authorization": given}
        status, answered, _ = ask(lab.cloud, lab.authority, "GET", target, **headers)
        assert status == 401
        assert answered["X-Error-Code"].isdigit() and answered["X-Error-Message"]

    @pytest.mark.parametrize(
        ("method", "target", "status"),
        [("GET", "/register", 405), ("POST", "/claimed/v2", 405), ("GET", "/nowhere", 404), ("GET", "/advisor", 404)],
    )
    def test_what_is_no_endpoint_is_refused(self, lab: Lab, method: str, target: str, status: int):
        assert ask(lab.cloud, lab.authority, method, target)[0] == status
        assert lab.cloud.wait_for_request("other").target == target

    def test_a_registration_without_its_members_is_refused(self, lab: Lab):
        assert ask(lab.cloud, lab.authority, "POST", "/register", ["no object"])[0] == 400

    def test_scripted_replies_come_in_order_and_then_normal_ones(self, lab: Lab):
        lab.cloud.script("register", Reply(500, "<html>"), Reply.wrong_serial_number(), Reply(200, {"a": 1}))
        body = {"hardwareId": HARDWARE_ID, "model": "M"}
        answers = [ask(lab.cloud, lab.authority, "POST", "/register", body) for _ in range(4)]
        assert [status for status, _, _ in answers] == [500, 403, 200, 201]
        assert answers[0][2] == b"<html>"
        assert answers[1][1]["X-Error-Code"] == "1062"
        assert json.loads(answers[2][2]) == {"a": 1}

    def test_scripted_replies_can_be_forgotten(self, lab: Lab):
        lab.cloud.script("claim", Reply(500), Reply(500))
        lab.cloud.check_authorization = False
        assert ask(lab.cloud, lab.authority, "GET", "/claimed/v2")[0] == 500
        lab.cloud.forget_scripts()
        assert ask(lab.cloud, lab.authority, "GET", "/claimed/v2")[0] == 200

    def test_a_stalled_reply_comes_when_it_is_released(self, lab: Lab):
        reply = Reply(body=b"late", stall=True)
        lab.cloud.script("claim", reply)
        answers: list[bytes] = []
        client = threading.Thread(target=lambda: answers.append(ask(lab.cloud, lab.authority, "GET", "/claimed/v2")[2]))
        client.start()
        request = lab.cloud.wait_for_request("claim")
        assert request.status is None and not answers
        reply.release()
        client.join(SECONDS)
        assert answers == [b"late"]
        assert request.status == 200

    def test_a_stalled_reply_does_not_keep_the_lab_from_stopping(self, lab: Lab):
        lab.cloud.script("claim", Reply(stall=True))
        failures: list[Exception] = []

        def client_that_is_cut_off() -> None:
            try:
                ask(lab.cloud, lab.authority, "GET", "/claimed/v2")
            except (OSError, http.client.HTTPException) as error:
                failures.append(error)

        client = threading.Thread(target=client_that_is_cut_off)
        client.start()
        lab.cloud.wait_for_request("claim")
        lab.cloud.stop()
        client.join(SECONDS)
        assert failures

    @pytest.mark.parametrize("end", ["", "close", "half-close", "reset"])
    def test_a_reply_that_is_cut_reaches_the_client_short(self, lab: Lab, end: str):
        whole = Reply(body=b"0123456789", end=end).encode()
        lab.cloud.script("claim", Reply(body=b"0123456789", cut=len(whole) - 4, end=end))
        with pytest.raises((http.client.IncompleteRead, ConnectionResetError)):
            ask(lab.cloud, lab.authority, "GET", "/claimed/v2")

    def test_a_raw_reply_goes_out_as_it_is(self, lab: Lab):
        lab.cloud.script("claim", Reply(raw=b"\x00garbage\r\n\r\n", end="close"))
        with pytest.raises(http.client.BadStatusLine):
            ask(lab.cloud, lab.authority, "GET", "/claimed/v2")
        assert lab.cloud.wait_for_request("claim").status is None

    def test_a_given_length_replaces_the_true_one(self, lab: Lab):
        lab.cloud.script("claim", Reply(body=b"short", headers={"Content-Length": "100"}, end="close"))
        with pytest.raises(http.client.IncompleteRead):
            ask(lab.cloud, lab.authority, "GET", "/claimed/v2")

    def test_one_connection_may_carry_several_requests(self, lab: Lab):
        context = trusting(lab.authority)
        client = http.client.HTTPSConnection("127.0.0.1", lab.cloud.port, context=context, timeout=SECONDS)
        for _ in range(3):
            client.request("GET", "/nowhere")
            client.getresponse().read()
        client.close()
        assert len({request.connection for request in lab.cloud.requests("other")}) == 1

    def test_it_can_refuse_and_accept_again_on_the_same_port(self, lab: Lab):
        lab.cloud.refuse()
        with pytest.raises(ConnectionRefusedError):
            ask(lab.cloud, lab.authority, "GET", "/nowhere")
        lab.cloud.accept()
        assert ask(lab.cloud, lab.authority, "GET", "/nowhere")[0] == 404

    def test_an_untrusting_client_is_noted_as_a_failure_of_tls(self, lab: Lab, namesake_certs: Authority):
        with pytest.raises(ssl.SSLCertVerificationError):
            ask(lab.cloud, namesake_certs, "GET", "/claimed/v2")
        [failure] = lab.cloud.tls_failures.wait_for_count(1, "a TLS failure")
        assert "ALERT" in failure

    def test_a_wait_for_a_request_that_does_not_come_fails(self, lab: Lab):
        with pytest.raises(DeadlinePassed, match="register request 1"):
            lab.cloud.wait_for_request("register", deadline=0)
