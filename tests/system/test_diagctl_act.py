"""diagctl as it acts: commands to real daemons, recordings, and metrics that Prometheus takes."""
import re
import signal

import pytest
from client import BUSY, DIAGCTL, FAILURE, NO_BROKER, ROOT, SUCCESS, USAGE, act, put, read_json
from panel import BUILD, Stream, run, wait_until

RULES = ROOT / "packaging" / "prometheus"
CACHE = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
WORDS, WRONG, RECORDING, DAMAGED = "/run/words", "/run/wrong", "/run/recording", "/run/damaged"
STRANGER = "02-00-00-00-00-63"

pytestmark = pytest.mark.timeout(150)


@pytest.fixture(scope="module")
def lab(make_lab):
    lab = make_lab(3, "star")
    for node in lab.nodes.values():
        node.watch()
    wait_until(lambda: len(read_json(lab[1], "nodes")["nodes"]) == 3, BUSY)
    return lab


def test_subscription_brings_nothing_or_outlives_the_command(lab):
    first, second = lab[1], lab[2]
    command = ["sh", "-c", f"exec {DIAGCTL} subscribe {second.mac}/probe --period 1"]
    with Stream(first.command(*command)) as lines:
        values = iter(range(1000))

        def change():
            second.publish((f"pub/diag/{second.mac}/probe", f"value {next(values)}"))
            return any("probe value" in line for line in lines.items)

        wait_until(change, BUSY, lambda: lines.items)
        lines.signal(signal.SIGINT)
        assert lines.end(BUSY) == SUCCESS
    first.mark_broker()
    responses = [text for topic, text in first.topics.items if topic == "pub/diag/command/response"]
    assert len(responses) >= 2 and all(text.endswith(b";ACK") for text in responses[-2:]), "subscribe, disconnect"
    assert "watch" in act(first, "subscribe", "local", status=FAILURE)


def test_silent_node_waited_for_without_a_word(lab):
    node = lab[1]
    summary, address = f"pub/diag/{STRANGER}/port_summary", f"local/diag/node/{STRANGER}/fire_ip"
    node.publish((summary, '{"A":"green"}'), (address, "10.22.0.99"))
    try:
        said = act(node, "subscribe", f"{STRANGER}/A", status=FAILURE)
        assert f"waiting for node {STRANGER}: 3 s" in said and "can't reach remote node" in said
        assert "connected to the fire network" in said
    finally:
        node.publish((summary, ""), (address, ""))


def test_reset_without_confirmation_or_without_effect(lab):
    node = lab[1]
    node.topics.wait(lambda item: item[0] == f"pub/diag/{node.mac}/A/stats", BUSY)

    def requests():
        return sum(topic == "pub/diag/command/request" for topic, _ in node.topics.items)

    before = requests()
    assert "nothing done" in act(node, "reset", "local", "A", status=FAILURE, stdin="n\n")
    assert "nothing done" in act(node, "reset", "--all", status=FAILURE)
    node.mark_broker()
    assert requests() == before
    assert "have been reset" in act(node, "reset", "local", "A", stdin="y\n")
    assert "doesn't acknowledge" in act(node, "reset", lab[2].mac, "A", "--yes")
    assert "have been reset" in act(node, "reset", "--all", "--yes")
    for words in (["reset"], ["reset", "local"], ["reset", "local", "CPU"], ["reset", "local", "A", "--all"]):
        act(node, *words, status=USAGE)


def test_guarded_command_with_a_wrong_answer_or_wrong_nodes(lab):
    node = lab[1]
    with open(re.search("DIAG_SECRETS_FILE:FILEPATH=(.*)", CACHE)[1], encoding="ascii") as words:
        put(node, WORDS, words.read())
    put(node, WRONG, "".join(f"wrong word {i}\n" for i in range(127)))
    assert "--secrets" in act(node, "activate", "2", "--yes", "--words", WRONG, status=FAILURE)
    put(node, WRONG, "too few\n")
    assert "no word table" in act(node, "activate", "2", "--yes", "--words", WRONG, status=FAILURE)
    put(node, WRONG, "secret words\n", mode="644")
    assert "lets others read or write it" in act(node, "activate", "2", "--yes", "--secrets", WRONG, status=FAILURE)
    if "DIAG_TOOLS_SECRETS:BOOL=ON" not in CACHE:
        assert "/etc/diag/secrets" in act(node, "activate", "2", "--yes", status=FAILURE)
    maybe = ["remote-download", "maybe", "2", "--secrets", WORDS]
    for words in (["activate", "--secrets", WORDS], maybe):
        act(node, *words, status=USAGE)
    assert "failed nodes: 42" in act(node, "activate", "42", "--secrets", WORDS, "--yes", status=FAILURE)
    assert "nodes 2 3" in act(node, "remote-download", "on", "2,3", "--secrets", WORDS, stdin="y\n")
    for number in (2, 3):
        lab[number].await_topics({"local/remotedl": b"\x01"}, BUSY)
    assert "node 1" in act(node, "activate", "1", "--secrets", WORDS, "--yes")
    node.await_topics({"local/activate": b"\x05"}, BUSY)


def test_daemon_that_is_gone_taken_for_one_that_answers(lab):
    node = lab[3]
    assert "answered in" in act(node, "ping")
    lab.run("kill", 3)
    assert "no daemon has answered" in act(node, "ping", status=NO_BROKER)
    lab.run("start", 3)


def test_recording_loses_or_changes_what_was_published(lab, make_lab):
    node = lab[1]
    command = node.command("sh", "-c", f"exec {DIAGCTL} record {RECORDING} 2>&1")
    with Stream(command) as recorder:
        recorder.wait(lambda line: line.startswith("recording"), BUSY)
        node.publish(("pub/diag/probe", bytes([0, 255])), ("pub/diag/probe/gone", "1"), ("pub/diag/probe/gone", ""))
        answer = ("pub/diag/command/response", "1;2;ACK")  # comes back to who replays it
        node.publish(answer, ("local/activate", b"\x05"), retain=False)
        wait_until(lambda: "local/activate" in node.exec("cat", RECORDING).partition("probe/gone")[2], BUSY)
        recorder.signal(signal.SIGINT)
        assert recorder.end(BUSY) == SUCCESS
    assert "File exists" in act(node, "record", RECORDING, status=FAILURE)
    assert "a daemon runs" in act(node, "replay", RECORDING, status=FAILURE)

    empty = make_lab(1, "star", daemons=False).silence_cards()[1]
    recording = node.exec("cat", RECORDING)
    put(empty, RECORDING, recording)
    assert "replayed" in act(empty, "replay", RECORDING, "--speed", "0")
    empty.mark_broker()
    retained = empty.retained()
    assert retained["pub/diag/probe"] == bytes([0, 255])
    assert "pub/diag/probe/gone" not in retained and "local/activate" not in retained
    assert retained["pub/diag/local_node"].decode() == node.mac
    shown = [read_json(where, "nodes")["nodes"] for where in (node, empty)]
    assert [item["mac"] for item in shown[0]] == [item["mac"] for item in shown[1]]
    put(empty, DAMAGED, recording + "{}\n")
    assert "isn't a message" in act(empty, "replay", DAMAGED, status=FAILURE)


def test_metrics_or_rules_that_prometheus_refuses(lab):
    run("promtool", "check", "rules", RULES / "diag-rules.yml")
    run("promtool", "check", "config", RULES / "diag-scrape.yml")
    node = lab[1]
    fetch = "import urllib.request as r; print(r.urlopen('http://127.0.0.1:9885/metrics').read().decode())"
    with Stream(node.command("sh", "-c", f"exec {DIAGCTL} export 2>&1")) as exporter:
        exporter.wait(lambda line: "/metrics" in line, BUSY)

        def scrape():
            return node.exec("/usr/bin/python3", "-c", fetch)

        text = wait_until(lambda: (found := scrape()) and "diag_daemon_up 1" in found and found, BUSY)
        ours = "".join(line + "\n" for line in text.splitlines() if re.match("(# (HELP|TYPE) )?diag_", line))
        assert run("promtool", "check", "metrics", stdin=ours) == ""
        for name in ("diag_nodes 3", "diag_port_good_frames_total{", "diag_node_info{"):
            assert name in text
        known = set(re.findall("^# TYPE (diag_[a-z0-9_]+)", text, re.MULTILINE))
        used = set(re.findall(r"\bdiag_[a-z0-9_]+", (RULES / "diag-rules.yml").read_text(encoding="ascii")))
        assert used - known <= {"diag_port_availability_ratio"}, "known once a quarter hour has closed"
        lab.run("stop", 2)
        wait_until(lambda: lab[2].mac not in scrape(), BUSY)
        lab.run("start", 2)
        exporter.signal(signal.SIGINT)
        assert exporter.end(BUSY) == SUCCESS
