"""The example configuration of the broker, as it stands, and its bridge to the broker of a site."""
import re
import signal
import subprocess
from contextlib import contextmanager
from pathlib import Path

import pytest
from client import DIAGCTL, NO_BROKER, run_in
from panel import Stream, wait_until

EXAMPLES = Path(__file__).resolve().parent.parent.parent / "packaging" / "mosquitto"
REQUEST, RESPONSE = "pub/diag/command/request", "pub/diag/command/response"
CA = "/etc/mosquitto/certs/ca.crt"

# As docs/operations.md shows it; ADDRESS is what clients call the node.
CERTIFICATES = """
cd /etc/mosquitto/certs
openssl req -x509 -newkey ed25519 -nodes -days 30 -subj '/CN=test CA' -keyout ca.key -out ca.crt 2>/dev/null
openssl req -newkey ed25519 -nodes -subj '/CN=card' -keyout card.key -out card.csr 2>/dev/null
openssl x509 -req -in card.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 30 \
    -extfile <(echo "subjectAltName=IP:ADDRESS") -out card.crt 2>/dev/null
"""


def put(node, path, text):
    node.exec("tee", path, stdin=text)


def prepare(node):
    """Gives the node an /etc/mosquitto of its own with the examples, service tools let in, and certificates."""
    node.shell("mount -t tmpfs none /etc/mosquitto; mkdir /etc/mosquitto/conf.d /etc/mosquitto/certs")
    for name in ("diag.acl", "diag-service.acl"):
        put(node, f"/etc/mosquitto/{name}", (EXAMPLES / name).read_text(encoding="utf-8"))
    text = (EXAMPLES / "diag.conf").read_text(encoding="utf-8")
    let_in = re.sub(r"^#(?=\w)", "", text, flags=re.MULTILINE)
    assert let_in != text
    put(node, "/etc/mosquitto/conf.d/diag.conf", let_in)
    # Persistent as Debian's own file has it, which diag.conf is to overrule.
    main = ["user root", "persistence true", "persistence_location /run/", "log_dest stderr", "log_type all"]
    put(node, "/etc/mosquitto/mosquitto.conf", "\n".join([*main, "include_dir /etc/mosquitto/conf.d", ""]))
    node.shell("mosquitto_passwd -c -b /etc/mosquitto/diag-service.passwd service secret")
    node.shell(CERTIFICATES.replace("ADDRESS", node.address))


def service(node, password="secret"):
    """How a service tool at the site's node reaches a node's broker."""
    encrypted = ["-h", node.address, "-p", "8883", "--cafile", "/run/ca.crt" if node.number == 1 else CA]
    return [*encrypted, "-u", "service", "-P", password]


@pytest.fixture(scope="module")
def panel(make_lab):
    """A card and a site, whose brokers don't run yet, and the bridge between them."""
    lab = make_lab(2, "star", daemons=False).silence_cards(brokers=False)
    card, site = lab[1], lab[2]
    for node in (card, site):
        prepare(node)
    for at, other in ((card, site), (site, card)):
        put(at, "/run/ca.crt", other.exec("cat", CA))
    bridge = (EXAMPLES / "bridge.conf").read_text(encoding="utf-8")
    for example, real in {
        "00-1A-2B-3C-4D-5E": card.mac,
        "site.example.org": site.address,
        "change-me": "secret",
        "/etc/mosquitto/certs/site-ca.crt": "/run/ca.crt",
    }.items():
        assert example in bridge
        bridge = bridge.replace(example, real)
    put(card, "/etc/mosquitto/conf.d/bridge.conf", bridge)
    # At the site the card's user name is its MAC address; the other user may do anything.
    site.shell(f"mosquitto_passwd -b /etc/mosquitto/diag-service.passwd {card.mac} secret")
    rules = ["user service", "topic readwrite #", "pattern readwrite pub/diag/%u/#", "pattern readwrite cards/%u/#", ""]
    put(site, "/etc/mosquitto/diag-service.acl", "\n".join(rules))
    return card, site


@contextmanager
def broker(node, *client):
    """The node's broker, empty at first, and what the client sees of it: on the card by default."""
    command = node.command("mosquitto", "-c", "/etc/mosquitto/mosquitto.conf")
    with Stream(command, stderr=subprocess.STDOUT) as node.broker:
        node.watch(*client)
        with node.topics:
            yield


def command(card, site, text):
    """The site gives the card a command."""
    site.exec("mosquitto_pub", *service(site), "-q", "1", "-t", f"cards/{card.mac}/{REQUEST}", "-m", text)


def denied(card, topic, client, at):
    """Whether the card's broker throws away what such a client publishes on the topic."""
    start, log_start = len(card.topics.items), len(card.broker.items)
    at.exec("mosquitto_pub", *client, "-q", "1", "-t", topic, "-m", "x")
    line = card.broker.wait(lambda text: "PUBLISH from" in text and f"'{topic}'" in text, 10, log_start)
    card.publish(("local/mark", topic), retain=False)
    card.topics.wait(lambda item: item == ("local/mark", topic.encode()), 10, start)
    thrown_away = (topic, b"x") not in card.topics.items[start:]
    assert thrown_away == ("Denied PUBLISH" in line), line
    return thrown_away


def test_access_list_lets_through_or_keeps_out_the_wrong(panel):
    card, site = panel
    own = f"pub/diag/{card.mac}"
    facts = ["local/diag/port/A/type", "local/activate", f"{own}/job_name", f"{own}/repeater"]
    results = [
        *("pub/diag/local_node", f"{own}/A/stats", f"{own}/port_summary"),
        *("pub/diag/net/fire/grnd_list", "pub/diag/command/aut/tbl_idx", RESPONSE),
    ]
    every = [REQUEST, *facts, *results, "other"]

    def allowed(client, at):
        return [topic for topic in every if not denied(card, topic, client, at)]

    local = ["-p", "1885"]
    with broker(card):
        assert allowed(local, card) == [REQUEST, *facts]
        assert allowed([*local, "-i", "diag"], card) == [REQUEST, *facts, *results]
        assert allowed(service(card), site) == [REQUEST]
        with pytest.raises(AssertionError, match="not authori[sz]ed"):
            site.exec("mosquitto_pub", *service(card, "guess"), "-t", REQUEST, "-n")


def test_bridge_or_access_list_loses_topics_or_repeats_commands(panel):
    card, site = panel
    mac = card.mac
    with broker(site, *service(site)), broker(card):
        card.start("-n", "1")
        card.publish(("local/diag/port/A/type", "fire"), ("local/diag/port/A/stats", bytes(66)))
        stats = f"pub/diag/{mac}/A/stats"
        site.topics.wait(lambda item: item[0] == stats)
        site.topics.wait(lambda item: item[0] == f"cards/{mac}/pub/diag/net/fire/link_down")

        # The site gives commands: executed once, answered once.
        for number in range(5):
            command(card, site, f"9;{number};noop")
            answer = f"cards/{mac}/{RESPONSE}", f"9;{number};ACK".encode()
            site.topics.wait(lambda item, answer=answer: item == answer)
        answers = [item for item in card.topics.items if item[0] == RESPONSE]
        assert len(answers) == len(set(answers)) == 5
        assert not [item for item in site.topics.items if item[0] in (REQUEST, RESPONSE, "pub/diag/local_node")]

        # A service tool sees the diagnostics of the card and nothing else.
        words = " ".join(service(card))
        seen = site.shell(f"mosquitto_sub {words} -t '#' -W 2 -F %t || [ $? = 27 ]").split()
        assert stats in seen and not [topic for topic in seen if not topic.startswith("pub/diag/")]
        put(site, "/run/password", "secret\n")
        login = ["--host", card.address, "--port", "8883", "--cafile", "/run/ca.crt", "--user", "service"]
        for words in (["show", "local"], ["ports", "local"], ["ping"], ["check"]):
            assert site.exec(DIAGCTL, *words, *login, "--password-file", "/run/password")
        refused = run_in(site, "ping", *login)
        assert refused.returncode == NO_BROKER and "not authori" in refused.stderr, refused
        assert card.daemon.stop() == 0
        assert not [line for line in card.broker.items if "Denied PUBLISH" in line]


@pytest.mark.timeout(90)
@pytest.mark.parametrize("limits", ["packaged", "stock"])
def test_bridge_loses_values_at_its_first_connection_or_when_the_site_hangs_or_dies(panel, limits):
    card, site = panel
    if limits == "stock":  # the last test: the lines are gone for good
        path = "/etc/mosquitto/conf.d/diag.conf"
        assert card.shell(f"sed -i -E '/^max_(inflight|queued)/w /dev/stdout\n//d' {path}").count("\n") == 2
    # What the site does not read soon waits in the card's broker, not in sockets.
    for node in (card, site):
        node.shell("for way in r w; do echo 4096 16384 16384 >/proc/sys/net/ipv4/tcp_${way}mem; done")
    values = {}

    def change(count, payload):
        changed = {f"pub/diag/{card.mac}/value/{number}": payload.ljust(66) for number in range(count)}
        values.update(changed)
        card.publish(*changed.items(), client="diag")

    def await_site(limit):
        wait_until(lambda: values.items() <= site.retained().items(), limit, lambda: len(site.retained()))

    with broker(card):
        change(3000, b"first")
        with broker(site, *service(site)):
            await_site(20)
            site.broker.signal(signal.SIGSTOP)
            change(3000, b"while it hangs")
            site.broker.process.send_signal(signal.SIGCONT)  # nsenter stops and goes on with what it waits for
            await_site(20)
            site.broker.signal(signal.SIGSTOP)
            change(500, b"while it hangs again")
            site.topics.__exit__()
            site.broker.signal(signal.SIGKILL)
            site.broker.process.send_signal(signal.SIGCONT)
            site.broker.end()
        change(100, b"while it is away")
        with broker(site, *service(site)):
            await_site(20)
            change(1, b"afterwards")
            await_site(2)
            command(card, site, "9;9;noop")
            card.topics.wait(lambda item: item == (REQUEST, b"9;9;noop"), 2)
