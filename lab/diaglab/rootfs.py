"""What a node sees of files: a root directory of its own, with the machine's directories in it, read-only."""
import socket
from pathlib import Path

from . import linux
from .node import NAMESPACES, NODE_DIR, STATE

MACHINE = STATE / "machine"
OWN = {"dev", "proc", "run", "sys", "tmp"}  # of the directories below /, what isn't the machine's
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
DEVICE_LINKS = {"ptmx": "pts/ptmx", "fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}
BROKER_CONFIG = """\
listener 1885 127.0.0.1
allow_anonymous true
user root
set_tcp_nodelay true
persistence false
max_queued_messages 0
max_inflight_messages 0
connection_messages false
log_dest stderr
log_type error
"""


def own_files(node: int) -> dict[str, str]:
    """What the daemon reads of its card, and the broker's configuration."""
    return {
        "REVISION": "diag-os:1.4.0 lab\n",
        "REVISION_PRIAPP": "diag-app:1.0.0 lab\n",
        f"{NODE_DIR}/cmdline": 'root=/dev/mmcblk0p2 ro bootrev="diag-boot:2.1.0 lab-2026"\n',
        f"{NODE_DIR}/card_addr": f"{node & 0x7F:#04x}",
        f"{NODE_DIR}/mosquitto.conf": BROKER_CONFIG,
        f"{NODE_DIR}/log": "",
    }


def prepare(visible: list[Path]) -> list[Path]:
    """Makes the place for the lab's state, and binds what every node sees of the machine into it: the directories.

    A node has its own /tmp, in which only what is named visible is the machine's.
    """
    linux.mount("lab", "/run", "tmpfs", data="mode=755")
    for path in (NAMESPACES, STATE / "uts", MACHINE):
        path.mkdir(parents=True)
    linux.mount("machine", MACHINE, "tmpfs")
    directories = [path for path in Path("/").iterdir() if path.is_dir() and path.name not in OWN]
    for path in visible:
        if path.is_relative_to("/tmp") and not any(path.is_relative_to(other) for other in directories):
            directories.append(path)
    for path in directories:
        bind_directory(path, MACHINE / path.relative_to("/"))
    linux.make_read_only(MACHINE)
    return directories


def bind_directory(source: Path, target: Path) -> None:
    if source.is_symlink():
        target.symlink_to(source.readlink())
    else:
        target.mkdir(parents=True, exist_ok=True)
        linux.bind(source, target)


def make_namespaces(node: int) -> None:
    """Leaves the calling thread in the node's network and names it."""
    linux.unshare(linux.CLONE_NEWNET | linux.CLONE_NEWUTS)
    for kind, place in (("net", NAMESPACES / str(node)), ("uts", STATE / "uts" / str(node))):
        place.touch()
        linux.bind(f"/proc/thread-self/ns/{kind}", place)
    socket.sethostname(f"node{node}")


def make_root(node: int, directories: list[Path], files: dict[str, str]) -> None:
    """Makes the root directory with these files. Called by a thread in the node's network, of which /sys tells."""
    root = STATE / str(node)
    root.mkdir()
    linux.mount(f"node{node}", root, "tmpfs", data="mode=755")
    for path in ("dev/pts", "dev/shm", "proc", "sys", "tmp", str(NODE_DIR)):
        (root / path).mkdir(parents=True)
    for path in ("tmp", "dev/shm"):
        (root / path).chmod(0o1777)
    for directory in directories:
        bind_directory(MACHINE / directory.relative_to("/"), root / directory.relative_to("/"))
    for name in DEVICES:
        (root / "dev" / name).touch()
        linux.bind(f"/dev/{name}", root / "dev" / name)
    linux.bind("/dev/pts", root / "dev/pts")
    for name, target in DEVICE_LINKS.items():
        (root / "dev" / name).symlink_to(target)
    linux.bind("/proc", root / "proc")
    linux.mount("sysfs", root / "sys", "sysfs", linux.MS_RDONLY)
    for name, text in (own_files(node) | files).items():
        (root / name).write_text(text, encoding="utf-8")
    linux.bind(root / NODE_DIR / "cmdline", root / "proc/cmdline")
