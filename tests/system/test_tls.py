"""Whom the agent trusts: certificates of every kind on the broker link and on the cloud's HTTPS side."""

from __future__ import annotations

import re
import socket
import ssl
import struct
from collections.abc import Callable
from pathlib import Path

import pytest
from orvel_lab import DEADLINE, Agent, Authority, Certificate, Lab
from orvel_lab import cloud as endpoints
from orvel_lab.lab import TOKEN

CIPHERS = (
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:ECDHE-ECDSA-AES128-GCM-SHA256:"
    "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-AES128-SHA256:ECDHE-RSA-AES128-SHA256:"
    "ECDHE-ECDSA-AES128-SHA:ECDHE-RSA-AES256-SHA384:ECDHE-RSA-AES128-SHA:ECDHE-ECDSA-AES256-SHA384:"
    "ECDHE-ECDSA-AES256-SHA:ECDHE-RSA-AES256-SHA:DHE-RSA-AES128-SHA256:DHE-RSA-AES128-SHA:DHE-RSA-AES256-SHA256:"
    "DHE-RSA-AES256-SHA:ECDHE-ECDSA-DES-CBC3-SHA:ECDHE-RSA-DES-CBC3-SHA:EDH-RSA-DES-CBC3-SHA:AES128-GCM-SHA256:"
    "AES256-GCM-SHA384:AES128-SHA256:AES256-SHA256:AES128-SHA:AES256-SHA:DES-CBC3-SHA:!DSS"
)
RENEGOTIATION_MARK = 0x00FF  # a cipher number that names none (RFC 5746)

UNVERIFIED = "certificate verify failed"
UNNAMED = "WARNING: Hostname validation failed."
NUL_NAME = b"localhost\0.evil.example"

Make = Callable[[Authority, Authority], Certificate]


def issued(**options) -> Make:
    return lambda certs, _: certs.issue(**options)


# What the broker shows, the name under which the advisor knows it, and the reason of the refusal (None: accepted).
BROKER_CERTIFICATES = {
    "good": (issued(), "localhost", None),
    "RSA": (issued(key="rsa"), "localhost", None),
    "commonName only": (issued(common_name="localhost", dns=None), "localhost", None),
    "letter case": (issued(common_name="x", dns=["LocalHOST"]), "localhost", None),
    "letter case of a commonName": (issued(common_name="LOCALhost", dns=None), "localhost", None),
    "letter case of the host": (issued(), "LOCALHOST", None),
    "second name": (issued(common_name="x", dns=["other.example", "localhost"]), "localhost", None),
    "address as DNS name": (issued(common_name="x", dns=["127.0.0.1"], ip=[]), "127.0.0.1", None),
    "expired": (lambda certs, _: certs.expired(), "localhost", UNVERIFIED),
    "not yet valid": (lambda certs, _: certs.not_yet_valid(), "localhost", UNVERIFIED),
    "self-signed": (issued(self_signed=True), "localhost", UNVERIFIED),
    "another authority of the same name": (lambda _, namesake: namesake.issue(), "localhost", UNVERIFIED),
    "wrong name": (issued(common_name="other.example", dns=["other.example"]), "localhost", UNNAMED),
    "other subjectAltName": (issued(common_name="localhost", dns=["other.example"]), "localhost", UNNAMED),
    "empty subjectAltName": (issued(common_name="localhost", dns=[], ip=[]), "localhost", UNNAMED),
    "other commonName only": (issued(common_name="other.example", dns=None), "localhost", UNNAMED),
    "NUL": (issued(common_name="x", dns=[NUL_NAME]), "localhost", UNNAMED),
    "NUL before the right name": (issued(common_name="x", dns=[NUL_NAME, "localhost"]), "localhost", UNNAMED),
    "NUL in the commonName": (issued(common_name=NUL_NAME, dns=None), "localhost", UNNAMED),
    "wildcard": (issued(common_name="*.0.0.1", dns=["*.0.0.1", "*"], ip=[]), "127.0.0.1", UNNAMED),
    "wildcard commonName": (issued(common_name="*", dns=None), "localhost", UNNAMED),
    "address as IP name": (issued(common_name="127.0.0.1", dns=[], ip=["127.0.0.1"]), "127.0.0.1", UNNAMED),
}

# The same for the cloud. The names are compared by the HTTPS library's own rules: addresses with
# IP names, for instance. The last column is that library's
# code: a signature of the wrong key counts as a failed handshake, everything else as a failed verification.
TLS_FAILED, REFUSED, BAD_AUTHORITY = 35, 60, 77
CLOUD_CERTIFICATES = {
    "good": (issued(), "127.0.0.1", None),
    "good by name": (issued(), "localhost", None),
    "commonName only": (issued(common_name="localhost", dns=None), "localhost", None),
    "letter case": (issued(common_name="x", dns=["LocalHOST"], ip=[]), "localhost", None),
    "expired": (lambda certs, _: certs.expired(), "localhost", REFUSED),
    "not yet valid": (lambda certs, _: certs.not_yet_valid(), "localhost", REFUSED),
    "self-signed": (issued(self_signed=True), "localhost", REFUSED),
    "another authority of the same name": (lambda _, namesake: namesake.issue(), "localhost", TLS_FAILED),
    "wrong name": (issued(common_name="x", dns=["other.example"], ip=[]), "localhost", REFUSED),
    "other subjectAltName": (issued(common_name="localhost", dns=["other.example"], ip=[]), "localhost", REFUSED),
    "NUL": (issued(common_name="x", dns=[NUL_NAME], ip=[]), "localhost", REFUSED),
    "NUL in the commonName": (issued(common_name=NUL_NAME, dns=None), "localhost", REFUSED),
    "wildcard": (issued(common_name="x", dns=["*.0.0.1", "*"], ip=[]), "127.0.0.1", REFUSED),
}

VERSIONS = {
    "1.1": {"minimum": ssl.TLSVersion.TLSv1_1, "maximum": ssl.TLSVersion.TLSv1_1},
    "1.2": {"minimum": ssl.TLSVersion.TLSv1_2, "maximum": ssl.TLSVersion.TLSv1_2},
    "1.3": {"minimum": ssl.TLSVersion.TLSv1_3, "maximum": ssl.TLSVersion.TLSv1_3},
}


def table(cases: dict[str, tuple]) -> pytest.MarkDecorator:
    return pytest.mark.parametrize(("certificate", "host", "refusal"), cases.values(), ids=cases.keys())


@pytest.fixture
def known(make_lab: Callable[..., Lab]) -> Callable[..., Lab]:
    """Labs whose device is registered and claimed."""
    return lambda **options: make_lab(registered=True, claimed=True, **options)


def open_the_cloud_to_everybody(lab: Lab) -> None:
    """Plain HTTP, so that only the broker link depends on whom the agent trusts."""
    lab.cloud.context = None
    for key, value in lab.settings.items():
        lab.settings[key] = value.replace("https://", "http://")


def wait_for_refusal(agent: Agent, *reasons: str) -> None:
    for reason in (*reasons, "WARNING: Cannot create ssl connection to broker.", "keep_connection=1, success=1."):
        agent.wait_for_line(reason)
    agent.assert_not_logged("Connected to qbroker.")


class TestBrokerLink:
    @table(BROKER_CERTIFICATES)
    def test_broker_certificates(self, known, certs, namesake_certs, certificate: Make, host: str, refusal: str | None):
        lab = known(broker_certificate=certificate(certs, namesake_certs), broker_host=host)
        agent = lab.start_agent("--log_debug")
        if refusal is None:
            assert lab.broker.expect_session().expect_identity().text == TOKEN.decode()
            agent.wait_for_line("Connected to qbroker.")
            return
        wait_for_refusal(agent, refusal)
        verified = "Could not connect to SSL server" not in agent.log
        assert verified == (refusal == UNNAMED)
        assert lab.broker.expect_connection().raw == b""

    def test_a_failed_verification_is_described_at_every_level(self, known, certs):
        lab = known(broker_certificate=certs.expired())
        agent = lab.start_agent("--log_debug")
        wait_for_refusal(
            agent,
            "WARNING: Could not connect to SSL server 1.",
            "ERROR: openssl read error: 'SSL_ERROR_SSL', errno: 'Success'.",
            "WARNING: error:0A000086:SSL routines::certificate verify failed",
            "ERROR: openssl error: 'error:0A000086:SSL routines::certificate verify failed'.",
        )
        assert lab.broker.expect_connection().wait_ended() == "TLS failed: SSLV3_ALERT_CERTIFICATE_EXPIRED"

    @pytest.mark.parametrize("version", VERSIONS)
    def test_only_version_1_2_is_spoken(self, known, version: str):
        lab = known(**VERSIONS[version])
        agent = lab.start_agent("--log_debug")
        if version == "1.2":
            session = lab.broker.expect_session()
            assert session.tls_version == "TLSv1.2"
            return
        wait_for_refusal(agent, "Could not connect to SSL server 1.", "openssl read error: 'SSL_ERROR_SSL', errno: '")

    def test_a_broker_that_offers_several_versions_gets_1_2(self, known):
        lab = known(maximum=ssl.TLSVersion.MAXIMUM_SUPPORTED)
        lab.start_agent()
        assert lab.broker.expect_session().tls_version == "TLSv1.2"

    @pytest.mark.parametrize("cipher", ["ECDHE-ECDSA-CHACHA20-POLY1305", "ECDHE-ECDSA-AES256-SHA"])
    def test_ciphers_of_the_list_are_spoken(self, known, certs, cipher: str):
        lab = known()
        lab.broker.context = certs.issue().server_context(maximum=ssl.TLSVersion.TLSv1_2, ciphers=cipher)
        lab.start_agent()
        assert lab.broker.expect_session().cipher == cipher

    def test_the_whole_list_is_offered_in_its_order(self, known):
        lab = known()
        with socket.create_server(("127.0.0.1", 0)) as listening:
            listening.settimeout(DEADLINE)
            lab.cloud.advise_connect("localhost", listening.getsockname()[1], TOKEN)
            lab.start_agent()
            accepted, _ = listening.accept()
            with accepted, accepted.makefile("rb") as stream:
                content_type, _version, length = struct.unpack(">BHH", stream.read(5))
                assert content_type == 22  # handshake
                hello = stream.read(length)
        assert hello[0] == 1 and hello[4:6] == b"\x03\x03"  # ClientHello, TLS 1.2 (RFC 5246)
        at = 38 + 1 + hello[38]  # behind the session id
        (size,) = struct.unpack_from(">H", hello, at)
        offered = struct.unpack_from(f">{size // 2}H", hello, at + 2)
        reference = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        reference.set_ciphers(CIPHERS)
        known_here = [cipher["id"] & 0xFFFF for cipher in reference.get_ciphers() if cipher["protocol"] != "TLSv1.3"]
        assert [number for number in offered if number != RENEGOTIATION_MARK] == known_here

    def test_a_cipher_outside_the_list_is_refused(self, known, certs):
        lab = known()
        cipher = "ECDHE-ECDSA-AES128-CCM"
        lab.broker.context = certs.issue().server_context(maximum=ssl.TLSVersion.TLSv1_2, ciphers=cipher)
        wait_for_refusal(lab.start_agent("--log_debug"), "Could not connect to SSL server 1.")

    def test_no_server_name_is_sent(self, known, certs):
        lab = known()
        names: list[str | None] = []
        lab.broker.context.sni_callback = lambda _socket, name, _context: names.append(name)
        lab.start_agent()
        lab.broker.expect_session()
        assert names == [None]

    @pytest.mark.parametrize("given", ["file", "folder", "both", "good file, other folder", "other file, good folder"])
    def test_the_authority_comes_from_a_file_or_a_folder(self, known, certs, given: str):
        other = Authority(certs.folder / "other", "Other CA")
        file, folder = ("--ca_file", certs.path), ("--ca_path", certs.hashed_folder())
        options = {
            "file": file,
            "folder": folder,
            "both": (*file, *folder),
            "good file, other folder": (*file, "--ca_path", other.hashed_folder()),
            "other file, good folder": ("--ca_file", other.path, *folder),
        }
        lab = known()
        lab.start_agent(*options[given], ca=False)
        lab.broker.expect_session().expect_identity()

    def test_without_an_authority_nobody_is_trusted(self, known):
        lab = known()
        agent = lab.start_agent("--log_debug", ca=False)
        wait_for_refusal(agent, UNVERIFIED)
        assert lab.broker.expect_connection().wait_ended() == "TLS failed: TLSV1_ALERT_UNKNOWN_CA"

    @pytest.mark.parametrize("also", [False, True], ids=["alone", "beside a file"])
    def test_the_systems_authorities_count_too(self, known, certs, also: bool):
        lab = known()
        open_the_cloud_to_everybody(lab)
        options = ("--ca_file", Authority(certs.folder / "other", "Other CA").path) if also else ()
        lab.start_agent(*options, ca=False, environment={"SSL_CERT_FILE": str(certs.path)})
        lab.broker.expect_session().expect_identity()

    @pytest.mark.parametrize(
        ("options", "names"),
        [
            (("--ca_file", "/nonexistent/ca.pem"), "/nonexistent/ca.pem. (null)."),
            (("--ca_file", "/nonexistent/ca.pem", "--ca_path", "/tmp"), "/nonexistent/ca.pem. /tmp."),
        ],
    )
    def test_an_unreadable_authority_file_prevents_the_connection(self, known, options: tuple[str, ...], names: str):
        lab = known()
        open_the_cloud_to_everybody(lab)
        agent = lab.start_agent("--log_debug", *options, ca=False)
        wait_for_refusal(agent, f"WARNING: Cannot load SSL certificate chain : {names}", "openssl error: 'error:")

    def test_an_authority_file_without_certificates_prevents_the_connection(self, known, tmp_path: Path):
        garbage = tmp_path / "garbage.pem"
        garbage.write_text("no certificate\n")
        lab = known()
        open_the_cloud_to_everybody(lab)
        agent = lab.start_agent("--log_debug", "--ca_file", garbage, ca=False)
        wait_for_refusal(agent, f"Cannot load SSL certificate chain : {garbage}. (null).")

    def test_a_folder_that_is_not_there_just_holds_nobody(self, known):
        lab = known()
        open_the_cloud_to_everybody(lab)
        agent = lab.start_agent("--log_debug", "--ca_path", "/nonexistent", ca=False)
        wait_for_refusal(agent, UNVERIFIED)


class TestCloud:
    def claim_check(self, lab: Lab, host: str, *options: str | Path, ca: bool = True) -> Agent:
        """An agent whose first request goes to that host."""
        lab.settings["q_claimed_url"] = lab.cloud.url(endpoints.CLAIM, host)
        return lab.start_agent("--log_debug", *options, ca=ca)

    def wait_for_code(self, agent: Agent, lab: Lab, code: int) -> None:
        for level in ("WARNING", "ERROR"):
            text = rf"{level}: curl_easy_perform\(url='https://[^']*/claimed/v2'\) failed with code {code}: '"
            agent.wait_for_line(re.compile(text))
        agent.wait_for_line("WARNING: Failed to get claim status. Sleeping for 1 secs.")
        assert lab.cloud.requests() == []

    @table(CLOUD_CERTIFICATES)
    def test_cloud_certificates(self, known, certs, namesake_certs, certificate: Make, host: str, refusal: int | None):
        lab = known(cloud_certificate=certificate(certs, namesake_certs))
        agent = self.claim_check(lab, host)
        if refusal is None:
            agent.wait_for_line("Device is claimed:")
        else:
            self.wait_for_code(agent, lab, refusal)

    def test_a_registration_is_refused_like_any_other_request(self, make_lab, certs):
        lab = make_lab(cloud_certificate=certs.expired())
        agent = lab.start_agent("--log_debug")
        failure = r"WARNING: curl_easy_perform\(url='https://[^']*'\) failed with error code 60: '"
        agent.wait_for_line(re.compile(failure))
        assert lab.cloud.requests() == []

    @pytest.mark.parametrize("kind", ["expired", "not_yet_valid", "self-signed", "namesake"])
    def test_without_an_authority_nothing_is_verified(self, known, certs, namesake_certs, kind: str):
        certificates = {
            "expired": certs.expired,
            "not_yet_valid": certs.not_yet_valid,
            "self-signed": lambda: certs.issue(self_signed=True),
            "namesake": namesake_certs.issue,
        }
        lab = known(cloud_certificate=certificates[kind]())
        self.claim_check(lab, "127.0.0.1", ca=False).wait_for_line("Device is claimed:")

    def test_without_an_authority_the_name_is_still_checked(self, known, certs):
        lab = known(cloud_certificate=certs.issue(common_name="x", dns=["other.example"], ip=[]))
        self.wait_for_code(self.claim_check(lab, "127.0.0.1", ca=False), lab, REFUSED)

    @pytest.mark.parametrize("given", ["folder", "both"])
    def test_the_authority_comes_from_a_folder_or_both(self, known, certs, given: str):
        lab = known()
        options = ["--ca_path", certs.hashed_folder()]
        self.claim_check(lab, "127.0.0.1", *options, ca=given == "both").wait_for_line("Device is claimed:")

    def test_a_folder_verifies_like_a_file(self, known, certs):
        lab = known(cloud_certificate=certs.expired())
        agent = self.claim_check(lab, "127.0.0.1", "--ca_path", certs.hashed_folder(), ca=False)
        self.wait_for_code(agent, lab, REFUSED)

    def test_an_unreadable_authority_file_prevents_every_request(self, known):
        lab = known()
        agent = self.claim_check(lab, "127.0.0.1", "--ca_file", "/nonexistent/ca.pem", ca=False)
        self.wait_for_code(agent, lab, BAD_AUTHORITY)

    @pytest.mark.parametrize("version", VERSIONS)
    def test_versions_from_1_2_on_are_spoken(self, known, certs, version: str):
        lab = known()
        lab.cloud.context = certs.issue().server_context(**VERSIONS[version])
        agent = self.claim_check(lab, "127.0.0.1")
        if version == "1.1":
            self.wait_for_code(agent, lab, TLS_FAILED)
        else:
            agent.wait_for_line("Device is claimed:")
