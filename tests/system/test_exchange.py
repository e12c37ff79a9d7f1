"""The panel network as one daemon meets it: what it sends and when, and what datagrams of others make it publish."""
import random
import struct

import pytest
from panel import ACK, ACTIVATE, CLIENT_KEEPALIVE, GOODBYE, REMOTE_DOWNLOAD, RESET_ALL_STATS, RESET_STATS
from panel import SUBSCRIBE, SUMMARY, TOPIC_DATA, UNSUBSCRIBE, UNSUBSCRIBE_ALL
from panel import GROUP, SANITIZED, cut_summary, packet, section, summary, versions_text, wait_until

LOCAL = "02-00-00-00-00-01"
PEER, OTHER, MARKER = "0A-00-00-00-00-01", "0A-00-00-00-00-02", "0A-00-00-00-00-FF"
NODE_NUMBER = 1
NET = "pub/diag/net/fire/"


def topic(mac, name):
    return f"pub/diag/{mac}/{name}"


class Exchange:
    """A daemon whose port B is down, and the test in the place of the other nodes."""

    def __init__(self, lab):
        self.node = lab[1]
        self.fire = lab[2].fire()
        self.node.publish(("local/diag/port/B/type", "fire"), ("local/diag/port/B/link_down", b"\1"))
        self.daemon = self.node.start("-n", str(NODE_NUMBER))
        self.node.topics.wait(lambda item: item[0] == topic(LOCAL, "port_summary"))
        self.marks = 0

    def send(self, *datagrams, to=GROUP):
        for datagram in datagrams:
            self.fire.write(f"{to} {datagram.hex()}")

    def mark(self):
        """Waits until the daemon has handled what was sent, and the broker has what it published."""
        self.marks = self.marks % 255 + 1
        start = len(self.node.topics.items)
        self.send(summary(MARKER, {7: bytes([self.marks])}))
        mark = (topic(MARKER, "repeater"), str(self.marks).encode())
        self.node.topics.wait(lambda item: item == mark, start=start)

    def effect(self, *datagrams):
        """What the datagrams made the daemon publish and log."""
        published, logged = len(self.node.topics.items), len(self.node.log.items)
        self.send(*datagrams)
        self.mark()
        items = self.node.topics.items[published:]
        return [item for item in items if MARKER not in item[0]], self.node.texts(logged)

    def sizes(self):
        """Times and sizes of what the daemon has sent."""
        return [(moment, len(data)) for moment, source, data in self.fire.items if source == self.node.address]


@pytest.fixture(scope="module")
def exchange(make_lab):
    return Exchange(make_lab(2, "--star", "--no-daemon").silence_cards())


@pytest.fixture
def peers(exchange):
    """Leaves no trace of the nodes that a test plays."""
    yield exchange
    exchange.effect(packet(GOODBYE, PEER), packet(GOODBYE, OTHER))


def port_record(mac, number, mask):
    return bytes.fromhex(mac.replace("-", "")) + bytes([number, mask])


LOCAL_DOWN = port_record(LOCAL, NODE_NUMBER, 2)
VERSIONS = [("boot", "1"), ("system", "2.0"), ("app", "3")]
QUIET = {
    0: b"\x09",
    1: bytes(5),
    2: bytes(6),
    3: bytes(25),
    4: bytes([1, 0]),
    5: b"JOB\0\0\0\0\0R1\0",
    6: b"\1\2" + struct.pack("<I", 10000) + bytes([1, 0, 2, 1]),
    7: b"\xc8",
    8: "".join(f"{name:10}{version:40}" for name, version in VERSIONS).encode(),
}
TEXTS = [
    (topic(PEER, "job_rev"), b"R1"),
    (topic(PEER, "job_name"), b"JOB"),
    (topic(PEER, "download_status"), b"\1\2"),
    (topic(PEER, "M301"), b"1"),
    (topic(PEER, "M702"), b"0"),
    (topic(PEER, "comm_loss"), b"0"),
    (topic(PEER, "download_pending"), b"1"),
    (topic(PEER, "CF_free_space"), b"10000"),
    (topic(PEER, "repeater"), b"200"),
    (topic(PEER, "software_versions"), versions_text(VERSIONS[1], VERSIONS[0], VERSIONS[2])),
]


def test_first_summaries_are_late_early_or_too_many(exchange):
    """The schedule goes on while the other tests run; test_summaries_of_the_first_minute looks at the rest."""
    fire, node = exchange.fire, exchange.node
    first = fire.wait(lambda item: item[1] == node.address)
    assert len(first[2]) == 248
    node.publish(("local/diag/port/B/grnd", b"\1"))
    second = fire.wait(lambda item: item[1] == node.address and item != first)
    assert cut_summary(second[2]) == {0: bytes([NODE_NUMBER]), 1: bytes([2, 2, 2, 0, 0])}
    assert second[0] - first[0] == pytest.approx(3, abs=0.4)


def test_first_summary_of_a_quiet_node_publishes_lists_or_misses_a_topic(peers):
    published, logged = peers.effect(summary(PEER, QUIET))
    assert published == [
        (topic(PEER, "port_summary"), b"{}"),
        (topic(PEER, "port_media"), b"{}"),
        ("local/diag/network_style7", b"\1"),
        ("local/diag/network_style7", b"\1"),
        *TEXTS,
    ]
    assert logged == []


def test_first_summary_of_a_faulty_node_misses_a_list(peers):
    sections = {
        **QUIET,
        1: bytes([0b1, 0b10, 0b101, 0b1100, 0b10000101]),
        2: bytes([0b1, 0b11, 0b111, 0b10001111, 0b1, 0]),
        3: bytes([0b1, 7, 2, 0]) + bytes(21),
    }
    published, logged = peers.effect(summary(PEER, sections))
    assert published == [
        (NET + "link_down", port_record(PEER, 9, 0b1) + LOCAL_DOWN),
        (NET + "grnd_list", port_record(PEER, 9, 0b10) + LOCAL_DOWN),
        (topic(PEER, "port_summary"), b'{"A":"red","C":"red","D":"yellow","H":"green"}'),
        (topic(PEER, "port_media"), b'{"A":"eth","B":"dsl","C":"smf","D":"mmf","H":"mmf"}'),
        ("local/diag/network_style7", b"\1"),
        (NET + "miswired", port_record(PEER, 9, 0b1)),
        (NET + "miswired_links", bytes([9, 0, 7, 2])),
        ("local/diag/network_style7", b"\1"),
        *TEXTS,
    ]
    assert logged == []


# Sections that follow a quiet node's summary, and what they make the daemon publish and log.
CHANGES = {
    "nothing": (QUIET, [], []),
    "the number": ({0: b"\x0a"}, [], []),
    "a yellow port": ({1: bytes([0, 0, 0, 4, 0])}, [(topic(PEER, "port_summary"), b'{"C":"yellow"}')], []),
    "a link": ({1: bytes([1, 0, 0, 0, 0])}, [(NET + "link_down", port_record(PEER, 9, 1) + LOCAL_DOWN)], []),
    "free space and a flag": (
        {6: b"\1\2" + b"\xff" * 4 + bytes([2, 0, 2, 1])},
        [(topic(PEER, "M301"), b"0"), (topic(PEER, "CF_free_space"), b"429496729")],
        [],
    ),
    "the job's texts": (
        {5: b"12345678" + b"A\0B"},
        [(topic(PEER, "job_rev"), b"A"), (topic(PEER, "job_name"), b"12345678")],
        [],
    ),
}
REPEATER = section(7, b"\x05")
REPEATED = [(topic(PEER, "repeater"), b"5")]
# Payloads that are not well formed throughout.
PAYLOADS = {
    "no section": (b"", [], []),
    "less than a header": (b"\7\0\1", [], []),
    "a header with nothing behind": (REPEATER + b"\1\0\5", REPEATED, []),
    "an unknown type": (b"\x10\0\1" + REPEATER + b"\xff\xff\xff" + REPEATER, REPEATED, []),
    "a section too short": (
        section(3, bytes(24)) + REPEATER,
        REPEATED,
        ["invalid length for type 0x03 (24, should be 25)"],
    ),
    "a section too long": (section(0, b"\1\2") + REPEATER, REPEATED, ["invalid length for type 0x00 (2, should be 1)"]),
    "an empty section": (section(7, b"") + REPEATER, REPEATED, ["invalid length for type 0x07 (0, should be 1)"]),
    "a length past the end": (
        REPEATER + section(6, bytes(50), length=0x100),
        REPEATED,
        ["not enough data for given length"],
    ),
    "a length one past the end": (
        REPEATER + section(7, b"\6", length=2),
        REPEATED,
        ["not enough data for given length"],
    ),
}


@pytest.mark.parametrize("change", CHANGES)
def test_summary_has_a_wrong_effect_when_it_changes(change, peers):
    sections, published, logged = CHANGES[change]
    peers.effect(summary(PEER, QUIET))
    assert peers.effect(summary(PEER, sections)) == (published, logged)


@pytest.mark.parametrize("payload", PAYLOADS)
def test_summary_has_a_wrong_effect_with(payload, peers):
    data, published, logged = PAYLOADS[payload]
    peers.effect(summary(PEER, QUIET))
    assert peers.effect(packet(SUMMARY, PEER, data)) == (published, logged)


def test_lists_of_two_nodes_are_misordered_or_a_link_is_listed_twice(peers):
    miswired = {PEER: bytes([1, 8, 3, 0]) + bytes(21), OTHER: bytes([8]) + bytes(9) + bytes([9, 0, 3]) + bytes(12)}
    numbers = {PEER: 9, OTHER: 8}
    for mac in (PEER, OTHER):
        peers.effect(summary(mac, {0: bytes([numbers[mac]]), 1: bytes([4, 0, 0, 0, 0]), 3: miswired[mac]}))
    peers.node.await_topics(
        {
            NET + "link_down": port_record(OTHER, 8, 4) + port_record(PEER, 9, 4) + LOCAL_DOWN,
            NET + "miswired": port_record(OTHER, 8, 8) + port_record(PEER, 9, 1),
            NET + "miswired_links": bytes([8, 3, 9, 0]),
        }
    )


def test_goodbye_leaves_topics_or_takes_the_versions(exchange):
    exchange.effect(summary(PEER, {**QUIET, 1: bytes([1, 1, 0, 0, 0]), 3: bytes([1, 8, 3, 0]) + bytes(21)}))
    names = "port_summary port_media job_rev job_name download_status CF_free_space M301 M702 comm_loss"
    names += " download_pending repeater"
    assert exchange.effect(packet(GOODBYE, PEER)) == (
        [
            (NET + "link_down", LOCAL_DOWN),
            (NET + "grnd_list", LOCAL_DOWN),
            (NET + "miswired", b"\0"),
            (NET + "miswired_links", b""),
            *[(topic(PEER, name), b"") for name in names.split()],
        ],
        [],
    )
    assert topic(PEER, "software_versions") in exchange.node.retained()
    assert exchange.effect(packet(GOODBYE, PEER)) == ([], [])


TOO_LARGE = "received packet is too large for buffer ({} bytes, buffer is 1024)"
TOO_SMALL = "packet is too small ({} bytes), ignoring"
WRONG_LENGTH = "received packet has wrong length ({}, should be {}), ignoring"
INVALID = "received invalid {}, ignoring"
# Each check at its boundary: what it refuses with which message, and what just passes.
DATAGRAMS = [
    (b"", TOO_SMALL.format(0)),
    (packet(GOODBYE, PEER)[:9], TOO_SMALL.format(9)),
    (packet(GOODBYE, PEER), None),
    (packet(GOODBYE, PEER, length=1), WRONG_LENGTH.format(1, 0)),
    (packet(RESET_ALL_STATS, PEER, bytes(20), length=30), WRONG_LENGTH.format(30, 20)),
    (packet(GOODBYE, PEER, bytes(30), length=20), None),
    (packet(0, PEER), "packet has invalid type (00), ignoring"),
    (packet(13, PEER), "packet has invalid type (0D), ignoring"),
    (packet(255, PEER), "packet has invalid type (FF), ignoring"),
    # A length that is too short counts, also when what is missing follows.
    (packet(SUBSCRIBE, PEER, bytes(20), length=11), INVALID.format("subscribe request")),
    (packet(SUBSCRIBE, PEER, bytes(10) + b"ab"), INVALID.format("subscribe request")),
    (packet(SUBSCRIBE, PEER, bytes(10) + b"ab\0", length=12), INVALID.format("subscribe request")),
    (packet(UNSUBSCRIBE, PEER, bytes(20), length=9), INVALID.format("unsubscribe request")),
    (packet(UNSUBSCRIBE, PEER, bytes(8) + b"ab\0", length=10), INVALID.format("unsubscribe request")),
    (packet(UNSUBSCRIBE_ALL, PEER, bytes(20), length=7), INVALID.format("unsubscribe all request")),
    (packet(UNSUBSCRIBE_ALL, PEER, bytes(8)), None),
    (packet(ACK, PEER, bytes(3)), INVALID.format("acknowledgement")),
    (packet(ACK, PEER, bytes(4)), None),
    (packet(TOPIC_DATA, PEER), INVALID.format("topic data")),
    (packet(TOPIC_DATA, PEER, b"a/b"), INVALID.format("topic data")),
    (packet(TOPIC_DATA, PEER, b"a/b\0x", length=3), INVALID.format("topic data")),
    (packet(TOPIC_DATA, PEER, b"a/b\0x", length=4), "received empty topic data, ignoring"),
    (packet(CLIENT_KEEPALIVE, PEER, bytes(3)), INVALID.format("client keepalive")),
    (packet(CLIENT_KEEPALIVE, PEER, bytes(4)), None),
    (packet(RESET_STATS, PEER, b"\1", length=0), INVALID.format("reset-stats request")),
    (packet(RESET_STATS, PEER, b"\1"), None),
    (packet(RESET_ALL_STATS, PEER), None),
    (packet(ACTIVATE, PEER, bytes(4)), INVALID.format("activate or remote download request")),
    (packet(REMOTE_DOWNLOAD, PEER, bytes(4)), INVALID.format("activate or remote download request")),
    (packet(SUMMARY, PEER, b"\xff" * 1014), None),
    *[(packet(SUMMARY, PEER, bytes(size - 10)), TOO_LARGE.format(size)) for size in (1025, 1500, 2000)],
]


def test_malformed_datagram_is_taken_or_a_good_one_refused(peers):
    _, logged = peers.effect(*(datagram for datagram, _ in DATAGRAMS))
    assert logged == [message for _, message in DATAGRAMS if message]


def mutations(generator, count):
    """Summaries with wrong bytes and random packets from two hundred nodes. Left out are the types that end the daemon
    where they cannot be carried out, and those that make it publish or subscribe what they say."""
    safe = [SUMMARY, UNSUBSCRIBE_ALL, ACK, CLIENT_KEEPALIVE, GOODBYE]
    unsafe = set(range(1, 13)) - set(safe)
    for _ in range(count):
        mac = f"0A-00-00-00-01-{generator.randrange(200):02X}"
        if generator.random() < 0.7:
            data = bytearray(summary(mac, QUIET))
            for _ in range(generator.randrange(1, 5)):
                data[generator.randrange(8, len(data))] = generator.randrange(256)
        else:
            payload = generator.randbytes(generator.randrange(60))
            data = bytearray(packet(generator.choice(safe), mac, payload))
            data[generator.randrange(len(data))] = generator.randrange(256)
        if data[1] not in unsafe:
            yield bytes(data[: generator.randrange(len(data) + 1)] if generator.random() < 0.2 else data)


def test_flood_of_malformed_datagrams_ends_the_daemon_or_fills_its_memory(exchange):
    seed = random.randrange(2**32)
    print("seed", seed)
    generator = random.Random(seed)
    start = exchange.node.counter("Udp", "InDatagrams")
    memory = []
    for _ in range(10):
        with exchange.node.burst() as burst:
            burst.feed(mutations(generator, 5000))
            burst.end(60)
        exchange.mark()
        memory.append(exchange.daemon.memory())
    assert SANITIZED or memory[-1] - memory[1] < 2**20
    assert exchange.node.counter("Udp", "InDatagrams") - start > 45000


def test_summaries_of_the_first_minute_do_not_follow_the_schedule(exchange):
    """Every fifth one has what may change, the others only what has."""
    first = exchange.sizes()[0][0]
    wait_until(lambda: exchange.sizes()[-1][0] > first + 14, limit=30)
    assert [(size, round((moment - first) / 3)) for moment, size in exchange.sizes()[:3]] == [(248, 0), (22, 1), (72, 5)]


def test_summary_with_the_own_address_is_withdrawn_or_ends_the_daemon(exchange):
    changed = {1: bytes([2, 2, 2, 1, 0])}
    published = [(topic(LOCAL, "port_summary"), b'{"A":"yellow","B":"red"}')]
    # A section of the local record has never been seen: its first one is published whatever it holds.
    assert exchange.effect(summary(LOCAL, changed))[0][-1:] == published
    assert exchange.effect(packet(GOODBYE, LOCAL)) == ([], [])
    assert exchange.daemon.stop() == 0
