"""docs/asyncapi.yaml against the topics and payloads of a node in the lab, both ways."""
import re
import time
from pathlib import Path

import pytest
import yaml
from panel import Client, wait_until
from test_commands import digest

ROOT = Path(__file__).resolve().parent.parent.parent
DOCUMENT = yaml.safe_load((ROOT / "docs/asyncapi.yaml").read_text(encoding="utf-8"))
PARAMETERS = {"mac": "(?:[0-9A-F]{2}-){5}[0-9A-F]{2}", "port": "(?:[A-H]|CPU)", "topic": ".+"}
FAKETIME = "/usr/$LIB/faketime/libfaketime.so.1"
# Seven days are too long for a test: the topics of days are only seen removed.
WITHOUT_VALUE = {"dayRecord", "lastDay"}


def resolved(reference):
    item = DOCUMENT
    for key in reference["$ref"].split("/")[1:]:
        item = item[key]
    return item


def schema(name):
    (message,) = DOCUMENT["channels"][name]["messages"].values()
    return resolved(message)["payload"]


def channel_of(topic):
    """The name of the one channel that describes a topic; what clients have relayed comes last."""
    found = []
    for name, channel in DOCUMENT["channels"].items():
        address = re.sub(r"\{(\w+)\}", lambda part: PARAMETERS.get(part[1], "[0-9]+"), channel["address"])
        if re.fullmatch(address, topic):
            found.append(name)
    found = [name for name in found if name != "relayed"] or found
    assert len(found) == 1, (topic, found)
    return found[0]


def is_retained(name):
    channel = DOCUMENT["channels"][name]
    mine = [item for item in DOCUMENT["operations"].values() if resolved(item["channel"]) is channel]
    return all(item["bindings"]["mqtt"]["retain"] for item in mine if "bindings" in item)


def check(name, payload):
    rules = schema(name)
    assert rules.get("minLength", 1) <= len(payload) <= rules.get("maxLength", len(payload)), (name, payload)
    if "x-record-size" in rules:
        assert len(payload) % rules["x-record-size"] == 0 or payload == b"\0", (name, payload)
    if "pattern" in rules:
        assert re.search(rules["pattern"], payload.decode()), (name, payload)


@pytest.fixture(scope="module")
def seen(make_lab):
    """All that node 1 has published and heard: (topic, payload), and the topics retained at the end."""
    lab = make_lab(2, "star", daemons=False)
    first, second = lab[1], lab[2]
    first.watch()
    second.watch()
    second.start("-n", "2")
    # The daemon looks at its clock 30 s after its start, and then a quarter hour ends.
    offset = (870 - int(time.time()) % 900) % 900
    first.start("-n", "1", env=(f"LD_PRELOAD={FAKETIME}", "FAKETIME_DONT_FAKE_MONOTONIC=1", f"FAKETIME=+{offset}s"))
    lab.run("miswire", 1, "A", 2, "A")
    client, probe = Client(first, 7), f"pub/diag/{second.mac}/probe"
    second.publish((probe, "1"))
    first.topics.wait(lambda item: item[0] == f"pub/diag/{second.mac}/port_summary", 20)
    assert client.command(f"subscribe;{probe};0") == "ACK"
    assert client.command(f"activate;1 2;{digest(first)}") == "ACK"
    assert client.command(f"remote-download;1;1;{digest(first)}") == "ACK"
    first.topics.wait(lambda item: item[0].endswith("/pm/last_period") and item[1], 45)
    first.topics.wait(lambda item: item[0].endswith("/miswired_links") and item[1])
    first.mark_broker()
    kept = first.shell("mosquitto_sub -p 1885 -t '#' --retained-only -W 1 -F %t || [ $? -eq 27 ]").split()
    lab.run("type", 1, "A", "gone")
    first.topics.wait(lambda item: item[0].endswith("/pm/last_day"))
    first.mark_broker()
    for node in (first, second):
        assert node.daemon.stop() == 0
    return [item for item in first.topics.items if not item[0].startswith(("test/", "local/ready"))], kept


def test_topic_is_not_in_the_document_or_never_seen(seen):
    items, kept = seen
    with_value = {channel_of(topic) for topic, payload in items if payload}
    removed = {channel_of(topic) for topic, payload in items if not payload}
    assert with_value == set(DOCUMENT["channels"]) - WITHOUT_VALUE
    assert WITHOUT_VALUE <= removed
    retained = {channel_of(topic) for topic in kept}
    assert retained == {name for name in with_value if is_retained(name)}
    relayed = {topic for topic, _ in items if channel_of(topic) == "relayed"}
    assert relayed == {topic for topic in relayed if topic.endswith("/probe")}


def test_payload_is_not_as_documented(seen):
    for topic, payload in seen[0]:
        if payload:
            check(channel_of(topic), payload)


def test_layout_differs_from_the_declared_records():
    source = (ROOT / "src/records.h").read_text(encoding="utf-8")
    for prefix, channel in (("STATS", "statistics"), ("PM", "periodRecord")):
        declared = re.findall(rf'\{{{prefix}_\w+, (\d), "(\w+)"', source)
        assert declared == [(str(part["bytes"]), part["field"]) for part in schema(channel)["x-layout"]]
    for name in DOCUMENT["channels"]:
        rules, end = schema(name), 0
        for part in rules.get("x-layout", []):
            assert part["offset"] == end or (name == "portStatus" and part["offset"] > end), name
            end = part["offset"] + part["bytes"]
        size = rules.get("x-record-size", rules.get("maxLength", 0))
        assert not end or end == size or (name == "portStatus" and end < size), name


def test_subscription_of_the_daemon_reads_no_documented_topic(make_lab):
    node = make_lab(1, "star", daemons=False).silence_cards(brokers=False)[1]
    broker = node.fake_broker("good")
    node.start("-n", "1")
    broker.wait(lambda item: item[2] == "pub/diag/command/request")
    filters = {item[2] for item in broker.items if item[1].startswith("SUBSCRIBE")}
    operations = DOCUMENT["operations"].values()
    reads = {resolved(item["channel"])["address"] for item in operations if item["action"] == "receive"}
    for wanted in filters:
        pattern = re.escape(wanted).replace(r"\+", "[^/]+").replace(r"\#", ".+")
        examples = {address.replace("{mac}", node.mac) for address in reads}
        assert any(re.fullmatch(pattern, example) for example in examples), wanted
    broker.__exit__()
    wait_until(lambda: node.daemon.process.poll() is not None)
