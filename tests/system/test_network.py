"""A ring of real nodes: what every broker says of every node when links and nodes come and go."""
import pytest
from panel import SUMMARY_TOPICS, mac_bytes, versions_text, wait_until

NODES = 4
NET = "pub/diag/net/fire/"
# A daemon that started late for another node's first full summary gets the next one a minute later.
FULL_SUMMARY = 75
# Spanning tree heals within 10 s; what changed meanwhile comes with the next regular summary, within 15 s.
HEALED = 30


@pytest.fixture(scope="module")
def lab(make_lab):
    lab = make_lab(NODES)
    for node in lab.nodes.values():
        node.watch()
    return lab


def colours(a, b):
    return f'{{"A":"{a}","B":"{b}"}}'.encode()


def everywhere(lab, number, expected, limit, among=None):
    """Waits until the brokers of all nodes, or of these, agree on the topics of a node."""
    for node in among or lab.nodes.values():
        node.await_topics({f"pub/diag/{lab[number].mac}/{name}": text for name, text in expected.items()}, limit)


def await_list(lab, name, ports, limit, among=None):
    """Waits until the brokers of all nodes, or of these, list these ports, (node, its node number, mask), the own node
    last."""
    for node in among or lab.nodes.values():
        records = {number: mac_bytes(lab[number].mac) + bytes([shown, mask]) for number, shown, mask in ports}
        own = records.pop(node.number, b"")

        def listed():
            payload = node.retained().get(NET + name, b"")
            others = payload.removesuffix(own)
            found = [others[i : i + 8] for i in range(0, len(others), 8)]
            return payload.endswith(own) and sorted(found) == sorted(records.values()) or payload == b"\0" and not ports

        wait_until(listed, limit, lambda: (node.number, node.retained().get(NET + name)))


def await_style7(lab, degraded, limit):
    for node in lab.nodes.values():
        node.await_topics({"local/diag/network_style7": bytes([degraded])}, limit)


@pytest.mark.limit(120)
def test_node_is_unknown_somewhere(lab):
    versions = versions_text(
        ("diag-os", "1.4.0 lab\n"), ("diag-boot", "2.1.0".ljust(36) + "2026"), ("diag-app", "1.0.0 lab\n")
    )
    topics = {"port_media": b'{"A":"smf","B":"smf"}', "software_versions": versions, "job_name": b"LAB"}
    topics |= {"job_rev": b"1", "M301": b"0", "repeater": b"0", "download_status": b"\0\0"}
    for number in lab.nodes:
        everywhere(lab, number, {"port_summary": colours("green", "green"), **topics}, FULL_SUMMARY)
    await_style7(lab, 0, HEALED)


@pytest.mark.limit(120)
def test_cut_link_is_not_seen_everywhere_or_not_forgiven_after_mending(lab):
    lab.run("cut", 2, "B")
    everywhere(lab, 2, {"port_summary": colours("green", "red")}, HEALED)
    everywhere(lab, 3, {"port_summary": colours("red", "green")}, HEALED)
    await_list(lab, "link_down", [(2, 2, 0b10), (3, 3, 0b1)], HEALED)
    await_style7(lab, 1, HEALED)
    lab.run("mend", 2, "B")
    await_list(lab, "link_down", [], HEALED)
    await_style7(lab, 0, HEALED)
    # Red as long as the quarter hour lasts, then yellow.
    colour = lab[1].retained()[f"pub/diag/{lab[2].mac}/port_summary"]
    assert colour in (colours("green", "red"), colours("green", "yellow"))


def test_stopped_node_stays_or_is_not_announced_again(lab):
    others = [lab[number] for number in (1, 2, 3)]
    assert lab.run("stop", 4) == "0\n"
    everywhere(lab, 4, {name: None for name in SUMMARY_TOPICS}, 10, among=others)
    lab.run("start", 4)
    everywhere(lab, 4, {"port_summary": colours("green", "green"), "job_name": b"LAB"}, FULL_SUMMARY)


def test_killed_node_is_withdrawn_at_once_or_not_announced_again(lab):
    assert lab.run("kill", 3) == "137\n"
    # Nothing tells the others: what comes after it finds the topics in place.
    others = [lab[number] for number in (1, 2, 4)]
    lab.run("ground", 2, "A", "on")
    await_list(lab, "grnd_list", [(2, 2, 0b1)], HEALED, among=others)
    everywhere(lab, 3, {"job_name": b"LAB"}, 0, among=others)
    lab[3].stop_broker()
    lab[3].start_broker()
    lab.run("start", 3)
    # Its account of the cut link is lost with it.
    everywhere(lab, 3, {"port_summary": colours("green", "green")}, HEALED)
    everywhere(lab, 1, {"repeater": b"0"}, HEALED)


def test_nodes_of_the_same_number_are_taken_for_one(lab):
    lab.run("restart", 4, "--daemon", "$DIAG -n 2")
    lab.run("ground", 4, "B", "on")
    await_list(lab, "grnd_list", [(2, 2, 0b1), (4, 2, 0b10)], HEALED)
    everywhere(lab, 4, {"port_summary": colours("green", "green")}, HEALED)


def test_daemon_ends_badly_or_logs_an_error_in_sound_operation(lab):
    for number in lab.nodes:
        assert lab.run("stop", number) == "0\n"
        assert "ERROR" not in lab.run("logs", number)
