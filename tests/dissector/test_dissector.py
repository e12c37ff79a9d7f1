"""contrib/wireshark/diag.lua in tshark, over packets captured in the lab, those of docs/protocol.md, and wrong ones."""
import random
import re
import struct
import subprocess
import xml.etree.ElementTree as ET
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
CAPTURE = Path(__file__).with_name("diag.pcap")
PROTOCOL = (ROOT / "docs/protocol.md").read_text(encoding="utf-8")
HEADER = struct.Struct("=IIII")
LAYERS = 14 + 20 + 8  # Ethernet, IPv4, UDP
MARKED = "diag.malformed || diag.dangerous || diag.unusual"
SUMMARY, SUBSCRIBE, UNSUBSCRIBE, TOPIC_DATA, RESET_STATS = 1, 2, 3, 6, 8


def tshark(file, *arguments):
    command = ["tshark", "-2", "-X", f"lua_script:{ROOT}/contrib/wireshark/diag.lua", "-r", str(file), *arguments]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0, done.stderr
    assert "lua" not in done.stderr.lower() and "Lua Error" not in done.stdout, done.stderr + done.stdout[:2000]
    return done.stdout


def fields(file, *names, where="diag"):
    """A tuple of values for each frame."""
    output = tshark(file, "-Y", where, "-T", "fields", *(word for name in names for word in ("-e", name)))
    return [tuple(line.split("\t")) for line in output.splitlines()]


def frames():
    """The frames of the capture."""
    data, offset = CAPTURE.read_bytes(), 24
    while offset < len(data):
        size = HEADER.unpack_from(data, offset)[2]
        yield data[offset + 16 : offset + 16 + size]
        offset += 16 + size


def write(file, packets):
    """A capture of these packets, in the frame of the first captured one."""
    head = next(frames())[:LAYERS]
    with file.open("wb") as out:
        out.write(CAPTURE.read_bytes()[:24])
        for number, packet in enumerate(packets):
            size = struct.pack(">H", 28 + len(packet)), struct.pack(">H", 8 + len(packet))
            frame = head[:16] + size[0] + head[18:38] + size[1] + head[40:] + packet
            out.write(HEADER.pack(number, 0, len(frame), len(frame)) + frame)


def with_payload(packet, payload):
    return packet[:8] + struct.pack(">H", len(payload)) + payload


def samples():
    """A packet of each type: the examples of the document, and the longest captured summary."""
    blocks = re.findall(r"```hex \w+\n(.*?)```", PROTOCOL, re.DOTALL)
    rows = ([re.match(r"(?:[0-9A-F]{2} ?)+", line)[0] for line in block.splitlines()] for block in blocks)
    examples = [bytes.fromhex("".join(block)) for block in rows]
    return examples + [max((frame[LAYERS:] for frame in frames() if frame[LAYERS + 1] == SUMMARY), key=len)]


def wrong(packet):
    """Packets that are wrong, made of a right one."""
    payload = packet[10:]
    yield from (packet[:size] for size in range(1, len(packet)))
    yield from (packet[:1] + bytes([kind]) + packet[2:] for kind in (0, 13, 255))
    yield b"\2" + packet[1:]
    yield packet[:8] + struct.pack(">H", len(payload) + 1) + payload
    yield packet + b"\0"
    yield with_payload(packet, payload.ljust(1015, b"\0"))
    kind = packet[1]
    least = int(re.search(rf"^\| {kind} \| `\w+` \| [\w ]+ \| (\d+) ", PROTOCOL, re.MULTILINE)[1])
    yield from (with_payload(packet, payload[:size]) for size in range(least))
    if kind == SUMMARY:
        boundaries, end = [], 0
        while end < len(payload):
            # Known type, other length; unknown type.
            length = struct.unpack_from(">H", payload, end + 1)[0]
            yield with_payload(packet, payload[: end + 1] + struct.pack(">H", length - 1) + payload[end + 3 :])
            yield with_payload(packet, payload[:end] + b"\x09" + payload[end + 1 :])
            end += 3 + length
            boundaries.append(end)
        cuts = set(range(len(payload))) - set(boundaries)
        yield from (with_payload(packet, payload[:size]) for size in cuts)
        yield with_payload(packet, payload[4:])
        yield with_payload(packet, payload + payload[:4])
    elif kind in (SUBSCRIBE, UNSUBSCRIBE):
        yield with_payload(packet, payload[:-1] + b"x")
    elif kind == TOPIC_DATA:
        yield from (with_payload(packet, payload[:size]) for size in range(payload.index(0) + 2))
    elif kind == RESET_STATS:
        yield from (with_payload(packet, bytes([port])) for port in (9, 127, 128, 255))


def test_captured_packet_is_marked_or_its_request_not_found():
    assert fields(CAPTURE, "frame.number", where=MARKED) == []
    assert {int(kind) for (kind,) in fields(CAPTURE, "diag.type")} == set(range(1, 13))
    acks = fields(CAPTURE, "frame.number", "diag.request_frame", "diag.response_time", where="diag.type == 5")
    assert acks and all(0 < float(time) < 1 for _, _, time in acks), acks
    requests = fields(CAPTURE, "frame.number", "diag.ack_frame", where="diag.type in {2, 3, 10, 11}")
    answered = dict(requests)
    assert all(answered[request] in {ack for ack, _, _ in acks} for _, request, _ in acks)
    # Node 3 was dead when it was first asked to end its subscription.
    assert len(fields(CAPTURE, "diag.first_frame", where="diag.first_frame")) == 4


def test_field_of_a_summary_is_missing_or_misplaced(tmp_path):
    rows = re.findall(r"^\| (\d+) \| (\d+) \| (.*) \|$", PROTOCOL.partition("### Summary data")[2], re.MULTILINE)
    write(tmp_path / "one.pcap", samples()[-1:])
    tree = ET.fromstring(tshark(tmp_path / "one.pcap", "-T", "pdml"))
    found, sections = {}, 0
    for item in tree.iter("field"):
        name = item.get("name")
        if name == "diag.summary.type":
            sections += 1
        elif name.startswith("diag.summary.") and name != "diag.summary.length" and "_port" not in name[:21]:
            offset = int(item.get("pos")) - LAYERS - 10 - 3 * sections
            found.setdefault((offset, int(item.get("size"))), item.get("showname"))
    for offset, size, meaning in rows:
        title = found.pop((int(offset), int(size)))
        if meaning.startswith("mask: "):
            assert title.lower().startswith(meaning[6:]), meaning
    assert set(found) <= {(13 + i, 1) for i in range(24)}, found


def test_wrong_packet_is_not_marked(tmp_path):
    right = samples()
    assert {packet[1] for packet in right} == set(range(1, 13))
    packets = right + [mutant for packet in right for mutant in wrong(packet)]
    write(tmp_path / "wrong.pcap", packets)
    marked = {int(number) for (number,) in fields(tmp_path / "wrong.pcap", "frame.number", where=MARKED)}
    unmarked = set(range(1, len(packets) + 1)) - marked
    assert sorted(unmarked) == list(range(1, len(right) + 1)), [packets[n - 1].hex() for n in sorted(unmarked)][13:20]


def test_changed_bytes_end_the_dissector(tmp_path):
    chance = random.Random(1)
    packets = []
    for packet in samples() * 100:
        changed = bytearray(packet)
        for _ in range(chance.randint(1, 4)):
            changed[chance.randrange(1, len(changed))] = chance.choice([0, 1, 127, 128, 255, chance.randrange(256)])
        packets.append(changed[: chance.randint(1, len(changed))] if chance.random() < 0.2 else changed)
    write(tmp_path / "changed.pcap", packets)
    assert len(fields(tmp_path / "changed.pcap", "frame.number")) == len(packets)
    tshark(tmp_path / "changed.pcap", "-V")
