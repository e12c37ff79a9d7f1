"""The command line of lab/lab. A command's usage says which arguments it takes, its docstring is its help."""
import argparse
import json
import math
import os
import re
import signal
import sys
from collections.abc import Callable
from pathlib import Path
from textwrap import dedent
from typing import Any, NamedTuple, NoReturn

from . import lab as labs
from .failure import Failure, UsageError
from .lab import DEFAULT_BUILD, Config, Lab
from .network import MAX_NODES, MAX_RING
from .node import DEFAULT_DAEMON, NODE_DIR, Node

Options = argparse.Namespace
Action = Callable[[Options], None]


class Command(NamedTuple):
    usage: str
    text: str
    run: Action
    words: int | str | None  # how many belong to what is no option, node or port, as argparse counts them

    def help(self) -> str:
        summary, *details = self.text.split("\n\n", 1)
        return "\n\n".join([f"lab {self.usage} [--name NAME]: {summary}", *details]) + "\n"


COMMANDS: dict[str, Command] = {}


def add(usage: str, run: Action, text: str, words: int | str | None = None) -> None:
    COMMANDS[usage.split()[0]] = Command(usage, text, run, words)


def command(usage: str, words: int | str | None = None) -> Callable[[Action], Action]:
    def register(run: Action) -> Action:
        add(usage, run, dedent(f"    {run.__doc__}").strip(), words)
        return run

    return register


# --- bringing up and down


def configure(options: Options) -> Config:
    if not re.fullmatch("[1-9][0-9]{0,3}", options.n) or int(options.n) > MAX_NODES:
        raise UsageError(f"1 to {MAX_NODES} nodes, not {options.n}")
    if not options.star and int(options.n) > MAX_RING:
        raise UsageError(f"a ring has at most {MAX_RING} nodes, use --star for more")
    build = Path(options.build or DEFAULT_BUILD).resolve()
    daemon = "" if options.no_daemon else options.daemon or DEFAULT_DAEMON
    rc = Path(os.environ.get("LUMLOG_RC") or os.devnull)
    thresholds = rc.read_text(encoding="utf-8") if os.access(rc, os.R_OK) else ""
    return Config(
        "star" if options.star else "ring", int(options.n), str(build), daemon, thresholds, options.foreground
    )


@command("up N [--star] [--build DIR] [--no-daemon] [--daemon CMD] [--foreground]")
def up(options: Options) -> None:
    """bring up N nodes

    Brings up nodes 1 to N, at most 250, and returns when their daemons are connected. The nodes form a
    ring, at most 10 of them: port B of each leads to port A of the next.

      --star        instead of a ring, plug port A of every node into one shared switch
      --build DIR   the build to run; default: $DIAG_BUILD, or build/release beside the lab
      --no-daemon   start brokers and cards only
      --daemon CMD  run CMD, a simple shell command, as the daemon. It finds the node number in $NODE and the
                    built daemon in $DIAG: --daemon 'valgrind $DIAG -n $NODE'. Nobody waits for it to connect.
      --foreground  stay until Ctrl-C, then end the lab

    If the environment names an rc file in LUMLOG_RC, every node gets a copy as /run/lumlog.rc.
    """
    process = None

    def leave(number: int, _: object) -> NoReturn:
        sys.exit(0 if process else 128 + number)

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, leave)
    config = configure(options)
    process = labs.launch(options.name, config)
    print(f"lab: a {config.shape} of {config.nodes} is up", flush=True)
    if config.attached:
        try:
            print("lab: Ctrl-C ends it", flush=True)
            process.wait()
        finally:
            labs.kill(process)
        raise Failure("the lab has ended")


@command("down")
def down(options: Options) -> None:
    """end the lab

    Ends every process of the lab at once. Nothing is left behind.
    """
    labs.end(options.name)


@command("status [--json]")
def status(options: Options) -> None:
    """show nodes, processes, ports

    Process ids are those inside the lab: lab exec NODE kill PID.

      --json        the same for programs; README.md beside this program lists the fields
    """
    report = labs.attach(options.name).status()
    if options.json:
        print(json.dumps(report))
        return
    row = "{:<5} {:<18} {:<13} {:<7} {:<7} {:<9} {:<9} {}"
    print(row.format("NODE", "MAC", "FIRE", "BROKER", "CARD", "DAEMON", "RING", "PORTS"))
    for node in report["nodes"]:
        ended = "-" if node["exit_status"] is None else f"exit:{node['exit_status']}"
        words = [node["broker"] or "-", node["card"] or "-", node["daemon"] or ended, node["ring"] or "-"]
        ports = " ".join(f"{port['port']}:{port['carrier']},{port['state']}" for port in node["ports"])
        print(row.format(node["node"], node["mac"], node["fire"], *words, ports or "-"))


# --- links and facts


def place(options: Options) -> tuple[Lab, Node]:
    """The lab, and the node that the command line names. The port that it may name is there."""
    lab = labs.attach(options.name)
    node = lab.node(options.node)
    if "port" in options:
        lab.check_port(options.port)
    return lab, node


def set_link(options: Options) -> None:
    lab, node = place(options)
    lab.set_link(node.number, options.port, "up" if options.command == "mend" else "down")


def tell_card(options: Options) -> None:
    port = [options.port] if "port" in options else []
    if len(options.words) > 2:
        raise wrong_words(COMMANDS[options.command])
    place(options)[1].ask_card(options.command, *port, *options.words)


def switch(options: Options) -> None:
    """The broker or the card, as the command is called."""
    if options.action not in ("start", "stop"):
        raise UsageError(f"start or stop, not {options.action}")
    node = place(options)[1]
    if options.action == "stop":
        node.stop(options.command)
        return
    {"broker": node.start_broker, "card": node.start_card}[options.command]()
    if node.pid("broker") and node.pid("card"):
        node.await_card()


CUT = "Both ends lose their carrier. Either end may be named. A ring is whole again 4 to 10 s later."
MEND = "The link comes back; spanning tree needs 4 s to use it."
ERRORS = "The port's statistics count COUNT more frames received with error."
GONE = "gone removes the announcement of the port."
MISWIRE = """\
The ring-protection status of this end of the link reports PEER_NODE and PEER_PORT as its peer,
in a way that counts as miswired. off reports the true neighbour again."""
CARD = """\
The card stands in for the other processes of the node: without it no facts are published and
nobody takes the system log. lab exec NODE mosquitto_pub -p 1885 ... can then play its part."""

add("cut NODE PORT", set_link, f"take a link down\n\n{CUT}")
add("mend NODE PORT", set_link, f"bring a link back\n\n{MEND}")
add("errors NODE PORT COUNT", tell_card, f"report more errored frames\n\n{ERRORS}", 1)
add("ground NODE PORT on|off", tell_card, "ground fault on a port", 1)
add("media NODE PORT eth|dsl|smf|mmf|none", tell_card, "a port's media", 1)
add("type NODE PORT fire|firespur|NAME|gone", tell_card, f"a port's type\n\n{GONE}", 1)
add("miswire NODE PORT PEER_NODE PEER_PORT|off", tell_card, f"report a wrong peer on a port\n\n{MISWIRE}", "+")
add("job NODE NAME REV", tell_card, "job name and revision", 2)
add("flag NODE M301|M702|comm_loss|download_pending on|off", tell_card, "download flags", 2)


# --- processes


@command("start NODE [--daemon CMD] [--no-wait]")
def start(options: Options) -> None:
    """start the daemon

    Waits until the daemon has announced itself on its broker, unless --no-wait or --daemon is given.
    --daemon holds for this start only; see lab help up.
    """
    lab, node = place(options)
    daemon = options.daemon or lab.config.daemon or DEFAULT_DAEMON
    node.start_daemon(daemon, wait=daemon == DEFAULT_DAEMON and not options.no_wait)


@command("stop NODE")
def stop(options: Options) -> None:
    """end the daemon with SIGTERM

    Prints the exit status, 128 + signal number for a death by signal.
    """
    print(place(options)[1].stop("daemon"))


@command("kill NODE")
def kill(options: Options) -> None:
    """end the daemon with SIGKILL

    Prints the exit status, 137.
    """
    print(place(options)[1].stop("daemon", "KILL"))


@command("restart NODE [--daemon CMD] [--no-wait]")
def restart(options: Options) -> None:
    """stop and start the daemon"""
    if place(options)[1].pid("daemon"):
        stop(options)
    start(options)


@command("wait NODE [--timeout SECONDS]")
def wait(options: Options) -> None:
    """wait for the daemon's end

    Prints the exit status, 128 + signal number for a death by signal. An ended daemon needs no wait.
    """
    try:
        seconds = float(options.timeout or math.inf)
    except ValueError:
        raise UsageError(f"not a number of seconds: {options.timeout}") from None
    print(place(options)[1].wait("daemon", seconds))


add("broker start|stop NODE", switch, "start or stop the broker")
add("card start|stop NODE", switch, f"start or stop the stand-in\n\n{CARD}")


# --- inside a node


def enter(options: Options, *words: str) -> NoReturn:
    inside = place(options)[1].command(*words)
    os.execvp(inside[0], inside)


@command("exec NODE COMMAND...", words=argparse.PARSER)
def execute(options: Options) -> None:
    """run a command in a node

    Runs in the namespaces and the root directory of the node, as its root user; input, output and
    exit status are those of COMMAND. The build directory is visible at its own path and the first in
    PATH: exec 1 diagctl nodes.
    """
    enter(options, *options.words)


@command("shell NODE")
def shell(options: Options) -> None:
    """open a shell in a node"""
    enter(options, f"PS1=node{options.node}:\\w# ", "bash", "--norc")


@command("logs NODE [-f]")
def logs(options: Options) -> None:
    """show a node's log

    The system log of the node with what its processes write to standard output and error.
    """
    enter(options, "tail", "-n", "+1", *(["-f"] if options.f else []), f"/{NODE_DIR}/log")


@command("help [COMMAND]", words="?")
def show_help(options: Options) -> None:
    """explain a command"""
    if options.words and options.words not in COMMANDS:
        options.command = ""
        raise UsageError(f"unknown command {options.words}")
    print(COMMANDS[options.words].help() if options.words else overview(), end="")


# --- the command line


def overview() -> str:
    rows = "\n".join(f"  lab {entry.usage:<62} {entry.text.splitlines()[0]}" for entry in COMMANDS.values())
    return f"""\
A panel network on one machine: nodes with real links, brokers and daemons.

{rows}

Labs with different names run side by side: --name NAME, or LAB_NAME in the environment.
Exit status: 0 done, 1 failed, 2 wrong command line; lab exec gives that of its command.
"""


def wrong_words(entry: Command) -> UsageError:
    return UsageError(f"usage: lab {entry.usage}")


class Parser(argparse.ArgumentParser):
    """Of one command, or of them all: argparse in the lab's own words."""

    def __init__(self, entry: Command | None = None, **words: Any):
        super().__init__(allow_abbrev=False, exit_on_error=False, **words)
        self.entry = entry
        self.add_argument("--name", default=argparse.SUPPRESS)
        if entry:
            self._add_arguments(entry)

    def _add_arguments(self, entry: Command) -> None:
        names = {"N": "n", "NODE": "node", "PORT": "port", "start|stop": "action"}
        for option, value, word in re.findall(r"\[(-\S+?)(?: (\S+))?\]|(\S+)", entry.usage):
            if option:
                self.add_argument(option, action="store" if value else "store_true")
            elif word in names:
                self.add_argument(names[word])
        if entry.words:
            self.add_argument("words", nargs=entry.words)

    def format_help(self) -> str:
        return self.entry.help() if self.entry else overview()

    def error(self, message: str) -> NoReturn:
        assert self.entry
        raise wrong_words(self.entry)


def parse(words: list[str], options: Options) -> None:
    parser = Parser()
    subparsers: Any = parser.add_subparsers(dest="command")
    for name, entry in COMMANDS.items():
        subparsers.add_parser(name, entry=entry)
    try:
        _, rest = parser.parse_known_args(words, options)
    except argparse.ArgumentError as error:
        if error.argument_name == "command":
            raise UsageError("unknown command " + error.message.split("'")[1]) from None
        raise UsageError(f"{error.argument_name} needs a value") from None
    for word in rest:
        raise UsageError(f"unknown option {word}") if word[0] == "-" else wrong_words(COMMANDS[options.command])
    if not re.fullmatch("[A-Za-z0-9_-]+", options.name):
        raise UsageError(f"a name has letters, digits, - and _ only: {options.name}")


def main(words: list[str]) -> int:
    options = argparse.Namespace(command=None, name=os.environ.get("LAB_NAME") or "lab")
    try:
        parse(words, options)
        if not options.command:
            print(overview(), end="", file=sys.stderr)
            return 2
        COMMANDS[options.command].run(options)
        sys.stdout.flush()
    except BrokenPipeError:  # the reader, such as head, has enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except UsageError as error:
        print(f"lab: {error}", f"lab: try: lab help {options.command or ''}".rstrip(), sep="\n", file=sys.stderr)
        return 2
    except Failure as failure:
        for reason in str(failure).splitlines():
            print(f"lab: {reason}", file=sys.stderr)
        return 1
    return 0
