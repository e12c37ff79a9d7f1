"""How the daemon starts and ends, alone in its node: options, files, log, topics."""
import itertools
import re
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from panel import SANITIZED, versions_text, wait_until

OBSERVER = 9
LAST_TOPIC = "pub/diag/net/fire/miswired"

# What a daemon logs at its end that never came to open its socket, or to have a client.
NO_SOCKET = [("diag", "remote", "couldn't send packet (errno 9)"), ("diag", "remote", "couldn't send goodbye message")]
NO_CLIENT = [("diag", "broker", "couldn't request mosquitto disconnect (Invalid function arguments provided.)")]
NOT_CONNECTED = "The client is not currently connected."
NO_SESSION = [("diag", "broker", f"couldn't request mosquitto disconnect ({NOT_CONNECTED})")]


@pytest.fixture(scope="module")
def lab(make_lab):
    return make_lab(9, "star", daemons=False).silence_cards()


def main_says(*texts):
    return [("diag", "main", text) for text in texts]


@pytest.mark.parametrize("text, shown", [("0", 0), ("256", 256), ("5x", 5), ("9" * 20, 2**63 - 1)])
def test_bad_node_number_starts_a_node(lab, text, shown):
    assert lab[1].run("-n", text) == (1, main_says(f"invalid node number ({shown})") + NO_SOCKET + NO_CLIENT)


def test_log_lines_are_misformed_or_a_component_is_misnamed(lab):
    node = lab[1]
    node.shell("printf '0x1\\n' >/tmp/short_number")
    start = len(node.log.items)
    daemon = node.start(env=["VEXA_CARD_ADDR_FILE=/tmp/short_number"])
    assert daemon.end() == 1
    assert node.logged(start) == [
        ("lumlog", "common/fileutils.c", 'error converting string "0x1\n" to unsigned long (errno 0)'),
        ("hwinfo", "hwinfo/hwinfo.c", "error reading card address (path /tmp/short_number)"),
        *main_says("couldn't get local card address", "couldn't publish card address"),
        *NO_SOCKET,
    ]
    lines = node.lines(start)
    assert [line["priority"] for line in lines] == ["163", "163", "187", "187", "187", "187"]
    assert {(line["level"], int(line["pid"])) for line in lines} == {("ERROR", daemon.pid)}


def test_daemon_runs_without_versions_or_leaves_without_goodbye(lab):
    node = lab[1]
    node.shell("mv /REVISION /saved")
    with lab[OBSERVER].fire() as fire:
        assert node.run() == (
            1,
            [
                ("diag", "utils", "couldn't open file /REVISION"),
                ("diag", "summary.c", "couldn't get software versions"),
                *main_says("couldn't initialize node summary module"),
            ],
        )
        goodbye = fire.wait(lambda item: item[1] == node.address)[2]
    assert goodbye.hex() == "010c" + node.mac.replace("-", "").lower() + "0000"
    node.shell("mv /saved /REVISION")


# The system calls of the start-up, and how many of each the daemon can do without.
CALLS = {
    "rt_sigaction": 2,  # writing to a broker that has gone: the daemon's own, and the library's
    "epoll_create1": 0,
    "epoll_ctl": 0,
    "socket": 2,  # asks whether the fire network is up, and asks again; the C library has others to look interfaces up
    "ioctl": 1,  # likewise
    "setsockopt": 2,  # small delays, a large buffer
    "bind": 0,
    "timerfd_create": 0,
    "timerfd_settime": 0,
}


@pytest.mark.skipif(SANITIZED, reason="the sanitizers make system calls of their own, and find no leaks under strace")
def test_failing_system_call_of_the_start_up_is_not_logged_or_leaves_the_socket_without_goodbye(lab):
    """Fails the first, second, ... call of each kind until the start-up has no more of them."""

    def spared(node, call):
        """How many the daemon did without."""
        count = 0
        for number in itertools.count(1):
            path = f"run/{call}.{number}"
            inject = f"inject={call}:error=EMFILE:when={number}"
            daemon = node.start(wrap=["strace", "-D", "-o", f"/{path}", "-e", inject])

            def trace(path=node.inside.root / path):
                return path.read_text(encoding="utf-8", errors="replace") if path.exists() else ""

            wait_until(lambda daemon=daemon: daemon.process.poll() is not None or "epoll_wait(" in trace(), 20, trace)
            if "epoll_wait(" in trace():
                assert daemon.stop() == 0
                if "(INJECTED)" not in trace():
                    assert number > count + 1
                    return count
                count += 1
                continue
            assert daemon.end() == 1
            lines = node.logged(daemon.log_start)
            assert re.search(r"\((errno 24|Too many open files)\)", lines[0][2]), lines
            bound = re.search(r"bind\((\d+),.* = 0\n", trace())
            is_open = bool(bound) and f"close({bound[1]})" not in trace()[bound.end() :]
            said_goodbye = re.search(r'sendto\(.*, "\\1\\f', trace()) is not None and NO_SOCKET[1] not in lines
            assert said_goodbye == is_open, (number, lines)

    with ThreadPoolExecutor() as pool:
        assert dict(zip(CALLS, pool.map(spared, lab.nodes.values(), CALLS))) == CALLS


def test_topics_after_start_are_not_exactly_those(lab):
    node = lab[2]
    node.shell("printf 'os\\n' >/REVISION; printf 'application:9 x:y' >/REVISION_PRIAPP")
    node.shell("""echo 'quiet bootrev="loader:def ghi-jkl-m" splash' >/run/lab/cmdline""")
    node.stop_broker()
    node.start_broker()
    daemon = node.start("-x", "-n", "3", "-n", "011")
    assert node.logged(daemon.log_start) == main_says("unknown option -?")
    os_name, boot_version, app_version = "os\n", 'def ghi-jkl-m"'.ljust(34) + "splash", "9 x:y"
    expected = {
        "pub/diag/local_node": node.mac.encode(),
        f"pub/diag/{node.mac}/card_addr": b"2",
        f"pub/diag/{node.mac}/software_versions": versions_text(
            (os_name, ""), ("loader", boot_version), ("application", app_version)
        ),
        "pub/diag/net/fire/link_down": b"\0",
        "pub/diag/net/fire/grnd_list": b"\0",
        "pub/diag/net/fire/miswired": b"\0",
        "pub/diag/command/aut/tbl_idx": b"1;40 7 9 97 54 25 65 89 120 63",  # follows from the node number
    }
    assert len(expected[f"pub/diag/{node.mac}/software_versions"]) == 156
    wait_until(lambda: len(node.retained()) >= len(expected), what=node.retained)
    node.mark_broker()
    assert node.retained() == expected
    assert daemon.stop() == 0
    node.mark_broker()
    assert node.retained() == expected


def test_daemon_goes_on_without_the_fire_network_or_cannot_be_ended_meanwhile(lab):
    waiting, ended = lab[4], lab[5]
    waiting.stop_broker()
    waiting.start_broker()
    for node in (waiting, ended):
        node.shell("ip link set fire down")
    daemons = [node.start("-n", "4") for node in (waiting, ended)]
    # Into the second wait of 2 s, to see that it comes.
    time.sleep(2.5)
    assert waiting.retained() == {}
    assert daemons[1].stop() == 0
    assert ended.logged(daemons[1].log_start) == NO_SOCKET + NO_CLIENT
    waiting.shell("ip link set fire up")
    ended.shell("ip link set fire up")
    waiting.await_topics({LAST_TOPIC: b"\0"})
    assert daemons[0].stop() == 0
    assert waiting.logged(daemons[0].log_start) == []


def test_daemon_gives_up_an_absent_broker_or_asks_too_often_or_cannot_be_ended_meanwhile(lab):
    waiting, ended = lab[6], lab[7]
    for node in (waiting, ended):
        node.stop_broker()
    daemons = [node.start("-n", "6") for node in (waiting, ended)]
    first, start = waiting.counter("Tcp", "AttemptFails"), time.monotonic()
    wait_until(lambda: time.monotonic() > start + 3)
    rate = (waiting.counter("Tcp", "AttemptFails") - first) / (time.monotonic() - start)
    assert 10 < rate < 25  # each 50 ms
    assert daemons[1].stop() == 0
    assert ended.logged(daemons[1].log_start) == [
        ("diag", "broker", f"couldn't publish message on topic pub/diag/local_node ({NOT_CONNECTED})"),
        *main_says(f"couldn't publish {ended.mac} to pub/diag/local_node", "couldn't publish local node information"),
        *NO_SOCKET,
        *NO_SESSION,
    ]
    waiting.start_broker()
    waiting.await_topics({LAST_TOPIC: b"\0"})
    assert daemons[0].stop() == 0
    assert waiting.logged(daemons[0].log_start) == []
