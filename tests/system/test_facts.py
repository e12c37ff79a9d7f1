"""What the card's other processes publish, well and badly formed, and what becomes of it."""
import ctypes
import struct

import pytest
from panel import cut_summary

LIBC = ctypes.CDLL(None)


def late_number():
    """A node number whose first summary comes after the longest delay."""

    def delay(number):
        LIBC.srand(number)
        return LIBC.rand() % 3

    return max(range(1, 20), key=delay)


def erps_status(state=0, flags=1, peer_flags=1, peer_node=0, peer_port=0):
    return struct.pack("=B3xI68xIIxxxxB3x", flags, state, peer_port, peer_node, peer_flags)


def stats(good=0, errored=0):
    return struct.pack("=QQ16xI30x", 0, good, errored)


OWN = "pub/diag/02-00-00-00-00-01/"
PORT = "local/diag/port/"
FACTS = [
    (PORT + "A/type", "fire"),
    (PORT + "A/media", b"\2"),
    (PORT + "A/link_down", b"\0"),
    (PORT + "A/grnd", b"\2"),
    (PORT + "A/status", erps_status(state=4, peer_node=8, peer_port=1)),
    (PORT + "B/type", "firespur"),
    (PORT + "B/media", b"\0"),
    (PORT + "B/link_down", b"\1"),
    (PORT + "B/grnd", b"\1"),
    (PORT + "B/status", erps_status(flags=0, peer_node=9, peer_port=2)),
    (PORT + "CPU/status", erps_status(flags=0, peer_node=3, peer_port=3)),
    ("local/diag/ring/0/status", struct.pack("=i", 2)),
    ("local/diag/ring/3/status", struct.pack("=i", 1)),
    ("local/diag/ring/11/status", struct.pack("=i", 1)),
    (OWN + "job_name", "LAB-0001"),
    (OWN + "job_rev", "R1"),
    (OWN + "download_status", b"\1\2"),
    (OWN + "CF_free_space", "0x10"),
    (OWN + "M301", "1"),
    (OWN + "M702", "2"),
    (OWN + "comm_loss", "1"),
    (OWN + "repeater", "7"),
]

WRONG_STATUS = "published ERPS port status data has wrong length ({}, should be 92)"
WRONG_RING = "published ring status data has wrong length ({}, should be 4 or 0)"
TOO_LONG = "published job information on topic " + OWN + "{} is too long ({}, must be at most {})"
WRONG_DOWNLOAD = "published download status has wrong length ({}, should be 2)"
WRONG_FLAG = "message published on " + OWN + "{} has wrong length (2, should be 1 or 0)"

# Messages that must change nothing, with what is logged of them.
MALFORMED = [
    (PORT + "A/media", b"\1\0", ["invalid media type length (2, should be 1)"]),
    (PORT + "A/link_down", b"\1\0", ["invalid link status length (2, should be 1)"]),
    (PORT + "A/grnd", b"\1\0", ["invalid ground fault length (2, should be 1)"]),
    (PORT + "A/stats", stats(errored=9)[:65], ["invalid statistics length (65, should be 66)"]),
    (PORT + "A/stats", stats(errored=9) + b"\0", ["invalid statistics length (67, should be 66)"]),
    (PORT + "A/status", erps_status(state=1)[:91], [WRONG_STATUS.format(91)] * 2),
    (PORT + "A/status", erps_status(state=1) + b"\0", [WRONG_STATUS.format(93)] * 2),
    (PORT + "C/status", erps_status(flags=0)[:91], [WRONG_STATUS.format(91)]),
    (PORT + "A/type", "firespur", []),
    (PORT + "A/type", b"fire\0ish", []),
    (PORT + "C/type", "Fire", []),
    (PORT + "C/type", "fire\n", []),
    (
        PORT + "Z/type",
        "fire",
        [
            f"invalid port identifier in topic {PORT}Z/type",
            f"couldn't find port identifier in topic {PORT}Z/type",
        ],
    ),
    (PORT + "a/status", erps_status(flags=0), [f"invalid port identifier in topic {PORT}a/status"]),
    ("local/diag/ring/0/status", b"\1\0\0", [WRONG_RING.format(3)]),
    ("local/diag/ring/0/status", b"\1\0\0\0\0", [WRONG_RING.format(5)]),
    ("local/diag/ring/x/status", b"\1\0\0\0", []),
    (OWN + "job_rev", "R234", [TOO_LONG.format("job_rev", 4, 3)]),
    (OWN + "job_name", "LAB-00012", [TOO_LONG.format("job_name", 9, 8)]),
    (OWN + "download_status", b"\3", [WRONG_DOWNLOAD.format(1)]),
    (OWN + "download_status", b"\3\3\3", [WRONG_DOWNLOAD.format(3)]),
    *[
        (OWN + "CF_free_space", text, [f"invalid CF free space value {text}"])
        for text in ("12abc", "-1", " 1", "4294967296", "08")
    ],
    *[(OWN + name, "10", [WRONG_FLAG.format(name)]) for name in ("M301", "M702", "comm_loss", "download_pending")],
]


@pytest.fixture(scope="module")
def started(make_lab):
    """A node that was given all facts, and then the malformed ones before it sent its first summary: the node, its
    daemon, what it logged, and that summary."""
    lab = make_lab(2, "star", daemons=False).silence_cards()
    node = lab[1]
    number = late_number()
    node.publish(*FACTS)
    with lab[2].fire() as fire:
        # A busy machine may be too slow for the daemon's first delay.
        for _ in range(5):
            fire.items.clear()
            daemon = node.start("-n", str(number))
            node.await_topics({OWN + "port_media": b'{"A":"smf","B":"eth"}'})
            node.publish(*(message[:2] for message in MALFORMED), retain=False)
            node.mark_broker()
            if len(node.logged(daemon.log_start)) >= sum(len(message[2]) for message in MALFORMED) and not fire.items:
                break
            daemon.stop()
        yield node, number, daemon, node.texts(daemon.log_start), fire.wait(lambda item: True)[2]


def test_malformed_fact_is_not_logged_exactly(started):
    _, _, _, texts, _ = started
    assert texts == [text for _, _, expected in MALFORMED for text in expected]


def test_first_summary_differs_from_the_facts_or_takes_a_malformed_one(started):
    node, number, _, _, first = started
    boot = b"diag-boot " + b"2.1.0".ljust(36) + b"2026"
    system, application = b"diag-os   " + b"1.4.0 lab\n".ljust(40), b"diag-app  " + b"1.0.0 lab\n".ljust(40)
    assert first[:10].hex() == "0101" + node.mac.replace("-", "") + "00ee"
    assert cut_summary(first) == {
        0: bytes([number]),
        # link down, ground, red, yellow, green; B is down, A is up
        1: bytes([2, 2, 2, 0, 1]),
        # eth, dsl, smf, mmf, fire, spur
        2: bytes([2, 0, 1, 0, 1, 2]),
        # B leads to port 2 of node 9
        3: bytes([2, 0, 0, 0, 9, 2, 1]) + bytes(18),
        4: bytes([0b1001, 0b1000]),
        5: b"LAB-0001R1\0",
        6: b"\1\2" + struct.pack("<I", 16) + bytes([1, 0, 1, 0]),
        7: b"\7",
        8: boot + system + application,
    }


def test_topics_of_the_node_and_lists_differ_from_the_facts(started):
    node, number, *_ = started
    record = bytes.fromhex(node.mac.replace("-", "")) + bytes([number, 2])
    node.await_topics(
        {
            OWN + "port_summary": b'{"A":"green","B":"red"}',
            OWN + "port_media": b'{"A":"smf","B":"eth"}',
            **{f"pub/diag/net/fire/{name}": record for name in ("link_down", "grnd_list", "miswired")},
            "pub/diag/net/fire/miswired_links": bytes([number, 1, 9, 2]),
            "local/diag/network_style7": b"\1",
        }
    )


def test_daemon_receives_its_own_multicast(started):
    """The kernel counts what any socket of the node takes."""
    node, *_ = started
    assert node.counter("Udp", "OutDatagrams") >= 1
    assert node.counter("Udp", "InDatagrams") == 0


def test_port_that_has_gone_leaves_topics_or_listings_behind(started):
    node, *_ = started
    node.publish((PORT + "B/stats", stats(good=1)))
    node.topics.wait(lambda item: item[0] == OWN + "B/stats")
    node.publish((PORT + "B/type", ""), (PORT + "B/status", ""))
    withdrawn = ["stats", "pm/last_period", "pm/last_day"]
    withdrawn += [f"pm/period{slot}" for slot in range(96)] + [f"pm/day{slot}" for slot in range(7)]
    node.await_topics({OWN + "port_media": b'{"A":"smf"}', "pub/diag/net/fire/miswired_links": None})
    node.await_topics({OWN + "port_summary": b'{"A":"green"}', **{OWN + "B/" + name: None for name in withdrawn}})
    assert {(OWN + "B/" + name, b"") for name in withdrawn} <= set(node.topics.items)
    node.await_topics({f"pub/diag/net/fire/{name}": b"\0" for name in ("link_down", "grnd_list", "miswired")})


def test_unknown_media_is_taken_and_does_not_end_the_daemon(started):
    node, _, daemon, *_ = started
    start = len(node.log.items)
    node.publish((PORT + "A/media", b"\5"))
    assert daemon.end() == 1
    assert node.texts(start) == ["invalid media type 5", "couldn't udpate port media in summary"]
