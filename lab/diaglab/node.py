"""A node of a lab that is up: its broker, its card and its daemon."""
import socket
import subprocess
from pathlib import Path
from typing import TYPE_CHECKING, Any

from .failure import Failure, UsageError, run, search_path, wait_until
from .network import address_of, mac_of

if TYPE_CHECKING:
    from .lab import Lab

STATE = Path("/run/lab")  # inside the lab's mount namespace: config, uts/, machine/ and a root for each node
NAMESPACES = Path("/run/netns")
NODE_DIR = Path("run/lab")  # inside a node's root: what the lab keeps for the node
START_SECONDS = 30
STOP_SECONDS = 10
CARD_SECONDS = 5
CARD_ANSWER_MAX = 4096
DEFAULT_DAEMON = '"$DIAG" -n "$NODE"'

# A process runs while it has a pid file and no status file.
RUN = """\
exec 2>/dev/null # the shell's own word on a death by signal
cd /run/lab
name=$1
shift
"$@" 2>&1 &
echo $! >$name.pid
wait $!
echo $? >$name.status
"""


class Node:
    def __init__(self, lab: "Lab", number: int):
        self.lab, self.number = lab, number
        self.mac, self.address = mac_of(number), address_of(number)
        self.root = lab.path(STATE) / str(number)
        self.directory = self.root / NODE_DIR

    def command(self, *words: str) -> list[str]:
        """Runs words in the namespaces and the root directory of the node."""
        return [
            *self.lab.entry,
            f"--net={self.lab.path(NAMESPACES)}/{self.number}",
            f"--uts={self.lab.path(STATE)}/uts/{self.number}",
            *(f"--root={self.root}", f"--wd={self.root}"),
            *("env", f"PATH={self.lab.config.build}:{search_path()}"),
            *(f"NODE={self.number}", f"DIAG={self.lab.config.build}/diag"),
            *(f"VEXA_CARD_ADDR_FILE=/{NODE_DIR}/card_addr", "LUMLOG_RC=/run/lumlog.rc"),
            *words,
        ]

    def failure(self, reason: str, *logs: str) -> Failure:
        """With the last lines of logs."""
        texts = [(self.directory / log).read_text(encoding="utf-8", errors="replace") for log in logs]
        lines = [line for text in texts for line in text.splitlines()[-3:]]
        return Failure(f"node {self.number}: {reason}" + (": " + "; ".join(lines) if lines else ""))

    # --- processes, each known by name: broker, card, daemon

    def pid(self, process: str) -> int | None:
        """Inside the lab; None while it doesn't run."""
        return self._number(f"{process}.pid") if self.exit_status(process) is None else None

    def exit_status(self, process: str) -> int | None:
        """128 + signal number for a death by signal; None before its end."""
        return self._number(f"{process}.status")

    def _number(self, name: str) -> int | None:
        try:
            return int((self.directory / name).read_text(encoding="ascii"))
        except (FileNotFoundError, ValueError):  # the shell makes the file before it writes
            return None

    def _spawn(self, process: str, log: str, *words: str) -> None:
        if self.pid(process):
            raise self.failure(f"the {process} runs already")
        for name in ("pid", "status"):
            (self.directory / f"{process}.{name}").unlink(missing_ok=True)
        command = self.command("setsid", "--fork", "sh", f"/{NODE_DIR}/run", process, *words)
        with (self.directory / log).open("ab") as output:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, check=False)
        if done.returncode != 0:
            raise self.failure(f"the {process} doesn't start", log)
        late = f"the {process} doesn't start"
        wait_until(lambda: self._number(f"{process}.pid"), START_SECONDS, lambda: self.failure(late, log))

    def start_broker(self) -> None:
        self._spawn("broker", "broker.log", "mosquitto", "-c", f"/{NODE_DIR}/mosquitto.conf")

    def start_card(self) -> None:
        ports = self.lab.network.card_ports(self.number)
        self._spawn("card", "log", f"{self.lab.config.build}/lab/card", f"/{NODE_DIR}/nodes", *ports)

    def await_card(self) -> None:
        """Waits until the card has met its broker."""

        def met() -> bool:
            self._check_alive("broker", "broker.log")
            self._check_alive("card", "log")
            return bool(self.card_status().get("broker") == "connected")

        late = "card and broker don't meet"
        wait_until(met, START_SECONDS, lambda: self.failure(late, "broker.log", "log"))

    def _check_alive(self, process: str, log: str) -> None:
        if (status := self.exit_status(process)) is not None:
            raise self.failure(f"the {process} ended with exit status {status}", log)

    def start_daemon(self, command: str = DEFAULT_DAEMON, wait: bool = True) -> None:
        """Waits until the daemon has announced itself on its broker, which the card sees."""
        if self.pid("daemon"):
            raise self.failure("the daemon runs already")
        before = self.card_status().get("daemon")
        if wait and not before:
            raise self.failure("no card answers that would see the daemon connect, use --no-wait")
        self._spawn("daemon", "log", "sh", "-c", f"exec {command}")
        if not wait:
            return

        def connected() -> bool:
            self._check_alive("daemon", "log")
            return self.card_status().get("daemon") not in (None, before)

        late = "the daemon doesn't connect"
        wait_until(connected, START_SECONDS, lambda: self.failure(late, "log"))

    def stop(self, process: str, signal: str = "TERM") -> int:
        """Returns the exit status."""
        pid = self.pid(process)
        if pid is None:
            raise self.failure(f"the {process} doesn't run")
        run(self.command("sh", "-c", f"kill -s {signal} {pid}"))
        return self.wait(process, STOP_SECONDS)

    def wait(self, process: str, seconds: float) -> int:
        """Waits for the end of a process that has been started, and returns the exit status."""
        if self._number(f"{process}.pid") is None:
            raise self.failure(f"the {process} was never started")
        late = f"the {process} still runs after {seconds:g} s"
        wait_until(lambda: self.exit_status(process) is not None, seconds, lambda: self.failure(late))
        return self.exit_status(process) or 0

    # --- what the card says

    def ask_card(self, *words: str) -> str:
        """Gives the card a command and returns its answer. Both are one packet: words, each ended by a NUL; and a text
        after + or, where the command is refused, -."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as card:
            card.settimeout(CARD_SECONDS)
            try:
                card.connect(str(self.directory / "card.sock"))
                card.send("".join(f"{word}\0" for word in words).encode())
                answer = card.recv(CARD_ANSWER_MAX).decode()
            except OSError:
                answer = ""
        if not answer:
            raise self.failure("the card doesn't answer")
        if answer[0] == "-":
            raise UsageError(answer[1:])
        return answer[1:]

    def card_status(self) -> dict[str, Any]:
        """The card's account of broker, daemon, ring and ports; empty when it doesn't answer."""
        try:
            rows = [line.split() for line in self.ask_card("status").splitlines()]
        except Failure:
            return {}
        ports = [dict(zip(("port", "carrier", "state"), row[1:])) for row in rows if row[0] == "port"]
        return {row[0]: row[1] for row in rows} | {"ports": ports}

    def status(self) -> dict[str, Any]:
        """As in the JSON of lab status."""
        card = self.card_status()
        return {
            "node": self.number,
            "mac": self.mac,
            "fire": self.address,
            **{process: self.pid(process) for process in ("broker", "card", "daemon")},
            "exit_status": self.exit_status("daemon"),
            "ring": card.get("ring"),
            "ports": card.get("ports", []),
        }
