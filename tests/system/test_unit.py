"""The daemon under the restrictions of its systemd unit, as far as they hold without systemd."""
import re
import subprocess
from pathlib import Path

import pytest
from panel import PYTHON, wait_until

PACKAGING = Path(__file__).resolve().parent.parent.parent / "packaging"
UNIT = PACKAGING / "diag.service"
CONSOLE_UNIT = PACKAGING / "diag-console.service"
MOST_EXPOSED = 1.5

# Loads a filter of the system calls named in the arguments up to "--", as systemd does, and runs the rest.
CONFINE = """
import errno, os, seccomp, sys
end = sys.argv.index("--")
filter = seccomp.SyscallFilter(seccomp.ERRNO(errno.EPERM))
for name in sys.argv[1:end]:
    try:
        filter.add_rule(seccomp.ALLOW, name)
    except RuntimeError:
        pass  # a name of another processor, or a newer one than the library
filter.load()
os.execv(sys.argv[end + 1], sys.argv[end + 1:])
"""


def analyze(*words):
    return subprocess.run(["systemd-analyze", *words], capture_output=True, text=True, timeout=20, check=True).stdout


def allowed_calls(unit):
    words = re.findall(r"^SystemCallFilter=(.*)$", unit.read_text(encoding="utf-8"), re.MULTILINE)
    words = ["@default", *" ".join(words).split()]
    while any(word.startswith("@") for word in words):
        words = [
            name
            for word in words
            for name in (
                re.findall(r"^    ([@\w]+)$", analyze("syscall-filter", word), re.MULTILINE)
                if word[0] == "@"
                else [word]
            )
        ]
    return sorted(set(words))


@pytest.mark.parametrize("unit", (UNIT, CONSOLE_UNIT), ids=lambda unit: unit.stem)
def test_unit_is_exposed(unit):
    report = analyze("security", "--offline=true", "--no-pager", str(unit))
    exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", report)[1])
    assert exposure <= MOST_EXPOSED, report


@pytest.mark.timeout(90)
def test_confined_daemon_fails(make_lab):
    lab = make_lab(2, "star")
    node, other = lab[1], lab[2]
    lab.run("stop", 1)
    node.watch()
    without_rights = ["setpriv", "--no-new-privs", "--bounding-set=-all", "--inh-caps=-all"]
    confine = [PYTHON, "-c", CONFINE, *allowed_calls(UNIT), "--"]
    before = len(node.topics.items)
    node.start("-n", "1", wrap=[*without_rights, *confine])

    def answer(request, response):
        node.publish(("pub/diag/command/request", request), retain=False)
        node.topics.wait(lambda item: item == ("pub/diag/command/response", response.encode()), 15)

    node.topics.wait(lambda item: item[0] == "pub/diag/command/aut/tbl_idx", 10, before)
    answer(f"1;1;subscribe;pub/diag/{other.mac}/#;1", "1;1;ACK")
    answer("1;2;reset-all-stats", "1;2;ACK")
    answer("1;3;disconnect", "1;3;ACK")
    answer("1;4;frobnicate", "1;4;NACK;unknown command")
    wait_until(
        lambda: "unknown command type in 1;4;frobnicate" in lab.run("logs", 1), what="the line in the system log"
    )
    lab.run("ground", 2, "A", "on")
    node.topics.wait(lambda item: item[0] == "pub/diag/net/fire/grnd_list" and len(item[1]) > 1)
    assert node.daemon.stop() == 0
