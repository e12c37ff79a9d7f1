"""The panel network as one daemon meets it: what it sends and when, and what datagrams of others make it publish."""
import random
import struct

import pytest
from panel import ACK, ACTIVATE, CLIENT_KEEPALIVE, GOODBYE, REMOTE_DOWNLOAD, RESET_ALL_STATS, RESET_STATS
from panel import SUBSCRIBE, SUMMARY, TOPIC_DATA, UNSUBSCRIBE, UNSUBSCRIBE_ALL
from panel import GROUP, SANITIZED, SUMMARY_TOPICS, wait_until
from panel import cut_summary, mac_bytes, packet, section, summary, versions_text

LOCAL = "02-00-00-00-00-01"
PEER, MARKER = "0A-00-00-00-00-01", "0A-00-00-00-00-FF"
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
    exchange = Exchange(make_lab(2, "star", daemons=False).silence_cards())
    yield exchange
    assert exchange.daemon.stop() == 0


@pytest.fixture
def peer(exchange):
    """Leaves no trace of the node that a test plays."""
    yield exchange
    exchange.effect(packet(GOODBYE, PEER))


def port_record(mac, number, mask):
    return mac_bytes(mac) + bytes([number, mask])


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


def test_first_summary_of_a_faulty_node_misses_a_list(peer):
    sections = {
        **QUIET,
        1: bytes([0b1, 0b10, 0b101, 0b1100, 0b10000101]),
        2: bytes([0b1, 0b11, 0b111, 0b10001111, 0b1, 0]),
        3: bytes([0b1, 7, 2, 0]) + bytes(21),
    }
    published, logged = peer.effect(summary(PEER, sections))
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


REPEATER = section(7, b"\x05")
# Payloads with the same section, and what is logged of the rest.
PAYLOADS = [
    (b"\x10\0\1" + REPEATER + b"\1\0\5", []),
    (section(3, bytes(24)) + REPEATER, ["invalid length for type 0x03 (24, should be 25)"]),
    (section(0, b"\1\2") + REPEATER, ["invalid length for type 0x00 (2, should be 1)"]),
    (REPEATER + section(6, bytes(50), length=0x100), ["not enough data for given length"]),
    (REPEATER + section(7, b"\6", length=2), ["not enough data for given length"]),
]


def test_malformed_section_is_taken_or_a_good_one_lost(peer):
    for payload, logged in PAYLOADS:
        peer.effect(summary(PEER, {7: b"\0"}))
        assert peer.effect(packet(SUMMARY, PEER, payload)) == ([(topic(PEER, "repeater"), b"5")], logged)


def test_goodbye_leaves_topics_or_takes_the_versions(exchange):
    exchange.effect(summary(PEER, {**QUIET, 1: bytes([1, 1, 0, 0, 0]), 3: bytes([1, 8, 3, 0]) + bytes(21)}))
    assert exchange.effect(packet(GOODBYE, PEER)) == (
        [
            (NET + "link_down", LOCAL_DOWN),
            (NET + "grnd_list", LOCAL_DOWN),
            (NET + "miswired", b"\0"),
            (NET + "miswired_links", b""),
            *[(topic(PEER, name), b"") for name in SUMMARY_TOPICS],
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


def test_malformed_datagram_is_taken_or_a_good_one_refused(peer):
    _, logged = peer.effect(*(datagram for datagram, _ in DATAGRAMS))
    assert logged == [message for _, message in DATAGRAMS if message]


def mutations(generator, count):
    """Summaries with wrong bytes and random packets from twenty nodes. Left out are the types that end the daemon where
    they cannot be carried out, and those that make it publish or subscribe what they say."""
    safe = [UNSUBSCRIBE_ALL, ACK, CLIENT_KEEPALIVE, SUMMARY, GOODBYE]
    for _ in range(count):
        mac = f"0A-00-00-00-01-{generator.randrange(20):02X}"
        if generator.random() < 0.7:
            data = bytearray(summary(mac, QUIET))
            for _ in range(generator.randrange(1, 5)):
                data[generator.randrange(8, len(data))] = generator.randrange(256)
        else:
            # Goodbyes are rare: each costs a dozen publications, and a daemon that is kept busy so for seconds
            # takes its broker for lost.
            kind = generator.choices(safe, [8, 8, 8, 8, 1])[0]
            data = bytearray(packet(kind, mac, generator.randbytes(generator.randrange(60))))
            data[generator.choice([0, *range(8, len(data))])] = generator.randrange(256)
        if generator.random() < 0.1:
            data[1] = generator.choice([0, *range(13, 256)])
        yield bytes(data[: generator.randrange(len(data) + 1)] if generator.random() < 0.2 else data)


@pytest.mark.limit(200)
def test_flood_of_malformed_datagrams_ends_the_daemon_or_fills_its_memory(exchange):
    seed = random.randrange(2**32)
    print("seed", seed)
    generator = random.Random(seed)
    start = exchange.node.counter("Udp", "InDatagrams")
    memory = []
    with exchange.node.burst() as burst:
        for _ in range(100):
            burst(mutations(generator, 500))
            exchange.mark()
            memory.append(exchange.daemon.memory())
    assert SANITIZED or memory[-1] - memory[10] < 2**20
    assert exchange.node.counter("Udp", "InDatagrams") - start > 50000


def test_summaries_of_the_first_minute_do_not_follow_the_schedule(exchange):
    """Every fifth tick brings what may change, the others only what has."""
    first = exchange.sizes()[0][0]
    wait_until(lambda: exchange.sizes()[-1][0] > first + 14, limit=30, what=exchange.sizes)
    sizes = [size for _, size in exchange.sizes()[:3]]
    ticks = [(moment - first) / 3 for moment, _ in exchange.sizes()[:3]]
    assert sizes == [248, 22, 72]
    assert ticks[2] == pytest.approx(5, abs=0.15)
    assert ticks[1] == pytest.approx(round(ticks[1]), abs=0.15)
