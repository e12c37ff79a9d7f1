"""Datagrams as the kernel hands them over: whole, cut off, empty, by the ten thousand."""
import random

import pytest
from panel import ACK, CLIENT_KEEPALIVE, GOODBYE, GROUP, SANITIZED, SUMMARY, UNSUBSCRIBE_ALL, packet, summary

PEER, MARKER = "0A-00-00-00-00-01", "0A-00-00-00-00-FF"


class Exchange:
    """A daemon, and the test in the place of the other nodes."""

    def __init__(self, lab):
        self.node = lab[1]
        self.fire = lab[2].fire()
        self.daemon = self.node.start("-n", "1")
        self.fire.wait(lambda item: item[1] == self.node.address)
        self.marks = 0

    def send(self, *datagrams):
        for datagram in datagrams:
            self.fire.write(f"{GROUP} {datagram.hex()}")

    def mark(self):
        """Waits until the daemon has handled what was sent, and the broker has what it published."""
        self.marks = self.marks % 255 + 1
        start = len(self.node.topics.items)
        self.send(summary(MARKER, {7: bytes([self.marks])}))
        mark = (f"pub/diag/{MARKER}/repeater", str(self.marks).encode())
        self.node.topics.wait(lambda item: item == mark, start=start)


@pytest.fixture(scope="module")
def exchange(make_lab):
    exchange = Exchange(make_lab(2, "star", daemons=False).silence_cards())
    yield exchange
    assert exchange.daemon.stop() == 0


def test_daemon_receives_its_own_multicast(exchange):
    """The kernel counts what any socket of the node takes."""
    assert exchange.node.counter("Udp", "OutDatagrams") >= 1
    assert exchange.node.counter("Udp", "InDatagrams") == 0


def test_size_of_a_datagram_is_misread(exchange):
    start = len(exchange.node.log.items)
    exchange.send(b"", packet(GOODBYE, PEER)[:9], packet(SUMMARY, PEER, b"\xff" * 1014))
    exchange.send(*(packet(SUMMARY, PEER, bytes(size - 10)) for size in (1025, 2000)))
    exchange.mark()
    assert exchange.node.texts(start) == [
        *(f"packet is too small ({size} bytes), ignoring" for size in (0, 9)),
        *(f"received packet is too large for buffer ({size} bytes, buffer is 1024)" for size in (1025, 2000)),
    ]


def mutations(generator, count):
    """Summaries with wrong bytes and random packets from twenty nodes. Left out are the types that end the daemon where
    they cannot be carried out, and those that make it publish or subscribe what they say."""
    safe = [UNSUBSCRIBE_ALL, ACK, CLIENT_KEEPALIVE, SUMMARY, GOODBYE]
    sections = {
        0: b"\x09",
        1: bytes(5),
        2: bytes(6),
        3: bytes(25),
        5: bytes(11),
        6: bytes(10),
        7: b"\xc8",
        8: bytes(150),
    }
    for _ in range(count):
        mac = f"0A-00-00-00-01-{generator.randrange(20):02X}"
        if generator.random() < 0.7:
            data = bytearray(summary(mac, sections))
        else:
            # Goodbyes are rare: each costs a dozen publications, and a daemon that is kept busy so for seconds
            # takes its broker for lost.
            kind = generator.choices(safe, [8, 8, 8, 8, 1])[0]
            data = bytearray(packet(kind, mac, generator.randbytes(generator.randrange(60))))
        for _ in range(generator.randrange(1, 5)):
            data[generator.randrange(8, len(data))] = generator.randrange(256)
        yield bytes(data[: generator.randrange(len(data) + 1)] if generator.random() < 0.2 else data)


@pytest.mark.timeout(200)
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
            memory.append(exchange.daemon.inside().memory_info().rss)
    assert SANITIZED or memory[-1] - memory[10] < 2**20
    assert exchange.node.counter("Udp", "InDatagrams") - start > 50000
