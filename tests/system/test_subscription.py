"""Subscriptions across a ring of real nodes, made by clients' commands."""
import struct
import time

import pytest
from panel import ACK, GOODBYE, REQUEST_TRIES, SUBSCRIBE, TOPIC_DATA, Client, Probe, packet, wait_until

PLAYED = "0A-00-00-00-00-01"


@pytest.fixture(scope="module")
def lab(make_lab):
    lab = make_lab(4)
    for node in lab.nodes.values():
        node.watch()
    return lab


def test_goodbye_leaves_subscriptions_of_the_node_or_takes_others(lab):
    server, client = lab[4], Client(lab[2], 2)
    probe = Probe(server)
    free = server.descriptors()
    assert client.command(f"subscribe;{probe.topic};1") == "ACK"
    assert client.command(f"subscribe;pub/diag/{server.mac}/#;1") == "ACK"
    assert server.descriptors() == free + 2
    assert lab.run("stop", 2) == "0\n"
    server.await_descriptors(free)
    # Another node at the same address gets each change once.
    with client.node.fire() as fire:
        request = struct.pack(">IIH", 7, 1, 1) + probe.topic.encode() + b"\0"
        fire.write(f"{server.address} {packet(SUBSCRIBE, PLAYED, request).hex()}")
        fire.wait(lambda item: item[2] == packet(ACK, server.mac, struct.pack(">I", 7)))
        data = []
        for _ in range(2):
            data.append(packet(TOPIC_DATA, server.mac, probe.topic.encode() + b"\0" + probe.change()))
            fire.wait(lambda item: item[2] == data[-1])
        assert [data.index(item[2]) for item in fire.items if item[2] in data] == [0, 1]
        fire.write(f"{server.address} {packet(GOODBYE, PLAYED).hex()}")
        server.await_descriptors(free)
    lab.run("start", 2)


def test_restarted_server_still_serves_or_is_not_subscribed_again(lab):
    server, client = lab[3], Client(lab[2], 3)
    probe = Probe(server)
    probe.change()
    assert client.command(f"subscribe;{probe.topic};1") == "ACK"
    assert lab.run("stop", 3) == "0\n"
    with server.fire() as fire:
        start = time.monotonic()
        heads = client.ask(f"subscribe;{probe.topic};1")
        assert client.await_answers(heads, REQUEST_TRIES + 2) == ["NACK;can't reach remote node"]
        assert REQUEST_TRIES - 0.2 < time.monotonic() - start < REQUEST_TRIES + 1
        requests = [item[2] for item in fire.items if item[2][1] == SUBSCRIBE]
        assert len(requests) == REQUEST_TRIES and len(set(requests)) == 1
    lab.run("start", 3)
    free = server.descriptors()
    missed = probe.change()
    # The same subscription is not one of those that the node knew before.
    assert client.command(f"subscribe;{probe.topic};1") == "ACK"
    assert server.descriptors() == free + 1
    probe.await_value(client.node, missed)
    probe.await_value(client.node, probe.change())
    assert client.command("disconnect") == "ACK"
    server.await_descriptors(free)


def test_part_of_a_large_first_data_is_lost(lab):
    """As much as a card with eight ports publishes; the kernel's usual receive buffer holds a third of it."""
    server, node = lab[4], lab[1]
    topics = {f"pub/diag/{server.mac}/large/{number}" for number in range(825)}
    server.publish(*((topic, bytes(56)) for topic in topics))
    assert Client(server, 5).command("noop") == "ACK"  # it has seen them all
    for number in range(10):
        start = len(node.topics.items)
        Client(node, number).ask(f"subscribe;pub/diag/{server.mac}/large/#;0")
        wait_until(lambda: topics <= {topic for topic, _ in node.topics.items[start:]})


def test_subscription_is_lost_with_a_link_of_the_ring(lab):
    """From node 3 to node 1 the way leads by node 4 at first, and by node 2 when that link is cut."""
    probe, client = Probe(lab[3]), Client(lab[1], 1)
    before = probe.change()
    assert client.command(f"subscribe;{probe.topic};1") == "ACK"
    probe.await_value(client.node, before)
    lab.run("cut", 4, "B")
    cut = time.monotonic()
    probe.await_change(client.node, 20)
    # Spanning tree takes 4 s to open the other way: the data did go by the cut link.
    assert time.monotonic() - cut > 3
    assert client.command("disconnect") == "ACK"
