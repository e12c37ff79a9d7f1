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
from panel import Stream, wait_until

SECONDS = int(os.environ.get("DIAG_SOAK_SECONDS", "20"))
NODES = 5
CLIENTS = range(1, 9)  # of each node, each with one request at a time
ANSWER_SECONDS = 15  # the longest request takes 10 s
GROWTH_LIMIT = 4096  # of a daemon's resident memory, in kB, from one minute after its start
WARM_UP_SECONDS = 60
REQUEST, RESPONSE = "pub/diag/command/request", "pub/diag/command/response"
# A small quarantine: freed memory is to come back, or every daemon would seem to grow.
ENVIRONMENT = ["ASAN_OPTIONS=quarantine_size_mb=1:detect_leaks=1"]
LOSS = """nft add table ip soak; nft flush table ip soak
nft add chain ip soak input '{ type filter hook input priority 0; }'
nft add rule ip soak input udp dport 50004 numgen random mod 100 '<' 20 drop"""

transactions = itertools.count(1)
counts = collections.Counter()


class Card:
    """A node with its clients, each of which has every request answered exactly once."""

    def __init__(self, node):
        self.node = node
        node.shell(LOSS)
        node.watch()
        self.seen = 0
        self.pending = {}  # by client: transaction, command, when it was sent
        self.answered = {}  # by client: the last answer
        self.rest_until = dict.fromkeys(CLIENTS, 0.0)
        self.publisher = Stream(node.command("mosquitto_pub", "-p", "1885", "-q", "1", "-t", REQUEST, "-l"))
        self.start()

    def start(self):
        self.daemon = self.node.start("-n", str(self.node.number), env=ENVIRONMENT)
        self.started = time.monotonic()
        self.warm_memory = None
        # By client. The daemon doesn't answer who unsubscribes without a subscription, and takes a client for gone that
        # has ended as many as it has begun.
        self.subscribed = {client: [] for client in CLIENTS}

        def is_answering():
            self.publisher.write("0;0;noop")
            return (RESPONSE, b"0;0;ACK") in self.node.topics.items[self.seen :]

        wait_until(is_answering, what="the first answer")
        self.files = self.daemon.inside().num_fds()
        self.is_resting = False

    def send(self, client, text):
        self.pending[client] = next(transactions), text, time.monotonic()
        self.publisher.write(f"{client};{self.pending[client][0]};{text}")

    def request(self, client, other):
        mine = self.subscribed[client]
        choices = {
            "noop": 6,
            f"subscribe;pub/diag/{other}/#;{random.choice((0, 1, 2, 10))}": 3,
            f"unsubscribe;{random.choice(mine or [''])}": 2 * bool(mine),
            f"reset-stats;{other};{random.choice('AB')}": 1,
            "reset-all-stats": 0.1,
            "activate;1 2 3 77;" + "0" * 32: 1,
            "remote-download;2;;": 1,
            "x" * random.randrange(1, 2000): 1,
            "disconnect": 1,
        }
        self.send(client, *random.choices(list(choices), list(choices.values())))

    def answer(self, client, transaction, verdict):
        if self.answered.get(client) == (transaction, verdict):
            return  # the daemon publishes again what the broker has not acknowledged for a second
        asked, command, _ = self.pending.pop(client, (None, "", 0))
        assert asked == transaction, f"{transaction} answered twice or never asked"
        self.answered[client] = transaction, verdict
        self.rest_until[client] = time.monotonic() + random.expovariate(5)
        keyword, topic, *_ = f"{command};".split(";")
        if (keyword, verdict) == ("subscribe", "ACK"):
            self.subscribed[client].append(topic)
        elif (keyword, verdict) == ("unsubscribe", "ACK"):
            self.subscribed[client].remove(topic)
        elif keyword == "disconnect":
            self.subscribed[client].clear()
        counts[f"{keyword.strip('x') or 'unknown'} {verdict}"] += 1

    def go_on(self, macs):
        """Takes the answers that have come, and gives commands."""
        items = self.node.topics.items[self.seen :]
        self.seen += len(items)
        for client, transaction, verdict in (item[1].decode().split(";")[:3] for item in items if item[0] == RESPONSE):
            if client != "0":
                self.answer(int(client), int(transaction), verdict)
        now = time.monotonic()
        for client in CLIENTS:
            if client in self.pending:
                assert now - self.pending[client][2] < ANSWER_SECONDS, f"no answer to {self.pending[client]}"
            elif not self.is_resting and now > self.rest_until[client]:
                self.request(client, random.choice([mac for mac in macs if mac != self.node.mac]))

    def check_growth(self):
        assert self.daemon.process.poll() is None, self.daemon.items
        if time.monotonic() - self.started > WARM_UP_SECONDS:
            memory = self.daemon.inside().memory_info().rss
            self.warm_memory = self.warm_memory or memory
            growth = (memory - self.warm_memory) >> 10
            counts["largest growth in kB"] = max(counts["largest growth in kB"], growth)
            assert growth < GROWTH_LIMIT
        counts["most open files"] = max(counts["most open files"], self.daemon.inside().num_fds())


@pytest.mark.timeout(SECONDS + 180)
def test_soak_shows_a_lost_answer_a_leak_or_an_end(make_lab):
    seed = int(os.environ.get("DIAG_SOAK_SEED", str(time.time_ns())))
    print(f"seed {seed}")
    random.seed(seed)
    lab = make_lab(NODES, daemons=False)
    cards = [Card(node) for node in lab.nodes.values()]
    macs = [card.node.mac for card in cards]

    def settle():
        while any(card.pending for card in cards):
            for card in cards:
                card.go_on(macs)
            time.sleep(0.01)

    end = time.monotonic() + SECONDS
    next_fault = next_check = 0
    cut = restarting = None
    while (now := time.monotonic()) < end:
        for card in cards:
            card.go_on(macs)
        if restarting and not restarting.pending:
            assert restarting.daemon.stop() == 0
            counts["restarts"] += 1
            restarting.start()
            restarting = None
        if now > next_fault:
            next_fault = now + random.uniform(3, 9)
            if cut:
                lab.run("mend", cut, "B")
                cut = None
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
    settle()
    print(*(f"{name}: {count}" for name, count in sorted(counts.items())), sep="\n")
    assert counts["noop ACK"] > SECONDS
    assert counts["subscribe ACK"] > SECONDS / 4
    if cut:
        lab.run("mend", cut, "B")

    def ask_all(command):
        for i, (card, client) in enumerate(itertools.product(cards, CLIENTS)):
            card.send(client, command.format(macs[(i // len(CLIENTS) + 1) % NODES]))
        settle()
        return all(card.answered[client][1] == "ACK" for card, client in itertools.product(cards, CLIENTS))

    # What a client never learnt of, and what a goodbye that went astray has left, goes with the next goodbye. Clients
    # may say it who have a subscription, and all hear it once neighbours on the ring hear each other.
    wait_until(lambda: ask_all("subscribe;pub/diag/{}/#;10"), 60, "every node hears the next")
    ask_all("disconnect")
    for card in cards:
        wait_until(
            lambda: card.daemon.inside().num_fds() <= card.files + 1,  # the socket of the log
            ANSWER_SECONDS,
            lambda: f"{card.node.number}: {card.daemon.inside().num_fds()} files, {card.files} at first",
        )
    for card in cards:
        assert card.daemon.stop() == 0
