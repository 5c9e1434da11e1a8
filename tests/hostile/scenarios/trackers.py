"""Trackers that answer with everything but peers, beside one that knows the honest seeder."""

import random
import struct

from kit import bencode, http_mischief
from kit.download import Download
from kit.http import HTTPServer, response
from kit.listening import UDPServer
from kit.metainfo import Torrent
from kit.peer import Peer
from kit.wire import compact

UNIT = "hostile answers"
UGLY = http_mischief.UGLY


def many_ports(server, connection, _):
    """Two thousand of one host."""
    peers = b"".join(compact("127.0.0.40", port) for port in range(20_000, 22_000))
    connection.sendall(response(200, bencode.encode({"interval": 1, "peers": peers})))


def odd_intervals(server, connection, _):
    """And counts."""
    odd = (-1, 0, 1 << 62, -(1 << 63), b"soon", [])
    values = {key: server.choice.choice(odd) for key in ("interval", "min interval", "complete", "incomplete")}
    connection.sendall(response(200, bencode.encode({**values, "peers": b"12345"})))


def failure(server, connection, _):
    """With a reason that no terminal should see."""
    key = server.choice.choice(("failure reason", "warning message"))
    connection.sendall(response(200, bencode.encode({key: UGLY * 50, "peers": b""})))


def odd_peers(server, connection, _):
    """Peers that are no addresses."""
    peers = [{"ip": UGLY, "port": 1}, {"ip": "0.0.0.0", "port": 0}, {"ip": "::", "port": -1}, {"port": 99999}, 7, "x"]
    connection.sendall(response(200, bencode.encode({"interval": 60, "peers": peers * 100, "peers6": b"y" * 17})))


HTTP_WAYS = (many_ports, odd_intervals, failure, odd_peers, *http_mischief.ALL)


def udp_replies(choice, datagram):
    """One of the wrong ways to answer a datagram, BEP 15."""
    action, transaction = datagram[8:12], datagram[12:16]
    connected = struct.pack(">I4sQ", 0, transaction, 5)
    return choice.choice((
        [choice.randbytes(choice.randint(0, 100)) for _ in range(20)],
        [b"\0\0\0\1" + choice.randbytes(4) + bytes(12)],
        [b"\0\0\0\3" + transaction + UGLY * 20],
        [action + transaction],
        [action + transaction + struct.pack(">iii", -1, -1, -1) + b"\xff" * choice.choice((5, 60_000))],
        [connected], [connected] * 3, [],
    ))


class HostileTracker(HTTPServer):
    """Always wrong in the same way, or always in another one."""

    def __init__(self, seed):
        self.choice = random.Random(seed)
        self.way = self.choice.choice((None, *HTTP_WAYS))
        super().__init__(self.reply)

    def reply(self, connection, *_):
        """To any request."""
        (self.way or self.choice.choice(HTTP_WAYS))(self, connection, b"d5:peers0:e")


def attempt(place):
    """One download."""
    choice = place.choice
    torrent = Torrent(choice)
    seeder = place.serve(Peer(torrent, "127.0.0.9"))
    found = bencode.encode({"interval": 1800, "peers": compact(seeder.host, seeder.port)})
    honest = place.serve(HTTPServer(lambda connection, *_: connection.sendall(response(200, found))))
    hostile = [place.serve(HostileTracker(choice.random())) for _ in range(choice.randint(1, 4))]
    noise = random.Random(choice.random())
    datagrams = place.serve(UDPServer(lambda datagram, _: udp_replies(noise, datagram)))
    urls = [each.url("/announce") for each in [*hostile, honest]] + [f"udp://{datagrams.address}/announce"]
    choice.shuffle(urls)
    options = [option for url in urls for option in ("--tracker", url)]
    download = Download(place, torrent, [*options, "--no-dht", "--no-cache-sites"])
    download.finish(", ".join(each.way.__name__ if each.way else "all ways" for each in hostile))
    return sum(each.count for each in hostile) + datagrams.count
