"""Commands from clients of a real broker to their own node and, over the panel network, to others."""
import hashlib
import re
import signal

from panel import BUILD, Client, wait_until

CHALLENGE = "pub/diag/command/aut/tbl_idx"
CACHE = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
with open(re.search("DIAG_SECRETS_FILE:FILEPATH=(.*)", CACHE)[1], encoding="ascii") as table:
    WORDS = table.read().split("\n")


def digest(node):
    """The right response to the challenge in force."""
    words = (WORDS[int(index)] for index in node.retained()[CHALLENGE][2:].split())
    return hashlib.md5("".join(words).encode()).hexdigest()


def test_silent_node_holds_up_others_or_loses_one_of_fifty_requests(make_lab):
    nodes = list(make_lab(3, "star", daemons=False).nodes.values())
    for node in nodes:
        node.watch()
        node.start("-n", str(node.number))
    first, second, third = nodes
    client = Client(first, 5)
    first.topics.wait(lambda item: item[0] == CHALLENGE)
    wait_until(lambda: client.command(f"remote-download;0;2 3;{digest(first)}") == "ACK", 20, "the other nodes")
    third.daemon.signal(signal.SIGKILL)
    third.daemon.end()
    served = client.ask(*(f"subscribe;pub/diag/{second.mac}/{number}" for number in range(24)))
    lost = client.ask(*(f"unsubscribe;pub/diag/{third.mac}/{number}" for number in range(24)))
    # The challenge is a new one when the first request has been carried out here.
    lost += client.ask(f"activate;1 3 2 42 3;{digest(first)}")
    first.await_topics({"local/activate": b"\5"})
    lost += client.ask(f"remote-download;1;2 3 1;{digest(first)}")
    assert client.command("noop") == "ACK"
    assert client.await_answers(served) == ["ACK"] * 24
    second.await_topics({"local/activate": b"\5", "local/remotedl": b"\1"})
    assert client.answers(lost) == []
    failed = ["NACK;failed nodes: 3 42 3", "NACK;failed nodes: 3"]
    assert client.await_answers(lost, 15) == ["NACK;can't reach remote node"] * 24 + failed
    # Those that wait when the daemon is ended are to leave nothing behind.
    client.ask(f"activate;3 2;{digest(first)}")
    assert client.command("noop") == "ACK"
    for node in (first, second):
        assert node.daemon.stop() == 0
