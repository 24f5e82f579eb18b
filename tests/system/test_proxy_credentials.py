"""What real proxies are told of user names and passwords, on each of the two paths that a device takes.

Both paths read at most 127 characters of either setting. The HTTP client, on the way to the cloud, joins them with a
colon, takes what is before the first colon for the name, and decodes percent signs. The broker link sends them as they
are.
"""

from __future__ import annotations

import base64
import re
from dataclasses import dataclass

import pytest
from orvel_lab import Agent
from orvel_lab.real_proxies import Microsocks, Squid
from real_proxy_site import MakeSite, Site

FAILED = re.compile(r"curl_easy_perform\(url='.+'\) failed with error code (\d+): '")
LONG = 127


@dataclass(frozen=True)
class Case:
    """What the settings hold, and what a proxy has to be told."""

    user: str
    password: str
    to_cloud: tuple[str, str]
    to_broker: tuple[str, str]


def plain(user: str, password: str) -> Case:
    return Case(user, password, (user, password), (user, password))


CASES = {
    "at signs": plain("us@er", "p@ss"),
    "a colon in the password": plain("user", "a:b"),
    "a colon in the name": Case("us:er", "pw", ("us", "er:pw"), ("us:er", "pw")),
    "percent signs that encode nothing": plain("50%", "100%z"),
    "percent signs that encode": Case("u%41", "p%3A%40", ("uA", "p:@"), ("u%41", "p%3A%40")),
    "blanks": plain("a user", " pass word "),
    "127 bytes": plain("u" * LONG, "p" * LONG),
    "128 bytes": Case("u" * 127 + "x", "p" * 127 + "x", ("u" * 127, "p" * 127), ("u" * 127, "p" * 127)),
    "an escape that is cut": Case("u", "p" * 126 + "%41", ("u", "p" * 126 + "%"), ("u", "p" * 126 + "%")),
}
every_case = pytest.mark.parametrize("case", CASES.values(), ids=CASES.keys())


def settings(case: Case) -> dict[str, str]:
    return {"q_qcloud_proxy_username": case.user, "q_qcloud_proxy_password": case.password}


def basic(told: tuple[str, str]) -> str:
    return base64.b64encode(":".join(told).encode()).decode()


def as_basic_account(told: tuple[str, str]) -> dict[str, str]:
    """The account that a proxy looks for: the name of it ends at the first colon."""
    user, _, password = ":".join(told).partition(":")
    return {"user": user, "password": password}


def login(told: tuple[str, str]) -> bytes:
    user, password = (text.encode() for text in told)
    return b"\x01" + bytes([len(user)]) + user + bytes([len(password)]) + password


def registers(site: Site, agent: Agent) -> None:
    agent.wait_for_line("Device is registered successfully: id='")
    assert site.firewall.through > 0


def does_not_register(site: Site, agent: Agent, code: int) -> None:
    found = agent.wait_for_line(FAILED)
    assert FAILED.search(found.text)[1] == str(code)
    agent.wait_for_line("Failed to register device.")
    assert not site.lab.cloud.requests()


def connects(site: Site, agent: Agent) -> None:
    session = site.lab.broker.expect_session()
    assert session.expect_identity().text == "lab-token"
    agent.wait_for_line("Reading packet header.")


def does_not_connect(site: Site, agent: Agent, *says: str) -> None:
    for text in (*says, "keep_connection=1, success=1."):
        agent.wait_for_line(text)
    assert len(site.lab.broker.connections) == 0


class TestHttpProxy:
    """squid with a password file."""

    def link_site(self, make_site: MakeSite, case: Case, account: dict[str, str]) -> Site:
        proxy = Squid(**account)
        return make_site(proxy, settings=settings(case), cloud_nearby=True, registered=True, claimed=True)

    @every_case
    def test_the_broker_link_gets_in_as_whom_it_names(self, make_site: MakeSite, case: Case):
        site = self.link_site(make_site, case, as_basic_account(case.to_broker))
        connects(site, site.start())
        asked, answered = (request.partition(b"\r\n\r\n")[0] for request in site.wire.sent(b"CONNECT"))
        assert b"Proxy-Authorization" not in asked
        assert f"\r\nProxy-Authorization: Basic {basic(case.to_broker)} \r\n".encode() in answered

    @every_case
    def test_the_http_client_gets_in_as_whom_it_names(self, make_site: MakeSite, case: Case):
        site = make_site(Squid(**as_basic_account(case.to_cloud)), settings=settings(case))
        registers(site, site.start())
        assert b"Proxy-Authorization" not in site.wire.sent(b"CONNECT")[0].partition(b"\r\n\r\n")[0]
        told = f"\r\nProxy-Authorization: Basic {basic(case.to_cloud)}\r\n".encode()
        assert any(told in sent for sent in site.wire.sent(b"CONNECT"))

    @pytest.mark.parametrize(
        ("case", "account"),
        [
            (plain("user", "secret"), {"user": "user", "password": "other"}),
            (plain("user", "secret"), {"user": "other", "password": "secret"}),
            (CASES["128 bytes"], {"user": "u" * 127, "password": "p" * 127 + "x"}),
            (CASES["128 bytes"], {"user": "u" * 127 + "x", "password": "p" * 127}),
            (CASES["percent signs that encode"], {"user": "uA", "password": "p:@"}),
        ],
        ids=["wrong password", "wrong name", "password of 128 bytes", "name of 128 bytes", "decoded"],
    )
    def test_the_broker_link_gets_in_as_nobody_else(self, make_site: MakeSite, case: Case, account: dict[str, str]):
        site = self.link_site(make_site, case, account)
        agent = site.start()
        does_not_connect(
            site, agent,
            "INFO: found basic authentification.",
            "WARNING: Could not connect to server with given credentials.",
            "WARNING: Cannot connect to server using proxy.",
            "WARNING: Cannot connect using HTTP proxy.",
        )
        assert len(site.wire.sent(b"CONNECT localhost:")) >= 2

    @pytest.mark.parametrize(
        ("case", "account"),
        [
            (plain("user", "secret"), {"user": "user", "password": "other"}),
            (CASES["128 bytes"], {"user": "u" * 127, "password": "p" * 127 + "x"}),
            (CASES["percent signs that encode"], {"user": "u%41", "password": "p%3A%40"}),
        ],
        ids=["wrong password", "password of 128 bytes", "as it is written"],
    )
    def test_the_http_client_gets_in_as_nobody_else(self, make_site: MakeSite, case: Case, account: dict[str, str]):
        site = make_site(Squid(**account), settings=settings(case))
        does_not_register(site, site.start(), 56)

    @pytest.mark.parametrize("missing", ["username", "password"])
    def test_without_one_of_them_nobody_gets_in(self, make_site: MakeSite, missing: str):
        site = make_site(Squid(user="user", password="secret"), cloud_nearby=True, registered=True, claimed=True)
        del site.lab.settings[f"q_qcloud_proxy_{missing}"]
        does_not_connect(
            site, site.start(), "INFO: found basic authentification.", "WARNING: Cannot connect using HTTP proxy."
        )
        assert not any(b"Proxy-Authorization" in sent for sent in site.wire.sent(b"CONNECT"))

    def test_an_encoded_zero_byte_is_nothing_that_the_http_client_sends(self, make_site: MakeSite):
        """The broker link sends the three characters."""
        case = plain("user", "p%00")
        site = make_site(Squid(user="user", password="p%00"), settings=settings(case))
        does_not_register(site, site.start(), 3)
        assert not site.wire.sent(b"Proxy-Authorization")


class TestSocks5Proxy:
    """microsocks with an account on its command line. Here a name may hold a colon."""

    def link_site(self, make_site: MakeSite, case: Case, account: tuple[str, str]) -> Site:
        proxy = Microsocks(*account)
        return make_site(proxy, settings=settings(case), cloud_nearby=True, registered=True, claimed=True)

    @every_case
    def test_the_broker_link_gets_in_as_whom_it_names(self, make_site: MakeSite, case: Case):
        site = self.link_site(make_site, case, case.to_broker)
        connects(site, site.start())
        port = site.lab.broker.port.to_bytes(2, "big")
        request = b"\x05\x01\x00\x01\x7f\x00\x00\x01" + port
        assert site.wire.sent(port)[0].startswith(b"\x05\x02\x00\x02" + login(case.to_broker) + request)

    @every_case
    def test_the_http_client_gets_in_as_whom_it_names(self, make_site: MakeSite, case: Case):
        site = make_site(Microsocks(*case.to_cloud), settings=settings(case))
        registers(site, site.start())
        assert login(case.to_cloud) in site.wire.sent(site.lab.cloud.port.to_bytes(2, "big"))[0]

    @pytest.mark.parametrize(
        ("case", "account"),
        [
            (plain("user", "secret"), ("user", "other")),
            (plain("user", "secret"), ("other", "secret")),
            (CASES["128 bytes"], ("u" * 127, "p" * 127 + "x")),
            (CASES["128 bytes"], ("u" * 127 + "x", "p" * 127)),
            (CASES["percent signs that encode"], ("uA", "p:@")),
            (CASES["a colon in the name"], ("us", "er:pw")),
        ],
        ids=["wrong password", "wrong name", "password of 128 bytes", "name of 128 bytes", "decoded", "other colon"],
    )
    def test_the_broker_link_gets_in_as_nobody_else(self, make_site: MakeSite, case: Case, account: tuple[str, str]):
        site = self.link_site(make_site, case, account)
        does_not_connect(
            site, site.start(),
            "WARNING: Error during autorization : 2.",
            "WARNING: Cannot connect using SOCK5 proxy.",
        )
        assert site.wire.sent(b"\x05\x02\x00\x02")[0] == b"\x05\x02\x00\x02" + login(case.to_broker)

    @pytest.mark.parametrize(
        ("case", "account"),
        [
            (plain("user", "secret"), ("user", "other")),
            (CASES["128 bytes"], ("u" * 127, "p" * 127 + "x")),
            (CASES["percent signs that encode"], ("u%41", "p%3A%40")),
            (CASES["a colon in the name"], ("us:er", "pw")),
        ],
        ids=["wrong password", "password of 128 bytes", "as it is written", "a colon in the name"],
    )
    def test_the_http_client_gets_in_as_nobody_else(self, make_site: MakeSite, case: Case, account: tuple[str, str]):
        site = make_site(Microsocks(*account), settings=settings(case))
        does_not_register(site, site.start(), 97)

    @pytest.mark.parametrize("missing", ["username", "password"])
    def test_without_one_of_them_nobody_gets_in(self, make_site: MakeSite, missing: str):
        site = make_site(Microsocks("user", "secret"), cloud_nearby=True, registered=True, claimed=True)
        del site.lab.settings[f"q_qcloud_proxy_{missing}"]
        does_not_connect(
            site, site.start(),
            "WARNING: Authentification is required. Username and/or password is not present.",
            "WARNING: Cannot connect using SOCK5 proxy.",
        )
