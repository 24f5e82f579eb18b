"""The command line of the lab."""

from __future__ import annotations

import argparse
import base64
import json
import os
import socket
import sys
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from .commands import Refusal
from .fleet import MOST_DEVICES
from .lab import HARDWARE_ID
from .playground import LAB_FILE, Options, Playground, moment_of, timeline_entry
from .scripted_proxy import KINDS
from .waiting import DEADLINE

DESCRIPTION = """\
A local cloud for the agent: registration, claim status, discovery, advisor, message broker, and the receiving
ends of four handlers: tcp, unix, exec and event_sink. `up` runs it and prints the command that starts the agent;
the other commands talk to the lab that is up in the same folder."""

EPILOG = """\
A first round, in three terminals:
  orvel-lab up                       then start the agent as it says
  orvel-lab trace
  orvel-lab wait registered          the device is known now, but nobody has claimed it:
  orvel-lab claim                    the cloud's word; and on the device, which nobody has told yet:
  orvel-lab control '{"command": "on_claim", "service": "demo", "claimed": true}'
  orvel-lab wait connected
  orvel-lab send tcp 'hello'         look into .lab/received/tcp

The same in a browser, with devices to try it on:
  orvel-lab up --console --agents 3

Exit status: 0 done, 1 not possible or not in time, 2 wrong use."""

RETRY_SECONDS = 0.05
LINE_LIMIT = 20
CONDITION_HELP = "registered [DEVICES], connected [SESSION NUMBER], received HANDLER [COUNT]"
TAKE_COUNT = ("registered", "connected", "received")  # conditions of the command wait


def main(arguments: list[str] | None = None) -> int:
    options = parser().parse_args(arguments)
    try:
        options.run(options)
        sys.stdout.flush()
        return 0
    except Refusal as refusal:
        print(f"orvel-lab: {refusal}", file=sys.stderr)
    except KeyboardInterrupt:
        pass
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # whoever read the output has left
    except OSError as error:
        print(f"orvel-lab: {error}", file=sys.stderr)
    return 1


def parser() -> argparse.ArgumentParser:
    shape = argparse.RawDescriptionHelpFormatter
    top = argparse.ArgumentParser("orvel-lab", description=DESCRIPTION, epilog=EPILOG, formatter_class=shape)
    top.add_argument("--dir", type=Path, default=Path(".lab"), help="the lab's folder (.lab)")
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--dir", type=Path, default=argparse.SUPPRESS, help="the lab's folder (.lab)")
    commands = top.add_subparsers(title="commands", metavar="COMMAND", required=True)

    def command(name: str, run, about: str, more: str = "") -> argparse.ArgumentParser:
        added = commands.add_parser(
            name, parents=[common], help=about, description=f"{about[0].upper()}{about[1:]}. {more}".strip()
        )
        added.set_defaults(run=run)
        return added

    add_up(command("up", up, "run the lab in the foreground", "Empties its folder first. Ctrl-C or SIGTERM ends it."))

    sent = command("send", send, "send a message to a handler, through the broker")
    sent.add_argument("handler", help="tcp, unix, exec, event_sink, or 'agent' for a control request")
    what = sent.add_mutually_exclusive_group(required=True)
    what.add_argument("text", nargs="?", help="the payload")
    what.add_argument("--file", type=Path, help="a file that holds the payload")
    add_device(sent, "the newest session's")
    sent.add_argument("--chunks", type=numbers, default=[], metavar="N,N...", help="sizes of the first payload chunks")

    told = "The device learns of it through its control port (see the command control) or at its own claim checks."
    for name, state in (("claim", "claimed"), ("release", "not claimed")):
        add_device(command(name, simple(name), f"make the cloud say that the device is {state}", told), "all")

    advice = command("advise", advise, "set what the advisor answers from now on")
    add_device(advice, "all")
    advice.add_argument("action", choices=["connect", "wait"])
    advice.add_argument("seconds", nargs="?", type=int, help="how long to wait; below 1 is for ever")

    dropped = command("drop", drop, "end the agent's session with the broker")
    add_device(dropped, "the newest session's")
    dropped.add_argument("--reset", action="store_true", help="with a TCP reset in place of an orderly end")

    asked = command("control", control, "send a control request to the agent's port and print the reply")
    asked.add_argument("document", metavar="JSON", help="for instance '{\"command\": \"pause_connections\"}'")

    waited = command("wait", wait, "wait until something is so")
    waited.add_argument("condition", choices=["up", "registered", "connected", "disconnected", "received"])
    waited.add_argument("arguments", nargs="*", help=CONDITION_HELP)
    patience = "give up after that long (%(default)g)"
    waited.add_argument("--deadline", type=float, default=DEADLINE, metavar="SECONDS", help=patience)
    waited.set_defaults(usage_error=waited.error)
    advice.set_defaults(usage_error=advice.error)

    shown = command("status", status, "show devices, sessions, requests and received messages")
    shown.add_argument("--json", action="store_true", help="as a JSON document")
    traced = command("trace", trace, "show packets and HTTP exchanges as they happen")
    form = traced.add_mutually_exclusive_group()
    form.add_argument("--json", action="store_true", help="one JSON document a line")
    form.add_argument("--packets", action="store_true", help="the packets of the broker link alone, one a line")
    traced.add_argument("--recorded", action="store_true", help="what has happened so far, in place of what will")
    return top


def add_up(added: argparse.ArgumentParser) -> None:
    added.add_argument("--agent", type=Path, help="the agent's program (ORVEL_BIN, or build/bin/orvel beside the lab)")
    added.add_argument("--no-tls", dest="tls", action="store_false", help="plain TCP between agent and broker")
    page = "serve a web console on this port of 127.0.0.1 (any free one)"
    added.add_argument("--console", type=int, nargs="?", const=0, metavar="PORT", help=page)
    fleet = "run the agents of so many devices, DEVICE0000001 and so on"
    added.add_argument("--agents", type=devices, default=0, metavar="COUNT", help=fleet)
    proxy = "reach cloud and broker only through a real proxy; in a network of its own (unshare --net)"
    added.add_argument("--proxy", choices=list(KINDS), help=proxy)
    added.add_argument("--claimed", action="store_true", help="the device is claimed from the start")
    added.add_argument("--no-token", dest="token", action="store_false", help="the advisor gives no token")
    added.add_argument("--heartbeat", type=int, metavar="SECONDS", help="the advisor asks for heartbeats")
    added.add_argument("--agent-keepalive", metavar="TIME,PROBES,INTERVAL", help="in the advisor's answer")
    added.add_argument("--broker-keepalive", metavar="TIME,PROBES,INTERVAL", help="in the advisor's answer")
    added.add_argument("--hardware-id", default=HARDWARE_ID, help=f"of the agent command ({HARDWARE_ID})")
    more = "one more setting of the agent; may be repeated"
    added.add_argument("--set", type=key_and_value, action="append", default=[], metavar="KEY=VALUE", help=more)
    added.add_argument("--key-log", type=Path, metavar="FILE", help="log the keys of TLS, for a wire analyser")


def add_device(added: argparse.ArgumentParser, otherwise: str) -> None:
    added.add_argument("--device", metavar="HARDWARE_ID", help=f"whose; without it {otherwise}")


def devices(text: str) -> int:
    number = int(text)
    if not 0 <= number <= MOST_DEVICES:
        raise argparse.ArgumentTypeError(f"there are 0 to {MOST_DEVICES} devices, not {text}")
    return number


def numbers(text: str) -> list[int]:
    return [int(number) for number in text.split(",")]


def key_and_value(text: str) -> tuple[str, str]:
    key, equals, value = text.partition("=")
    if not key or not equals:
        raise argparse.ArgumentTypeError(f"'{text}' is not KEY=VALUE")
    return key, value


# The commands.


def up(options: argparse.Namespace) -> None:
    told = {name: value for name, value in vars(options).items() if name not in ("run", "dir", "set", "agent")}
    if options.agent is not None:
        told["agent"] = options.agent.resolve()
    Playground(Options(folder=options.dir, settings=dict(options.set), **told)).run()


def send(options: argparse.Namespace) -> None:
    payload = options.file.read_bytes() if options.file else os.fsencode(options.text)
    encoded = base64.b64encode(payload).decode()
    message = {"handler": options.handler, "payload": encoded, "chunks": options.chunks}
    print_done(options, {"do": "send", "device": options.device, **message})


def simple(do: str):
    return lambda options: print_done(options, {"do": do, "device": options.device})


def advise(options: argparse.Namespace) -> None:
    if (options.seconds is None) != (options.action == "connect"):
        options.usage_error("it is `advise connect` or `advise wait SECONDS`")
    print_done(options, {"do": f"advise-{options.action}", "device": options.device, "seconds": options.seconds})


def drop(options: argparse.Namespace) -> None:
    print_done(options, {"do": "drop", "device": options.device, "reset": options.reset})


def control(options: argparse.Namespace) -> None:
    print_done(options, {"do": "control", "document": options.document})


def wait(options: argparse.Namespace) -> None:
    handler = None
    rest = list(options.arguments)
    if options.condition == "received":
        handler = rest.pop(0) if rest else options.usage_error("received needs a handler")
    count = rest.pop(0) if rest else "1"
    if rest or not count.isdigit() or (options.arguments and options.condition not in TAKE_COUNT):
        options.usage_error(f"wrong arguments for {options.condition}: {' '.join(options.arguments)}")
    limit = time.monotonic() + options.deadline
    while True:
        try:
            request = {"do": "wait", "condition": options.condition, "handler": handler, "count": int(count)}
            print_done(options, {**request, "deadline": max(0.0, limit - time.monotonic())})
            return
        except NoLab:
            # "up" is the one thing that may still have to become so.
            if options.condition != "up" or time.monotonic() >= limit:
                raise
            time.sleep(RETRY_SECONDS)


def status(options: argparse.Namespace) -> None:
    document = ask(options.dir, {"do": "status"})
    print(json.dumps(document, indent=2) if options.json else status_text(document))


def trace(options: argparse.Namespace) -> None:
    show = json.dumps if options.json else packet_lines if options.packets else trace_entry
    for event in exchange(options.dir, {"do": "trace", "recorded": options.recorded}):
        if text := show(event):
            print(text, flush=True)


# Talking to the lab.


class NoLab(Refusal):
    """No lab is up in the folder."""


def exchange(folder: Path, request: dict[str, Any]) -> Iterator[dict[str, Any]]:
    try:
        address = json.loads((folder / LAB_FILE).read_text())["socket"]
        connection = socket.socket(socket.AF_UNIX)
        connection.connect(address)
    except (FileNotFoundError, ConnectionRefusedError):
        advice = "start one with `orvel-lab up`, or name its folder with --dir"
        raise NoLab(f"no lab is up in {folder} ({advice})") from None
    with connection, connection.makefile("rb") as answers:
        connection.sendall(json.dumps(request).encode())
        connection.shutdown(socket.SHUT_WR)
        for line in answers:
            yield json.loads(line)


def ask(folder: Path, request: dict[str, Any]) -> dict[str, Any]:
    answer = next(exchange(folder, request), None)
    if answer is None:
        raise Refusal("the lab ended before it answered")
    if "error" in answer:
        raise Refusal(answer["error"])
    return answer


def print_done(options: argparse.Namespace, request: dict[str, Any]) -> None:
    print(ask(options.dir, request)["done"])


# Showing.


def status_text(document: dict[str, Any]) -> str:
    broker = document["broker"]
    lines = [
        f"lab        {document['folder']}, pid {document['pid']}, cloud on port {document['cloud']['port']}",
        f"broker     {broker['host']} port {broker['port']}, {'TLS' if broker['tls'] else 'plain TCP'}",
        f"advisor    {json.dumps(document['advice'])}",
        f"control    port {document['control_port']}",
    ]
    if proxy := document["proxy"]:
        counts = f"{proxy['through']} connections through it, {proxy['past']} packets past it"
        lines.append(f"proxy      {proxy['kind']}, {proxy['name']} on port {proxy['port']}: {counts}")
    for device in document["devices"]:
        claimed = "claimed" if device["claimed"] else "not claimed"
        lines.append(f"device     {device['hardware_id']} is {device['id']}, {claimed}")
    lines += [f"requests   {kind}: {count}" for kind, count in document["requests"].items()]
    for session in document["sessions"]:
        state = "open" if session["open"] else session["ended_by"]
        ciphered = f"{session['tls']} {session['cipher']}" if session["tls"] else "plain TCP"
        known = f"{session['identity'] or 'no identity'}, {session['bytes']} bytes"
        lines.append(f"session {session['number']:<3}{state}, {ciphered}, {known}")
    lines += [f"received   {name}: {count}" for name, count in document["received"].items()]
    lines.append(f"agent      {document['agent_command_line']}")
    return "\n".join(lines)


def trace_entry(event: dict[str, Any]) -> str:
    details = event["details"]
    lines = [timeline_entry(event)]
    if "bytes" in details:
        more = " ..." if details["size"] > len(bytes.fromhex(details["bytes"])) else ""
        lines.append(f"{details['direction']}: {details['bytes']}{more}")
    if "headers" in details:
        lines += [f"> {name}: {value}" for name, value in details["headers"]]
        lines += shown("> ", details["body"]) + shown("< ", details["answer"])
    if "message" in details:
        lines += shown("", details["message"])
    return "\n             ".join(lines)


def packet_lines(event: dict[str, Any]) -> str:
    """The packets that an event has completed: when, in which session, from whom, and what the dissector says too."""
    details = event["details"]
    sender = "agent" if details.get("direction") == "in" else "broker"
    packets = details.get("packets", [])
    return "\n".join(f"{moment_of(event)} {details['session']} {sender:6} {packet}" for packet in packets)


def shown(mark: str, text: str) -> list[str]:
    lines = text.splitlines()
    more = [f"{mark}... {len(lines) - LINE_LIMIT} more lines"] if len(lines) > LINE_LIMIT else []
    return [mark + line for line in lines[:LINE_LIMIT]] + more
