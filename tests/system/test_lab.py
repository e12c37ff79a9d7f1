"""The lab itself: it comes up for root and others, one beside another, and leaves nothing behind, however it ends."""
import os
import pwd
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest
from panel import BUILD, LAB, Lab, Stream, run, wait_until


def supervisor(name):
    """The first process of a lab; None without one."""
    for process in Path("/proc").glob("[0-9]*"):
        try:
            words = (process / "cmdline").read_bytes().split(b"\0")
            status = (process / "status").read_text(encoding="utf-8")
        except OSError:
            continue
        if words[0] == f"diag-lab:{name}".encode() and "\t1\n" in status.partition("NSpid:")[2][:40]:
            return process
    return None


def processes_in(namespace):
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "ns" / "pid") == namespace:
                found.append(process)
        except OSError:
            continue
    return found


def traces():
    """What a lab might leave on the machine."""
    return Path("/proc/mounts").read_text(encoding="utf-8"), run("ip", "-o", "link"), sorted(os.listdir("/run"))


def assert_gone(namespace, before):
    # The last process of a namespace stays until its parent has taken note of its end.
    wait_until(lambda: processes_in(namespace) == [], what=lambda: processes_in(namespace))
    assert traces() == before


@pytest.fixture(params=["self", "nobody"])
def user(request):
    """Words that run a command as a user, and a copy of the lab and its programs that this user can read."""
    if os.getuid() != 0 and request.param == "nobody":
        pytest.skip("the tests run as an ordinary user already")
    if request.param == "self":
        yield [], LAB, BUILD
        return
    with tempfile.TemporaryDirectory() as copy:
        ids = pwd.getpwnam("nobody")
        programs = Path(copy)
        programs.chmod(0o755)
        (programs / "build" / "lab").mkdir(parents=True)
        shutil.copy(LAB, programs)
        shutil.copy(BUILD / "diag", programs / "build")
        shutil.copy(BUILD / "lab" / "card", programs / "build" / "lab")
        prefix = ["setpriv", f"--reuid={ids.pw_uid}", f"--regid={ids.pw_gid}", "--clear-groups"]
        yield prefix, programs / "lab", programs / "build"


def test_lab_fails_for_a_user_or_leaves_traces(user):
    prefix, program, build = user
    name = f"smoke-{os.getpid()}-{len(prefix)}"

    def lab(*words):
        return run(*prefix, program, "--name", name, *words)

    before = traces()
    try:
        lab("up", 3, "--build", build)
        namespace = os.readlink(supervisor(name) / "ns" / "pid")
        assert lab("exec", 2, "id", "-u") == "0\n"
        wait_until(lambda: lab("status").count(":up,forwarding") == 5, what=lambda: lab("status"))
        lab("cut", 1, "B")
        wait_until(lambda: lab("status").count(":down,") == 2, what=lambda: lab("status"))
        lab("mend", 2, "A")
        wait_until(lambda: ":down," not in lab("status"), what=lambda: lab("status"))
    finally:
        lab("down")
    assert_gone(namespace, before)


def test_killed_lab_leaves_traces_or_takes_another_one_down():
    before = traces()
    first, second = Lab(2, "--star"), Lab(2, "--star")
    try:
        root = supervisor(first.name)
        namespace = os.readlink(root / "ns" / "pid")
        os.kill(int(root.name), signal.SIGKILL)
        assert first.front.end() == 1
        assert second[1].exec("hostname") == "node1\n"
        assert second.run("status").count(" A:up") == 2
    finally:
        second.down()
    assert_gone(namespace, before)


@pytest.mark.parametrize("late", [False, True])
def test_interrupted_lab_leaves_traces(late):
    """As by Ctrl-C, which goes to the whole process group: as soon as the supervisor is there, or some time later."""
    name = f"interrupted-{os.getpid()}-{late}"
    before = traces()
    up = [str(LAB), "--name", name, "up", "5", "--build", str(BUILD)]
    front = Stream(up, stderr=subprocess.STDOUT, start_new_session=True)
    root = wait_until(lambda: supervisor(name), what=lambda: front.items)
    namespace = os.readlink(root / "ns" / "pid")
    if late:
        wait_until(lambda: len(processes_in(namespace)) > 10)
    os.killpg(front.process.pid, signal.SIGINT)
    assert front.end() == 130
    assert_gone(namespace, before)


def test_second_lab_of_a_name_comes_up():
    lab = Lab(1, "--star", "--no-daemon")
    try:
        done = subprocess.run(lab.command("up") + ["1"], capture_output=True, text=True, timeout=60, check=False)
        assert (done.returncode, done.stderr) == (1, f"lab: a lab named {lab.name} is up already\n")
    finally:
        lab.down()


def test_lab_that_fails_says_nothing(tmp_path):
    """A command inside the lab that fails without a message of its own."""
    silent = tmp_path / "hostname"
    silent.write_text("#!/bin/sh\n[ $1 != node2 ]\n", encoding="ascii")
    silent.chmod(0o755)
    name = f"failing-{os.getpid()}"
    before = traces()
    up = [str(LAB), "--name", name, "up", "3", "--no-daemon", "--build", str(BUILD)]
    environment = {**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    done = subprocess.run(up, env=environment, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 1
    reason, *rest = done.stderr.splitlines()
    assert reason.startswith("lab: node 2: ") and reason.endswith('hostname "node$node"')
    assert rest == ["lab: make_node has failed for nodes 2", f"lab: lab {name} ended before it was up"]
    wait_until(lambda: traces() == before, what=traces)
