"""DHT nodes that forge, flood and keep silent, beside one that knows the honest seeder. Source: BEP 5."""

import hashlib
import random

from kit import bencode
from kit.download import Download
from kit.http_mischief import UGLY
from kit.listening import UDPServer
from kit.metainfo import Torrent
from kit.peer import Peer
from kit.wire import compact

UNIT = "datagrams"
MOST_FLOOD = 500
"""Datagrams of one hostile node in one round."""


class Node(UDPServer):
    """An honest one, which knows one peer of everything, and all the other nodes."""

    def __init__(self, name, peer):
        self.id, self.peer, self.neighbours = hashlib.sha1(name.encode()).digest(), peer, []
        super().__init__(self.replies)

    def replies(self, datagram, remote):
        """To a query."""
        try:
            query = bencode.decode(datagram)[0]
        except (ValueError, IndexError):
            return []
        return self.answers(query, remote) if isinstance(query, dict) and query.get(b"y") == b"q" else []

    def nodes(self):
        """All that it knows."""
        return b"".join(node.id + compact(node.host, node.port) for node in self.neighbours)

    def answers(self, query, _):
        """Datagrams."""
        values = {"id": self.id}
        if query[b"q"] in (b"find_node", b"get_peers"):
            values["nodes"] = self.nodes()
        if query[b"q"] == b"get_peers":
            values.update(token=b"abcd", values=[compact(self.peer.host, self.peer.port)])
        return [bencode.encode({"t": query[b"t"], "y": "r", "r": values})]


class HostileNode(Node):
    """Answers every query in another wrong way, and asks without end."""

    def __init__(self, name, peer, seed):
        self.choice, self.left = random.Random(seed), MOST_FLOOD
        super().__init__(name, peer)

    def forged_nodes(self):
        """Of any length, and at any address."""
        def one():
            host = self.choice.choice((bytes((127, 0, 0, self.choice.randint(1, 250))), self.choice.randbytes(4)))
            return self.choice.randbytes(20) + host + self.choice.randbytes(2)
        return b"".join(one() for _ in range(self.choice.choice((8, 40, 2000)))) + b"y" * self.choice.randint(0, 25)

    def query(self):
        """One of a flood."""
        arguments = {"id": self.choice.randbytes(self.choice.choice((20, 20, 20, 3))),
                     "info_hash": self.choice.randbytes(20), "target": self.choice.randbytes(20), "token": b"abcd",
                     "port": self.choice.choice((0, 6881, -1, 99999))}
        kind = self.choice.choice(("ping", "find_node", "get_peers", "announce_peer", UGLY))
        return bencode.encode({"t": self.choice.randbytes(2), "y": "q", "q": kind, "a": arguments})

    def answers(self, query, remote):
        """Wrong ones, and questions."""
        number = query[b"t"]
        values = {"id": self.id, "nodes": self.forged_nodes(), "token": b"t" * self.choice.choice((0, 4, 2000))}
        values["values"] = self.choice.choice(([self.choice.randbytes(6) for _ in range(500)], [b"", 7, []], UGLY, 5))
        good = {"t": number, "y": "r", "r": values}
        wrong = self.choice.choice((
            [], [self.choice.randbytes(200)], [bencode.encode({**good, "t": self.choice.randbytes(4)})],
            [bencode.encode(good)], [bencode.encode(good)[:-7]], [bencode.encode({**good, "r": {"id": b"short"}})],
            [bencode.encode({"t": number, "y": "e", "e": [201, UGLY]})], [b"d1:rd2:id20:" + b"l" * 1000],
            [bencode.encode({**good, "r": {**values, "id": self.choice.randbytes(20)}})] * 5,
        ))
        wrong = [datagram for datagram in wrong if len(datagram) < 65_000]
        if self.left > 0:
            self.left -= 20
            wrong += [self.query() for _ in range(20)]
        return wrong


def attempt(place):
    """One torrent, or magnet link, that only the DHT knows peers of."""
    choice = place.choice
    torrent = Torrent(choice)
    seeder = place.serve(Peer(torrent, "127.0.0.9"))
    hostile = [place.serve(HostileNode(f"hostile {number}", seeder, choice.random()))
               for number in range(choice.randint(2, 6))]
    honest = place.serve(Node("honest", seeder))
    honest.neighbours = hostile
    bootstrap = [honest, *hostile]
    choice.shuffle(bootstrap)
    options = [option for node in bootstrap for option in ("--dht-bootstrap", node.address)]
    download = Download(place, torrent, [*options, "--no-trackers", "--no-cache-sites", "--allow-local-peers"])
    download.finish(f"{len(hostile)} nodes")
    return sum(node.count for node in hostile)
