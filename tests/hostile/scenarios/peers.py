"""Hostile peers around one honest seeder: the download comes through, and costs no more than it may."""

import random
import socket

from kit import mischief, wire
from kit.download import Download
from kit.fault import require
from kit.listening import TCPServer
from kit.metainfo import Torrent
from kit.peer import Peer

UNIT = "hostile connections"
MOST_DIALS = 30
"""Of one hostile peer in one round."""
NOISY_DATAGRAMS = 400


class HostilePeer(Peer):
    """Does its mischief on every connection, whoever dialled; some call themselves by the honest seeder's peer id."""

    def __init__(self, torrent, host, seed, kind, trap):
        self.choice, self.kind, self.corrupts = random.Random(seed), kind, False
        self.trap = wire.compact(trap.host, trap.port)
        super().__init__(torrent, host)
        if self.choice.random() < 0.8:
            self.peer_id = b"-HO0002-" + self.choice.randbytes(12)

    def answer(self, connection):
        self.kind(self, wire.Conversation(connection))

    begin = answer

    def block(self, index, begin, size):
        data = bytearray(super().block(index, begin, size))
        if self.corrupts and data:
            data[self.choice.randrange(len(data))] ^= 1 << self.choice.randrange(8)
        return bytes(data)


def keep_dialling(peer, port, times=MOST_DIALS):
    """Comes back when it is cut off."""
    for _ in range(times):
        peer.guarded(peer.dial, port)
        peer.pause(0.1)


def send_noise(peer, port):
    """Datagrams to the port of uTP and the DHT: headers of BEP 29 with anything in them, and no headers at all."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as noisy:
        noisy.bind((peer.host, 0))
        for _ in range(NOISY_DATAGRAMS):
            kind = peer.choice.choice((0x01, 0x11, 0x21, 0x31, 0x41, 0xF1))
            header = bytes((kind, peer.choice.choice((0, 1, 2, 255)))) + peer.choice.randbytes(18)
            noisy.sendto(header + peer.choice.randbytes(peer.choice.choice((0, 3, 1400))), ("127.0.0.1", port))
            peer.pause(0.001)


def attempt(place):
    """One download among some hostile peers."""
    choice = place.choice
    torrent = Torrent(choice)
    trap = place.serve(TCPServer(lambda connection: connection.recv(1), "127.0.0.66"))
    kinds = choice.sample(mischief.ALL, choice.randint(1, 4))
    hostile = [place.serve(HostilePeer(torrent, f"127.0.0.{10 + number}", choice.random(), kind, trap))
               for number, kind in enumerate(kinds)]
    seeder = place.serve(Peer(torrent, "127.0.0.9"))
    dialled = [peer for peer in hostile if choice.random() < 0.6]
    is_seeder_dialled, allows_local = choice.random() < 0.6, choice.random() < 0.5
    options = [option for peer in [*dialled, *[seeder] * is_seeder_dialled] for option in ("--peer", peer.address)]
    options += ["--allow-local-peers"] * allows_local
    options += ["--encryption", choice.choice(("plaintext", "plaintext", "prefer-mse"))]
    download = Download(place, torrent, [*options, "--no-trackers", "--no-dht", "--no-cache-sites"])
    port = download.port()
    for peer in hostile:
        if peer not in dialled or choice.random() < 0.3:
            peer.start(keep_dialling, peer, port)
    hostile[0].start(send_noise, hostile[0], port)
    if not is_seeder_dialled:
        seeder.start(keep_dialling, seeder, port, 1000)
    download.finish(", ".join(kind.__name__ for kind in kinds))
    require(allows_local or not trap.count, "an address on this machine was dialled for a stranger")
    return sum(peer.count for peer in hostile)
