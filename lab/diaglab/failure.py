"""What goes wrong in words that a user can act on."""
import os
import subprocess
import time
from collections.abc import Callable
from typing import TypeVar

T = TypeVar("T")


class Failure(Exception):
    """A reason a line."""


class UsageError(Failure):
    """The command line asks for what there is not."""


def search_path() -> str:
    """Where an ordinary user, too, finds ip."""
    return os.environ.get("PATH", os.defpath) + ":/usr/sbin:/sbin"


def run(words: list[str], stdin: str = "") -> None:
    """Runs a command that must succeed; what it says becomes the reason when it fails."""
    environment = {**os.environ, "PATH": search_path()}
    done = subprocess.run(words, input=stdin, capture_output=True, text=True, env=environment, check=False)
    if done.returncode != 0:
        reason = done.stderr.strip().replace("\n", "; ") or f"exit status {done.returncode}"
        raise Failure(f"{' '.join(words)}: {reason}")


def wait_until(condition: Callable[[], T], seconds: float, failure: Callable[[], Failure]) -> T:
    """Returns the first true result."""
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise failure()
        time.sleep(0.01)
    return result
