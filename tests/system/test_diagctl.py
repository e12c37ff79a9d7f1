"""diagctl as an engineer uses it: with real daemons, and with a broker that says what the test wants."""
import json
import re
import shlex
import signal
import socket
import struct
import subprocess
import tempfile
import threading

import jsonschema
import pytest
from client import BUSY, DIAGCTL, FAILURE, NO_BROKER, ROOT, SUCCESS, USAGE, diagctl, put, read_json, run_in
from panel import Stream, run, wait_until

LOCAL, PEER = "02-00-00-00-00-01", "02-00-00-00-00-02"
MANUAL = (ROOT / "packaging" / "man" / "diagctl.1.scd").read_text(encoding="ascii")
SCHEMA = ROOT / "docs" / "json.schema.json"
NAMES = "/run/names"

pytestmark = pytest.mark.timeout(150)

# As the daemon publishes them, big-endian.
STATS = struct.Struct(">2Q11I1IH")
STATS_FIELDS = [
    *("count64_0", "good_frames", "link_down_seconds", "link_down_count", "erps_down_count", "erps_down_seconds"),
    *("errored_frames", "error_ratio_ppm", "count32_40", "count32_44", "count32_48", "count32_52", "value32_56"),
    *("dsl_count_60", "value16_64"),
]
PM = struct.Struct(">q3Q6I")


@pytest.fixture(scope="module")
def lab(make_lab):
    """Three real nodes."""
    lab = make_lab(3)
    for node in lab.nodes.values():
        node.watch()
    wait_until(lambda: len(read_json(lab[1], "nodes")["nodes"]) == 3, BUSY)
    return lab


@pytest.fixture(scope="module")
def played(make_lab):
    """A node whose broker has what the test publishes, and no daemon."""
    return make_lab(1, "star", daemons=False).silence_cards()[1]


@pytest.fixture(autouse=True)
def empty(request):
    """What a test has published on the played broker is gone for the next one."""
    yield
    if "played" in request.fixturenames:
        node = request.getfixturevalue("played")
        node.publish(*((topic, "") for topic in node.retained()))
        node.mark_broker()


def publish_node(node, *more):
    node.publish(("pub/diag/local_node", LOCAL), (f"pub/diag/{LOCAL}/port_summary", '{"A":"green"}'), *more)


def test_reading_commands_disagree_with_the_daemons_topics(lab):
    node = lab[1]
    topics = node.retained()
    shown = {entry["mac"]: entry for entry in read_json(node, "nodes")["nodes"]}
    assert list(shown) == [lab[number].mac for number in (1, 2, 3)], "the local node comes first"
    for mac, entry in shown.items():
        assert entry["location"] == ("local" if mac == LOCAL else "remote")
        colours = {port["port"]: port["colour"] for port in entry["ports"]}
        assert colours == json.loads(topics[f"pub/diag/{mac}/port_summary"])
        media = {port["port"]: port["media"] for port in entry["ports"]}
        assert media == json.loads(topics[f"pub/diag/{mac}/port_media"])
        assert (entry["job_name"], entry["M301"]) == ("LAB", False)
        assert entry["software_versions"][0] == {"name": "diag-os", "version": "1.4.0 lab"}
    assert shown[LOCAL]["rings"] == [{"ring": 0, "state": "closed"}]
    assert read_json(node, "show", "local")["card_addr"] == 1

    before = STATS.unpack(node.retained()[f"pub/diag/{LOCAL}/A/stats"])
    ports = {entry["port"]: entry for entry in read_json(node, "ports", LOCAL)["ports"]}
    node.mark_broker()
    after = STATS.unpack(node.retained()[f"pub/diag/{LOCAL}/A/stats"])
    assert list(ports) == ["A", "B"]
    assert list(ports["A"]["statistics"]) == STATS_FIELDS
    for field, low, value, high in zip(STATS_FIELDS, before, ports["A"]["statistics"].values(), after):
        assert low <= value <= high, field
    assert ports["A"]["rates_per_second"]["count32_44"] > 0, "spanning tree sends all the time"
    for line in ("02-00-00-00-00-02  -   remote  A  B   smf", "1.4.0 lab / 2.1.0 2026 / 1.0.0 lab"):
        assert line in diagctl(node, "nodes")


def test_cut_link_is_missing_or_late_in_a_command(lab):
    node = lab[1]
    watched = f"exec env TZ=UTC {DIAGCTL} watch"
    with (
        Stream(node.command("sh", "-c", watched)) as lines,
        Stream(node.command("sh", "-c", f"{watched} --json pub/diag/net/#"), json.loads) as objects,
        Stream(node.command(DIAGCTL, "nodes", "--watch", "--json"), json.loads) as nodes,
        Stream(node.command(DIAGCTL, "top")) as top,
    ):
        nodes.wait(lambda item: item["local"] == LOCAL, BUSY)
        # The others have nothing to say before something changes, but for the statistics.
        lines.wait(lambda line: "statistics" in line, BUSY)
        try:
            lab.run("cut", 1, "B")
            lines.wait(lambda line: line.endswith(f"link-down list gained node {LOCAL} (1) port B"), BUSY)
            change = objects.wait(lambda item: item["topic"] == "pub/diag/net/fire/link_down", BUSY)
            assert {"mac": LOCAL, "name": None, "number": 1, "ports": ["B"]} in change["value"]
            assert (change["mac"], change["port"], change["old"], change["new"]) == (LOCAL, "B", False, True)
            validator("change").validate(change)
            red = {"port": "B", "colour": "red", "media": "smf"}
            validator("nodes").validate(nodes.wait(lambda item: red in item["nodes"][0]["ports"], BUSY))
            top.wait(lambda line: line.endswith("network ring status degraded"), BUSY)
            node.topics.wait(lambda item: item[0] == "local/diag/network_style7" and item[1] == b"\x01", BUSY)
            assert read_json(node, "lists")["ring"] == "degraded"
            assert read_json(node, "show", "1")["faults"]["link_down"] == ["B"], "the list tells the number"
        finally:
            lab.run("mend", 1, "B")
        for stream in (lines, objects, nodes, top):
            stream.signal(signal.SIGINT)
            assert stream.end(BUSY) == SUCCESS


def test_wrong_exit_status_or_an_error_that_helps_nobody(played):
    publish_node(
        played,
        (f"pub/diag/{PEER}/port_summary", '{"B":"red"}'),
        ("pub/diag/net/fire/link_down", bytes.fromhex("020000000001 09 01 020000000002 09 02")),
        ("pub/diag/net/fire/grnd_list", bytes.fromhex("020000000002 09 02")),
    )
    for reference in ("02:00:00:00:00:02", "02.00.00.00.00.02", "020000000002"):
        assert read_json(played, "show", reference)["mac"] == PEER
    ambiguous = diagctl(played, "show", "9", status=FAILURE)
    assert LOCAL in ambiguous and PEER in ambiguous
    assert "use its MAC address" in diagctl(played, "show", "10", status=FAILURE)
    assert "--host" in diagctl(played, "pm", PEER, "A", status=FAILURE), "only that card has its records"
    for words in (
        ["show"],
        ["show", "x"],
        ["show", "0"],
        ["pm", "local", "I"],
        ["nothing"],
        [],
        ["watch", "abc"],
        ["nodes", "--port", "0"],
        ["pm", "local", "A", "--csv", "--json"],
    ):
        diagctl(played, *words, status=USAGE)
    refused = diagctl(played, "nodes", "--port", "1", status=NO_BROKER)
    assert "no broker at 127.0.0.1:1: Connection refused" in refused and "DIAG_HOST" in refused
    diagctl(played, "nodes", env=["DIAG_PORT=1885"])
    assert ":2:" in diagctl(played, "lists", env=["DIAG_PORT=2"], status=NO_BROKER)
    played.publish(("pub/diag/local_node", ""))
    assert "pub/diag/local_node is missing" in diagctl(played, "nodes", status=NO_BROKER)


@pytest.mark.parametrize(
    "how, error",
    [
        ("silent", "it does not answer"),
        ("refuse 5", "not authorised"),
        ("grant 128", "it refuses the subscription"),
    ],
)
def test_broker_that_refuses_taken_for_an_empty_one(played, how, error):
    played.stop_broker()
    try:
        broker = played.fake_broker(how)
        assert error in diagctl(played, "nodes", status=NO_BROKER)
        broker.end()
    finally:
        played.start_broker()


def test_host_that_is_not_there_waited_for_without_limit(played):
    # The neighbour's address is known, so that nothing but its silence tells that it is not there.
    played.exec("ip", "neigh", "replace", "10.22.0.99", "lladdr", "02:00:00:00:00:63", "dev", "fire")
    assert "no connection within 5 s" in diagctl(played, "nodes", "--host", "10.22.0.99", status=NO_BROKER)


def test_lost_broker_goes_unnoticed(played):
    publish_node(played)
    with Stream(played.command(DIAGCTL, "nodes", "--watch", "--json"), json.loads) as nodes:
        nodes.wait(lambda item: item["local"] == LOCAL, BUSY)
        played.stop_broker()
        assert nodes.end(BUSY) == NO_BROKER
        played.start_broker()


class Dam:
    """A way to the broker that lets what the broker says pass only up to its first answer, until it is opened."""

    def __init__(self, port):
        self._tools = socket.create_server(("127.0.0.1", 0))
        self.port = self._tools.getsockname()[1]
        self._broker = socket.socket()
        self._broker.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self._broker.connect(("127.0.0.1", port))
        self.opened = threading.Event()
        threading.Thread(target=self._pass_on, daemon=True).start()

    def _pass_on(self):
        tool, _ = self._tools.accept()
        threading.Thread(target=self._pump, args=(tool, self._broker), daemon=True).start()
        tool.sendall(self._broker.recv(4))
        self.opened.wait()
        self._pump(self._broker, tool)

    def _pump(self, source, target):
        try:
            while data := source.recv(65536):
                target.sendall(data)
        except ConnectionError:
            pass  # the tool has all it wants


@pytest.mark.parametrize("is_site", [False, True])
def test_values_that_the_broker_sends_late_taken_for_missing(tmp_path, is_site):
    # More in the first filter than sockets hold, and something in the last.
    bulk = f"cards/{LOCAL}/bulk/" if is_site else "pub/diag/02-00-00-00-00-"
    values = [(f"cards/{LOCAL}/bridge", b"1"), (f"pub/diag/{LOCAL}/job_name", b"LAB")] if is_site else []
    values = values or [("pub/diag/local_node", LOCAL.encode()), ("local/diag/ring/0/status", b"\0")]
    values += [(f"{bulk}{number}" + "/job_name" * (not is_site), bytes(10**6)) for number in range(16, 28)]
    with socket.create_server(("127.0.0.1", 0)) as free:
        port = free.getsockname()[1]
    settings = ["allow_anonymous true", "max_inflight_messages 0", "max_queued_messages 0", "log_type all"]
    config = tmp_path / "broker.conf"
    config.write_text("\n".join([f"listener {port} 127.0.0.1", *settings, "log_dest stderr", ""]), encoding="ascii")
    broker = Stream(["mosquitto", "-c", config], stderr=subprocess.STDOUT)
    try:
        wait_until(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, BUSY)
        for topic, payload in values:
            publish = ["mosquitto_pub", "-p", str(port), "-q", "1", "-r", "-s", "-t", topic]
            subprocess.run(publish, input=payload, check=True, timeout=BUSY)
        dam = Dam(port)
        where = (
            ["--site", "--host", f"127.0.0.1:{dam.port}"] if is_site else ["--host", "127.0.0.1", "--port", dam.port]
        )
        last_filter = "pub/diag/+/+" if is_site else "local/diag/ring/+/status"
        tool = Stream(list(map(str, [DIAGCTL, "nodes", "--json", *where])), stderr=subprocess.DEVNULL)
        broker.wait(lambda line: line.endswith(" 0 " + last_filter), BUSY)
        if is_site:  # it speaks while it waits: it would lose the connection for want of an answer to its keepalive
            broker.wait(lambda line: line.endswith(" cards/nothing"), BUSY)
        dam.opened.set()
        assert tool.end(BUSY) == SUCCESS
    finally:
        broker.process.kill()
        broker.end()
    found = json.loads("".join(tool.items))
    if is_site:
        assert [node["job_name"] for node in found["networks"][0]["nodes"]] == ["LAB"]
    else:
        assert [ring["ring"] for node in found["nodes"] for ring in node["rings"] or []] == [0]


def test_half_decoded_or_hidden_malformed_payload(played):
    publish_node(
        played,
        (f"pub/diag/{LOCAL}/repeater", "256"),
        (f"pub/diag/{LOCAL}/A/stats", bytes(65)),
        (f"pub/diag/{LOCAL}/A/pm/period3", bytes(57)),
        ("pub/diag/net/fire/grnd_list", bytes(7)),
        ("local/diag/ring/0/status", bytes(3)),
    )
    assert "malformed (65 bytes)" in diagctl(played, "ports", "local", "--measure", "0")
    assert read_json(played, "ports", "local", "--measure", "0")["ports"][0]["statistics"] == {"malformed_bytes": 65}
    assert diagctl(played, "pm", "local", "a", "--csv").splitlines()[1] == "period3,malformed (57 bytes)"
    assert read_json(played, "lists")["ground_fault"] == {"malformed_bytes": 7}
    assert "Ground fault    malformed (7 bytes)" in diagctl(played, "lists")
    shown = read_json(played, "show", "local")
    assert (shown["repeater"], shown["rings"][0]["state"]) == ({"malformed_bytes": 3}, {"malformed_bytes": 3})


def test_performance_records_in_the_wrong_order_or_with_wrong_values(played):
    quarter = 15 * 60
    start = 1704104100  # 2024-01-01 10:15:00 UTC

    def record(periods, *values):
        return PM.pack(start + periods * quarter, *values)

    publish_node(
        played,
        # The slots are used in turn: 95 before 0.
        (f"pub/diag/{LOCAL}/B/pm/period0", record(1, 1, 200, 0, 0, 0, 0, 0, 500, 0)),
        (f"pub/diag/{LOCAL}/B/pm/period1", record(2, 2, 100, 7, 1, 3, 0, 0, 501, 0)),
        (f"pub/diag/{LOCAL}/B/pm/period95", record(0, 3, 0, 0, 0, 0, 0, 0, 0, 0)),
        (f"pub/diag/{LOCAL}/B/pm/last_period", "period1"),
        (f"pub/diag/{LOCAL}/B/pm/day2", record(0, 9, 8, 7, 6, 5, 4, 3, 2, 1)),
    )
    names = "slot,time,count64_0,good_frames,errored_frames,link_down_count,link_down_seconds,erps_down_count"
    assert diagctl(played, "pm", "local", "B", "--csv").splitlines() == [
        f"{names},erps_down_seconds,error_ratio_ppm,dsl_count_60",
        "period95,2024-01-01T10:15:00Z,3,0,0,0,0,0,0,0,0",
        "period0,2024-01-01T10:30:00Z,1,200,0,0,0,0,0,500,0",
        "period1,2024-01-01T10:45:00Z,2,100,7,1,3,0,0,501,0",
    ]
    text = diagctl(played, "pm", "local", "B", env=["LC_ALL=C.UTF-8"])
    assert "2024-01-01 10:45:00  period1 (last)" in text
    assert "good_frames        ▁█▅  max 200" in text
    assert "always 0: erps_down_count, erps_down_seconds, dsl_count_60" in text
    assert ("501!" in text, "500!" in text) == (True, False), "only what makes a port red is marked"
    assert diagctl(played, "pm", "local", "B", env=["LC_ALL=C"]).isascii()
    days = read_json(played, "pm", "local", "B", "--days")
    assert (days["kind"], [(day["slot"], day["dsl_count_60"]) for day in days["records"]]) == ("days", [("day2", 1)])


def validator(name, schema=json.loads(SCHEMA.read_text(encoding="ascii"))):
    """Takes what the schema says of a command's output, and no field that it does not tell."""

    def close(part):
        if isinstance(part, dict):
            closed = {"additionalProperties": False} if "properties" in part else {}
            return closed | {key: close(value) for key, value in part.items()}
        return [close(item) for item in part] if isinstance(part, list) else part

    return jsonschema.Draft202012Validator({"$ref": f"#/$defs/{name}", "$defs": close(schema["$defs"])})


def test_json_that_the_schema_does_not_tell(lab):
    node = lab[1]
    record = (f"pub/diag/{LOCAL}/H/pm/period0", PM.pack(0, *range(9)))
    link = ("pub/diag/net/fire/miswired_links", bytes.fromhex("01000202"))
    put(node, NAMES, f"{LOCAL} Lobby\n")
    watched = node.command("sh", "-c", f"exec {DIAGCTL} watch --json --names {NAMES}")
    with Stream(watched, json.loads) as changes:
        changes.wait(lambda change: change["topic"].endswith("/stats"), BUSY)
        node.publish(record, link, (f"pub/diag/{LOCAL}/job_name", "NORTH"), (f"pub/diag/{LOCAL}/repeater", "256"))
        changes.wait(lambda change: change["kind"] == "fact" and change["new"] == {"malformed_bytes": 3}, BUSY)
        objects = [("change", item) for item in changes.items]
    with Stream(node.command(DIAGCTL, "subscribe", f"{PEER}/#", "--period", "1", "--json"), json.loads) as relayed:
        relayed.wait(lambda change: change["kind"] == "statistics" and change["old"], BUSY)
        relayed.wait(lambda change: change["kind"] == "message", BUSY)
        assert all(item["mac"] == PEER for item in relayed.items)
        objects += [("change", item) for item in relayed.items]
    kinds = {item["kind"] for _, item in objects}
    assert {"statistics", "record", "miswired_link", "fact"} <= kinds
    assert all(item["name"] == "Lobby" for _, item in objects if item["mac"] == LOCAL)
    for words in (["nodes"], ["show", "local"], ["ports", "local"], ["pm", "local", "H"], ["lists"], ["ping"]):
        objects.append((words[0], read_json(node, *words)))
    objects.append(("explain", read_json(node, "explain", "packet is too small (3 bytes), ignoring")))
    node.publish((record[0], ""), (link[0], ""))
    for name, item in objects:
        validator(name).validate(item)


def test_node_that_can_not_be_called_by_its_name(played):
    publish_node(played, (f"pub/diag/{PEER}/port_summary", '{"B":"red"}'))

    def named(text, *words, **options):
        put(played, NAMES, text)
        return diagctl(played, *words, "--names", NAMES, **options)

    both = f"# who is who\n{LOCAL} Lobby\n02:0:0:0:0:2\tCellar # below\n"
    assert json.loads(named(both, "show", "cellar", "--json"))["name"] == "Cellar"
    assert f"Cellar  {PEER}" in named(both, "nodes")
    assert "Cellar, Lobby" in named(both, "show", "Attic", status=USAGE)
    assert PEER in named(f"{LOCAL} Twin\n{PEER} Twin\n", "show", "Twin", status=FAILURE)
    for line, complaint in (
        ("Lobby", "no MAC address"),
        (f"{PEER} North stair", "one word"),
        (f"{PEER} 12", "a node already"),
    ):
        said = named(f"{LOCAL} Lobby\n{line}\n", "nodes", status=FAILURE)
        assert f"{NAMES}:2: " in said and complaint in said
    played.exec("mkdir", "-p", "/run/config/diag")
    put(played, "/run/config/diag/names", both)
    assert f"Cellar  {PEER}" in diagctl(played, "nodes", env=["XDG_CONFIG_HOME=/run/config"])


def test_verdict_that_a_monitoring_service_takes_wrong(lab, played):
    publish_node(
        played,
        (f"pub/diag/{PEER}/port_summary", '{"B":"red"}'),
        *((f"pub/diag/net/fire/{name}", b"\0") for name in ("grnd_list", "miswired")),
        ("pub/diag/net/fire/link_down", bytes.fromhex("020000000001 09 01 020000000002 09 02")),
        ("local/diag/network_style7", b"\1"),
    )

    def check(node, *words):
        done = run_in(node, "check", *words)
        return done.returncode, done.stdout

    status, text = check(lab[1], "--expect", "3")
    assert re.fullmatch(
        r"DIAG OK - 3 nodes, ring normal \| nodes=3;;3:;0 ports_down=0;0;;0 ground_faults=0;0;;0 miswired=0;0;;0 "
        r"ring_degraded=0;0;;0;1 answer_time=[0-9.]+s;;5;0\n",
        text,
    ), text
    assert status == 0
    assert check(lab[1], "--expect", "4")[0] == 2
    lab[1].publish(("local/diag/network_style7", ""))
    status, text = check(lab[1])
    assert status == 0 and text.startswith("DIAG OK - 3 nodes, ring not told of |"), text
    lab[1].publish(("local/diag/network_style7", b"\7"))
    assert check(lab[1])[0] == 3
    lab[1].publish(("local/diag/network_style7", b"\0"))
    status, text = check(played, "--timeout", "1")
    assert status == 2 and text.startswith("DIAG CRITICAL - no daemon has answered")
    assert f"2 ports down ({LOCAL}/A, {PEER}/B)" in text and "ring degraded" in text
    assert check(played, "--port", "1")[0] == 2
    for words in (
        ["--ports-down", "x"],
        ["--miswired", "3,1"],
        ["--nothing"],
        ["--names", "/none"],
        ["--names", "/run"],
    ):
        assert check(played, *words)[0] == 3, words


class Terminal:
    """A terminal with a command in it."""

    def __init__(self, words, width, height):
        self.folder = tempfile.TemporaryDirectory()
        self.server = ["tmux", "-S", f"{self.folder.name}/socket", "-f", "/dev/null"]
        self.run("new-session", "-d", "-x", str(width), "-y", str(height), "sh")
        # The window stays after the command's end.
        self.keys(shlex.join(words) + "; echo status $?", "Enter")

    def run(self, *words):
        done = subprocess.run([*self.server, *words], capture_output=True, text=True, timeout=BUSY, check=False)
        assert done.returncode == 0, done
        return done.stdout

    def keys(self, *keys):
        self.run("send-keys", *keys)

    def shown(self):
        return self.run("capture-pane", "-p")

    def wait(self, *texts):
        wait_until(lambda: all(text in self.shown() for text in texts), BUSY, self.shown)
        return self.shown()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.run("kill-server")
        self.folder.cleanup()


def test_top_ignores_a_key_or_the_terminals_size(played):
    publish_node(
        played,
        *((f"pub/diag/02-00-00-00-00-{number:02X}/port_summary", '{"A":"green"}') for number in range(2, 31)),
        ("pub/diag/02-00-00-00-00-14/port_summary", '{"A":"red"}'),
        ("pub/diag/02-00-00-00-00-14/job_name", "NORTH"),
    )
    with Terminal(played.command("env", "LC_ALL=C", DIAGCTL, "top"), 100, 24) as terminal:
        first = terminal.wait("30 nodes", f"{LOCAL}  -   local   A ", "nodes 1 to").splitlines()
        assert len(first[0]) == 100 and first[0].endswith("q quit")
        # The faults first, then the selected one alone.
        terminal.keys("f")
        wait_until(lambda: terminal.shown().splitlines()[3].startswith("02-00-00-00-00-14"), BUSY, terminal.shown)
        terminal.keys("k", "PageUp", "PageUp", "PageUp", "Enter")
        terminal.wait("node              02-00-00-00-00-14", "job name          NORTH", "enter back")
        terminal.keys("Escape")
        terminal.wait("nodes 1 to")
        # The selection stays on its node.
        terminal.keys("m", "PageUp", "PageUp", "PageUp")
        wait_until(lambda: terminal.shown().splitlines()[3].startswith(LOCAL), BUSY, terminal.shown)
        terminal.keys("PageDown", "PageDown", "PageDown")
        terminal.wait("02-00-00-00-00-1E", "of 30")
        played.publish((f"pub/diag/{PEER}/port_summary", '{"A":"yellow"}'))
        terminal.wait(f"node {PEER} port A yellow (was green)")
        terminal.run("resize-window", "-x", "60", "-y", "12")
        # Fewer nodes, and the newest event stays in sight.
        terminal.wait("... nodes 29 to 30 of 30", "port A yellow")
        terminal.keys("q")
        assert "Local node" not in terminal.wait("status 0"), "the screen from before is back"
    put(played, NAMES, f"{LOCAL} K\u00fcche\n")
    with Terminal(played.command("env", "LC_ALL=C", DIAGCTL, "top", "--names", NAMES), 40, 12) as terminal:
        terminal.wait(f"K?che  {LOCAL}  -   A")


def test_command_that_bash_does_not_complete_or_the_manual_does_not_tell(tmp_path):
    script = tmp_path / "completion"
    script.write_text(run(DIAGCTL, "--completion", "bash"), encoding="ascii")

    def complete(*words):
        set_up = f'. {script}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _diagctl; echo "${{COMPREPLY[*]}}"'
        return run("bash", "-euc", set_up, "bash", DIAGCTL, *words).split()

    commands = complete("")
    listed = re.findall("^  ([a-z-]+) ", run(DIAGCTL, "--help").partition("Look:\n")[2], re.M)
    assert sorted(commands) == sorted([*listed, "--help", "--version"])
    assert [command for command in commands if f"*diagctl* *{command}*" not in MANUAL] == ["--help", "--version"]
    assert complete("po") == ["ports"]
    assert complete("pm", "local", "--d") == ["--days"]
    assert complete("pm", "local", "C") == ["C", "CPU"]
    names = tmp_path / "names"
    names.write_text(f"{LOCAL} Lobby\n", encoding="ascii")
    assert complete("show", "--names", str(names), "L") == ["Lobby"]
    assert complete("nodes", "--host", "") == [], "no option where a host is due"
