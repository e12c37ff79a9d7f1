"""A lab that is up, found by its name."""
import glob
import json
import os
import re
import select
import shutil
import signal
import subprocess
from contextlib import suppress
from pathlib import Path
from typing import Any, NamedTuple

from .failure import Failure, UsageError, run, search_path
from .network import SHAPES
from .node import DEFAULT_DAEMON, STATE, Node

SOURCE = Path(__file__).resolve().parent.parent.parent
DEFAULT_BUILD = Path(os.environ.get("DIAG_BUILD") or SOURCE / "build" / "release").resolve()
SUPERVISOR = "diag-lab:{}"
NAMESPACES = ["unshare", "--user", "--map-root-user", "--net", "--mount", "--pid", "--ipc", "--uts", "--fork"]
READY = "ready"
END_SECONDS = 10


class Config(NamedTuple):
    """What a lab is made from."""

    shape: str
    nodes: int
    build: str = str(DEFAULT_BUILD)
    daemon: str = DEFAULT_DAEMON  # a shell command; empty: none is started
    rc: str = ""  # every node's file of thresholds
    attached: bool = False  # whether the lab ends with the process that has brought it up


class Lab:
    """Seen from outside, given the supervisor's process id, or by the supervisor itself."""

    def __init__(self, config: Config, supervisor: int | None = None):
        self.config, self.network = config, SHAPES[config.shape](config.nodes)
        self.supervisor = supervisor
        self.entry = ["nsenter"]
        if supervisor:
            self.entry += ["--target", str(supervisor), "--user", "--preserve-credentials", "--mount", "--pid", "--ipc"]
        self.nodes = {number: Node(self, number) for number in self.network.nodes}

    def path(self, path: Path) -> Path:
        """A path inside the lab as seen from here."""
        return Path(f"/proc/{self.supervisor}/root{path}") if self.supervisor else path

    def command(self, *words: str) -> list[str]:
        """Runs words in the lab's own namespaces, where the switch is and from where ip -n reaches the nodes."""
        return [*self.entry, "--net", "--uts", *words] if self.supervisor else [*words]

    def node(self, number: str) -> Node:
        """By a word of the command line."""
        if number not in map(str, self.nodes):
            raise UsageError(f"unknown node {number}, the lab has 1 to {self.network.count}")
        return self.nodes[int(number)]

    def check_port(self, port: str) -> None:
        if port not in self.network.ports:
            raise UsageError(f"unknown port {port}, a node of this lab has {' and '.join(self.network.ports)}")

    def set_link(self, node: int, port: str, state: str) -> None:
        """Takes the link up or down; either end may be named."""
        run(self.command("ip", *self.network.switch(node, port), state))

    def status(self) -> dict[str, Any]:
        """The JSON of lab status."""
        nodes = [node.status() for node in self.nodes.values()]
        return {"shape": self.config.shape, "build": self.config.build, "nodes": nodes}


def find(name: str, owner: int = os.geteuid()) -> int | None:
    """The process id of a lab's supervisor."""
    start = SUPERVISOR.format(name).encode() + b"\0"
    for process in map(Path, glob.iglob("/proc/[0-9]*")):
        with suppress(OSError):  # it may have ended meanwhile
            if (process / "cmdline").read_bytes().startswith(start) and process.stat().st_uid == owner:
                # The last number is the id in the innermost namespace: a child of the supervisor has another one.
                if re.search(r"^NSpid:.*\t1$", (process / "status").read_text(encoding="utf-8"), re.MULTILINE):
                    return int(process.name)
    return None


def check(config: Config) -> None:
    """What the machine and the build need to have."""
    for tool in ("unshare", "nsenter", "setsid", "ip", "mosquitto"):
        if not shutil.which(tool, path=search_path()):
            raise Failure(f"{tool} is missing: install the packages util-linux, iproute2, mosquitto")
    build = Path(config.build)
    for program in ["lab/card"] + ["diag"] * (config.daemon == DEFAULT_DAEMON):
        if not os.access(build / program, os.X_OK):
            raise Failure(f"no executable {build / program}: build first, or give --build DIR")
    for path in (build, SOURCE):
        if re.match("/(run|dev|proc|sys)/", str(path)):
            raise Failure(f"{path} would be hidden inside the lab")
    if subprocess.run([*NAMESPACES, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        raise Failure("user namespaces are not allowed here: see README.md beside this program")


def launch(name: str, config: Config) -> "subprocess.Popen[str]":
    """Returns when the lab is up: the process that waits for the supervisor, and whose end is the lab's as well. A lab
    that is attached ends with its input: with this process, however that ends."""
    check(config)
    if find(name):
        raise Failure(f"a lab named {name} is up already")
    process = subprocess.Popen(
        [*NAMESPACES, "--kill-child", "--mount-proc", "bash", "-c", 'exec -a "$0" "$@"', SUPERVISOR.format(name)]
        + ["/usr/bin/python3", "-m", "diaglab.supervisor"],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,  # a lab that outlives this process keeps none of its files open
        cwd=SOURCE / "lab",
        text=True,
        start_new_session=True,
        umask=0o022,
    )
    try:
        _await_ready(process, name, config)
    except BaseException:
        kill(process)
        raise
    return process


def _await_ready(process: "subprocess.Popen[str]", name: str, config: Config) -> None:
    assert process.stdin and process.stdout
    with suppress(BrokenPipeError):
        process.stdin.write(json.dumps(config._asdict()) + "\n")
        process.stdin.flush()
    reasons = []
    for line in process.stdout:
        if line.rstrip() == READY:
            return
        reasons.append(line.rstrip())
    raise Failure("\n".join([*reasons, f"lab {name} ended before it was up"]))


def kill(process: "subprocess.Popen[str]") -> None:
    """Ends a lab that was launched, and returns when it is over."""
    assert process.stdout
    with process:
        process.kill()
        process.stdout.read()  # ends when the supervisor does


def require(name: str) -> int:
    if supervisor := find(name):
        return supervisor
    raise Failure(f"no lab named {name} is up")


def attach(name: str) -> Lab:
    supervisor = require(name)
    try:
        text = Path(f"/proc/{supervisor}/root{STATE}/config").read_text(encoding="utf-8")
    except OSError:
        raise Failure(f"lab {name} is not ready") from None
    return Lab(Config(**json.loads(text)), supervisor)


def end(name: str) -> None:
    """Ends the supervisor, whose end comes when all processes of the lab have ended."""
    with suppress(ProcessLookupError), open(os.pidfd_open(require(name)), "rb", buffering=0) as process:
        signal.pidfd_send_signal(process.fileno(), signal.SIGKILL)
        if not select.select([process], [], [], END_SECONDS)[0]:
            raise Failure(f"lab {name} has been killed, but a process of it is stopped from outside and can't end")
