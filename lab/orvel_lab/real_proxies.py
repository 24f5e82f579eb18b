"""Real proxies, each a child process with a configuration of its own. They listen on fixed ports: run them in a
network of their own (see network.py), where they connect from an address of their own too.

None of them runs as root: where the lab does, they run as the user nobody.
"""

from __future__ import annotations

import os
import pwd
import signal
import socket
import subprocess
import tempfile
from collections.abc import Sequence
from pathlib import Path

from .certificates import Certificate
from .network import PROXY_ADDRESS
from .scripted_proxy import KINDS
from .waiting import DEADLINE, wait_until

NOBODY = "nobody"


class RealProxy:
    """Started by `with`. With a user and a password it lets nobody else in."""

    kind = "http"
    name = ""
    farewell = signal.SIGTERM

    def __init__(self, port: int, user: str | None = None, password: str | None = None) -> None:
        self.port = port
        self.user = user
        self.password = password
        self.allowed: Sequence[int] | None = None
        self.entrance = port  # the port that clients are told
        self._log = ""
        self._process: subprocess.Popen[bytes] | None = None

    def __enter__(self) -> RealProxy:
        self.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self.stop()

    @property
    def settings(self) -> dict[str, str]:
        """What a device behind it is told."""
        told = {"use_proxy": str(KINDS[self.kind]), "proxy_hostname": "127.0.0.1", "proxy_port": str(self.entrance)}
        if self.user is not None and self.password is not None:
            told.update({"proxy_username": self.user, "proxy_password": self.password})
        return {f"q_qcloud_{key}": value for key, value in told.items()}

    @property
    def plain_port(self) -> int:
        """The port at which requests come in the clear."""
        return self.port

    def reached_through(self, port: int) -> None:
        """Before the start: clients' requests reach the plain port through this one."""
        self.entrance = port

    @property
    def log(self) -> str:
        """What it has said so far, or, when it has been stopped, had said."""
        if self._process is None:
            return self._log
        return "".join(path.read_text(errors="backslashreplace") for path in sorted(self._folder.glob("*.log")))

    def allow(self, ports: Sequence[int]) -> None:
        """Before the start: these are the only ports that it connects to."""
        self.allowed = ports

    def start(self) -> None:
        self._temporary = tempfile.TemporaryDirectory(prefix="orvel-proxy-")
        self._folder = Path(self._temporary.name)
        command = self.command()
        self._give_away()
        with open(self._folder / "output.log", "wb") as output:
            self._process = subprocess.Popen(
                command,
                cwd=self._folder,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                start_new_session=True,
                **self._user(),
            )
        try:
            wait_until(self._accepts, f"{self.name} on port {self.port}")
        except BaseException:
            self.stop()
            raise

    def stop(self) -> None:
        """Ends it and everything that it has started."""
        if self._process is None:
            return
        self._process.send_signal(self.farewell)
        try:
            self._process.wait(DEADLINE)
        finally:
            self._kill_group()
            self._process.wait(DEADLINE)
            self._log = self.log
            self._process = None
            self._temporary.cleanup()

    def command(self) -> list[str]:
        """Writes the configuration; gives the command that runs the program in the foreground."""
        raise NotImplementedError

    def write(self, name: str, text: str) -> Path:
        path = self._folder / name
        path.write_text(text)
        return path

    def path(self, name: str) -> Path:
        return self._folder / name

    def _accepts(self) -> bool:
        if self._process.poll() is not None:
            raise RuntimeError(f"{self.name} ended with {self._process.returncode}: {self.log}")
        try:
            socket.create_connection(("127.0.0.1", self.port), timeout=DEADLINE).close()
        except ConnectionRefusedError:
            return False
        return True

    def _kill_group(self) -> None:
        """What its programs have started belongs to its session and process group."""
        try:
            os.killpg(self._process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def _give_away(self) -> None:
        if os.geteuid() != 0:
            return
        owner = pwd.getpwnam(NOBODY)
        for path in (self._folder, *self._folder.iterdir()):
            os.chown(path, owner.pw_uid, owner.pw_gid)

    def _user(self) -> dict[str, object]:
        if os.geteuid() != 0:
            return {}
        return {"user": NOBODY, "group": pwd.getpwnam(NOBODY).pw_gid, "extra_groups": []}


class Squid(RealProxy):
    """HTTP, with Basic authentication against a password file."""

    name = "squid"
    farewell = signal.SIGKILL  # asked to end, it takes two seconds; it has nothing to save

    def __init__(self, port: int = 3128, **options) -> None:
        super().__init__(port, **options)

    def command(self) -> list[str]:
        access = []
        if self.user is not None:
            access += [
                f"auth_param basic program /usr/lib/squid/basic_ncsa_auth {self._password_file()}",
                "auth_param basic children 1 startup=1",
                "auth_param basic casesensitive on",
                "acl known proxy_auth REQUIRED",
                "http_access deny !known",
            ]
        if self.allowed is not None:
            access += [f"acl allowed port {' '.join(map(str, self.allowed))}", "http_access deny !allowed"]
        configuration = self.write("squid.conf", "\n".join([
            f"http_port 127.0.0.1:{self.port}",
            f"tcp_outgoing_address {PROXY_ADDRESS}",
            f"hosts_file {self.write('hosts', '127.0.0.1 localhost' + chr(10))}",
            "dns_nameservers 127.0.0.1",
            *access,
            "http_access allow all",
            "cache deny all",
            "cache_mem 0",
            "memory_pools off",
            "pinger_enable off",
            "netdb_filename none",
            "pid_filename none",
            f"coredump_dir {self._folder}",
            f"cache_log {self.path('cache.log')}",
            f"access_log stdio:{self.path('access.log')}",
            "max_filedescriptors 1024",
            "shutdown_lifetime 0 seconds",
            "forward_max_tries 1",
            "visible_hostname proxy",
            "",
        ]))
        return ["/usr/sbin/squid", "-N", "-f", str(configuration)]

    def _password_file(self) -> Path:
        hashed = ["openssl", "passwd", "-6", "-stdin"]
        done = subprocess.run(hashed, input=self.password, capture_output=True, text=True, check=True)
        return self.write("passwords", f"{self.user}:{done.stdout}")


class Tinyproxy(RealProxy):
    """HTTP, with one user whose name and password stand in the configuration."""

    name = "tinyproxy"

    def __init__(self, port: int = 8888, **options) -> None:
        super().__init__(port, **options)

    def command(self) -> list[str]:
        credentials = [] if self.user is None else [f"BasicAuth {self.user} {self.password}"]
        configuration = self.write("tinyproxy.conf", "\n".join([
            f"Port {self.port}",
            "Listen 127.0.0.1",
            f"Bind {PROXY_ADDRESS}",
            "Allow 127.0.0.1",
            f'LogFile "{self.path("access.log")}"',
            "LogLevel Info",
            "MaxClients 100",
            "Timeout 600",
            *credentials,
            *(f"ConnectPort {port}" for port in self.allowed or ()),
            "",
        ]))
        return ["/usr/bin/tinyproxy", "-d", "-c", str(configuration)]


class Stunnel(RealProxy):
    """TLS in front of an HTTP proxy, which starts and stops with it."""

    kind = "https"
    name = "stunnel"

    def __init__(self, certificate: Certificate, behind: RealProxy, port: int = 3129) -> None:
        super().__init__(port, behind.user, behind.password)
        self.behind = behind
        self._certificate = certificate

    @property
    def plain_port(self) -> int:
        return self.behind.port

    def reached_through(self, port: int) -> None:
        self.behind.entrance = port

    def allow(self, ports: Sequence[int]) -> None:
        self.behind.allow(ports)

    @property
    def log(self) -> str:
        return self.behind.log + super().log

    def start(self) -> None:
        self.behind.start()
        try:
            super().start()
        except BaseException:
            self.behind.stop()
            raise

    def stop(self) -> None:
        try:
            super().stop()
        finally:
            self.behind.stop()

    def command(self) -> list[str]:
        configuration = self.write("stunnel.conf", "\n".join([
            "foreground = yes",
            "pid =",
            "syslog = no",
            "debug = info",
            "[proxy]",
            f"accept = 127.0.0.1:{self.port}",
            f"connect = 127.0.0.1:{self.behind.entrance}",
            f"cert = {self.write('certificate.pem', self._certificate.path.read_text())}",
            f"key = {self.write('key.pem', self._certificate.key.read_text())}",
            "",
        ]))
        return ["/usr/bin/stunnel", str(configuration)]


class Dante(RealProxy):
    """SOCKS4 and SOCKS5 without authentication."""

    name = "danted"

    def __init__(self, kind: str, port: int = 1080, **options) -> None:
        super().__init__(port, **options)
        self.kind = kind

    def command(self) -> list[str]:
        user = NOBODY if os.geteuid() == 0 else pwd.getpwuid(os.geteuid()).pw_name
        targets = [""] if self.allowed is None else [f"port = {port}" for port in self.allowed]
        passed = "\n".join(
            f"socks pass {{ from: 127.0.0.0/8 to: 0.0.0.0/0 {target} log: connect error }}" for target in targets
        )
        configuration = self.write("danted.conf", "\n".join([
            f"logoutput: {self.path('danted.log')}",
            f"internal: 127.0.0.1 port = {self.port}",
            f"external: {PROXY_ADDRESS}",
            "clientmethod: none",
            "socksmethod: none",
            f"user.privileged: {user}",
            f"user.unprivileged: {user}",
            "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }",
            passed,
            "socks block { from: 0.0.0.0/0 to: 0.0.0.0/0 log: connect error }",
            "",
        ]))
        return ["/usr/sbin/danted", "-f", str(configuration), "-p", str(self.path("danted.pid"))]


class Microsocks(RealProxy):
    """SOCKS5 with user name and password. It connects to every port: allow() changes nothing."""

    kind = "socks5"
    name = "microsocks"

    def __init__(self, user: str, password: str, port: int = 1081) -> None:
        super().__init__(port, user, password)

    def command(self) -> list[str]:
        credentials = ["-u", str(self.user), "-P", str(self.password)]
        return ["/usr/bin/microsocks", "-i", "127.0.0.1", "-p", str(self.port), "-b", PROXY_ADDRESS, *credentials]


def open_proxy(kind: str, certificate: Certificate) -> RealProxy:
    """A proxy of the kind that lets everybody in. The certificate is for "https"."""
    if kind == "https":
        return Stunnel(certificate, Squid())
    return Squid() if kind == "http" else Dante(kind)
