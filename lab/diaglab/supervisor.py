"""Brings a lab up, and is the process on which it hangs: lab.launch starts it from outside.

It runs as pid 1 of the lab's namespaces, under a name by which it is found, and gets the lab's configuration in the
first line of its input. It says what goes wrong, or that the lab is ready. From then on it takes in orphans.
"""
import json
import os
import signal
import sys
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from . import rootfs
from .failure import Failure, run, wait_until
from .lab import SOURCE, READY, Config, Lab
from .network import Ring
from .node import DEFAULT_DAEMON, NODE_DIR, RUN, START_SECONDS, STATE, Node

AT_ONCE = 8
BRIDGE_PORT_FORWARDS = "3"


def each_node(lab: Lab, step: Callable[[Node], None]) -> None:
    """Takes a step for every node, some at a time. A thread serves one step: it may end up in a node's network."""
    with ThreadPoolExecutor(AT_ONCE) as pool:
        steps = {number: pool.submit(step, node) for number, node in lab.nodes.items()}
    reasons = []
    for number, done in steps.items():
        if error := done.exception():
            own = f"node {number}: "
            reasons.append(own + f"{step.__name__}: ".replace("_", " ") + str(error).removeprefix(own))
    if reasons:
        raise Failure("\n".join(reasons))


def ip(commands: list[str], *words: str) -> None:
    run(["ip", *words, "-batch", "-"], stdin="\n".join(commands))


def bring_up(lab: Lab) -> None:
    directories = rootfs.prepare([SOURCE, Path(lab.config.build)])
    nodes = "".join(f"{node.number} {node.mac} {node.address}\n" for node in lab.nodes.values())
    files = {f"{NODE_DIR}/nodes": nodes, f"{NODE_DIR}/run": RUN}
    if lab.config.rc:
        files["run/lumlog.rc"] = lab.config.rc

    def make_root(node: Node) -> None:
        rootfs.make_namespaces(node.number)
        rootfs.make_root(node.number, directories, files)

    def configure_links(node: Node) -> None:
        ip(lab.network.node_links(node.number), "-n", str(node.number))

    def start_programs(node: Node) -> None:
        node.start_broker()
        node.start_card()
        node.await_card()
        if lab.config.daemon:
            node.start_daemon(lab.config.daemon, wait=lab.config.daemon == DEFAULT_DAEMON)

    each_node(lab, make_root)
    ip(lab.network.links())
    each_node(lab, configure_links)
    if isinstance(lab.network, Ring):
        close_ring(lab, lab.network)
    each_node(lab, start_programs)


def close_ring(lab: Lab, ring: Ring) -> None:
    """The nodes are a line so far, whose ports forward at once. Spanning tree leaves them so when it starts, and the
    link that closes the ring costs so much that it is always the one to be blocked while the ring is whole."""

    def await_forwarding(node: Node) -> None:
        for port in set(ring.ports) - ring.closing_ports(node.number):
            state = node.root / f"sys/class/net/{port}/brport/state"
            wait_until(
                lambda: state.read_text(encoding="ascii").strip() == BRIDGE_PORT_FORWARDS,
                START_SECONDS,
                lambda: Failure(f"port {port} doesn't come up"),
            )

    def protect(node: Node) -> None:
        ip(ring.protection(node.number), "-n", str(node.number))

    each_node(lab, await_forwarding)
    each_node(lab, protect)
    lab.set_link(ring.closing, "B", "up")


def hang_on(attached: bool) -> None:
    """The kernel takes orphans away whose parent ignores their end."""
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    if attached:
        sys.stdin.read()
        return
    nothing = os.open("/dev/null", os.O_RDWR)
    for descriptor in range(3):
        os.dup2(nothing, descriptor)
    while True:
        signal.pause()


def main() -> None:
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: os._exit(1))
    config = Config(**json.loads(sys.stdin.readline()))
    try:
        bring_up(Lab(config))
    except (Failure, OSError) as error:
        sys.exit(str(error))
    (STATE / "config").write_text(json.dumps(config._asdict()), encoding="utf-8")
    print(READY, flush=True)
    hang_on(config.attached)


if __name__ == "__main__":
    main()
