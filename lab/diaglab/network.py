"""The two shapes of a lab's network: who has which addresses, and which link leads where.

Links are described in the language of ip -batch, once for the lab and once for each node.
"""

MAX_NODES = 250
MAX_RING = 10  # so that no node is more than 5 s, a hello a hop, away from the root of the spanning tree


def mac_of(node: int) -> str:
    """The address of eth0, which names the node."""
    return f"02-00-00-00-00-{node:02X}"


def address_of(node: int) -> str:
    """On the interface fire."""
    return f"10.22.0.{node}"


def interface_mac(kind: int, node: int) -> str:
    """Of an interface that the panel network uses: 1 fire, 10 port A, 11 port B."""
    return f"02:00:00:{kind:02x}:00:{node:02x}"


class Nodes:
    """Numbered 1 to count."""

    def __init__(self, count: int):
        self.count = count
        self.nodes = range(1, count + 1)

    def eth0(self) -> list[str]:
        """Leads out of each node, to nowhere: its address is what counts."""
        pair = "link add e{0} up type veth peer name eth0 netns {0} address {1}"
        return [pair.format(node, mac_of(node).replace("-", ":")) for node in self.nodes]

    def interfaces(self, node: int, fire: list[str]) -> list[str]:
        """Set up in the node, given what makes fire. IPv6 stays off: there is nothing but the panel network."""
        return [
            "link set lo up",
            "link set eth0 addrgenmode none up",
            *fire,
            "link set fire addrgenmode none up",
            f"address add {address_of(node)}/16 broadcast + dev fire",
        ]


class Ring(Nodes):
    """Port B of each node leads to port A of the next; fire is a bridge over both."""

    shape = "ring"
    ports = ("A", "B")

    def after(self, node: int) -> int:
        return node % self.count + 1

    def before(self, node: int) -> int:
        return (node + self.count - 2) % self.count + 1

    @property
    def closing(self) -> int:
        """The node whose port B leads to the link that closes the ring, opposite node 1, the spanning tree's root."""
        return (self.count + 1) // 2

    def closing_ports(self, node: int) -> set[str]:
        """The node's ends of that link."""
        return {port for port, end in (("B", self.closing), ("A", self.after(self.closing))) if node == end}

    def links(self) -> list[str]:
        """Made in the lab."""
        pair = "link add B netns {} address {} type veth peer name A netns {} address {}"
        ends = [
            (node, interface_mac(11, node), self.after(node), interface_mac(10, self.after(node)))
            for node in self.nodes
        ]
        return self.eth0() + [pair.format(*end) for end in ends]

    def node_links(self, node: int) -> list[str]:
        """Set up in a node: all but the link that closes the ring."""
        bridge = "type bridge mcast_snooping 0 forward_delay 200 hello_time 100 max_age 600"
        fire = [
            f"link add fire address {interface_mac(1, node)} {bridge}",
            "link set A addrgenmode none master fire up",
            "link set B addrgenmode none master fire",
        ]
        return self.interfaces(node, fire + (["link set B up"] if node != self.closing else []))

    def protection(self, node: int) -> list[str]:
        """Starts spanning tree."""
        costs = [f"link set {port} type bridge_slave cost 1000" for port in self.closing_ports(node)]
        return ["link set fire type bridge stp_state 1", *costs]

    def switch(self, node: int, port: str) -> list[str]:
        """The words of ip that lead to the end by which a link is taken down and up."""
        return ["-n", str(node if port == "B" else self.before(node)), "link", "set", "B"]

    def card_ports(self, node: int) -> list[str]:
        """The node's ports as the card's command line has them."""
        return [f"A=A:{self.before(node)}:B", f"B=B:{self.after(node)}:A"]


class Star(Nodes):
    """Port A of every node, which is its fire, leads into one shared switch."""

    shape = "star"
    ports = ("A",)

    def links(self) -> list[str]:
        plug = "link add n{0} up master hub type veth peer name fire netns {0} address {1}"
        plugs = [plug.format(node, interface_mac(1, node)) for node in self.nodes]
        return [*self.eth0(), "link add hub up type bridge mcast_snooping 0", *plugs]

    def node_links(self, node: int) -> list[str]:
        return self.interfaces(node, [])

    def switch(self, node: int, port: str) -> list[str]:
        return ["link", "set", f"n{node}"]

    def card_ports(self, node: int) -> list[str]:
        return ["A=fire"]


Network = Ring | Star
SHAPES: dict[str, type[Ring] | type[Star]] = {"ring": Ring, "star": Star}
