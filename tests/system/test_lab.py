"""The lab itself: it comes up for root and others, one beside another, and leaves nothing behind, however it ends."""
import json
import os
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import diaglab
import pytest
from panel import BUILD, LAB, Lab, Stream, run, wait_until


def processes_in(namespace):
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "ns" / "pid") == namespace:
                found.append(process)
        except OSError:
            continue
    return found


def namespace_of(supervisor):
    return os.readlink(f"/proc/{supervisor}/ns/pid")


def traces():
    """What a lab might leave on the machine."""
    return Path("/proc/mounts").read_text(encoding="utf-8"), run("ip", "-o", "link"), sorted(os.listdir("/run"))


def assert_gone(namespace, before):
    # The last process of a namespace stays until its parent has taken note of its end.
    wait_until(lambda: processes_in(namespace) == [], what=lambda: processes_in(namespace))
    assert traces() == before


def refused(*words, status=2, **environment):
    """What the lab says on standard error."""
    words = [str(LAB), *map(str, words)]
    done = subprocess.run(
        words, env={**os.environ, **environment}, capture_output=True, text=True, timeout=60, check=False
    )
    assert (done.returncode, done.stdout) == (status, "")
    return done.stderr.splitlines()


@pytest.fixture(params=["self", "nobody"])
def user(request):
    """Words that run a command as a user, the user, and a copy of the lab and its programs that this user can read."""
    if os.getuid() != 0 and request.param == "nobody":
        pytest.skip("the tests run as an ordinary user already")
    if request.param == "self":
        yield [], os.getuid(), LAB, BUILD
        return
    with tempfile.TemporaryDirectory() as copy:
        ids = pwd.getpwnam("nobody")
        programs = Path(copy)
        programs.chmod(0o755)
        (programs / "build" / "lab").mkdir(parents=True)
        shutil.copytree(LAB.parent, programs / "lab", ignore=shutil.ignore_patterns("__pycache__"))
        shutil.copy(BUILD / "diag", programs / "build")
        shutil.copy(BUILD / "lab" / "card", programs / "build" / "lab")
        prefix = ["setpriv", f"--reuid={ids.pw_uid}", f"--regid={ids.pw_gid}", "--clear-groups"]
        yield prefix, ids.pw_uid, programs / "lab" / "lab", programs / "build"


def test_lab_fails_for_a_user_or_leaves_traces(user):
    prefix, owner, program, build = user
    name = f"smoke-{os.getpid()}-{len(prefix)}"

    def lab(*words):
        return run(*prefix, program, "--name", name, *words)

    before = traces()
    lab("up", 3, "--build", build)
    try:
        namespace = namespace_of(diaglab.find(name, owner))
        assert lab("exec", 2, "id", "-u") == "0\n"
        assert lab("exec", 2, "sh", "-c", "command -v diag") == f"{build}/diag\n"
        wait_until(lambda: lab("status").count(":up,forwarding") == 5, what=lambda: lab("status"))
        lab("cut", 1, "B")
        wait_until(lambda: lab("status").count(":down,") == 2, what=lambda: lab("status"))
        lab("mend", 2, "A")
        wait_until(lambda: ":down," not in lab("status"), what=lambda: lab("status"))
    finally:
        lab("down")
    assert_gone(namespace, before)


def test_killed_lab_leaves_traces_or_takes_another_one_down():
    """Killed by its first process or by the one that waits for that."""
    before = traces()
    labs = [Lab(2, "star") for _ in range(3)]
    try:
        namespaces = [namespace_of(lab.inside.supervisor) for lab in labs]
        os.kill(labs[0].inside.supervisor, signal.SIGKILL)
        os.kill(labs[1].process.pid, signal.SIGKILL)
        for lab in labs[:2]:
            assert lab.process.wait(10) != 0
        assert labs[2][1].exec("hostname") == "node1\n"
        assert labs[2].run("status").count(" A:up") == 2
    finally:
        for lab in labs:
            lab.down()
    for namespace in namespaces:
        assert_gone(namespace, before)


@pytest.mark.parametrize("late, number", [(False, signal.SIGKILL), (True, signal.SIGINT)])
def test_interrupted_lab_leaves_traces(late, number):
    """As by Ctrl-C, which goes to the whole process group: as soon as the supervisor is there, or some time later."""
    name = f"interrupted-{os.getpid()}-{late}-{number}"
    before = traces()
    up = [str(LAB), "--name", name, "up", "30", "--star", "--build", str(BUILD)]  # a few are too soon up
    front = Stream(up, stderr=subprocess.STDOUT, start_new_session=True)
    namespace = namespace_of(wait_until(lambda: diaglab.find(name), what=lambda: front.items))
    if late:
        wait_until(lambda: len(processes_in(namespace)) > 10)
    os.killpg(front.process.pid, number)
    assert front.end() == (130 if number == signal.SIGINT else -number)
    assert_gone(namespace, before)


@pytest.fixture(scope="module")
def lab(make_lab):
    return make_lab(2, "star")


def test_ended_process_is_shown_as_running_or_stays(lab):
    """A daemon, a broker and a card that die under the lab; what the lab then says, and that it starts them again."""

    def state(process):
        return json.loads(lab.run("status", "--json"))["nodes"][0][process]

    for process in ("daemon", "broker", "card"):
        pid = state(process)
        lab[1].exec("sh", "-c", f"kill -KILL {pid}")
        wait_until(lambda process=process: state(process) is None)
        assert lab[1].exec("sh", "-c", f"[ ! -e /proc/{pid} ] && echo gone") == "gone\n"
        assert lab.run("wait", 1) == "137\n"
    assert " exit:137 " in lab.run("status")
    for words in (["broker", "start", 1], ["card", "start", 1], ["start", 1]):
        lab.run(*words)
    assert all(map(state, ("daemon", "broker", "card")))


def test_status_differs_from_its_document(lab):
    """Of each object the fields, in their order."""
    text = (LAB.parent / "README.md").read_text(encoding="utf-8")
    documented = re.findall(r"^\| `(\w+)` \|", text.partition("## Status for programs")[2], re.MULTILINE)
    report = json.loads(lab.run("status", "--json"))
    assert [*report, *report["nodes"][0], *report["nodes"][0]["ports"][0]] == documented


def test_wrong_command_line_is_taken_or_not_explained(lab):
    name = ("--name", lab.name)
    again = f"lab: a lab named {lab.name} is up already"
    assert refused(*name, "up", 1, "--build", BUILD, status=1) == [again]
    for words, reason, topic in [
        (["frobnicate"], "unknown command frobnicate", ""),
        (["status", "--star"], "unknown option --star", " status"),
        (["up", "2", "--build"], "--build needs a value", " up"),
        (["cut", "1"], "usage: lab cut NODE PORT", " cut"),
        (["miswire", 1, "A", 2, "A", 3], "usage: lab miswire NODE PORT PEER_NODE PEER_PORT|off", " miswire"),
        (["status", "--name", "a b"], "a name has letters, digits, - and _ only: a b", " status"),
        (["up", "251"], "1 to 250 nodes, not 251", " up"),
        (["up", "11"], "a ring has at most 10 nodes, use --star for more", " up"),
        (["stop", "3"], "unknown node 3, the lab has 1 to 2", " stop"),
        (["cut", "1", "B"], "unknown port B, a node of this lab has A", " cut"),
        (["ground", 1, "A", "maybe"], "on or off", " ground"),
    ]:
        assert refused(*name, *words) == [f"lab: {reason}", f"lab: try: lab help{topic}"]
    lab.run("stop", 1)
    assert refused(*name, "stop", 1, status=1) == ["lab: node 1: the daemon doesn't run"]
    assert refused("--name", "nowhere", "status", status=1) == ["lab: no lab named nowhere is up"]
    assert refused("--name", "nowhere")[0].startswith("A panel network on one machine")


def script(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/sh\n{text}\n", encoding="ascii")
    path.chmod(0o755)


def test_lab_that_fails_does_not_say_where_or_why(tmp_path):
    """A command that fails without a message of its own, and a daemon that does."""
    name = f"failing-{os.getpid()}"
    before = traces()

    def reasons(build, **environment):
        *found, last = refused("--name", name, "up", 3, "--build", build, status=1, **environment)
        assert last == f"lab: lab {name} ended before it was up"
        wait_until(lambda: traces() == before, what=traces)
        return found

    script(tmp_path / "bin" / "ip", f'[ "$*" != "-n 2 -batch -" ] && exec {shutil.which("ip")} "$@"')
    silent = reasons(BUILD, PATH=f"{tmp_path}/bin:{os.environ['PATH']}")
    assert silent == ["lab: node 2: configure links: ip -n 2 -batch -: exit status 1"]

    script(tmp_path / "build" / "diag", "echo no luck >&2; exit 3")
    script(tmp_path / "build" / "lab" / "card", f"exec {BUILD / 'lab' / 'card'} $*")
    ended = "lab: node {}: start programs: the daemon ended with exit status 3: no luck"
    assert reasons(tmp_path / "build") == [ended.format(number) for number in (1, 2, 3)]
