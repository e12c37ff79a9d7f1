"""diagctl web: what it says of a real network, and how it bears a broker that goes and clients that mean no good."""
import http.client
import json
import signal
import socket
import subprocess
import threading
import time

import psutil
import pytest
from panel import BUILD, PYTHON, SANITIZED, Stream, wait_until
from test_diagctl import PM, STATS
from test_unit import CONFINE, CONSOLE_UNIT, allowed_calls

DIAGCTL = str(BUILD / "diagctl")
BUSY = 30  # seconds that a busy machine may take
NODES = 250
MAX_MEMORY = 60e6

pytestmark = pytest.mark.timeout(150)


def mac_of(number):
    return f"02-00-00-00-{number >> 8:02X}-{number & 255:02X}"


def free_port():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        return taken.getsockname()[1]


class Broker:
    """A broker on loopback, and a client that publishes."""

    def __init__(self, folder):
        self.port = free_port()
        self.config = folder / "broker.conf"
        self.config.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n")
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen(["mosquitto", "-c", self.config], stderr=subprocess.DEVNULL)
        wait_until(lambda: socket.socket().connect_ex(("127.0.0.1", self.port)) == 0, BUSY)

    def stop(self):
        self.process.kill()
        self.process.wait()

    def publish(self, topic, payload):
        words = ["mosquitto_pub", "-p", str(self.port), "-q", "1", "-r", "-t", topic]
        payload = payload.encode() if isinstance(payload, str) else payload
        subprocess.run([*words, "-s"] if payload else [*words, "-n"], input=payload, check=True)

    def fill(self, nodes=NODES):
        """A network of which node 2's port B is down; a process for each topic would take long."""
        publish = f"""
import paho.mqtt.client as mqtt
client = mqtt.Client()
client.max_inflight_messages_set(0)
client.connect("127.0.0.1", {self.port})
client.loop_start()
def put(topic, payload):
    return client.publish(topic, payload, qos=1, retain=True)
put("local/diag/network_style7", bytes(1))
for number in range(1, {nodes} + 1):
    node = f"pub/diag/02-00-00-00-{{number >> 8:02X}}-{{number & 255:02X}}/"
    put(node + "port_summary", '{{"A":"green","B":"green"}}')
    put(node + "port_media", '{{"A":"eth","B":"smf"}}')
    put(node + "CF_free_space", str(number))
    put(node + "M301", bytes(1))
put("pub/diag/net/fire/link_down", bytes([2, 0, 0, 0, 0, 2, 2, 2]))
for name in ("grnd_list", "miswired"):
    put("pub/diag/net/fire/" + name, bytes(1))
put("pub/diag/local_node", "02-00-00-00-00-01").wait_for_publish()
"""
        subprocess.run([PYTHON, "-c", publish], check=True)


class Web:
    """diagctl web on a port of its own."""

    def __init__(self, *words, listen="127.0.0.1:0", wrap=()):
        command = [*wrap, DIAGCTL, "web", "--listen", listen, *map(str, words)]
        self.stream = Stream(command, stderr=subprocess.STDOUT)
        ready = self.stream.wait(lambda line: "http://" in line, BUSY)
        self.port = int(ready.partition("http://")[2].partition("/")[0].rpartition(":")[2])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.stream.process.poll() is None:
            self.stream.process.terminate()
        assert self.stream.end(BUSY) == 0, self.stream.items

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), BUSY)

    def get(self, path):
        """Status, headers and body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=BUSY)
        connection.request("GET", path)
        answer = connection.getresponse()
        body = answer.read()
        connection.close()
        return answer.status, dict(answer.headers), body

    def json(self, path):
        status, _, body = self.get(path)
        assert status == 200, (path, status, body)
        return json.loads(body)

    def node(self, number):
        nodes = self.json("/api/network")["networks"][0]["nodes"]
        return next((node for node in nodes if node["mac"] == mac_of(number)), None)

    def memory(self):
        return psutil.Process(self.stream.process.pid).memory_info().rss


def confined():
    """What starts a program under the system calls of the console's unit; sanitizers need others."""
    return [] if SANITIZED else [PYTHON, "-c", CONFINE, *allowed_calls(CONSOLE_UNIT), "--"]


class Events:
    """The stream's events as (name, data), and when the last byte came."""

    def __init__(self, web):
        self.items, self.heard = [], time.monotonic()
        self.connection = http.client.HTTPConnection("127.0.0.1", web.port, timeout=BUSY)
        self.connection.request("GET", "/api/events")
        self.answer = self.connection.getresponse()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        name = None
        for line in self.answer:
            self.heard = time.monotonic()
            field, _, value = line.decode().rstrip("\n").partition(": ")
            if field == "event":
                name = value
            elif field == "data":
                self.items.append((name, {"event": name, **json.loads(value)}))

    def wait(self, name, found=lambda data: True, start=0):
        return wait_until(
            lambda: next((data for event, data in self.items[start:] if event == name and found(data)), None),
            BUSY,
            lambda: self.items[-5:],
        )


@pytest.fixture(scope="module", name="broker")
def filled_broker(tmp_path_factory):
    broker = Broker(tmp_path_factory.mktemp("broker"))
    broker.fill()
    yield broker
    broker.stop()


@pytest.fixture(scope="module", name="web")
def open_web(broker):
    with Web("--port", broker.port) as web:
        yield web


def test_a_real_fault_that_the_page_is_not_told(make_lab):
    lab = make_lab(3)
    node = lab[1]
    node.watch()
    read = (
        "import urllib.request as r\n"
        "for line in r.urlopen('http://127.0.0.1:9886/api/%s'): print(line.decode(), end='', flush=True)"
    )
    with Stream(node.command(DIAGCTL, "web")) as web:
        web.wait(lambda line: "http://" in line, BUSY)

        def snapshot():
            return json.loads(node.exec(PYTHON, "-c", read % "network"))["networks"][0]

        wait_until(lambda: len([item for item in snapshot()["nodes"] if item["present"]]) == 3, BUSY, snapshot)
        shown = json.loads(node.exec(DIAGCTL, "nodes", "--json"))["nodes"]
        told = {item["mac"]: item for item in snapshot()["nodes"]}
        for item in shown:
            same = item.keys() - {"location", "rings", "ports", "last_change"}
            assert {name: told[item["mac"]][name] for name in same} == {name: item[name] for name in same}

        def data(line):
            return json.loads(line[6:]) if line.startswith("data: ") else line

        with Stream(node.command(PYTHON, "-c", read % "events"), data) as events:
            events.wait(lambda item: item == ":")
            for command, is_down in (("cut", True), ("mend", False)):
                start = len(events.items)
                lab.run(command, 2, "B")
                change = events.wait(
                    lambda item: isinstance(item, dict)
                    and item.get("kind") == "link_down"
                    and item["node"] == lab[2].mac,
                    BUSY,
                    start,
                )
                assert (change["port"], change["new"]) == ("B", is_down)
                events.wait(
                    lambda item: isinstance(item, dict)
                    and any(
                        port["port"] == "B" and ("link-down" in port["faults"]) == is_down
                        for entry in item.get("nodes", [])
                        if entry["mac"] == lab[2].mac
                        for port in entry["ports"]
                    ),
                    BUSY,
                    start,
                )
        web.signal(signal.SIGINT)
        assert web.end(BUSY) == 0


def test_state_and_changes_that_do_not_fit_together(broker, web):
    network = web.json("/api/network")
    assert (network["connection"], network["kind"], network["replay"]) == ("live", "card", False)
    nodes = network["networks"][0]["nodes"]
    assert len(nodes) == NODES and [node["mac"] for node in nodes if node["local"]] == [mac_of(1)]
    assert network["networks"][0]["ring"] == "normal"
    assert web.node(2)["problems"] == ["port B: link down"]

    events = Events(web)
    broker.publish(f"pub/diag/{mac_of(7)}/port_summary", '{"A":"red","B":"green"}')
    broker.publish(f"pub/diag/{mac_of(8)}/M301", "maybe")
    broker.publish("local/diag/network_style7", bytes([1]))
    change = events.wait("change", lambda data: data["kind"] == "colour")
    assert (change["node"], change["port"], change["old"], change["new"]) == (mac_of(7), "A", "green", "red")
    state = events.wait("network", lambda data: data.get("ring") == "degraded")
    assert state["since"] is not None
    wait_until(lambda: web.node(8)["M301"] == {"malformed_bytes": 5}, BUSY)
    assert web.node(7)["ports"][0]["colour"] == "red"

    log = web.json("/api/log")["changes"]
    assert [item for item in log if item["id"] > change["id"]] == web.json(f"/api/log?after={change['id']}")["changes"]
    assert change.pop("event") == "change" and change in log
    for topic in ("port_summary", "port_media", "CF_free_space", "M301"):
        broker.publish(f"pub/diag/{mac_of(9)}/{topic}", "")
    wait_until(lambda: not web.node(9)["present"], BUSY)
    assert web.node(9)["since"] is not None
    # What nothing names any more is forgotten with the next list.
    broker.publish("pub/diag/net/fire/link_down", bytes(1))
    events.wait("network", lambda data: mac_of(9) in data.get("gone", []))
    assert web.node(9) is None


def test_values_that_could_do_harm(broker, web):
    """Text goes through as text; a client's request of a megabyte doesn't fill the log."""
    broker.publish(f"pub/diag/{mac_of(3)}/job_name", "<b>\xff")
    assert "<b>" in wait_until(lambda: web.node(3)["job_name"], BUSY)
    events = Events(web)
    broker.publish("pub/diag/command/request", "x" * 1_000_000)
    request = events.wait("change", lambda data: data["kind"] == "request")
    assert len(json.dumps(request)) < 2000


def test_periods_at_the_wrong_time(broker, web):
    """Slots are in the order of their ends; those between that are missing are missing."""
    prefix = f"pub/diag/{mac_of(1)}/A"
    last = int(time.time()) // 900 * 900 - 900  # so that the one that has just ended is missing
    for slot, age, errors in ((5, 0, 1), (4, 1, 2), (2, 3, 3)):
        broker.publish(f"{prefix}/pm/period{slot}", PM.pack(last - 900 * age, 0, 0, errors, *[0] * 6))
    broker.publish(f"{prefix}/pm/period3", "bad")
    broker.publish(f"{prefix}/stats", STATS.pack(*range(15)))
    path = f"/api/pm/{mac_of(1)}/A"
    wait_until(lambda: web.get(path)[0] == 200 and web.json(path)["stats"], BUSY)
    told = web.json(path)
    assert (len(told["periods"]), told["days"]) == (96, [None] * 7)
    newest = told["periods"].index(next(item for item in told["periods"] if item and item["slot"] == "period5"))
    assert newest in (93, 94)  # a quarter hour may end meanwhile
    shown = told["periods"][newest - 3 : newest + 1]
    assert [item["slot"] for item in shown] == ["period2", "period3", "period4", "period5"]
    assert shown[1]["malformed_bytes"] == 3
    assert [item["values"]["errored_frames"] for item in (shown[0], shown[2], shown[3])] == [3, 2, 1]
    assert [item for item in told["periods"] if item] == shown
    assert {field["name"] for field in told["fields"]} == set(shown[0]["values"])
    for missing in (f"/api/pm/{mac_of(1)}/B", "/api/pm/", "/api/pm/x/A", f"/api/pm/{mac_of(1)}/Z"):
        assert web.get(missing)[0] == 404


def test_a_page_that_other_sites_could_use(web):
    status, headers, body = web.get("/")
    assert (status, headers["Content-Type"]) == (200, "text/html; charset=utf-8")
    for name in ("app.js", "style.css"):
        assert name.encode() in body and web.get(f"/{name}")[0] == 200
    for path in ("/", "/app.js", "/api/network", "/nothing"):
        headers = web.get(path)[1]
        assert "default-src 'self'" in headers["Content-Security-Policy"]
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert not [name for name in headers if name.startswith("Access-Control")]

    def status_of(request):
        with web.connect() as connection:
            connection.sendall(request + b"\r\nConnection: close\r\n\r\n")
            return connection.makefile("rb").readline().split()[1:2]

    good = b"\r\nHost: localhost"
    for expected, request in (
        (b"200", b"GET /healthz HTTP/1.1" + good),
        (b"200", b"GET /healthz HTTP/1.1\r\nHost: 192.168.1.5:80"),
        (b"403", b"GET / HTTP/1.1\r\nHost: rebound.example"),
        (b"403", b"GET / HTTP/1.0"),
        (b"403", b"GET /api/network HTTP/1.1\r\nSec-Fetch-Site: cross-site" + good),
        (b"405", b"POST /api/network HTTP/1.1\r\nContent-Length: 0" + good),
        (b"405", b"OPTIONS * HTTP/1.1" + good),
        (b"413", b"GET / HTTP/1.1\r\nContent-Length: 100000000" + good),
        (b"431", b"GET / HTTP/1.1\r\nX: " + b"x" * 100_000 + good),
        (b"414", b"GET /" + b"x" * 100_000 + b" HTTP/1.1" + good),
        (b"404", b"GET /../../../etc/passwd HTTP/1.1" + good),
        (b"404", b"GET /%2e%2e/%2e%2e/etc/passwd HTTP/1.1" + good),
        (b"404", b"GET /api/recording/seek?to=1 HTTP/1.1" + good),
    ):
        assert status_of(request) == [expected], request[:60]


def test_clients_that_mean_no_good(broker, web):
    """A thousand that never finish a request, readers that never read, and a storm: others notice nothing."""
    held = [web.connect() for _ in range(1000)]
    for connection in held:
        connection.sendall(b"GET / HTTP/1.1\r\nHost:")
    for path in 100 * ["/api/network", "/api/events"]:
        slow = socket.socket()
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
        slow.connect(("127.0.0.1", web.port))
        slow.sendall(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
        held.append(slow)
    events = Events(web)
    # Who is ten seconds behind is cut off by its own client library: sanitizers get more time.
    storm = f"""
import time
import paho.mqtt.client as mqtt
client = mqtt.Client()
client.connect("127.0.0.1", {broker.port})
client.loop_start()
for number in range(20000):
    topic = f"pub/diag/02-00-00-00-00-{{10 + number % 50:02X}}/CF_free_space"
    last = client.publish(topic, str(100000 + number), retain=True)
    time.sleep({0.001 if SANITIZED else 0})
last.wait_for_publish()
"""
    subprocess.run([PYTHON, "-c", storm], check=True)
    broker.publish(f"pub/diag/{mac_of(5)}/CF_free_space", "424242")
    events.wait("change", lambda data: data["new"] == 424242)
    start = time.monotonic()
    assert web.get("/healthz")[0] == 200
    assert time.monotonic() - start < 5
    if not SANITIZED:
        assert web.memory() < MAX_MEMORY
    assert len(web.json("/api/log")["changes"]) == 10000
    # A reader that was too slow is told to look anew, or dropped.
    held[-1].settimeout(BUSY)
    text = b""
    while b"event: reset" not in text and (more := held[-1].recv(65536)):
        text = text[-20:] + more
    for connection in held:
        connection.close()


def test_a_broker_that_goes(tmp_path):
    broker = Broker(tmp_path)
    broker.fill(3)
    with Web("--port", broker.port) as web:
        events = Events(web)
        assert web.get("/healthz")[2] == b"ok\n"
        broker.stop()
        events.wait("connection", lambda data: data["connection"] == "lost")
        assert web.get("/healthz")[0] == 503
        network = web.json("/api/network")
        assert network["connection"] == "lost" and len(network["networks"][0]["nodes"]) == 3
        wait_until(lambda: time.monotonic() - events.heard < 0.1, 5)  # a sign of life each 2 s
        start = len(events.items)
        broker.start()
        events.wait("connection", lambda data: data["connection"] == "live", start)
        events.wait("reset", start=start)
        assert web.json("/api/network")["networks"][0]["nodes"] == []
        kinds = [change["new"] for change in web.json("/api/log")["changes"] if change["kind"] == "connection"]
        assert kinds == ["live", "lost", "live"]
    broker.stop()


def test_a_broker_that_stands_still(tmp_path):
    """It takes connections and says nothing: what is shown is soon told to be old, and anew when it goes on."""
    broker = Broker(tmp_path)
    broker.fill(3)
    with Web("--port", broker.port) as web:
        events = Events(web)
        time.sleep(0.1)
        broker.process.send_signal(signal.SIGSTOP)
        start = time.monotonic()
        lost = events.wait("connection", lambda data: data["connection"] == "lost")
        assert time.monotonic() - start < 5 + 3  # of a busy machine
        assert "no word from it for" in lost["reason"]
        broker.process.send_signal(signal.SIGCONT)
        events.wait("connection", lambda data: data["connection"] == "live")
        assert len(web.json("/api/network")["networks"][0]["nodes"]) == 3
    broker.stop()


def test_a_site_that_is_not_as_its_brokers_tell(tmp_path):
    """Three cards, two of which hear each other: faults, who is not there, whose views differ, and brokers that go."""
    brokers = []
    for name in ("first", "second"):
        (tmp_path / name).mkdir()
        brokers.append(Broker(tmp_path / name))

    def put(topic, payload, to=tuple(brokers)):
        for broker in to:
            broker.publish(topic, payload)

    for number in (1, 2, 3):
        put(f"cards/{mac_of(number)}/bridge", "1")
        put(f"pub/diag/{mac_of(number)}/port_summary", '{"A":"green","B":"green"}')
        for name in ("link_down", "grnd_list", "miswired"):
            put(f"cards/{mac_of(number)}/pub/diag/net/fire/{name}", bytes(1))
    for number, other in ((1, 2), (2, 1)):
        put(f"cards/{mac_of(number)}/pub/diag/{mac_of(other)}/port_summary", '{"A":"green","B":"green"}')
    put(f"pub/diag/{mac_of(3)}/A/stats", STATS.pack(*range(15)))
    end = int(time.time()) // 900 * 900
    put(f"pub/diag/{mac_of(3)}/A/pm/period7", PM.pack(end, *[0] * 9))
    words = [word for broker in brokers for word in ("--host", f"127.0.0.1:{broker.port}")]
    # Its threads, too, get along with the system calls of the unit.
    with Web("--site", *words, wrap=confined()) as web:

        def networks():
            return web.json("/api/network")["networks"]

        def card(number):
            return next(node for one in networks() for node in one["nodes"] if node["mac"] == mac_of(number))

        wait_until(lambda: [len(one["nodes"]) for one in networks()] == [2, 1], BUSY, networks)
        assert {one["ring"] for one in networks()} == {"normal"} and "stats" not in card(3)["ports"][0]
        assert web.json(f"/api/node/{mac_of(3)}")["ports"][0]["stats"]
        assert web.get(f"/api/node/{mac_of(9)}")[0] == 404
        assert len([item for item in web.json(f"/api/pm/{mac_of(3)}/A")["periods"] if item]) == 1

        events = Events(web)
        put(f"cards/{mac_of(1)}/pub/diag/net/fire/link_down", bytes([2, 0, 0, 0, 0, 1, 7, 2]))
        change = events.wait("change", lambda data: data["kind"] == "link_down")
        assert (change["node"], change["port"], change["new"]) == (mac_of(1), "B", True)
        events.wait("network", lambda data: data.get("ring") == "degraded" and data["since"])
        wait_until(lambda: card(1)["number"] == 7 and card(1)["ports"][1]["faults"] == ["link-down"], BUSY, networks)
        differs = wait_until(lambda: networks()[0]["differs"], BUSY)[0]
        assert (differs["kind"], differs["mac"], differs["not_by"]) == ("listed", mac_of(1), [mac_of(2)])
        assert differs["since"] and events.wait("change", lambda data: data["kind"] == "views")

        put(f"cards/{mac_of(2)}/bridge", "0", brokers[:1])
        put(f"cards/{mac_of(3)}/bridge", "0")
        wait_until(lambda: not card(3)["reachable"] and card(3)["since"], BUSY, networks)
        assert card(2)["reachable"]  # through the second broker
        assert events.wait("change", lambda data: data["kind"] == "card")["node"] == mac_of(3)

        start = len(events.items)
        put(f"pub/diag/{mac_of(1)}/port_summary", '{"A":"red","B":"green"}')
        put(f"pub/diag/{mac_of(4)}/port_summary", '{"A":"green"}')
        events.wait("reset", start=start)
        wait_until(lambda: len(networks()) == 3, BUSY)
        told = [data for event, data in events.items[start:] if event == "change" and data["kind"] == "colour"]
        assert len(told) == 1, "what two brokers tell is told twice"

        # One that stands still, one that goes.
        brokers[0].process.send_signal(signal.SIGSTOP)
        lost = events.wait("connection", lambda data: data["brokers"][0]["connection"] == "lost")
        assert lost["connection"] == "live" and "no word" in lost["brokers"][0]["reason"]
        brokers[1].stop()
        events.wait("connection", lambda data: data["connection"] == "lost")
        assert web.get("/healthz")[0] == 503
        start = len(events.items)
        brokers[0].process.send_signal(signal.SIGCONT)
        events.wait("connection", lambda data: data["connection"] == "live", start)
        wait_until(lambda: not card(2)["reachable"], BUSY, networks)  # which the first broker alone says
    brokers[0].stop()


def write_recording(path, messages):
    """messages: of a time, a topic and a text or bytes."""
    lines = [{"diagctl_recording": 1, "started": "2024-05-01T08:00:00Z"}]
    for second, topic, payload in messages:
        value = {"text": payload} if isinstance(payload, str) else {"hex": payload.hex()}
        lines.append({"time": second, "retained": True, "topic": topic, **value})
    path.write_text("".join(json.dumps(line) + "\n" for line in lines))
    return path


def test_a_recording_that_plays_wrong(tmp_path):
    colours = [(second, "red" if second % 2 else "green") for second in range(100)]
    recording = write_recording(
        tmp_path / "recording",
        [(second, f"pub/diag/{mac_of(2)}/port_summary", f'{{"A":"{colour}"}}') for second, colour in colours],
    )
    layout = tmp_path / "layout"
    layout.write_text('{"nodes":{}}')
    with Web("--replay", recording, "--layout", layout) as web:
        assert web.json("/api/layout") == {"nodes": {}}
        events = Events(web)
        told = web.json("/api/recording/pause?to=1")
        assert (told["duration"], told["paused"], told["start"][:19]) == (99, True, "2024-05-01T08:00:00")
        for position, colour in ((51, "red"), (50, "green"), (1000, "red"), (0, "green")):
            assert web.json(f"/api/recording/seek?to={position}")["position"] == min(position, 99)
            assert web.node(2)["ports"][0]["colour"] == colour
            network = web.json("/api/network")
            assert network["id"] == min(position, 99)
            assert len(web.json("/api/log")["changes"]) == network["id"]
        wait_until(lambda: [name for name, _ in events.items].count("reset") == 4, BUSY, lambda: events.items)
        web.get("/api/recording/speed?to=20")
        web.get("/api/recording/pause?to=0")
        change = events.wait("change", lambda data: data["id"] == 21)
        assert change["time"] == "2024-05-01T08:00:21.000Z"
        assert web.json("/api/network")["time"] >= "2024-05-01T08:00:21"
        assert web.get("/api/recording/seek?to=x")[0] == 400
    backwards = write_recording(tmp_path / "backwards", [(2, "pub/diag/x", "1"), (1, "pub/diag/x", "2")])
    nonsense = tmp_path / "nonsense"
    nonsense.write_text("nonsense\n")
    for words, reason in (
        (("--replay", nonsense), "isn't a recording"),
        (("--replay", backwards), "line 3 is earlier"),
        (("--replay", recording, "--speed", "nan"), "not in range"),
        (("--layout", nonsense), "layout"),
    ):
        words = [DIAGCTL, "web", "--listen", "127.0.0.1:0", *words]
        done = subprocess.run(words, capture_output=True, text=True, timeout=BUSY, check=False)
        assert done.returncode in (1, 2) and reason in done.stderr, done


def test_a_recording_of_a_site_that_plays_wrong(tmp_path):
    """Card 3 comes, and card 2's bridge goes. Of a link that is down at card 1, card 2 hears five seconds late."""
    green = '{"A":"green","B":"green"}'
    messages = []
    for number, other in ((1, 2), (2, 1)):
        view = f"cards/{mac_of(number)}"
        messages += [
            (0, f"{view}/bridge", "1"),
            (0, f"pub/diag/{mac_of(number)}/port_summary", green),
            (0, f"{view}/pub/diag/{mac_of(other)}/port_summary", green),
            (0, f"{view}/pub/diag/net/fire/link_down", bytes(1)),
        ]
    down = bytes([2, 0, 0, 0, 0, 1, 7, 2])
    messages += [
        (10, f"cards/{mac_of(1)}/pub/diag/net/fire/link_down", down),
        (15, f"cards/{mac_of(2)}/pub/diag/net/fire/link_down", down),
        (20.5, f"pub/diag/{mac_of(3)}/port_summary", green),
        (30, f"cards/{mac_of(2)}/bridge", "0"),
    ]
    # Statistics, so that there is more than one place to play from.
    messages += [(40 + i / 1000, f"pub/diag/{mac_of(3)}/A/stats", STATS.pack(*range(i, i + 15))) for i in range(20000)]
    with Web("--replay", write_recording(tmp_path / "recording", messages), "--speed", 20) as web:
        web.get("/api/recording/pause?to=1")

        def seek(position):
            web.get(f"/api/recording/seek?to={position}")
            state = web.json("/api/network")
            assert (state["kind"], state["replay"], state["connection"]) == ("site", True, "live")
            return state["networks"], web.json("/api/log")["changes"]

        looks = {}
        for position in (5, 12, 18, 25, 59, 12, 35, 5):
            networks, log = seek(position)
            looks[position] = networks
            first, cards = networks[0], {node["mac"]: node for one in networks for node in one["nodes"]}
            is_down = position > 10
            assert (first["ring"], first["since"]) == (
                ("degraded", "2024-05-01T08:00:10.000Z") if is_down else ("normal", None)
            )
            assert cards[mac_of(1)]["ports"][1]["faults"] == (["link-down"] if is_down else [])
            assert [item["not_by"] for item in first["differs"]] == ([[mac_of(2)]] if 10 < position < 15 else [])
            assert (mac_of(3) in cards) == (position > 20)
            away = cards[mac_of(2)]
            assert (away["reachable"], away["since"]) == (
                (False, "2024-05-01T08:00:30Z") if position > 30 else (True, None)
            )
            told = [(item["kind"], item["time"][17:19]) for item in log if item["kind"] != "colours"]
            expected = [("views", "10"), ("link_down", "10"), ("views", "15"), ("appeared", "20"), ("card", "30")]
            if position < 40:
                assert told == [item for item in expected if int(item[1]) <= position], (position, told)
            if position == 59:
                assert web.json(f"/api/node/{mac_of(3)}")["ports"][0]["stats"]
        # Played, it comes to where one can also jump.
        web.get("/api/recording/pause?to=0")
        events = Events(web)
        assert events.wait("change", lambda data: data["kind"] == "views")["time"][17:19] == "10"
        wait_until(lambda: web.json("/api/recording")["position"] > 59, BUSY)
        web.get("/api/recording/pause?to=1")
        assert web.json("/api/network")["networks"] == looks[59]


def test_a_start_or_an_end_that_says_nothing(broker):
    with Web("--port", broker.port, listen="0.0.0.0:0") as web:
        assert any("whoever reaches" in line for line in web.stream.items)
        for address, status, reason in ((f"127.0.0.1:{web.port}", 1, "in use"), ("here", 2, "not ADDRESS:PORT")):
            words = [DIAGCTL, "web", "--listen", address]
            done = subprocess.run(words, capture_output=True, text=True, timeout=BUSY, check=False)
            assert (done.returncode, reason in done.stderr) == (status, True), done
    # Under the system calls of its unit, without a broker yet.
    with Web("--host", "localhost", "--port", free_port(), wrap=confined()) as web:
        assert web.get("/healthz")[0] == 503 and web.get("/")[0] == 200
