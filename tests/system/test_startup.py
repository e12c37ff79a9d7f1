"""How the daemon starts and ends, alone in its node: options, files, log, topics."""
import ctypes
import time

import pytest
from panel import LOG_LINE, cut_summary, versions_text, wait_until

OBSERVER = 8
LAST_TOPIC = "pub/diag/net/fire/miswired"

# What a daemon logs at its end that never came to open its socket, or to have a client.
NO_SOCKET = [("diag", "remote", "couldn't send packet (errno 9)"), ("diag", "remote", "couldn't send goodbye message")]
NO_CLIENT = [("diag", "broker", "couldn't request mosquitto disconnect (Invalid function arguments provided.)")]
NOT_CONNECTED = "The client is not currently connected."
NO_SESSION = [("diag", "broker", f"couldn't request mosquitto disconnect ({NOT_CONNECTED})")]


@pytest.fixture(scope="module")
def lab(make_lab):
    return make_lab(8, "star", daemons=False).silence_cards()


def main_says(*texts):
    return [("diag", "main", text) for text in texts]


@pytest.mark.parametrize(
    "text, shown",
    [("0", 0), ("256", 256), ("-1", -1), ("5x", 5), ("", 0), ("08", 0), ("0x100", 256), ("9" * 20, 2**63 - 1)],
)
def test_bad_node_number_starts_a_node(lab, text, shown):
    assert lab[1].run("-n", text) == (1, main_says(f"invalid node number ({shown})") + NO_SOCKET + NO_CLIENT)


def test_node_number_is_misread_or_the_first_delay_not_seeded_by_it(lab):
    """Numbers and delays are seen in the first summary of each node."""
    cases = {
        1: (["-n", "0x10"], 16, 0),
        2: (["-n", "010"], 8, 0),
        3: ([], 0, 0),
        4: (["-x", "-n", "3", "-n", "255"], 255, 1),
        5: (["-xn"], 0, 2),
    }
    libc = ctypes.CDLL(None)
    with lab[OBSERVER].fire() as fire:
        daemons = {number: lab[number].start(*arguments) for number, (arguments, _, _) in cases.items()}
        for number, (_, node_number, complaints) in cases.items():
            node = lab[number]
            first = fire.wait(lambda item, node=node: item[1] == node.address)
            assert cut_summary(first[2])[0] == bytes([node_number])
            # The timer is armed right after the last of the start-up's publications.
            start = node.topics.times[node.topics.items.index((LAST_TOPIC, b"\0"))]
            libc.srand(node_number)
            assert first[0] - start == pytest.approx(libc.rand() % 3 + 1, abs=0.5)
            assert node.logged(daemons[number].log_start) == main_says(*["unknown option -?"] * complaints)
        for daemon in daemons.values():
            assert daemon.stop() == 0


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
    lines = [LOG_LINE.fullmatch(item) for item in node.log.items[start:] if not item.startswith("mark")]
    assert [line["priority"] for line in lines] == ["163", "163", "187", "187", "187", "187"]
    assert {(line["level"], int(line["pid"])) for line in lines} == {("ERROR", daemon.pid)}


@pytest.mark.parametrize(
    "rc, heard",
    [
        ("# LUMLOG_DIAG.crit\nNOT_KNOWN.crit\nLUMLOG_DIAG\nLUMLOG_DIAG. crit\n", {"lumlog", "hwinfo", "diag"}),
        ("..lumlog_diag.CRITICAL.x # quiet\n", {"lumlog", "hwinfo"}),
        ("LUMLOG_DIAG.crit\nLUMLOG_DIAG.err\nLUMLOG_HWINFO.emerg\nLUMLOG_LUMLOG.alert", {"diag"}),
    ],
)
def test_rc_file_is_not_obeyed(lab, rc, heard):
    node = lab[1]
    node.exec("tee", "/tmp/rc", stdin=rc)
    status, lines = node.run(env=["VEXA_CARD_ADDR_FILE=/does/not/exist", "LUMLOG_RC=/tmp/rc"])
    assert (status, {component for component, _, _ in lines}) == (1, heard)


@pytest.mark.parametrize("content, address", [("0x85", b"5"), ("0x7f\n", b"127"), ("0400", b"0")])
def test_card_address_is_misread(lab, content, address):
    node = lab[1]
    node.exec("tee", "/tmp/card_addr", stdin=content)
    daemon = node.start(env=["VEXA_CARD_ADDR_FILE=/tmp/card_addr"])
    node.await_topics({f"pub/diag/{node.mac}/card_addr": address})
    assert daemon.stop() == 0


@pytest.mark.parametrize(
    "env, complaints",
    [
        (
            ["-u", "VEXA_CARD_ADDR_FILE"],
            [("hwinfo", "hwinfo/hwinfo.c", "couldn't get VEXA_CARD_ADDR_FILE environment variable")],
        ),
        (
            ["VEXA_CARD_ADDR_FILE=/none"],
            [
                ("lumlog", "common/fileutils.c", "couldn't open file /none for reading"),
                ("hwinfo", "hwinfo/hwinfo.c", "error reading card address (path /none)"),
            ],
        ),
        (
            ["VEXA_CARD_ADDR_FILE=/dev/null"],
            [
                ("lumlog", "common/fileutils.c", "error reading from file /dev/null (read 0 bytes, expected 4)"),
                ("hwinfo", "hwinfo/hwinfo.c", "error reading card address (path /dev/null)"),
            ],
        ),
    ],
)
def test_daemon_runs_without_a_card_address(lab, env, complaints):
    ending = main_says("couldn't get local card address", "couldn't publish card address") + NO_SOCKET
    assert lab[1].run(env=env) == (1, complaints + ending)


@pytest.mark.parametrize(
    "file, content, complaint",
    [
        ("/REVISION", None, "couldn't open file /REVISION"),
        ("/REVISION", "", "couldn't read from file /REVISION"),
        ("/REVISION_PRIAPP", None, "couldn't open file /REVISION_PRIAPP"),
        ("/run/lab/cmdline", "root=/dev/sda\n", "couldn't find bootrev string"),
    ],
)
def test_daemon_runs_without_versions_or_leaves_without_goodbye(lab, file, content, complaint):
    node = lab[1]
    node.shell(f"cp {file} /tmp/saved; " + (f"rm {file}" if content is None else f"printf '{content}' >{file}"))
    with lab[OBSERVER].fire() as fire:
        assert node.run() == (
            1,
            [
                ("diag", "utils", complaint),
                ("diag", "summary.c", "couldn't get software versions"),
                *main_says("couldn't initialize node summary module"),
            ],
        )
        goodbye = fire.wait(lambda item: item[1] == node.address)[2]
    assert goodbye.hex() == "010c" + node.mac.replace("-", "").lower() + "0000"
    node.shell(f"cat /tmp/saved >{file}")


def test_topics_after_start_are_not_exactly_those(lab):
    node = lab[2]
    node.shell("printf 'os\\n' >/REVISION; printf 'application:9 x:y' >/REVISION_PRIAPP")
    node.shell("""echo 'quiet bootrev="loader:def ghi-jkl-m" splash' >/run/lab/cmdline""")
    node.stop_broker()
    node.start_broker()
    daemon = node.start("-n", "9")
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
