"""A local cloud for the agent: the other side of every wire that it speaks.

The command `orvel-lab` runs it as a playground; tests script it in-process (see lab/README.md).
"""

from .agent import Agent, SanitizerReport
from .broker import Broker, Session
from .certificates import Authority, Certificate
from .cloud import Cloud, Reply, Request
from .control import Control
from .handlers import ExecutableSink, TcpSink, UnixSink
from .lab import Lab
from .packets import Packet, Type
from .scripted_proxy import Answer, ProxyConnection, ScriptedProxy
from .waiting import DEADLINE, DeadlinePassed, Event, Journal, wait_until

__all__ = [
    "Agent", "Answer", "Authority", "Broker", "Certificate", "Cloud", "Control", "DEADLINE", "DeadlinePassed", "Event",
    "ExecutableSink", "Journal", "Lab", "Packet", "ProxyConnection", "Reply", "Request", "SanitizerReport",
    "ScriptedProxy", "Session", "TcpSink", "Type", "UnixSink", "wait_until",
]
