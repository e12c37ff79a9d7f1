"""The daemon and brokers that refuse, forget, stall or vanish."""
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from panel import summary, wait_until

KEPT_TOPIC = "pub/diag/net/fire/grnd_list"
NEVER_STARTED = [
    "couldn't connect mosquitto instance",
    "couldn't connect to the broker",
    "couldn't send packet (errno 9)",
    "couldn't send goodbye message",
    "couldn't request mosquitto disconnect (Invalid function arguments provided.)",
]
BROKEN = "A network protocol error occurred when communicating with the broker."

# How the broker misbehaves, in the words of in_node.py, the seconds from the daemon's first packet to its end with
# time to spare for a busy machine, and what it logs.
CASES = {
    "never answers": ("silent", (4.9, 8), ["mosquitto client status change timed out", *NEVER_STARTED]),
    "refuses the session": (
        "refuse 5",
        (0, 4),
        [
            "broker connection refused (code 5)",
            "unexpected disconnect from broker (code 5)",
            "error while running the mosquitto loop (The connection was refused.)",
            *NEVER_STARTED,
        ],
    ),
    "keeps an acknowledgement of a publication": (
        f"keep {KEPT_TOPIC}",
        (4, 8),
        [f"publish on topic {KEPT_TOPIC} still failed after maximum number of retries, exiting"],
    ),
    "refuses subscriptions": ("grant 128", (0, 4), ["granted QoS is wrong (128, should be 1)"]),
    "sends garbage": (
        "garble",
        (0, 4),
        [
            "unexpected disconnect from broker (code 2)",
            f"couldn't carry out read operations ({BROKEN})",
            "couldn't request mosquitto disconnect (The client is not currently connected.)",
        ],
    ),
}


@pytest.fixture(scope="module")
def lab(make_lab):
    return make_lab(len(CASES) + 5, "star", daemons=False).silence_cards(brokers=False)


@pytest.fixture(scope="module")
def runs(lab):
    """Runs all cases at once: broker and daemon of each."""
    brokers = {case: lab[number].fake_broker(how) for number, (case, (how, _, _)) in enumerate(CASES.items(), 1)}
    return {case: (broker, lab[number].start()) for number, (case, broker) in enumerate(brokers.items(), 1)}


@pytest.mark.parametrize("case", CASES)
def test_daemon_outlives_or_misjudges_a_broker_that(case, runs):
    how, (least, most), complaints = CASES[case]
    broker, daemon = runs[case]
    assert daemon.end() == 1
    assert least <= daemon.ended - broker.items[0][0] <= most
    texts = daemon.node.texts()
    assert texts[: len(complaints)] == complaints
    # Further acknowledgements of the same kind may be read while the daemon takes its leave.
    assert set(texts) == set(complaints)
    if how.startswith("keep"):
        sendings = [moment for moment, _, topic, _ in broker.items if topic == how.split(" ")[1]]
        assert len(sendings) == 4
        assert min(later - earlier for earlier, later in zip(sendings, sendings[1:])) >= 0.9


def summaries(count):
    """From 200 nodes; each makes the daemon publish the long list of ports whose link is down."""
    for i in range(count):
        sections = {1: bytes([1 + i // 200 % 2, 0, 0, 0, 0]), 7: b"\0"}
        yield summary(f"0A-00-00-00-00-{i % 200:02X}", sections)


@pytest.mark.parametrize("busy", [False, True])
def test_daemon_dies_by_a_signal_or_goes_on_when_its_broker_is_killed(lab, busy):
    node = lab[len(CASES) + 1 + busy]
    node.start_broker()
    daemon = node.start()
    node.await_topics({"pub/diag/net/fire/miswired": b"\0"})
    with node.burst() as burst, ThreadPoolExecutor() as pool:
        sending = pool.submit(burst, summaries(20000 if busy else 1))
        node.topics.wait(lambda item: item[0].endswith("repeater"))
        node.shell("kill -KILL $(cat /run/lab/broker.pid)")
        assert daemon.end() == 1
        sending.result()
    # A busy daemon may see it in the events of its socket before the library does, or in a publication.
    seen = (
        "unexpected disconnect from broker (code 7)",
        "unexpected event(s) on file descriptor",
        "couldn't publish message on topic ",
    )
    assert node.texts(daemon.log_start)[0].startswith(seen if busy else seen[0])


def assert_rests_and_ends(daemon):
    cpu, start = sum(daemon.inside().cpu_times()[:2]), time.monotonic()
    # A time to spin in, shorter than the daemon's patience with missing acknowledgements.
    wait_until(lambda: time.monotonic() > start + 1.2)
    assert sum(daemon.inside().cpu_times()[:2]) - cpu < 0.1
    start = time.monotonic()
    assert daemon.stop() == 0
    assert time.monotonic() - start < 3


def test_daemon_spins_or_cannot_be_ended_while_its_broker_stands_still(lab):
    node = lab[len(CASES) + 3]
    node.start_broker()
    daemon = node.start()
    node.await_topics({"pub/diag/net/fire/miswired": b"\0"})
    with node.burst() as burst:
        node.shell("kill -STOP $(cat /run/lab/broker.pid)")
        burst(summaries(100))
    assert_rests_and_ends(daemon)


def test_daemon_spins_or_cannot_be_ended_while_its_socket_is_full(lab):
    node = lab[len(CASES) + 4]
    node.shell("echo 4096 4096 4096 >/proc/sys/net/ipv4/tcp_wmem")
    # Two hundred nodes with three topics each, then lists of 1600 bytes.
    broker = node.fake_broker("stall 650")
    daemon = node.start()
    broker.wait(lambda item: item[2].endswith("repeater"))
    with node.burst() as burst:
        burst(summaries(400))
    wait_until(lambda: len(broker.items) >= 650, what=lambda: len(broker.items))
    assert_rests_and_ends(daemon)


def test_packets_of_the_start_and_the_end_are_not_exactly_those_in_order(lab):
    """As a broker gets them."""
    node = lab[len(CASES) + 5]
    broker = node.fake_broker("good")
    daemon = node.start("-n", "3")
    own = f"pub/diag/{node.mac}/"
    broker.wait(lambda item: item[2] == "pub/diag/command/request")
    assert daemon.stop() == 0
    assert broker.end() == 0
    publish, subscribe = "PUBLISH3", "SUBSCRIBE1"  # retained with QoS 1, and QoS 1
    filters = ["local/diag/port/+/type", "local/diag/node/+/fire_ip", own + "#"]
    facts = ["job_rev", "job_name", "download_status", "CF_free_space", "M301", "M702", "comm_loss"]
    facts += ["download_pending", "repeater"]
    assert [item[1:3] for item in broker.items] == [
        ("CONNECT", "-"),
        (publish, "pub/diag/local_node"),
        (publish, own + "card_addr"),
        *[(subscribe, own_filter) for own_filter in filters],
        (publish, own + "software_versions"),
        *[(publish, f"pub/diag/net/fire/{name}") for name in ("link_down", "grnd_list", "miswired")],
        (subscribe, "local/diag/port/+/status"),
        (subscribe, "local/diag/ring/+/status"),
        *[(subscribe, own + name) for name in facts],
        (publish, "pub/diag/command/aut/tbl_idx"),
        (subscribe, "pub/diag/command/request"),
        ("DISCONNECT", "-"),
    ]
    # MQTT 3.1.1, clean session, keepalive 10 s, client id "diag", no will, no name
    assert broker.items[0][3] == b"\0\4MQTT\4\2\0\x0a\0\4diag"
