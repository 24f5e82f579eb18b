"""Clients of the lab that are not the agent: what the tests of the lab itself talk to it with."""

from __future__ import annotations

import http.client
import json
import socket
import ssl
from collections.abc import Iterator
from contextlib import contextmanager

from orvel_lab import Authority, Cloud, Lab

HARDWARE_ID = "ABCDEFGH12345"
SECONDS = 20


def trusting(authority: Authority, **versions) -> ssl.SSLContext:
    context = ssl.create_default_context(cafile=str(authority.path))
    for name, version in versions.items():
        setattr(context, name, version)
    return context


@contextmanager
def connected(lab: Lab, context: ssl.SSLContext | None = None) -> Iterator[socket.socket]:
    """A client of the broker, over TLS when a context is given."""
    plain = socket.create_connection(("127.0.0.1", lab.broker.port), timeout=SECONDS)
    with context.wrap_socket(plain, server_hostname="localhost") if context else plain as client:
        yield client


def receive(client: socket.socket, count: int) -> bytes:
    data = b""
    while len(data) < count:
        block = client.recv(65536)
        assert block, f"the stream ended after {len(data)} of {count} bytes"
        data += block
    return data


def ask(cloud: Cloud, authority: Authority, method: str, target: str, body: object = None, **headers: str):
    """One HTTPS request; gives status, headers and body."""
    client = http.client.HTTPSConnection("127.0.0.1", cloud.port, context=trusting(authority), timeout=SECONDS)
    try:
        client.request(method, target, None if body is None else json.dumps(body), headers)
        response = client.getresponse()
        return response.status, response.headers, response.read()
    finally:
        client.close()


def register(lab: Lab) -> dict[str, str]:
    """Registers as a device does; gives the header that it sends from then on."""
    status, _, body = ask(lab.cloud, lab.authority, "POST", "/register", {"hardwareId": HARDWARE_ID, "model": "M"})
    assert status == 201
    document = json.loads(body)
    return {"Authorization": f"{document['deviceId']}:{document['claimCode']}"}
