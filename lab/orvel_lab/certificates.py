"""Certificate authorities and server certificates, good ones and every kind of bad one.

The `openssl` command makes the keys and the signatures. The certificates themselves are put together here, byte by
byte, because no option of that command makes what some tests need: names with a NUL byte inside, any validity.
"""

from __future__ import annotations

import hashlib
import os
import ssl
import subprocess
import tempfile
import warnings
from collections.abc import Sequence
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from ipaddress import ip_address
from pathlib import Path

KEY_OPTIONS = {
    "ec": ["-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"],
    "rsa": ["-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"],
}
SIGNATURE_OIDS = {"ec": (1, 2, 840, 10045, 4, 3, 2), "rsa": (1, 2, 840, 113549, 1, 1, 11)}
COMMON_NAME, ALT_NAMES, BASIC_CONSTRAINTS = (2, 5, 4, 3), (2, 5, 29, 17), (2, 5, 29, 19)

# The names under which the lab's servers are reached. The agent's broker link compares DNS names only, also with a
# numeric address; its HTTPS client compares addresses with IP names.
DNS_NAMES = ("localhost", "127.0.0.1", "::1")
IP_NAMES = ("127.0.0.1", "::1")


@dataclass(frozen=True)
class Certificate:
    """Two PEM files."""

    path: Path
    key: Path

    def server_context(
        self,
        minimum: ssl.TLSVersion = ssl.TLSVersion.TLSv1_2,
        maximum: ssl.TLSVersion = ssl.TLSVersion.MAXIMUM_SUPPORTED,
        ciphers: str | None = None,
        key_log: Path | None = None,
    ) -> ssl.SSLContext:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.path, self.key)
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)  # the versions before 1.2 are offered on purpose
            context.minimum_version, context.maximum_version = minimum, maximum
        if ciphers is None and ssl.TLSVersion.SSLv3 <= minimum < ssl.TLSVersion.TLSv1_2:
            ciphers = "ALL:@SECLEVEL=0"  # without it OpenSSL refuses these versions
        if ciphers is not None:
            context.set_ciphers(ciphers)
        if key_log is not None:
            context.keylog_filename = str(key_log)
        return context


class Authority:
    """A certificate authority in a folder of its own. What it has issued once it hands out again."""

    def __init__(
        self,
        folder: Path,
        name: str = "Orvel Lab CA",
        key: str = "ec",
        valid_from: float = -1,
        valid_until: float = 3650,
    ) -> None:
        """The validity is in days from now."""
        self.folder = Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.name = name
        self._key_kind = key
        self._key = self._key_file("ca", key)
        self.path = self.folder / "ca.pem"
        if not self.path.exists():
            public = _public_key(self._key)
            extensions = [_extension(BASIC_CONSTRAINTS, _sequence(_tlv(0x01, b"\xff")), critical=True)]
            validity = _from_now(valid_from), _from_now(valid_until)
            unsigned = _unsigned(self._key_kind, name, name, public, *validity, extensions)
            _write_pem(self.path, _signed(unsigned, self._key_kind, self._key))

    def issue(
        self,
        common_name: str | bytes = "localhost",
        dns: Sequence[str | bytes] | None = DNS_NAMES,
        ip: Sequence[str] = IP_NAMES,
        valid_from: float = -1,
        valid_until: float = 365,
        self_signed: bool = False,
        key: str = "ec",
    ) -> Certificate:
        """A server certificate.

        `dns=None` leaves the subjectAltName extension out, an empty `dns` and `ip` leave it empty. Names may be
        bytes, with any byte in them. The validity is in days from now.
        """
        what = repr((common_name, dns and tuple(dns), tuple(ip), valid_from, valid_until, self_signed, key))
        path = self.folder / f"{hashlib.sha256(what.encode()).hexdigest()[:16]}.pem"
        issued = Certificate(path, self._key_file("server", key))
        if not path.exists():
            signing_kind, signing_key = (key, issued.key) if self_signed else (self._key_kind, self._key)
            issuer = common_name if self_signed else self.name
            extensions = [] if dns is None else [_extension(ALT_NAMES, _alt_names(dns, ip))]
            public = _public_key(issued.key)
            validity = _from_now(valid_from), _from_now(valid_until)
            unsigned = _unsigned(signing_kind, issuer, common_name, public, *validity, extensions)
            _write_pem(path, _signed(unsigned, signing_kind, signing_key))
        return issued

    def expired(self, **options) -> Certificate:
        return self.issue(valid_from=-30, valid_until=-1, **options)

    def not_yet_valid(self, **options) -> Certificate:
        return self.issue(valid_from=30, valid_until=60, **options)

    def hashed_folder(self) -> Path:
        """A folder in which OpenSSL finds the authority by the hash of its name."""
        hashed = self.folder / "hashed"
        hashed.mkdir(exist_ok=True)
        name = _openssl("x509", "-in", self.path, "-noout", "-hash").decode().strip()
        link = hashed / f"{name}.0"
        if not link.exists():
            link.symlink_to(self.path.resolve())
        return hashed

    def _key_file(self, owner: str, kind: str) -> Path:
        path = self.folder / f"{owner}-{kind}.key"
        if not path.exists():
            _write_whole(path, _openssl("genpkey", *KEY_OPTIONS[kind]))
        return path


def _openssl(*arguments: str | Path, given: bytes = b"") -> bytes:
    command = ["openssl", *map(str, arguments)]
    done = subprocess.run(command, input=given, capture_output=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout


def _public_key(key: Path) -> bytes:
    return _openssl("pkey", "-in", key, "-pubout", "-outform", "DER")


def _write_whole(path: Path, content: bytes) -> None:
    with tempfile.NamedTemporaryFile(dir=path.parent, delete=False) as incoming:
        incoming.write(content)
    os.replace(incoming.name, path)


def _write_pem(path: Path, encoded: bytes) -> None:
    _write_whole(path, ssl.DER_cert_to_PEM_cert(encoded).encode())


# A certificate as RFC 5280 lays it out, in the encoding of ITU-T X.690 (tag, length, value).


def _unsigned(
    kind: str,
    issuer: str | bytes,
    subject: str | bytes,
    public: bytes,
    begin: datetime,
    end: datetime,
    extensions: list[bytes],
) -> bytes:
    version_3 = _tlv(0xA0, _tlv(0x02, b"\x02"))
    serial = _tlv(0x02, b"\x01" + os.urandom(15))
    validity = _sequence(_time(begin), _time(end))
    extended = [_tlv(0xA3, _sequence(*extensions))] if extensions else []
    names = _name(issuer), validity, _name(subject)
    return _sequence(version_3, serial, _algorithm(kind), *names, public, *extended)


def _signed(unsigned: bytes, kind: str, key: Path) -> bytes:
    signature = _openssl("dgst", "-sha256", "-sign", key, given=unsigned)
    return _sequence(unsigned, _algorithm(kind), _tlv(0x03, b"\0" + signature))


def _alt_names(dns: Sequence[str | bytes], ip: Sequence[str]) -> bytes:
    names = [_tlv(0x82, _bytes(name)) for name in dns]
    return _sequence(*names, *(_tlv(0x87, ip_address(address).packed) for address in ip))


def _extension(identifier: tuple[int, ...], value: bytes, critical: bool = False) -> bytes:
    flag = _tlv(0x01, b"\xff") if critical else b""
    return _sequence(_oid(identifier), flag, _tlv(0x04, value))


def _algorithm(kind: str) -> bytes:
    no_parameters = _tlv(0x05, b"") if kind == "rsa" else b""
    return _sequence(_oid(SIGNATURE_OIDS[kind]), no_parameters)


def _name(common_name: str | bytes) -> bytes:
    return _sequence(_tlv(0x31, _sequence(_oid(COMMON_NAME), _tlv(0x0C, _bytes(common_name)))))


def _time(moment: datetime) -> bytes:
    if moment.year < 2050:
        return _tlv(0x17, moment.strftime("%y%m%d%H%M%SZ").encode())
    return _tlv(0x18, moment.strftime("%Y%m%d%H%M%SZ").encode())


def _from_now(days: float) -> datetime:
    return datetime.now(timezone.utc) + timedelta(days=days)


def _bytes(text: str | bytes) -> bytes:
    return text.encode() if isinstance(text, str) else text


def _sequence(*members: bytes) -> bytes:
    return _tlv(0x30, b"".join(members))


def _oid(numbers: tuple[int, ...]) -> bytes:
    first, second, *others = numbers
    encoded = bytes([40 * first + second])
    for number in others:
        groups = [number & 0x7F]
        while number := number >> 7:
            groups.append(0x80 | number & 0x7F)
        encoded += bytes(reversed(groups))
    return _tlv(0x06, encoded)


def _tlv(tag: int, value: bytes) -> bytes:
    size = len(value)
    if size < 0x80:
        return bytes([tag, size]) + value
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + value
