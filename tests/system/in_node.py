"""What the tests run inside a node of the lab. Talks in lines, so that the tests see things as they come.

    in_node.py log             takes the node's system log: prints each datagram
    in_node.py fire            sends and receives datagrams of the panel network: input lines ADDRESS HEX,
                               output lines TIME SOURCE_ADDRESS HEX
    in_node.py burst           sends every HEX of the input to the node's own daemon, as fast as it reads them;
                               a line "end" is answered when it has read all
    in_node.py publish RETAIN CLIENT
                               publishes lines TOPIC HEX of the input, RETAIN being 0 or 1; with QoS 1 if CLIENT, its
                               id, is not empty
    in_node.py broker HOW...   a broker that misbehaves; prints TIME KIND TOPIC HEX for each packet it gets
"""
import os
import select
import socket
import struct
import sys
import time

GROUP, PORT = "224.22.33.44", 50004


def say(*words):
    print(*words, flush=True)


def take_log():
    if os.path.exists("/dev/log"):
        os.unlink("/dev/log")
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind("/dev/log")
    say("ready")
    while True:
        say(ascii(log.recv(65536).rstrip(b"\0").decode(errors="replace")))


def join_fire():
    fire = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    index = struct.pack("=4s4si", socket.inet_aton(GROUP), bytes(4), socket.if_nametoindex("fire"))
    fire.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, index)
    fire.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, index)
    fire.bind(("", PORT))
    say("ready")
    rest = b""
    while True:
        ready, _, _ = select.select([fire, 0], [], [])
        if fire in ready:
            data, source = fire.recvfrom(65536)
            say(time.monotonic(), source[0], data.hex())
        if 0 in ready:
            given = os.read(0, 65536)
            if not given:
                return
            *lines, rest = (rest + given).split(b"\n")
            for line in lines:
                address, data = line.decode().split(" ")
                fire.sendto(bytes.fromhex(data), (address, PORT))


def queued_datagrams():
    with open("/proc/net/udp", encoding="ascii") as sockets:
        lines = [line.split() for line in sockets if f":{PORT:04X} " in line]
    return sum(int(line[4].split(":")[1], 16) for line in lines)


def send_burst():
    """Stays below what the daemon's socket holds, so that none is lost."""
    out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    say("ready")
    for count, line in enumerate(sys.stdin):
        is_end = line == "end\n"
        if not is_end:
            out.sendto(bytes.fromhex(line), ("127.0.0.1", PORT))
        while (is_end or count % 100 == 0) and queued_datagrams() > 0:
            time.sleep(0.0005)
        if is_end:
            say("end")


CONNECT, CONNACK, PUBLISH, PUBACK, SUBSCRIBE, SUBACK = 1, 2, 3, 4, 8, 9
PINGREQ, PINGRESP, DISCONNECT = 12, 13, 14


def packets(connection):
    """The MQTT packets of a connection: type, flags and body."""
    stream = connection.makefile("rb")
    while True:
        try:
            head = stream.read(1)
        except ConnectionError:
            return
        if not head:
            return
        length, shift = 0, 0
        while (byte := stream.read(1)[0]) & 0x80:
            length |= (byte & 0x7F) << shift
            shift += 7
        length |= byte << shift
        yield head[0] >> 4, head[0] & 15, stream.read(length)


def cut_text(body):
    size = struct.unpack_from(">H", body)[0]
    return body[2 : 2 + size].decode(), body[2 + size :]


def publish(retain, client):
    from paho.mqtt.publish import multiple

    words = (line.rstrip("\n").split(" ") for line in sys.stdin)
    messages = [(topic, bytes.fromhex(payload), int(bool(client)), retain == "1") for topic, payload in words]
    if messages:
        multiple(messages, port=1885, client_id=client)


def misbehave(how, argument=None):
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if how == "stall":
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
    listener.bind(("127.0.0.1", 1885))
    listener.listen()
    say("ready")
    connection, _ = listener.accept()

    def reply(kind, body):
        try:
            connection.send(bytes([kind << 4, len(body)]) + body)
        except ConnectionError:
            pass  # the daemon has left, what it sent is still to be read

    publications = 0
    for kind, flags, body in packets(connection):
        if kind == CONNECT:
            say(time.monotonic(), "CONNECT", "-", body.hex())
            if how == "silent":
                continue
            reply(CONNACK, bytes([0, int(argument) if how == "refuse" else 0]))
            if how == "refuse":
                return
        elif kind == PUBLISH:
            topic, rest = cut_text(body)
            say(time.monotonic(), f"PUBLISH{flags}", topic, rest[2:].hex())
            publications += 1
            while how == "stall" and publications == int(argument):
                time.sleep(1)
            if how != "keep" or topic != argument:
                reply(PUBACK, rest[:2])
        elif kind == SUBSCRIBE:
            topic, qos = cut_text(body[2:])
            say(time.monotonic(), f"SUBSCRIBE{qos[0]}", topic, "")
            if how != "keep" or topic != argument:
                reply(SUBACK, body[:2] + bytes([int(argument) if how == "grant" else 1]))
        elif kind == PINGREQ:
            reply(PINGRESP, b"")
        elif kind == DISCONNECT:
            say(time.monotonic(), "DISCONNECT", "-", "")
        if how == "garble" and kind == SUBSCRIBE:
            connection.send(b"\xff" * 64)


if __name__ == "__main__":
    modes = {"log": take_log, "fire": join_fire, "burst": send_burst, "publish": publish, "broker": misbehave}
    modes[sys.argv[1]](*sys.argv[2:])
