"""The program diagctl as the tests run it."""
import json
import subprocess

from panel import BUILD, HERE

DIAGCTL = str(BUILD / "diagctl")
SUCCESS, FAILURE, USAGE, NO_BROKER = range(4)
BUSY = 30  # seconds that a busy machine may take
ROOT = HERE.parent.parent


def run_in(node, *words, env=(), stdin=""):
    """The finished process: a command in a node, in UTC."""
    command = node.command("env", "TZ=UTC", *env, DIAGCTL, *words)
    return subprocess.run(command, input=stdin, capture_output=True, text=True, timeout=BUSY, check=False)


def diagctl(node, *words, status=SUCCESS, env=()):
    """Its output, or what it says on standard error where it is to fail."""
    done = run_in(node, *words, env=env)
    assert done.returncode == status, done
    assert bool(done.stderr) == (status != SUCCESS), done
    return done.stdout if status == SUCCESS else done.stderr


def act(node, *words, status=SUCCESS, stdin=""):
    """What a command that may ask and tell says on both outputs."""
    done = run_in(node, *words, stdin=stdin)
    assert done.returncode == status, done
    return done.stdout + done.stderr


def read_json(node, *words):
    return json.loads(diagctl(node, *words, "--json"))


def put(node, path, text, mode="600"):
    """Writes a file of the node, which sees no folder of the machine that may be written."""
    node.exec("tee", path, stdin=text)
    node.exec("chmod", mode, path)
