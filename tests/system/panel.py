"""The lab as the tests use it: nodes with their topics, their log, their daemon, and the packets between them.

Nothing here sleeps for a fixed time: everything waits for a condition, within a limit.
"""
import itertools
import os
import re
import signal
import struct
import subprocess
import threading
import time
from ast import literal_eval
from contextlib import contextmanager, suppress
from pathlib import Path

import diaglab
import psutil

HERE = Path(__file__).resolve().parent
LAB = HERE.parent.parent / "lab" / "lab"
BUILD = diaglab.DEFAULT_BUILD
PYTHON = "/usr/bin/python3"
GROUP = "224.22.33.44"
SANITIZED = "DIAG_SANITIZE:BOOL=ON" in (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")

_numbers = itertools.count(1)


def wait_until(condition, limit=10, what="the condition"):
    """Returns the first true result; what names it in the failure, as a text or a function that gives one."""
    deadline = time.monotonic() + limit
    while not (result := condition()):
        assert time.monotonic() < deadline, f"after {limit} s: {what() if callable(what) else what}"
        time.sleep(0.01)
    return result


def run(*words, stdin=None):
    """Runs a command that must succeed, and returns its output."""
    done = subprocess.run(list(map(str, words)), input=stdin, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0, done
    return done.stdout


class Stream:
    """A process whose lines of output are collected as they come, and when."""

    def __init__(self, command, parse=str, **options):
        self.items, self.times = [], []
        self.ended = None
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, **options)
        self._reader = threading.Thread(target=self._read, args=(parse,), daemon=True)
        self._reader.start()

    def _read(self, parse):
        for line in self.process.stdout:
            self.times.append(time.monotonic())
            self.items.append(parse(line.rstrip("\n")))
        self.ended = time.monotonic()

    def write(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def wait(self, found, limit=10, start=0):
        """The first item from start on for which found is true."""
        return wait_until(
            lambda: next((item for item in self.items[start:] if found(item)), None), limit, lambda: self.items[-20:]
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.signal(signal.SIGTERM)
        self.end()

    def inside(self):
        """The process inside the node: what runs outside is nsenter, which waits for it. None after its end."""
        outside = psutil.Process(self.process.pid)
        found = wait_until(lambda: outside.children() or self.process.poll() is not None)
        return found[0] if isinstance(found, list) else None

    def signal(self, number):
        """Nothing to a process that has just ended by itself."""
        if inside := self.inside():
            with suppress(psutil.NoSuchProcess):
                inside.send_signal(number)

    def end(self, limit=10):
        """Waits for the process and returns its exit status, below 0 for a death by signal."""
        status = self.process.wait(limit)
        self._reader.join(limit)
        return status


class Daemon(Stream):
    """A daemon started by hand. Its output is of interest only where it ought not to be: sanitizers write there."""

    def __init__(self, node, *arguments, env=(), wrap=()):
        self.log_start = len(node.log.items) if node.log else 0
        words = ["env", *env, "sh", "-c", 'echo $$; exec "$@"', "sh", *wrap, str(BUILD / "diag"), *arguments]
        super().__init__(node.command(*words), stderr=subprocess.STDOUT)
        self.node = node
        self.pid = int(wait_until(lambda: self.items, what="the daemon's start")[0])

    def stop(self, limit=10):
        self.signal(signal.SIGTERM)
        return self.end(limit)

    def end(self, limit=10):
        status = super().end(limit)
        assert not re.search("Sanitizer|runtime error", "\n".join(self.items)), self.items
        return status


class Node:
    def __init__(self, lab, number):
        self.lab, self.number = lab, number
        self.inside = lab.inside.nodes[number]
        self.mac, self.address = self.inside.mac, self.inside.address
        self.topics = self.log = self.daemon = None

    def command(self, *words):
        return self.inside.command(*words)

    def exec(self, *words, stdin=None):
        return run(*self.command(*words), stdin=stdin)

    def shell(self, script):
        return self.exec("bash", "-euc", script)

    def stream(self, *words, parse=str):
        """Starts in_node.py, which says when it is ready."""
        command = self.command(PYTHON, str(HERE / "in_node.py"), *words)
        stream = Stream(command, lambda line: line if line == "ready" else parse(line))
        stream.wait(lambda item: item == "ready")
        stream.items.clear()
        stream.times.clear()
        return stream

    # --- the daemon that the lab started

    def descriptors(self):
        """How many it holds."""
        return int(self.shell("ls /proc/$(cat /run/lab/daemon.pid)/fd | wc -l"))

    def await_descriptors(self, count, limit=5):
        wait_until(lambda: self.descriptors() == count, limit, self.descriptors)

    # --- the broker

    def publish(self, *messages, retain=True, client=""):
        """Publishes each (topic, payload) in this order, as the card's other processes would, or with QoS 1 as
        this client."""
        lines = [
            f"{topic} {(payload.encode() if isinstance(payload, str) else payload).hex()}\n"
            for topic, payload in messages
        ]
        self.exec(PYTHON, str(HERE / "in_node.py"), "publish", str(int(retain)), client, stdin="".join(lines))

    def watch(self, *client):
        """Starts collecting what is published, as seen by a client on the card: items of (topic, payload)."""
        client = client or ("-p", "1885")
        self.shell(f"until mosquitto_pub {' '.join(client)} -t local/ready -r -m 1 2>/dev/null; do sleep 0.02; done")

        def parse(line):
            topic, _, payload = line.partition(" ")
            return topic, bytes.fromhex(payload)

        command = ["mosquitto_sub", *client, "-q", "1", "-t", "#", "-F", "%t %x"]
        self.topics = Stream(self.command(*command), parse)
        self.topics.wait(lambda item: item[0] == "local/ready")
        self.publish(("local/ready", ""))

    def fake_broker(self, how):
        """Starts a broker that misbehaves: items of (time, kind, topic, payload)."""

        def parse(line):
            moment, kind, topic, payload = line.split(" ")
            return float(moment), kind, topic, bytes.fromhex(payload)

        return self.stream("broker", *how.split(" "), parse=parse)

    def counter(self, protocol, name):
        """Of the kernel, for this node alone."""
        head, values = re.findall(f"^{protocol}: (.*)$", self.exec("cat", "/proc/net/snmp"), re.MULTILINE)
        return int(values.split()[head.split().index(name)])

    def mark_broker(self):
        """Waits until everything published up to now has been collected."""
        mark = f"test/mark{next(_numbers)}"
        self.shell(f"mosquitto_pub -p 1885 -q 1 -t {mark} -n")
        self.topics.wait(lambda item: item[0] == mark)

    def stop_broker(self):
        if self.topics:
            self.topics.__exit__()
        self.inside.stop("broker")

    def start_broker(self):
        """A broker starts empty."""
        self.inside.start_broker()
        self.watch()

    def retained(self):
        """The last payload of every topic that has one."""
        return {topic: payload for topic, payload in dict(self.topics.items).items() if payload}

    def await_topics(self, expected, limit=10):
        """Waits until topics have these payloads; None stands for no retained value."""
        wait_until(
            lambda: all(self.retained().get(topic) == payload for topic, payload in expected.items()),
            limit,
            lambda: {topic: self.retained().get(topic) for topic in expected},
        )

    # --- the log

    def take_log(self):
        """Takes the system log from the card: items are the texts of the datagrams."""
        self.log = self.stream("log", parse=literal_eval)

    def lines(self, start=0):
        """The parts of everything logged up to now, of each datagram from start on."""
        mark = f"mark{next(_numbers)}"
        self.exec("logger", "-u", "/dev/log", mark)
        self.log.wait(lambda item: item.endswith(mark))
        return [line for line in map(LOG_LINE.fullmatch, self.log.items[start:]) if line]

    def logged(self, start=0):
        return [line.group("component", "source", "text") for line in self.lines(start)]

    def texts(self, start=0):
        return [line["text"] for line in self.lines(start)]

    # --- the panel network

    def fire(self):
        """Takes the daemon's place on the network: items of (time, source address, packet)."""

        def parse(line):
            moment, address, data = line.split(" ")
            return float(moment), address, bytes.fromhex(data)

        return self.stream("fire", parse=parse)

    @contextmanager
    def burst(self):
        """A function that sends datagrams to the node's own daemon, and returns when it has read them."""
        with self.stream("burst") as stream:

            def send(datagrams):
                start = len(stream.items)
                for datagram in datagrams:
                    stream.write(datagram.hex())
                stream.write("end")
                stream.wait(lambda item: item == "end", 30, start)

            yield send

    # --- the daemon

    def start(self, *arguments, env=(), wrap=()):
        # A test that has failed may have left one.
        if self.daemon and self.daemon.process.poll() is None:
            self.daemon.__exit__()
        self.daemon = Daemon(self, *arguments, env=env, wrap=wrap)
        return self.daemon

    def run(self, *arguments, env=()):
        """Runs a daemon that ends by itself: its exit status and what it logged."""
        daemon = self.start(*arguments, env=env)
        return daemon.end(), self.logged(daemon.log_start)


LOG_LINE = re.compile(
    r"<(?P<priority>\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d diag: "
    r"\[(?P<level>[A-Z]+)\] (?P<component>\w+)\((?P<pid>\d+)\) - (?P<source>[\w/.]+):(?P<line>\d+) - (?P<text>.*)",
    re.DOTALL,
)


class Client:
    """A diagnostic client at a node's broker, which gives commands to the node's daemon."""

    def __init__(self, node, number):
        self.node, self.number = node, number

    def ask(self, *commands):
        """Gives commands, such as "noop", all at once, and returns what finds their answers."""
        heads = [f"{self.number};{next(_numbers)};" for _ in commands]
        messages = [("pub/diag/command/request", head + command) for head, command in zip(heads, commands)]
        self.node.publish(*messages, retain=False)
        return heads

    def answers(self, heads):
        """The answers that have come, without the client's numbers, in the order of the commands."""
        topic = "pub/diag/command/response"
        texts = [payload.decode().split(";", 2) for found, payload in self.node.topics.items if found == topic]
        known = {f"{client};{transaction};": answer for client, transaction, answer in texts}
        return [known[head] for head in heads if head in known]

    def await_answers(self, heads, limit=5):
        wait_until(lambda: len(self.answers(heads)) == len(heads), limit, lambda: self.answers(heads))
        return self.answers(heads)

    def command(self, text):
        """Gives one command and returns its answer."""
        return self.await_answers(self.ask(text))[0]


class Probe:
    """A topic of a node that the test changes."""

    def __init__(self, node):
        self.node, self.topic = node, f"pub/diag/{node.mac}/probe"

    def change(self):
        """Gives the topic a value that it never had, and returns it."""
        value = str(next(_numbers)).encode()
        self.node.publish((self.topic, value))
        return value

    def await_value(self, node, value, limit=5):
        """Waits until the value comes to another node."""
        node.topics.wait(lambda item: item == (self.topic, value), limit)

    def await_change(self, node, limit):
        """Changes the topic until one of the values comes to another node: each is sent once, what is lost stays so."""
        start, sent = len(node.topics.items), []

        def arrived():
            sent.append((self.topic, self.change()))
            return any(item in sent for item in node.topics.items[start:])

        wait_until(arrived, limit, lambda: sent)


class Lab:
    """A lab that lives as long as the tests: it ends with this process, however that ends."""

    def __init__(self, count, shape="ring", daemons=True):
        self.name = f"test-{os.getpid()}-{next(_numbers)}"
        config = diaglab.Config(shape, count, str(BUILD), diaglab.DEFAULT_DAEMON if daemons else "", attached=True)
        self.process = diaglab.launch(self.name, config)
        self.inside = diaglab.attach(self.name)
        self.nodes = {number: Node(self, number) for number in range(1, count + 1)}

    def __getitem__(self, number):
        return self.nodes[number]

    def run(self, word, *words):
        """A command of the lab, as it is typed."""
        return run(LAB, "--name", self.name, word, *words)

    def silence_cards(self, brokers=True):
        """Leaves nodes with empty brokers, or none, and facts and log to the test."""
        for node in self.nodes.values():
            node.inside.stop("card")
            node.stop_broker()
            node.take_log()
            if brokers:
                node.start_broker()
        return self

    def down(self):
        diaglab.kill(self.process)


# --- packets

SUMMARY, UNSUBSCRIBE_ALL, ACK, CLIENT_KEEPALIVE, GOODBYE = 1, 4, 5, 7, 12

REQUEST_TRIES = 10  # one a second

# The topics of another node that its end withdraws, in this order.
SUMMARY_TOPICS = [
    *("port_summary", "port_media", "job_rev", "job_name", "download_status", "CF_free_space"),
    *("M301", "M702", "comm_loss", "download_pending", "repeater"),
]


def mac_bytes(mac):
    return bytes.fromhex(mac.replace("-", ""))


def packet(kind, mac, payload=b""):
    return bytes([1, kind]) + mac_bytes(mac) + struct.pack(">H", len(payload)) + payload


def summary(mac, sections):
    """A summary packet with these sections, a mapping of type to data."""
    return packet(SUMMARY, mac, b"".join(struct.pack(">BH", kind, len(data)) + data for kind, data in sections.items()))


def versions_text(*pairs):
    return "".join(f"{name:10.10}:{version:40.40};" for name, version in pairs).encode()
