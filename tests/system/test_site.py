"""Cards of a network and the two brokers of their site, with the example configuration as it stands."""
import json
import re
import signal
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from panel import BUILD, Stream, run, wait_until
from test_diagctl import PM, Terminal, validator

PACKAGING = Path(__file__).resolve().parent.parent.parent / "packaging"
EXAMPLES, RULES = PACKAGING / "mosquitto", PACKAGING / "prometheus"
CARDS, BROKERS = (1, 2, 3, 4), (5, 6)
CARD_PORT, TOOL_PORT = "8883", "8884"
CA = "/etc/mosquitto/certs/ca.crt"
PEOPLE = ("viewer", "operator")
CARD = "02-00-00-00-00-01"
ODD = "02-00-00-00-00-9a"  # one that writes its address in its own way
INTRUDER = "02-00-00-00-00-99"  # a card with a password of its own, played by the tests
MAIN = "user root\nlog_dest stderr\nlog_type all\ninclude_dir /etc/mosquitto/conf.d\n"

# As docs/operations.md shows it; ADDRESS is what cards and tools call the broker. One machine signs for all.
AUTHORITY = """
openssl req -x509 -newkey ed25519 -nodes -days 30 -subj '/CN=site CA' -keyout ca.key -out ca.crt 2>/dev/null
"""
CERTIFICATE = """
openssl req -newkey ed25519 -nodes -subj '/CN=site' -keyout site.key -out site.csr 2>/dev/null
openssl x509 -req -in site.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 30 \
    -extfile <(echo "subjectAltName=IP:ADDRESS") -out site.crt 2>/dev/null
"""

# By their schemas.
SITE_JSON = {
    "site": ["lists"],
    "show": ["show", CARD],
    "ports": ["ports", CARD],
    "pm": ["pm", CARD, "B"],
}


def put(node, path, text):
    node.exec("tee", path, stdin=text)


def example(name, **real):
    text = (EXAMPLES / name).read_text(encoding="utf-8")
    for old, new in real.items():
        assert OLD[old] in text
        text = text.replace(OLD[old], new)
    return text


OLD = {
    "mac": "00-1A-2B-3C-4D-5E",
    "host": "site.example.org",
    "second": "site-second.example.org",
    "password": "change-me",
}
OLD["ca"] = "/etc/mosquitto/certs/site-ca.crt"


def password(user):
    return f"of {user}"


class Site:
    """Four cards with their daemons, and two brokers, empty at each start."""

    def __init__(self, lab):
        self.lab = lab
        self.cards = {number: lab[number] for number in CARDS}
        self.logs = {}
        self.users = set()  # with a password beside the tool
        self.view = {}
        for number in (*CARDS, *BROKERS):
            lab[number].shell("mount -t tmpfs none /etc/mosquitto; mkdir /etc/mosquitto/conf.d /etc/mosquitto/certs")
        first = lab[BROKERS[0]]
        first.shell("cd /etc/mosquitto/certs\n" + AUTHORITY)
        keys = {name: first.exec("cat", f"/etc/mosquitto/certs/{name}") for name in ("ca.crt", "ca.key")}
        # Where the tool runs.
        put(lab[max(BROKERS)], CA, keys["ca.crt"])
        with ThreadPoolExecutor() as pool:
            list(pool.map(lambda number: self._prepare_broker(lab[number], keys), BROKERS))
            for number in BROKERS:
                self.start(number)
            list(pool.map(lambda card: self._start_card(card, keys["ca.crt"]), self.cards.values()))

    def _prepare_broker(self, node, keys):
        self.lab.run("card", "stop", node.number)
        self.lab.run("broker", "stop", node.number)
        for name, text in keys.items():
            put(node, f"/etc/mosquitto/certs/{name}", text)
        node.shell("cd /etc/mosquitto/certs\n" + CERTIFICATE.replace("ADDRESS", node.address))
        put(node, "/etc/mosquitto/conf.d/site.conf", example("site.conf"))
        for name in ("site-cards.acl", "site-tools.acl"):
            put(node, f"/etc/mosquitto/{name}", example(name))
        put(node, "/etc/mosquitto/mosquitto.conf", MAIN)
        for name, users in (("cards", [INTRUDER, ODD, *(card.mac for card in self.cards.values())]), ("tools", PEOPLE)):
            put(node, f"/etc/mosquitto/site-{name}.passwd", "".join(f"{user}:{password(user)}\n" for user in users))
            node.exec("mosquitto_passwd", "-U", f"/etc/mosquitto/site-{name}.passwd")

    def _start_card(self, card, authority):
        self.lab.run("broker", "stop", card.number)
        put(card, "/etc/mosquitto/certs/site-ca.crt", authority)
        own = {"mac": card.mac, "password": password(card.mac)}
        first, second = (self.lab[number].address for number in BROKERS)
        put(card, "/etc/mosquitto/conf.d/bridge.conf", example("bridge.conf", **own, host=first))
        put(card, "/etc/mosquitto/conf.d/bridge-second.conf", example("bridge-second.conf", **own, second=second))
        card.shell("echo include_dir /etc/mosquitto/conf.d >>/run/lab/mosquitto.conf")
        self.lab.run("broker", "start", card.number)
        self.lab.run("start", card.number)

    def client(self, number, user, port=TOOL_PORT):
        """How a user reaches a broker."""
        node = self.lab[number]
        return ["-h", node.address, "-p", port, "--cafile", CA, "-u", user, "-P", password(user)]

    def start(self, number):
        node = self.lab[number]
        command = node.command("mosquitto", "-c", "/etc/mosquitto/mosquitto.conf")
        self.logs[number] = Stream(command, stderr=subprocess.STDOUT)
        self.logs[number].wait(lambda line: line.endswith("running"))

        def parse(line):
            topic, _, payload = line.partition(" ")
            return topic, bytes.fromhex(payload)

        watch = ["mosquitto_sub", *self.client(number, "viewer"), "-q", "1", "-t", "#", "-F", "%t %x"]
        self.view[number] = Stream(node.command(*watch), parse)

    def kill(self, number):
        self.logs[number].signal(signal.SIGKILL)
        self.logs[number].end()
        self.view[number].__exit__()

    def retained(self, number):
        """What one broker says: the last payload of every topic that has one."""
        return {topic: payload for topic, payload in dict(self.view[number].items).items() if payload}

    def merged(self):
        """What both have said, the newest of each topic."""
        said = sorted((at, *item) for view in self.view.values() for at, item in zip(view.times, view.items))
        return {topic: payload for topic, payload in {topic: payload for _, topic, payload in said}.items() if payload}

    def await_everywhere(self, topic, payload, limit):
        for number in BROKERS:
            wait_until(lambda number=number: self.retained(number).get(topic) == payload, limit, f"{topic} at {number}")

    def command(self, user, mac, text):
        words = self.client(BROKERS[0], user)
        topic = f"cards/{mac}/pub/diag/command/request"
        self.lab[BROKERS[0]].exec("mosquitto_pub", *words, "-q", "1", "-t", topic, "-m", text)

    def tool(self, command, *words, user="viewer", brokers=BROKERS):
        """How the tool is run for both brokers."""
        node = self.lab[max(BROKERS)]
        if user not in self.users:
            put(node, f"/run/{user}", password(user))
            self.users.add(user)
        login = ["--site", "--user", user, "--password-file", f"/run/{user}", "--cafile", CA, "--port", TOOL_PORT]
        hosts = [word for number in brokers for word in ("--host", self.lab[number].address)]
        return node.command(str(BUILD / "diagctl"), command, *login, *hosts, *words)

    def diagctl(self, *words, **options):
        """What it says, and its exit status."""
        command = self.tool(*words, **options)
        done = subprocess.run(command, capture_output=True, text=True, timeout=30, check=False)
        return done.returncode, done.stdout, done.stderr

    def shown(self):
        """The site as diagctl shows it: whether each card is connected, and where views differ, of the one network."""
        status, text, _ = self.diagctl("nodes", "--json")
        assert status == 0
        (network,) = json.loads(text)["networks"]
        return {card["mac"]: card["connected"] for card in network["cards"]}, network["differences"]

    def publish(self, card, values):
        card.publish(*((f"pub/diag/{card.mac}/{name}", value) for name, value in values.items()), client="test")


def presence(card):
    return f"cards/{card.mac}/bridge"


def seen(by, card):
    return f"cards/{by.mac}/pub/diag/{card.mac}/port_summary"


@pytest.fixture(scope="module")
def site(make_lab):
    site = Site(make_lab(max(BROKERS), "star", daemons=False))
    for card in site.cards.values():
        site.await_everywhere(presence(card), b"1", 10)
        for other in set(CARDS) - {card.number}:
            # A daemon that has nothing to tell speaks every 15 s.
            site.await_everywhere(seen(card, site.cards[other]), b'{"A":"green"}', 20)
    return site


def test_card_or_tool_may_do_more_or_less_than_its_role(site):
    number = BROKERS[0]
    broker = site.lab[number]
    topics = {
        name: text.format(mac=mac)
        for mac, kind in ((INTRUDER, "own"), (site.cards[1].mac, "other"))
        for name, text in {
            f"{kind} values": "pub/diag/{mac}/test",
            f"{kind} view": "cards/{mac}/pub/diag/net/fire/test",
            f"{kind} presence": "cards/{mac}/bridge",
            f"{kind} answers": "cards/{mac}/pub/diag/command/response",
            f"{kind} commands": "cards/{mac}/pub/diag/command/request",
        }.items()
    }
    topics |= {"anything": "pub/diag/net/fire/test", "system": "$SYS/test"}
    may_write = {
        (INTRUDER, CARD_PORT): {"own values", "own view", "own presence", "own answers"},
        ("viewer", TOOL_PORT): set(),
        ("operator", TOOL_PORT): {"own commands", "other commands"},
    }

    def writes(user, port, name):
        """The broker acknowledges what it throws away: only its log tells."""
        start = len(site.logs[number].items)
        words = [*site.client(number, user, port), "-q", "1", "-t", topics[name], "-m", "1"]
        broker.exec("mosquitto_pub", *words)
        line = site.logs[number].wait(lambda text: "PUBLISH from" in text and f"'{topics[name]}'" in text, 5, start)
        return "Denied" not in line

    for (user, port), allowed in may_write.items():
        assert {name for name in topics if writes(user, port, name)} == allowed, user

    # Of all that there is, a card reads its own commands.
    listening = ["mosquitto_sub", *site.client(number, INTRUDER, CARD_PORT), "-t", "#", "-F", "%t"]
    with Stream(broker.command(*listening)) as heard:

        def is_told():
            for mac in (site.cards[1].mac, INTRUDER):
                site.command("operator", mac, "9;9;noop")
            return heard.items

        wait_until(is_told)
    assert set(heard.items) == {topics["own commands"]}

    mac = site.cards[1].mac
    assert site.diagctl("ping", mac, user="operator")[0] == 0
    assert site.diagctl("reset", mac, "A", "--yes", user="operator")[0] == 0
    status, _, error = site.diagctl("nodes", user="nobody")
    assert status == 3 and error.count("not authorised") == 2, error
    with pytest.raises(AssertionError, match="not authori[sz]ed"):
        broker.exec("mosquitto_pub", *site.client(number, "viewer", CARD_PORT), "-t", topics["own commands"], "-n")


def test_performance_record_is_lost_or_written_twice(site):
    card, node = site.cards[2], site.lab[max(BROKERS)]
    file, start = "/run/pm.om", 900 * (int(time.time()) // 900)

    def close(slot, age, frames):
        site.publish(card, {f"B/pm/{slot}": PM.pack(start - 900 * age, 0, frames, 0, 1, 2, 0, 0, 500, 0)})

    def export(*words, status=0):
        done, text, error = site.diagctl("export", "--pm", *words)
        assert done == status, error
        return text or error

    def frames():
        """Of every record in the file."""
        labels = f'mac="{card.mac}",network="{site.cards[1].mac}",port="B"'
        line = rf"diag_port_(?:period|day)_good_frames{{{labels}}} (\d+) "
        return sorted(map(int, re.findall(line, node.exec("cat", file))))

    for slot, age in (("period0", 30), ("period1", 29), ("day0", 30), ("period2", -2)):
        close(slot, age, age + 100)
    wait_until(lambda: "of the future left out: does the clock" in export(file))
    wait_until(lambda: export(file) and frames() == [129, 130, 130], 10, lambda: node.exec("cat", file))
    blocks = ("promtool", "tsdb", "create-blocks-from", "openmetrics", file, "/run/tsdb")
    node.exec(*blocks)
    node.exec("rm", file)
    # One comes late, from a card that was away, one before the other run has ended.
    for slot, age in (("period2", 40), ("period0", 1)):
        close(slot, age, age + 100)
    wait_until(lambda: " 140 " in export("-") and " 101 " in export("-"))
    with ThreadPoolExecutor() as pool:
        list(pool.map(lambda _: export(file), range(2)))
    assert frames() == [101, 140]
    node.exec("rm", file)
    export(file)
    assert not frames()
    node.exec("rm", file, f"{file}.state")
    export(file, "--min-age", "3")
    assert frames() == [129, 130, 140]
    node.exec(*blocks)
    node.shell(f"sed -i 's/good/bad/' {file}")
    assert "line 5 isn't of export --pm" in export(file, status=1)
    node.shell(f"echo damage >>{file}.state")
    assert "is damaged" in export(file, status=1)
    site.publish(card, {f"B/pm/{slot}": b"" for slot in ("period0", "period1", "period2", "day0")})


def test_verdict_picture_or_recording_that_is_not_of_the_site(site):
    node, (card, victim, *_) = site.lab[max(BROKERS)], site.cards.values()
    file, port = "/run/site.jsonl", "21885"

    def scrape():
        fetch = "import urllib.request as r; print(r.urlopen('http://127.0.0.1:9885/metrics').read().decode())"
        return node.exec("/usr/bin/python3", "-c", fetch)

    def verdict(*words):
        status, text, error = site.diagctl("check", *words)
        assert not error
        return status, text

    wait_until(lambda: verdict("--expect", "4")[0] == 0, 20, verdict)
    assert "4 nodes |" in verdict()[1] and "cards=4;;;0 unreachable=0;;0;0" in verdict()[1]
    assert verdict("--expect", "5")[0] == 2
    recorder = Stream(site.tool("record", file), stderr=subprocess.STDOUT)
    exporter = Stream(site.tool("export"), stderr=subprocess.STDOUT)
    watcher = Stream(site.tool("watch", "--json"))
    with Terminal(site.tool("top"), 130, 40) as top, recorder as kept, exporter as metrics, watcher as changes:
        top.wait("Cards 4   Networks 1   Unreachable 0", f"network of {card.mac}: 4 cards")
        kept.wait(lambda line: line.startswith("recording"))
        site.publish(card, {"job_name": "RECORDED"})
        top.wait("RECORDED")
        victim.inside.stop("broker", "KILL")
        top.wait(f"card {victim.mac} UNREACHABLE", "Unreachable 1")
        metrics.wait(lambda line: "/metrics" in line)
        wait_until(lambda: f'diag_card_connected{{mac="{victim.mac}",network="{card.mac}",name=""}} 0' in scrape())
        assert scrape().count(victim.mac) == 1
        assert run("promtool", "check", "metrics", stdin=scrape()) == ""
        known = set(re.findall("^# TYPE (diag_[a-z0-9_]+)", scrape(), re.MULTILINE))
        rules = (RULES / "diag-site-rules.yml").read_text(encoding="ascii")
        assert set(re.findall(r"\bdiag_[a-z0-9_]+", rules)) <= known
        run("promtool", "check", "rules", RULES / "diag-site-rules.yml")
        status, text = verdict("--timeout", "1")
        assert status == 2 and f"1 of 4 cards unreachable ({victim.mac})" in text
        assert verdict("--unreachable", "1", "--timeout", "1", "--views-differ", "ok")[0] == 0
        top.keys("Down", "Enter")
        top.wait(victim.mac, "card: UNREACHABLE since", "Statistics since reset")
        site.lab.run("broker", "start", victim.number)
        site.lab.run("start", victim.number)
        top.wait("card: connected")
        changes.wait(lambda line: f"card {victim.mac} connected" in line)
        for line in changes.items:
            validator("site_change").validate(json.loads(line))
        states = [
            text for item in changes.items if (text := json.loads(item)["text"]).startswith(f"card {victim.mac} ")
        ]
        assert [text.split()[-1] for text in states if "hears" not in text] == ["UNREACHABLE", "connected"]
        kept.signal(signal.SIGINT)
        assert kept.end() == 0
    messages = [json.loads(line) for line in node.exec("cat", file).splitlines()[1:]]
    assert len([item for item in messages if item.get("text") == "RECORDED"]) == 1
    assert [item["text"] for item in messages if item["topic"] == presence(victim)] == ["1", "0", "1"]

    put(node, "/run/plain.conf", f"user root\nlistener {port} 127.0.0.1\nallow_anonymous true\n")
    with Stream(node.command("mosquitto", "-c", "/run/plain.conf"), stderr=subprocess.STDOUT) as broker:
        broker.wait(lambda line: line.endswith("running"))
        words = str(BUILD / "diagctl"), "--port", port
        node.exec(words[0], "replay", file, "--speed", "0", *words[1:])
        replayed = json.loads(node.exec(words[0], "nodes", "--site", "--json", *words[1:]))
        broker.signal(signal.SIGTERM)
    told = json.loads(site.diagctl("nodes", "--json")[1])
    site.publish(card, {"B/pm/period0": PM.pack(1700000000, *range(9))})
    wait_until(lambda: site.diagctl("pm", CARD, "B")[0] == 0)
    for name, words in SITE_JSON.items():
        item = json.loads(site.diagctl(*words, "--json")[1])
        validator(name).validate(item)
        assert name == "site" or item["connected"] and item.get("location") is None
    site.publish(card, {"B/pm/period0": b""})
    validator("site").validate(told)
    for line in site.diagctl("ping", "--json", user="operator")[1].splitlines():
        validator("site_ping").validate(json.loads(line))
    for network in (*replayed["networks"], *told["networks"]):
        for item in network["cards"]:
            del item["since"]
    assert replayed["networks"][0]["cards"] == told["networks"][0]["cards"]
    assert replayed["networks"][0]["lists"] == told["networks"][0]["lists"]


def test_card_puts_another_out_by_its_client_id(site):
    number = BROKERS[0]
    victim = site.cards[4]
    start = len(site.view[number].items)

    def is_put_out_by(user):
        """What a client does that takes the victim's id comes after the victim's will."""
        words = [*site.client(number, user, CARD_PORT), "-i", victim.mac, "-q", "1", "-t", f"pub/diag/{user}/test"]
        site.lab[number].exec("mosquitto_pub", *words, "-m", "1")
        site.view[number].wait(lambda item: item == (f"pub/diag/{user}/test", b"1"))
        return (presence(victim), b"0") in site.view[number].items[start:]

    assert not is_put_out_by(INTRUDER)
    assert is_put_out_by(victim.mac)
    site.await_everywhere(presence(victim), b"1", 15)


def test_garbage_of_one_card_hides_what_others_say(site):
    red = '{"A":"red"}'
    garbage = {
        (INTRUDER, f"cards/{INTRUDER}/bridge"): "1",
        (INTRUDER, f"cards/{INTRUDER}/pub/diag/net/fire/link_down"): "short",
        (INTRUDER, f"pub/diag/{INTRUDER}/port_summary"): red[:-1],
        (ODD, f"pub/diag/{ODD}/port_summary"): red,
    }

    def write(user, topic, payload):
        for number in BROKERS:
            words = [*site.client(number, user, CARD_PORT), "-q", "1", "-r", "-t", topic]
            site.lab[number].exec("mosquitto_pub", *words, *(["-m", payload] if payload else ["-n"]))

    for (user, topic), payload in garbage.items():
        write(user, topic, payload)
    site.await_everywhere(f"pub/diag/{ODD}/port_summary", red.encode(), 10)
    status, text, error = site.diagctl("check", "--timeout", "1")
    assert status == 3 and f"link-down list of {INTRUDER} malformed (5 bytes)" in text
    assert "cards=5;" in text and "ports_down=0;" in text
    assert f"nothing is shown of card {ODD}" in error
    assert "malformed (10 bytes)" in site.diagctl("show", INTRUDER)[1]
    for user, topic in garbage:
        write(user, topic, "")


@pytest.mark.timeout(90)
def test_site_shows_a_dead_daemon_broker_or_link_as_healthy(site):
    lab, (daemon, broker, link, witness) = site.lab, site.cards.values()
    assert not [
        topic for topic in site.retained(BROKERS[0]) if topic in (seen(card, card) for card in site.cards.values())
    ]
    lab.run("kill", daemon.number)
    broker.inside.stop("broker", "KILL")
    lab.run("cut", link.number, "A")
    site.await_everywhere(presence(broker), b"0", 2)
    alive = {card.mac: card is not broker for card in site.cards.values()}
    assert site.shown()[0] == alive
    site.await_everywhere(presence(link), b"0", 25)  # 1.5 times the keepalive of 10 s, and mosquitto looks now and then

    lab.run("broker", "start", broker.number)
    lab.run("mend", link.number, "A")
    for card in (broker, link):
        site.await_everywhere(presence(card), b"1", 30)

    # The bridge of the card with the dead daemon is up, but nobody sees the daemon any more after 35 s.
    site.await_everywhere(seen(witness, daemon), None, 40)
    assert site.retained(BROKERS[0])[presence(daemon)] == b"1"
    unheard = {item["mac"]: item["not_by"] for item in site.shown()[1] if item["kind"] == "not_heard"}
    assert witness.mac in unheard[daemon.mac]
    for card in (daemon, broker):
        lab.run("start", card.number)
        site.await_everywhere(seen(witness, card), b'{"A":"green"}', 5)
    all_agree = (dict.fromkeys(alive, True), [])
    wait_until(lambda: site.shown() == all_agree, 25, site.shown)


@pytest.mark.timeout(90)
def test_values_are_missing_when_one_of_two_brokers_dies(site):
    first, second = BROKERS
    card = site.cards[4]
    values = {f"value/{number}": b"0" for number in range(300)}

    def change(turn, count):
        for start in range(0, count, 50):
            changed = {f"value/{number}": str(turn).encode() for number in range(start, start + 50)}
            values.update(changed)
            site.publish(card, changed)

    def has_all(retained):
        return {f"pub/diag/{card.mac}/{name}": value for name, value in values.items()}.items() <= retained.items()

    watcher = Stream(site.tool("watch"))
    change(1, 300)
    wait_until(lambda: has_all(site.retained(first)) and has_all(site.retained(second)))
    change(2, 150)
    site.kill(first)
    watcher.wait(lambda line: f"broker {site.lab[first].address}:{TOOL_PORT} UNREACHABLE" in line)
    change(3, 100)
    site.publish(card, {"job_name": "ALONE"})
    wait_until(lambda: has_all(site.merged()))

    def job_name():
        status, text, error = site.diagctl("show", card.mac, "--json")
        assert status == 0, error
        return json.loads(text)["job_name"]

    wait_until(lambda: job_name() == "ALONE")
    site.start(first)
    assert job_name() == "ALONE"
    for back in site.cards.values():
        wait_until(lambda back=back: site.retained(first).get(presence(back)) == b"1", 20, presence(back))
    # Everything comes again, but the answers to commands, which are not retained.
    topics = {topic for topic in site.retained(second) if "/command/" not in topic}
    wait_until(lambda: topics <= site.retained(first).keys(), 10, lambda: topics - site.retained(first).keys())
    assert has_all(site.retained(first)) and has_all(site.retained(second))
    with watcher:
        back = f"broker {site.lab[first].address}:{TOOL_PORT} connected"
        wait_until(lambda: sum(line.endswith(back) for line in watcher.items) == 2)
    site.kill(second)
    change(4, 200)
    site.publish(card, {"job_name": "FIRST"})
    wait_until(lambda: has_all(site.merged()))
    wait_until(lambda: job_name() == "FIRST")
    site.start(second)
