"""A panel network on one machine: namespaces, real links, real brokers, the real daemon.

A lab is one tree of processes in namespaces of its own. Its first process, the supervisor, is pid 1 of the pid
namespace: when it ends, the kernel ends everything else and takes down every mount and interface. All state of a lab
is in a tmpfs that only its own processes see; what runs outside finds it by the supervisor's name in /proc.

    network      who has which addresses, which link leads where
    rootfs       the namespaces and the root directory of a node
    node         what runs in a node: broker, card, daemon
    lab          a lab that is up, as the commands and the tests use it
    supervisor   brings a lab up, and is what it hangs on
    topics       the daemon's topics by name; not of the lab itself, which runs without its source
    commands     the command line of lab/lab
"""
from .failure import Failure
from .lab import DEFAULT_BUILD, Config, Lab, attach, find, kill, launch
from .node import DEFAULT_DAEMON, Node

__all__ = ["DEFAULT_BUILD", "DEFAULT_DAEMON", "Config", "Failure", "Lab", "Node", "attach", "find", "kill", "launch"]
