"""Registration and claim check against a cloud that refuses, babbles, stalls or breaks off; and their proxies."""

from __future__ import annotations

import base64
import ctypes
import re
import signal
import socket
import subprocess
import threading
from collections.abc import Callable

import pytest
from orvel_lab import Agent, Lab, Reply, ScriptedProxy, wait_until

AN_HOUR = "3600"
MEBIBYTE = 1024 * 1024
DELAYS = re.compile(r"Sleeping for (\d+) secs\.$", re.MULTILINE)
CLONE_NEWNET = 0x40000000


@pytest.fixture
def eager(make_lab) -> Lab:
    """A lab whose agent repeats at once what has failed."""
    return make_lab(settings={"q_register_aggressive_delay": "0", "q_claim_delay": "0"})


def start(lab: Lab) -> Agent:
    return lab.start_agent("--log_debug")


def registered(lab: Lab, agent: Agent) -> None:
    """The agent has registered, and its id and claim code are stored."""
    agent.wait_for_line("Device is registered successfully: id='")
    agent.wait_for_line("is_claimed='")
    device = lab.cloud.devices[lab.hardware_id]
    assert (lab.setting("q_agent_id"), lab.setting("q_agent_claim_code")) == (device.id, device.claim_code)
    assert lab.setting("q_agent_registered") == "1"


def wake_until(agent: Agent, condition: Callable[[], bool], what: str) -> None:
    """Ends one sleep after the other; a signal that comes just before a sleep is lost, so there are many."""

    def reached() -> bool:
        agent.signal(signal.SIGUSR1)
        return condition()

    wait_until(reached, what)


class TestRegistration:
    def test_a_new_device_tells_hardware_id_and_model_and_stores_what_it_gets(self, lab: Lab):
        agent = lab.start_agent("--log_debug", "--model_id", "M 1")
        registered(lab, agent)
        request = lab.cloud.wait_for_request("register")
        assert request.body == b'{\n\t"hardwareId":\t"ABCDEFGH12345",\n\t"model":\t"M 1"\n}'
        assert request.header("Content-Type") == "application/json"
        assert request.header("Authorization") is None
        device = lab.cloud.devices[lab.hardware_id]
        identity = f"id='{device.id}', hardwareId='ABCDEFGH12345', claimCode='{device.claim_code}'"
        agent.assert_logged(f"Registered with: {identity}", f"Device is registered successfully: {identity}.")
        assert lab.cloud.wait_for_request("claim").header("Authorization") == device.authorization

    def test_a_known_device_does_not_register(self, claimed_lab: Lab):
        start(claimed_lab)
        claimed_lab.broker.expect_session()
        assert not claimed_lab.cloud.requests("register")

    @pytest.mark.parametrize(
        "stored",
        [
            {"q_agent_id": "lab-1", "q_agent_claim_code": "C"},
            {"q_agent_id": "LAB_1", "q_agent_claim_code": "C"},
            {"q_agent_id": "", "q_agent_claim_code": "C"},
            {"q_agent_id": "LAB-1"},
            {"q_agent_claim_code": "C"},
        ],
    )
    def test_a_stored_identity_of_no_use_is_replaced(self, lab: Lab, stored: dict[str, str]):
        lab.settings.update(stored)
        registered(lab, start(lab))

    def test_what_is_stored_of_an_identity_is_sent_even_if_it_is_of_no_use(self, lab: Lab):
        lab.settings.update({"q_agent_id": "lab-1", "q_agent_claim_code": "C"})
        registered(lab, start(lab))
        assert lab.cloud.wait_for_request("register").header("Authorization") == "lab-1:C"

    def test_an_id_of_no_use_is_not_accepted_from_the_cloud_either(self, lab: Lab):
        lab.cloud.script("register", Reply(201, {"deviceId": "lower-case", "claimCode": "C"}))
        agent = start(lab)
        agent.wait_for_line("Device is registered successfully: id='lower-case', hardwareId='")
        agent.wait_for_line("Registration data is not correct.")
        agent.wait_for_line("Sleeping for 1 secs.")
        registered(lab, agent)

    def test_a_reply_without_claim_code_is_a_failure_and_the_hardware_id_survives_it(self, lab: Lab):
        lab.cloud.script("register", Reply(201, {"deviceId": "LAB-1"}))
        agent = start(lab)
        agent.wait_for_line("Incomplete register reply.")
        agent.wait_for_line("Can't parse register reply: http code:'201'")
        agent.wait_for_line("Failed to register device.")
        agent.wait_for_line("Sleeping for 1 secs.")
        registered(lab, agent)
        agent.assert_logged("hardwareId='ABCDEFGH12345'")
        assert lab.cloud.wait_for_request("register", count=2).json["hardwareId"] == "ABCDEFGH12345"

    def test_a_reply_that_can_not_be_read_is_logged_whole(self, lab: Lab):
        lab.cloud.script("register", Reply(201, "<html>\n</html>"))
        agent = start(lab)
        agent.wait_for_line("Error before: '<html>")
        agent.wait_for_line("Can't parse register reply: http code:'201'")
        agent.wait_for_line("Header:'HTTP/1.1 201 Created")
        agent.wait_for_line("Body:'<html>")
        registered(lab, agent)

    @pytest.mark.parametrize("kind", ["register", "claim"])
    def test_redirects_are_not_followed(self, eager: Lab, kind: str):
        eager.cloud.script(kind, Reply(302, headers={"Location": eager.cloud.url("advisor")}))
        agent = start(eager)
        agent.wait_for_line("Invalid http code '302' from server.")
        agent.wait_for_line("is_claimed='0'")
        assert not eager.cloud.requests("other")


class TestRetries:
    def delays(self, agent: Agent, count: int) -> list[int]:
        """The first delays between registrations, none of them slept to its end."""
        agent.wait_for_line("Sleeping for")  # before the first delay the signal might not be handled yet
        wake_until(agent, lambda: len(DELAYS.findall(agent.log)) >= count, f"{count} delays")
        return [int(delay) for delay in DELAYS.findall(agent.log)][:count]

    def test_the_short_delay_counts_until_its_sum_reaches_the_aggressive_time(self, lab: Lab):
        settings = {"aggressive_delay": "100", "aggressive_time": "250", "delay": "900"}
        lab.settings.update({f"q_register_{key}": value for key, value in settings.items()})
        lab.cloud.script("register", *[Reply(500)] * 100)
        assert self.delays(start(lab), 5) == [100, 100, 100, 900, 900]

    def test_unless_set_they_are_20_seconds_for_2_minutes_and_then_60(self, lab: Lab):
        for key in ("q_register_aggressive_delay", "q_register_aggressive_time", "q_register_delay"):
            del lab.settings[key]
        lab.cloud.script("register", *[Reply(500)] * 100)
        assert self.delays(start(lab), 8) == [20] * 6 + [60] * 2

    def test_without_aggressive_time_there_are_long_delays_only(self, lab: Lab):
        lab.settings.update({"q_register_aggressive_time": "0", "q_register_delay": "900"})
        lab.cloud.script("register", *[Reply(500)] * 100)
        assert self.delays(start(lab), 2) == [900, 900]

    def test_the_delay_is_kept_between_two_requests(self, lab: Lab):
        lab.cloud.script("register", Reply(500))
        registered(lab, start(lab))
        first, second = lab.cloud.requests("register")
        assert second.time - first.time >= 0.9  # of a second

    def test_a_user_signal_ends_the_delay(self, lab: Lab):
        lab.settings["q_register_aggressive_delay"] = AN_HOUR
        lab.cloud.script("register", Reply(500))
        agent = start(lab)
        agent.wait_for_line("Sleeping for 3600 secs.")
        wake_until(agent, lambda: len(lab.cloud.requests("register")) > 1, "the next registration")
        agent.wait_for_line("exit sleep_for 3600 secs")
        registered(lab, agent)

    def test_an_identity_that_somebody_else_stores_ends_the_retries(self, lab: Lab):
        lab.settings["q_register_aggressive_delay"] = AN_HOUR
        lab.cloud.script("register", *[Reply(500)] * 100)
        agent = start(lab)
        agent.wait_for_line("Sleeping for 3600 secs.")
        device = lab.cloud.register(lab.hardware_id)
        lab.change_setting("q_agent_id", device.id)
        lab.change_setting("q_agent_claim_code", device.claim_code)
        wake_until(agent, lambda: agent.count("is_claimed='0'") > 0, "the claim check")
        agent.assert_not_logged("Device is registered successfully")
        assert lab.setting("q_agent_registered") == "1"

    def test_a_rejected_serial_number_ends_them_for_good(self, lab: Lab):
        lab.cloud.script("register", Reply.wrong_serial_number())
        agent = start(lab)
        agent.wait_for_line("Invalid http code '403' from server.")
        agent.wait_for_line("Found error header: X-Error-Code: 1062.")
        agent.wait_for_line("Found wrong_sn error code.")
        agent.wait_for_line("Found error header: X-Error-Message: Wrong serial number.")
        agent.wait_for_line("Failed to register device.")
        agent.wait_for_line("Wrong SN for registration. Please make sure you provided correct one.")
        agent.wait_for_line("Sleeping forever.")
        agent.signal(signal.SIGUSR1)
        agent.control.command("resume_connections")
        agent.signal(signal.SIGUSR2)
        agent.wait_for_line("sig_usr2 handler.")  # so the first signal has been carried out
        assert agent.stop() == 0
        assert len(lab.cloud.requests()) == 1


ERROR_HEADERS = [
    # the head of the refusal, what the log says of it
    (b"X-Error-Code: 1061\r\n", ["Found error header: X-Error-Code: 1061."]),
    (b"X-Error-Code: 1062 more\r\n", None),
    (b"X-Error-Code: 0x426\r\n", None),
    (b"x-error-code: 1062\r\n", []),
    (b"X-Error-Code:1062\r\n", ["Found error header: X-Error-Code:1062."]),
    (b"X-Error-Message: only\r\n", ["Found error header: X-Error-Message: only."]),
    (b"X-Error-Message: " + b"m" * 60_000 + b"\r\n", ["Found error header: X-Error-Message: mmm"]),
    (b"X-Error-Code: " + b"1" * 60_000 + b"\r\n", ["Found error header: X-Error-Code: 111"]),
]


class TestErrorHeaders:
    @pytest.mark.parametrize(("head", "texts"), ERROR_HEADERS)
    def test_only_the_code_of_a_wrong_serial_number_ends_enrolment(self, eager: Lab, head: bytes, texts):
        raw = b"HTTP/1.1 403 Forbidden\r\n" + head + b"Content-Length: 0\r\n\r\n"
        eager.cloud.script("register", Reply(raw=raw))
        agent = start(eager)
        if texts is None:
            agent.wait_for_line("Found wrong_sn error code.")
            agent.wait_for_line("Sleeping forever.")
            return
        registered(eager, agent)
        assert agent.count("Found error header: ") == len(texts)
        agent.assert_logged(*texts)

    def test_a_line_without_a_carriage_return_is_none(self, eager: Lab):
        lines = b"X-Error-Code: 1062\nX-Error-Message: m\nContent-Length: 0\n\n"
        eager.cloud.script("register", Reply(raw=b"HTTP/1.1 403 Forbidden\n" + lines))
        agent = start(eager)
        registered(eager, agent)
        agent.assert_not_logged("Found error header")

    def test_a_claim_check_is_repeated_whatever_they_say(self, eager: Lab):
        eager.cloud.script("claim", Reply.wrong_serial_number())
        agent = start(eager)
        agent.wait_for_line("Found wrong_sn error code.")
        agent.wait_for_line("Failed to get claim status. Sleeping for 0 secs.")
        agent.wait_for_line("is_claimed='0'")


BAD_ANSWERS = {
    "status 500": Reply(500, {"error": "x"}),
    "status 204": Reply(204),
    "HTML": Reply(201, "<html><body>Sorry</body></html>"),
    "an empty body": Reply(201, ""),
    "truncated JSON": Reply(201, '{"deviceId": "LAB-1", "claimCo'),
    "an empty object": Reply(201, {}),
    "an array": Reply(201, ["deviceId", "claimCode"]),
    "a number": Reply(201, "7"),
    "wrong types": Reply(201, {"deviceId": 7, "claimCode": True, "_type": 1, "claimed": "true"}),
    "a truncated body": Reply(201, '{"deviceId": "LAB-1"', {"Content-Length": "99"}, end="close"),
    "no HTTP": Reply(raw=b"garbage\r\n\r\n", end="close"),
    "a reset": Reply(cut=0, end="reset"),
    "a reset in the middle": Reply(201, {"deviceId": "LAB-1"}, cut=40, end="reset"),
    "nothing": Reply(cut=0, end="close"),
}


@pytest.mark.parametrize("kind", ["register", "claim"])
@pytest.mark.parametrize("answer", BAD_ANSWERS)
def test_a_bad_answer_is_a_failure_that_is_repeated(eager: Lab, kind: str, answer: str):
    eager.cloud.script(kind, BAD_ANSWERS[answer])
    agent = start(eager)
    failed = "Failed to register device." if kind == "register" else "Failed to get claim status. Sleeping for 0 secs."
    agent.wait_for_line(failed)
    agent.wait_for_line("is_claimed='0'")
    assert agent.count(failed) == agent.count("Device is registered successfully") == 1
    assert len(eager.cloud.requests(kind)) == 2


def test_10_mebibytes_of_no_use_are_a_failure_that_is_repeated(eager: Lab):
    eager.cloud.script("claim", Reply(200, b"[" * (10 * MEBIBYTE)))
    eager.start_agent()  # without a log, which would hold all of it
    eager.cloud.wait_for_request("claim", count=2)
    eager.wait_for_setting("q_agent_registered", "1")


class TestAnswers:
    def test_registration_counts_with_status_201_alone(self, eager: Lab):
        eager.cloud.script("register", Reply(200, {"deviceId": "LAB-1", "claimCode": "C"}))
        agent = start(eager)
        agent.wait_for_line("Invalid http code '200' from server.")
        registered(eager, agent)

    def test_a_claim_check_counts_with_status_201_too(self, make_lab):
        lab = make_lab(registered=True)
        lab.cloud.script("claim", Reply(201, {"_type": "Device", "deviceId": "X", "any name": True}))
        agent = start(lab)
        agent.wait_for_line("Claimed.!")
        agent.wait_for_line("Device is claimed: id='")
        lab.wait_for_setting("q_agent_claimed", "1")

    def test_an_unclaimed_device_is_told_so(self, make_lab):
        lab = make_lab(registered=True, settings={"q_agent_claimed": "1"})
        agent = start(lab)
        agent.wait_for_line("Not claimed yet.")
        agent.wait_for_line("Device is not claimed.")
        lab.wait_for_setting("q_agent_claimed", "0")

    @pytest.mark.parametrize(
        ("answer", "text"),
        [
            (Reply(200, "{"), "Error before: '"),
            (Reply(200, {}), "Can't get list of elements in register reply."),
            (Reply(200, {"_type": "Device", "deviceId": "X"}), "Incomplete register reply."),
        ],
    )
    def test_a_claim_reply_of_no_use_borrows_the_texts_of_registration(self, eager: Lab, answer: Reply, text: str):
        eager.cloud.script("claim", answer)
        agent = start(eager)
        for line in (text, "Failed to parse reply.", "Failed to get claim status. Sleeping for 0 secs."):
            agent.wait_for_line(line)

    def test_10_mebibytes_of_json_are_read(self, lab: Lab):
        device = lab.cloud.register(lab.hardware_id)
        members = {"x": "y" * (10 * MEBIBYTE), "deviceId": device.id, "claimCode": device.claim_code}
        lab.cloud.script("register", Reply(201, members))
        registered(lab, start(lab))
        assert len(lab.cloud.requests("register")) == 1

    def test_a_user_signal_ends_the_delay_of_the_claim_check(self, lab: Lab):
        lab.settings["q_claim_delay"] = AN_HOUR
        lab.cloud.script("claim", Reply(500))
        agent = start(lab)
        agent.wait_for_line("Failed to get claim status. Sleeping for 3600 secs.")
        wake_until(agent, lambda: agent.count("is_claimed='0'") > 0, "the next check")


class TestTransfers:
    """What libcurl's failures look like."""

    def test_a_server_that_stalls_is_given_up_after_the_request_time_out(self, eager: Lab):
        eager.settings["q_http_request_timeout"] = "1"
        stalled = {"register": Reply(stall=True), "claim": Reply(stall=True)}
        for kind, reply in stalled.items():
            eager.cloud.script(kind, reply)
        agent = start(eager)
        post = rf"curl_easy_perform\(url='{eager.cloud.url('register')}'\) failed with error code 28: '.+'\.$"
        agent.wait_for_line(re.compile(r"WARNING: " + post))
        agent.wait_for_line(re.compile(r"ERROR: " + post))  # the event of the connectivity log
        agent.wait_for_line("Can't' make register request.")
        get = rf"curl_easy_perform\(url='{eager.cloud.url('claim')}/v2'\) failed with code 28: '.+'\.$"
        agent.wait_for_line(re.compile(r"WARNING: " + get))
        agent.wait_for_line(re.compile(r"ERROR: " + get))
        agent.wait_for_line("Deleting CURL handle.")
        agent.wait_for_line("Can't' make claim request.")
        agent.wait_for_line("is_claimed='0'")

    @pytest.mark.parametrize(
        ("address", "code"),
        [("https://127.0.0.1:{closed}/register", 7), (f"https://{'x' * 64}.example/register", 6), ("no scheme://", 3)],
    )
    def test_a_cloud_that_can_not_be_reached_is_tried_again(self, eager: Lab, address: str, code: int):
        eager.settings["q_register_url"] = address.format(closed=eager.reserve_port())
        eager.settings["q_register_aggressive_delay"] = AN_HOUR
        agent = start(eager)
        agent.wait_for_line(f"failed with error code {code}: '")
        agent.wait_for_line("Can't' make register request.")
        agent.wait_for_line("Sleeping for 3600 secs.")

    def test_a_cloud_that_comes_back_is_used(self, eager: Lab):
        eager.settings["q_register_aggressive_delay"] = AN_HOUR
        eager.cloud.refuse()
        agent = start(eager)
        agent.wait_for_line("failed with error code 7: '")
        agent.wait_for_line("Sleeping for 3600 secs.")
        eager.cloud.accept()
        wake_until(agent, lambda: agent.count("is_claimed='0'") > 0, "registration and claim check")
        registered(eager, agent)


class OpenSocket:
    """The address of a listener whose socket listens already."""

    def __init__(self, listening: socket.socket) -> None:
        self.port = listening.getsockname()[1]
        self._listening = listening

    def listening_sockets(self) -> list[socket.socket]:
        return [self._listening]

    def close(self) -> None:
        self._listening.close()


def in_a_network_of_its_own(work: Callable[[], object]):
    """Runs `work` in a thread whose sockets and children live in a new, empty network; gives its result."""
    results: list = []

    def run() -> None:
        if ctypes.CDLL(None).unshare(CLONE_NEWNET) != 0:
            return
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        results.append(work())

    thread = threading.Thread(target=run)
    thread.start()
    thread.join()
    if not results:
        pytest.skip("a network namespace of one's own needs root")
    return results[0]


class TestProxies:
    def configure(self, lab: Lab, kind: int, port: int) -> None:
        lab.settings.update({"q_qcloud_use_proxy": str(kind), "q_qcloud_proxy_hostname": "127.0.0.1"})
        lab.settings["q_qcloud_proxy_port"] = str(port)

    def test_an_http_proxy_is_asked_for_a_tunnel(self, lab: Lab):
        proxy = lab.proxy("http")
        registered(lab, start(lab))
        wish = b"CONNECT 127.0.0.1:%d HTTP/1.1" % lab.cloud.port
        assert {request.split(b"\r\n")[0] for request in proxy.requests} == {wish}

    def test_an_http_proxy_gets_the_credentials_that_it_asks_for(self, lab: Lab):
        proxy = lab.proxy("http", credentials=("user", "secret"))
        lab.settings.update({"q_qcloud_proxy_username": "user", "q_qcloud_proxy_password": "secret"})
        registered(lab, start(lab))
        first, second = proxy.requests[:2]
        assert b"Proxy-Authorization" not in first
        assert b"Proxy-Authorization: Basic " + base64.b64encode(b"user:secret") in second

    @pytest.mark.parametrize("kind", ["socks4", "socks5"])
    def test_a_socks_proxy_gets_the_clouds_address(self, lab: Lab, kind: str):
        proxy = lab.proxy(kind)
        registered(lab, start(lab))
        address = socket.inet_aton("127.0.0.1"), lab.cloud.port.to_bytes(2, "big")
        wish = proxy.connections.snapshot()[0].requests[-1]
        assert all(part in wish for part in address)

    def test_kind_2_is_the_proxy_on_port_3128_of_the_device_itself(self, lab: Lab):
        self.configure(lab, 2, 9)
        work = lambda: (socket.create_server(("127.0.0.1", 3128)), start(lab))  # noqa: E731
        server, agent = in_a_network_of_its_own(work)
        with ScriptedProxy("http", address=OpenSocket(server)) as proxy:
            registered(lab, agent)
            assert agent.stop() == 0
        assert proxy.requests[0].startswith(b"CONNECT 127.0.0.1:%d HTTP/1.1\r\n" % lab.cloud.port)

    def test_a_proxy_that_refuses_is_a_failed_request(self, lab: Lab):
        self.configure(lab, 1, lab.reserve_port())
        agent = start(lab)
        agent.wait_for_line("failed with error code 7: '")
        agent.wait_for_line("Failed to register device.")

    @pytest.mark.parametrize("missing", ["hostname", "port"])
    def test_without_its_address_there_is_no_proxy(self, lab: Lab, missing: str):
        self.configure(lab, 1, lab.reserve_port())
        del lab.settings[f"q_qcloud_proxy_{missing}"]
        agent = start(lab)
        agent.wait_for_line("Could not get proxy address/proxy port values from config", anywhere=True)
        registered(lab, agent)

    def test_the_environments_is_the_clouds_and_not_the_brokers(self, claimed_lab: Lab):
        with ScriptedProxy("http") as proxy:
            way = {"https_proxy": f"http://127.0.0.1:{proxy.port}", "no_proxy": "", "NO_PROXY": ""}
            claimed_lab.start_agent(environment=way)
            claimed_lab.broker.expect_session().expect_identity()
        targets = {request.split()[1] for request in proxy.requests}
        assert targets == {b"127.0.0.1:%d" % claimed_lab.cloud.port}

    def test_the_address_is_read_anew_for_each_request(self, eager: Lab):
        self.configure(eager, 1, eager.reserve_port())
        eager.settings["q_register_aggressive_delay"] = AN_HOUR
        agent = start(eager)
        agent.wait_for_line("Sleeping for 3600 secs.")
        eager.change_setting("q_qcloud_use_proxy", "0")
        wake_until(agent, lambda: agent.count("is_claimed='0'") > 0, "registration without the proxy")
        registered(eager, agent)
