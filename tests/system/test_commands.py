"""Commands from clients of a real broker to their own node and, over the panel network, to others."""
import hashlib
import re
import signal
import struct

import pytest
from panel import BUILD, wait_until

REQUEST, RESPONSE = "pub/diag/command/request", "pub/diag/command/response"
CHALLENGE = "pub/diag/command/aut/tbl_idx"
CACHE = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
with open(re.search("DIAG_SECRETS_FILE:FILEPATH=(.*)", CACHE)[1], encoding="ascii") as table:
    WORDS = table.read().split("\n")


@pytest.fixture(scope="module")
def nodes(make_lab):
    nodes = make_lab(3, "star", daemons=False).nodes.values()
    for node in nodes:
        node.watch()
        node.take_log()
        node.start("-n", str(node.number))
    first = next(iter(nodes))
    first.topics.wait(lambda item: item[0] == CHALLENGE)
    wait_until(lambda: ask(first, f"1;1;remote-download;0;2 3;{digest(first)}") == b"ACK", 20, "the other nodes")
    yield list(nodes)
    for node in nodes:
        if node.daemon.process.poll() is None:
            assert node.daemon.stop() == 0


def digest(node):
    words = (WORDS[int(index)] for index in node.retained()[CHALLENGE][2:].split())
    return hashlib.md5("".join(words).encode()).hexdigest()


def ask(node, request):
    start = len(node.topics.items)
    identity = ";".join(request.split(";")[:2]).encode() + b";"
    node.publish((REQUEST, request), retain=False)
    return node.topics.wait(lambda item: item[0] == RESPONSE and item[1].startswith(identity), 15, start)[1][
        len(identity) :
    ]


LONG = "x" * 10000
UNREADABLE = "couldn't parse CID and TID in "
# Requests, "%" standing for the right digest; the response to each, and what is logged.
BAD_REQUESTS = [
    ("1;2;noop\0" + LONG, "ACK", []),
    ("\0" * 10000, None, [UNREADABLE, "couldn't parse common command fields"]),
    (LONG, None, [UNREADABLE + LONG, "couldn't parse common command fields"]),
    ("1;2;" + LONG, "NACK;unknown command", [f"unknown command type in 1;2;{LONG}"]),
    (b"1;2;\xff", "NACK;unknown command", ["unknown command type in 1;2;\ufffd"]),
    ("1;2;subscribe;" + LONG, "NACK;internal error", ["couldn't find MAC address in topic " + LONG]),
    (
        "1;2;subscribe;a/0-0-0-0-0-0/" + LONG,
        "NACK;internal error",
        [f"topic a/0-0-0-0-0-0/{LONG} is too long (10014, must be at most 1003)"],
    ),
    ("1;2;subscribe;a;-" + LONG, "NACK;invalid period value", ["invalid subscribe period -" + LONG]),
    ("1;2;reset-stats;" + LONG, "NACK;invalid input", ["couldn't parse rest of command " + LONG]),
    ("1;2;activate;1;" + "A" * 10000, "NACK;authentication failure", []),
    ("1;2;activate;1;" + LONG, "NACK;authentication failure", [f"string {LONG} is not a valid MD5 sum"]),
    ("1;2;activate;%", "NACK;invalid input", ["no authentication string in %"]),
    (
        "1;2;activate;" + "1 " * 5000 + ";%",
        "NACK;node list is too large",
        ["too many targets in " + "1 " * 5000, "couldn't parse node list " + "1 " * 5000],
    ),
    ("1;2;activate;" + "1 " * 99 + ";%", "ACK", []),
    (
        "1;2;remote-download;" + ";" * 10000,
        "NACK;invalid input",
        ["couldn't parse remote download command " + ";" * 10000],
    ),
]


def test_bad_request_is_answered_wrongly_or_ends_the_daemon(nodes):
    node = nodes[0]
    for request, response, logged in BAD_REQUESTS:
        right = digest(node)
        if isinstance(request, str):
            request = request.replace("%", right)
        published, start = len(node.topics.items), len(node.log.items)
        node.publish((REQUEST, request), retain=False)
        assert ask(node, "9;9;noop") == b"ACK"
        responses = [payload for topic, payload in node.topics.items[published:] if topic == RESPONSE][:-1]
        assert responses == ([] if response is None else [f"1;2;{response}".encode()]), request[:40]
        assert node.texts(start) == [text.replace("%", right) for text in logged]


def test_subscription_brings_no_changes_or_outlives_its_end(nodes):
    first, second, third = nodes
    values = [f"pub/diag/{second.mac}/test/{name}" for name in "ab"]

    def received(node):
        return [payload for topic, payload in node.topics.items if topic in values]

    def change(value, *seen_by):
        second.publish((values[0], value))
        for node in seen_by:
            node.topics.wait(lambda item: item == (values[0], value))

    def change_unseen(value):
        """When the other client has seen one change and the next, a period has passed for both."""
        count = len(received(first))
        change(value, third)
        change(value + b"'", third)
        first.mark_broker()
        assert len(received(first)) == count

    second.publish((values[0], b"0"), (values[1], b"b"))
    assert ask(third, f"7;1;subscribe;{values[0]};1") == b"ACK"
    assert ask(first, f"7;1;subscribe;pub/diag/{second.mac}/test/+;1") == b"ACK"
    assert received(first) == [b"0", b"b"]
    change(b"1", first, third)
    assert received(first)[2:] == [b"1"]
    assert ask(first, f"7;2;unsubscribe;pub/diag/{second.mac}/test/+") == b"ACK"
    change_unseen(b"2")
    for value in values:
        assert ask(first, f"8;3;subscribe;{value};1") == b"ACK"
    assert received(first)[3:] == [b"2'", b"b"]
    assert ask(first, "8;4;disconnect") == b"ACK"
    assert ask(first, "8;5;disconnect") == b"NACK;client has no subscriptions"
    change_unseen(b"3")


def test_reset_hits_another_port_or_none(nodes):
    first, second, third = nodes

    def errored_frames():
        return [
            struct.unpack_from(">I", node.retained().get(f"pub/diag/{node.mac}/A/stats", bytes(66)), 32)[0]
            for node in nodes
        ]

    def await_errors(*expected):
        wait_until(lambda: errored_frames() == list(expected), 10, errored_frames)

    def add_errors():
        for node in nodes:
            node.lab.run("errors", node.number, "A", 5)

    add_errors()
    await_errors(5, 5, 5)
    assert ask(first, f"7;1;reset-stats;{second.mac};a") == b"ACK"
    await_errors(5, 0, 5)
    assert ask(first, f"7;2;reset-stats;{first.mac};A") == b"ACK"
    await_errors(0, 0, 5)
    add_errors()
    await_errors(5, 5, 10)
    assert ask(first, "7;3;reset-all-stats") == b"ACK"
    await_errors(0, 0, 0)


def test_silent_node_holds_up_others_or_loses_one_of_fifty_requests(nodes):
    first, second, third = nodes
    third.daemon.signal(signal.SIGKILL)
    third.daemon.end()
    start = len(first.topics.items)
    expected = {f"5;{tid};ACK" for tid in range(24)} | {f"6;{tid};NACK;can't reach remote node" for tid in range(24)}
    first.publish(
        *((REQUEST, f"5;{tid};subscribe;pub/diag/{second.mac}/{tid}") for tid in range(24)),
        *((REQUEST, f"6;{tid};unsubscribe;pub/diag/{third.mac}/{tid}") for tid in range(24)),
        retain=False,
    )
    for tid, command in enumerate(["activate;1 3 2 42 3", "remote-download;1;2 3 1"]):
        # The challenge is a new one when the first request has been carried out here.
        first.publish((REQUEST, f"7;{tid};{command};{digest(first)}"), retain=False)
        first.await_topics([{"local/activate": b"\5"}, {"local/remotedl": b"\1"}][tid])
    assert ask(first, "8;8;noop") == b"ACK"
    second.await_topics({"local/activate": b"\5", "local/remotedl": b"\1"})

    def responses():
        return [payload.decode() for topic, payload in first.topics.items[start:] if topic == RESPONSE]

    assert not any("NACK" in response for response in responses())
    expected |= {"8;8;ACK", "7;0;NACK;failed nodes: 3 42 3", "7;1;NACK;failed nodes: 3"}
    wait_until(lambda: len(responses()) >= len(expected), 15, responses)
    first.mark_broker()
    assert sorted(responses()) == sorted(expected)
    # Those that wait when the daemon is ended are to leave nothing behind.
    first.publish((REQUEST, f"7;9;activate;3 2;{digest(first)}"), (REQUEST, "8;9;noop"), retain=False)
    first.topics.wait(lambda item: item == (RESPONSE, b"8;9;ACK"))
