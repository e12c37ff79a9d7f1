"""The tour of ./demo --story: what is done to a ring of five nodes, and that every broker then tells of it.

What the brokers tell comes from diagctl, which runs beside each of them. A step that isn't seen in time ends the story.
"""
import json
import subprocess
import threading
import time
from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from typing import Any

import diaglab
from diaglab.network import mac_of

NODES = range(1, 6)
NUMBERS = {mac_of(node): node for node in NODES}
LAB = "lab/lab"

# The daemons' wall clock is set so that a quarter hour closes this many seconds after their start: long enough for the
# steps that come before, of which two take up to 20 s when summaries get lost while the ring heals.
QUARTER_HOUR_AFTER = 110

LEGEND = """\
   Drawn from what diagctl prints on the brokers: G, Y and R are green, yellow and red ports, ! is a port in the
   ground-fault list, x x a link with an end in the link-down list, (4) a node of which nothing is known."""


@dataclass(frozen=True)
class Picture:
    """What a broker tells. Ports are written 2B."""

    colours: dict[str, str] = field(default_factory=dict)
    link_down: frozenset[str] = frozenset()
    ground_fault: frozenset[str] = frozenset()
    ring: str = "normal"

    def link(self, node: int) -> str:
        """From port B of a node to port A of the next."""
        return "--x x--" if {f"{node}B", f"{node % len(NODES) + 1}A"} & self.link_down else "-------"

    def mark(self, port: str) -> str:
        return self.colours.get(port, "-") + ("!" if port in self.ground_fault else " ")

    def text(self) -> str:
        names = [f"A {node} B" if f"{node}A" in self.colours else f" ({node}) " for node in NODES]
        ring = "".join(name + self.link(node) for node, name in zip(NODES, names)).removesuffix(self.link(NODES[-1]))
        marks = "       ".join(f"{self.mark(f'{node}A')} {self.mark(f'{node}B')}".rstrip().ljust(5) for node in NODES)
        back = self.link(NODES[-1]).center(len(ring) + 2, "-")
        down, ground = (" ".join(sorted(ports)) or "none" for ports in (self.link_down, self.ground_fault))
        told = f"link down {down}, ground fault {ground}, ring {self.ring}"
        return "\n".join(f"   {line}" for line in (f"+-{ring}-+", f"| {marks} |", f"+{back}+", told))


def expect(
    red: str = "", yellow: str = "", gone: int = 0, down: str = "", ground: str = "", ring: str = "normal"
) -> Picture:
    """All ports green but those named."""
    colours = {f"{node}{port}": "G" for node in NODES if node != gone for port in "AB"}
    colours |= dict.fromkeys(red.split(), "R") | dict.fromkeys(yellow.split(), "Y")
    return Picture(colours, frozenset(down.split()), frozenset(ground.split()), ring)


class Broker:
    """The newest lines of diagctl on a node's broker."""

    def __init__(self, node: diaglab.Node, changed: threading.Condition):
        self.node, self.changed = node, changed
        self.told: dict[str, dict[str, Any]] = {}
        for command in ("nodes", "lists"):
            words = node.command("diagctl", command, "--watch", "--json")
            process = subprocess.Popen(words, stdout=subprocess.PIPE, text=True)
            threading.Thread(target=self._read, args=(command, process), daemon=True).start()

    def _read(self, command: str, process: "subprocess.Popen[str]") -> None:
        for line in process.stdout or ():
            with self.changed:
                self.told[command] = json.loads(line)
                self.changed.notify()

    def picture(self) -> Picture:
        nodes = self.told.get("nodes", {"nodes": []})["nodes"]
        lists = self.told.get("lists", {"link_down": None, "ground_fault": None, "ring": None})
        return Picture(
            {
                f"{NUMBERS[node['mac']]}{port['port']}": port["colour"][0].upper()
                for node in nodes
                for port in node["ports"] or []
                if port["colour"]
            },
            listed(lists["link_down"]),
            listed(lists["ground_fault"]),
            lists["ring"] or "unknown",
        )


def listed(entries: list[dict[str, Any]] | None) -> frozenset[str]:
    """The ports of a list. A node that it gives another number than its own is none of the ring's."""
    owners = [(entry, "" if NUMBERS[entry["mac"]] == entry["number"] else "?") for entry in entries or []]
    return frozenset(f"{wrong}{entry['number']}{port}" for entry, wrong in owners for port in entry["ports"])


class Story:
    def __init__(self, lab: diaglab.Lab):
        self.lab = lab
        self.changed = threading.Condition()
        self.brokers: dict[int, Broker] = {}
        self.seen: list[str] = []
        self.start = 0.0

    def step(self, title: str, *words: str) -> None:
        """What is done, as a command of the lab that may be typed."""
        print(f"\n== {len(self.seen) + 1}. {title}", flush=True)
        self.start = time.monotonic()
        if words:
            print(f"   $ {LAB}", *words, flush=True)
            status = subprocess.run([LAB, *words], stdout=subprocess.DEVNULL, check=False).returncode
            if status != 0:
                raise diaglab.Failure(f"the command failed with exit status {status}")

    def see(self, what: str, seconds: float, wanted: Picture, brokers: Sequence[int] = NODES) -> None:
        """Waits until the brokers of these nodes show the picture, all at once."""
        since: dict[int, float] = {}
        with self.changed:
            while True:
                now = time.monotonic() - self.start
                showing = [node for node in brokers if self.brokers[node].picture() == wanted]
                since = {node: since.get(node, now) for node in showing}
                if len(since) == len(brokers) or now > seconds:
                    break
                self.changed.wait(seconds - now)
            drawn: dict[str, list[int]] = {}
            for node in brokers:
                drawn.setdefault(self.brokers[node].picture().text(), []).append(node)
        for text, nodes in drawn.items():
            print(text)
            times = (f"node {node}" + (f" after {since[node]:.1f} s" if node in since else "") for node in nodes)
            print("   on the brokers of", ", ".join(times))
        if len(since) < len(brokers):
            raise diaglab.Failure(f"{what}: not seen on every broker within {seconds:.0f} s")
        self.seen.append(f"after {now:4.1f} s  {what}")

    def start_daemons(self) -> float:
        """Returns when their quarter hour closes."""
        closes = time.time() + QUARTER_HOUR_AFTER
        clock = "LD_PRELOAD='/usr/$LIB/faketime/libfaketime.so.1' FAKETIME_DONT_FAKE_MONOTONIC=1"
        daemon = f'env {clock} FAKETIME=+{900 - int(closes) % 900}s "$DIAG" -n "$NODE"'
        start_daemons(self.lab, daemon)
        self.brokers = {number: Broker(node, self.changed) for number, node in self.lab.nodes.items()}
        return closes

    def tell(self) -> None:
        print(LEGEND)
        self.step("Five daemons start")
        closes = self.start_daemons()
        self.see("all nodes see each other, all ports green", 40, expect())

        self.step("The link between port B of node 2 and port A of node 3 is cut", "cut", "2", "B")
        cut = expect(red="2B 3A", down="2B 3A", ring="degraded")
        self.see("both ports red and in the link-down list", 40, cut)

        self.step(
            "The link is mended: it is up again, but the fault counts in the running quarter hour", "mend", "2", "B"
        )
        self.see("link-down list empty, the ports still red", 40, expect(red="2B 3A"))

        self.step("A ground fault on port A of node 4", "ground", "4", "A", "on")
        self.see("the port in the ground-fault list", 20, expect(red="2B 3A", ground="4A"))

        self.step("The ground fault is gone", "ground", "4", "A", "off")
        self.see("ground-fault list empty", 20, expect(red="2B 3A"))

        left = max(closes - time.time(), 0)
        self.step(f"The quarter hour closes, in {left:.0f} s by the daemons' clock")
        self.see("the two ports yellow, not green", left + 40, expect(yellow="2B 3A"))

        reset = ["exec", "1", "diagctl", "reset", "--all", "--yes"]
        self.step("Node 1 resets all statistics of the network", *reset)
        self.see("the two ports green", 20, expect())

        self.step("The daemon of node 4 stops, and says goodbye", "stop", "4")
        self.see("node 4 withdrawn on the other brokers at once", 3, expect(gone=4), [1, 2, 3, 5])

        self.step("The daemon of node 4 starts again", "start", "4")
        self.see("node 4 back on all brokers", 40, expect())

        print("\n== Seen on every broker", *self.seen, sep="\n   ")


def start_daemons(lab: diaglab.Lab, command: str = diaglab.DEFAULT_DAEMON) -> None:
    """All at once, and not before spanning tree has settled: what they multicast at their start arrives only then."""

    def start(node: diaglab.Node) -> None:
        node.start_daemon(command)

    with ThreadPoolExecutor() as pool:
        list(pool.map(start, lab.nodes.values()))
