"""Five nodes under everything at once: lost datagrams, cut links, storming clients, restarts.

DIAG_SOAK_SECONDS tells for how long: growth shows after a minute only. ./check --all runs it for two, bench/soak for
half an hour.
"""
import collections
import itertools
import os
import random
import time

import pytest
from panel import Lab, Stream, wait_until

SECONDS = int(os.environ.get("DIAG_SOAK_SECONDS", "20"))
NODES = 5
CLIENTS = 8  # of each node, each with one request at a time
ANSWER_SECONDS = 15  # the longest request takes 10 s
GROWTH_LIMIT = 4096  # of a daemon's resident memory, in kB, from one minute after its start
WARM_UP_SECONDS = 60
REQUEST, RESPONSE = "pub/diag/command/request", "pub/diag/command/response"
# A small quarantine: freed memory is to come back, or every daemon would seem to grow.
ENVIRONMENT = ["ASAN_OPTIONS=quarantine_size_mb=1:detect_leaks=1"]


class Client:
    """One request after the other, each answered exactly once."""

    def __init__(self, card, number):
        self.card, self.number = card, number
        self.subscriptions = 0  # the daemon does not answer who unsubscribes without one
        self.pending = None  # (transaction, keyword, when it was sent)
        self.last_answer = None
        self.rest_until = 0.0

    def request(self, macs):
        other = random.choice(macs)
        choices = {
            "noop": 6,
            f"subscribe;pub/diag/{other}/#;{random.choice((0, 1, 2, 10))}": 3,
            f"reset-stats;{other};{random.choice('AB')}": 1,
            "reset-all-stats": 0.1,
            "activate;1 2 3 77;" + "0" * 32: 1,
            "remote-download;2;;": 1,
            "x" * random.randrange(1, 2000): 1,
            f"unsubscribe;pub/diag/{other}/#": 2 * bool(self.subscriptions),
            "disconnect": 1,
        }
        self.send(random.choices(list(choices), list(choices.values()))[0])

    def send(self, text):
        transaction = next(self.card.transactions)
        self.pending = transaction, text.partition(";")[0], time.monotonic()
        self.card.publisher.write(f"{self.number};{transaction};{text}")

    def take(self, transaction, verdict):
        if (transaction, verdict) == self.last_answer:
            # The daemon publishes again what the broker has not acknowledged for a second.
            return "repeated"
        assert self.pending and self.pending[0] == transaction, f"{transaction} answered twice or never asked"
        self.last_answer = transaction, verdict
        keyword = self.pending[1]
        self.pending = None
        self.rest_until = time.monotonic() + random.expovariate(5)
        if verdict == "ACK":
            self.subscriptions += {"subscribe": 1, "unsubscribe": -1, "disconnect": -self.subscriptions}.get(keyword, 0)
        return keyword


class Card:
    """A node with its clients."""

    def __init__(self, node, counts):
        self.node, self.counts = node, counts
        self.transactions = itertools.count(1)
        self.clients = {number: Client(self, number) for number in range(1, CLIENTS + 1)}
        node.watch()
        self.seen = 0
        self.publisher = Stream(node.command("mosquitto_pub", "-p", "1885", "-q", "1", "-t", REQUEST, "-l"))
        self.is_resting = False
        self.start()

    def start(self):
        self.node.start("-n", str(self.node.number), env=ENVIRONMENT)
        self.started = time.monotonic()
        self.warm_memory = None
        for client in self.clients.values():
            client.subscriptions = 0

        def is_answering():
            self.publisher.write("0;0;noop")
            return (RESPONSE, b"0;0;ACK") in self.node.topics.items[self.seen :]

        wait_until(is_answering, what="the first answer")
        self.files = self.node.daemon.open_files()
        self.is_resting = False

    def read(self):
        items = self.node.topics.items
        while self.seen < len(items):
            topic, payload = items[self.seen]
            self.seen += 1
            if topic == RESPONSE:
                number, transaction, verdict = payload.decode().split(";")[:3]
                if number != "0":
                    keyword = self.clients[int(number)].take(int(transaction), verdict)
                    self.counts[f"{keyword.strip('x') or 'unknown'} {verdict}"] += 1

    def storm(self, macs):
        now = time.monotonic()
        for client in self.clients.values():
            if client.pending:
                assert now - client.pending[2] < ANSWER_SECONDS, f"no answer to {client.pending}"
            elif not self.is_resting and now > client.rest_until:
                client.request(macs)

    def is_idle(self):
        return not any(client.pending for client in self.clients.values())

    def check_growth(self):
        assert self.node.daemon.process.poll() is None, self.node.daemon.items
        if time.monotonic() - self.started > WARM_UP_SECONDS:
            memory = self.node.daemon.memory()
            self.warm_memory = self.warm_memory or memory
            growth = (memory - self.warm_memory) >> 10
            self.counts["largest growth in kB"] = max(self.counts["largest growth in kB"], growth)
            assert growth < GROWTH_LIMIT
        self.counts["most open files"] = max(self.counts["most open files"], self.node.daemon.open_files())


def lose_datagrams(node, percent):
    node.shell(
        "nft add table ip soak; nft flush table ip soak;"
        "nft add chain ip soak input '{ type filter hook input priority 0; }';"
        f"nft add rule ip soak input udp dport 50004 numgen random mod 100 '<' {percent} drop"
    )


def settle(cards, macs):
    """Waits for all answers."""
    while not all(card.is_idle() for card in cards):
        for card in cards:
            card.read()
            card.storm(macs)
        time.sleep(0.01)


@pytest.mark.timeout(SECONDS + 120)
def test_soak_shows_a_lost_answer_a_leak_or_an_end():
    seed = int(os.environ.get("DIAG_SOAK_SEED", str(time.time_ns())))
    print(f"seed {seed}")
    random.seed(seed)
    counts = collections.Counter()
    lab = Lab(NODES, daemons=False)
    try:
        for node in lab.nodes.values():
            lose_datagrams(node, 20)
        cards = [Card(node, counts) for node in lab.nodes.values()]
        macs = [card.node.mac for card in cards]
        end = time.monotonic() + SECONDS
        cut = next_fault = next_check = 0
        restarting = None
        while (now := time.monotonic()) < end:
            for card in cards:
                card.read()
                card.storm(macs)
            if restarting and restarting.is_idle():
                assert restarting.node.daemon.stop() == 0
                counts["restarts"] += 1
                restarting.start()
                restarting = None
            if now > next_fault:
                next_fault = now + random.uniform(3, 9)
                if cut:
                    lab.run("mend", cut, "B")
                    cut = 0
                elif random.random() < 0.6:
                    cut = random.randrange(1, NODES + 1)
                    lab.run("cut", cut, "B")
                    counts["cuts"] += 1
                if not restarting and random.random() < 0.3:
                    restarting = random.choice(cards)
                    restarting.is_resting = True
                lab.run("errors", random.randrange(1, NODES + 1), "A", "7")
            if now > next_check:
                next_check = now + 5
                for card in cards:
                    card.check_growth()
            time.sleep(0.01)

        for card in cards:
            card.is_resting = True
        settle(cards, macs)
        lost = counts["subscribe NACK"] + counts["restarts"] * CLIENTS
        for card in cards:
            for client in card.clients.values():
                client.send("disconnect")
        settle(cards, macs)
        # Subscriptions whose client never learnt of them, or is gone, live on for a while.
        for card in cards:
            wait_until(
                lambda: card.node.daemon.open_files() <= card.files + lost, ANSWER_SECONDS, card.node.daemon.open_files
            )
            assert card.node.daemon.stop() == 0
        print(*(f"{name}: {count}" for name, count in sorted(counts.items())), sep="\n")
        assert counts["noop ACK"] > SECONDS
        assert counts["subscribe ACK"] > SECONDS / 4
    finally:
        lab.down()
