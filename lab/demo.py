"""The lab of ./demo: five nodes in a ring, shown live or as a story. It ends with this program, however that ends."""
import os
import signal
import socket
import subprocess
import sys
import termios
from typing import NoReturn

import diaglab
from diaglab.failure import wait_until
from story import NODES, Story, start_daemons

SPANNING_TREE_SECONDS = 30
CONSOLE_PORT = 9886
LEAVE_FULL_SCREEN = "\033[?1049l\033[?25h"


def await_spanning_tree(lab: diaglab.Lab) -> None:
    """Until the ring's links are settled: all forward, but for one end of the link that closes the ring."""

    def settled() -> bool:
        states = [port["state"] for node in lab.status()["nodes"] for port in node["ports"]]
        return sorted(states) == ["blocking"] + ["forwarding"] * (2 * len(NODES) - 1)

    wait_until(settled, SPANNING_TREE_SECONDS, lambda: diaglab.Failure(f"the links don't settle: {lab.status()}"))


def show_live(lab: diaglab.Lab) -> int:
    print(
        f"""\
In another terminal, for example:

    cd {os.getcwd()} && export LAB_NAME={os.environ['LAB_NAME']}
    lab/lab cut 2 B        # and mend 2 B, ground 3 A on, stop 4, start 4; see lab/lab help""",
        flush=True,
    )
    start_daemons(lab)
    interrupted: list[int] = []
    signal.signal(signal.SIGINT, lambda number, _: interrupted.append(number))
    terminal = termios.tcgetattr(0) if os.isatty(0) else None
    status = subprocess.call(lab.nodes[1].command("diagctl", "top", "--stats", "local/A"))
    if terminal and status < 0:
        # Ctrl-C, or the lab was taken away under the viewer: put the terminal right in its stead.
        termios.tcsetattr(0, termios.TCSADRAIN, terminal)
        print(LEAVE_FULL_SCREEN, end="")
    return 0 if interrupted else status if status >= 0 else 128 - status


def listen_near(port: int) -> socket.socket:
    """On this port of the host, or any other where it is taken."""
    try:
        return socket.create_server(("127.0.0.1", port))
    except OSError:
        return socket.create_server(("127.0.0.1", 0))


def show_web(lab: diaglab.Lab) -> int:
    start_daemons(lab)
    node = lab.nodes[1]
    with listen_near(CONSOLE_PORT) as listening:
        console = subprocess.Popen(node.command("diagctl", "web"), stdout=subprocess.PIPE, text=True)
        assert console.stdout
        console.stdout.readline()
        inherited = listening.fileno()
        relay = [sys.executable, f"{os.path.dirname(os.path.abspath(__file__))}/relay.py"]
        subprocess.Popen(node.command(*relay, str(inherited), str(CONSOLE_PORT)), pass_fds=[inherited])
        print(
            f"""\
The console of node 1: http://127.0.0.1:{listening.getsockname()[1]}/, Ctrl-C ends. In another terminal, for example:

    cd {os.getcwd()} && export LAB_NAME={os.environ['LAB_NAME']}
    lab/lab cut 2 B        # and mend 2 B, ground 3 A on, stop 4, start 4; see lab/lab help""",
            flush=True,
        )
        # Both end with the lab.
        signal.signal(signal.SIGINT, lambda *_: sys.exit(0))
        return console.wait()


def leave(number: int, _: object) -> NoReturn:
    sys.exit(128 + number)


def main() -> int:
    is_story = sys.argv[1:] == ["--story"]
    name = os.environ.setdefault("LAB_NAME", "demo-story" if is_story else "demo")
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, leave)
    process = None
    try:
        process = diaglab.launch(name, diaglab.Config("ring", len(NODES), daemon="", attached=True))
        lab = diaglab.attach(name)
        await_spanning_tree(lab)
        if not is_story:
            return show_web(lab) if sys.argv[1:] == ["--web"] else show_live(lab)
        Story(lab).tell()
        print("   every step was seen on every broker")
        return 0
    except diaglab.Failure as failure:
        print(f"demo: {failure}", file=sys.stderr)
        return 1
    finally:
        if process:
            diaglab.kill(process)


sys.exit(main())
