"""What a hostile peer does with a connection: one function for each kind, named for it.

Each gets the peer and the conversation before any handshake, whichever side dialled, and may return or just be cut off.
"""

import struct

from kit import bencode, wire
from kit.listening import reset
from kit.metainfo import BLOCK


def shake(peer, talk):
    """Both handshakes."""
    talk.send(peer.handshake())
    talk.read_handshake()


def greet(peer, talk):
    """Handshakes, and what an honest peer says at first."""
    shake(peer, talk)
    talk.send(peer.introduction())


def listen(_, talk):
    """Reads on, and says nothing more."""
    while True:
        talk.read()


def garbage(peer, talk):
    """Instead of a handshake."""
    talk.send(peer.choice.randbytes(peer.choice.randint(1, 20_000)))


def wrong_hash(peer, talk):
    """Another torrent."""
    talk.send(wire.handshake(peer.choice.randbytes(20), peer.peer_id), peer.introduction())
    listen(peer, talk)


def silent(peer, _):
    """Connected, and that is all."""
    peer.pause(30)


def drip(peer, talk):
    """An honest conversation, byte by byte, so that nothing ever comes whole."""
    for byte in peer.handshake() + peer.introduction() + wire.piece(0, 0, bytes(200)):
        talk.send(bytes((byte,)))
        peer.pause(0.002)


def oversized(peer, talk):
    """The length of a message that nobody sends."""
    shake(peer, talk)
    size = peer.choice.choice((0xFFFFFFFF, 0x7FFFFFFF, 1 << 24, 300_000))
    talk.send(struct.pack(">IB", size, wire.PIECE), bytes(5000))
    listen(peer, talk)


def truncated(peer, talk):
    """A message that ends in its middle."""
    greet(peer, talk)
    talk.send(wire.piece(0, 0, bytes(BLOCK))[:peer.choice.randint(1, BLOCK)])


def random_messages(peer, talk):
    """Of any kind, with any body."""
    shake(peer, talk)
    for _ in range(300):
        talk.send(wire.message(peer.choice.randrange(256), peer.choice.randbytes(peer.choice.randint(0, 100))))


def corrupt(peer, talk):
    """Serves what it is asked for, with some bytes changed."""
    greet(peer, talk)
    peer.corrupts = True
    while True:
        peer.heed(talk, *talk.read())


def never_sends(peer, talk):
    """Has everything, lets everybody ask, and answers nothing."""
    greet(peer, talk)
    listen(peer, talk)


def storm(peer, talk):
    """Changes its mind all the time."""
    greet(peer, talk)
    for _ in range(200):
        kinds = (wire.CHOKE, wire.UNCHOKE, wire.INTERESTED, wire.NOT_INTERESTED)
        talk.send(*(wire.message(peer.choice.choice(kinds)) for _ in range(50)))
    listen(peer, talk)


def have_beyond(peer, talk):
    """Pieces that the torrent does not have, also suggested and allowed."""
    greet(peer, talk)
    for _ in range(1000):
        index = peer.choice.choice((len(peer.torrent.pieces), peer.choice.getrandbits(32), 0xFFFFFFFF, 0))
        talk.send(wire.message(peer.choice.choice((wire.HAVE, 13, 17)), struct.pack(">I", index)))
    listen(peer, talk)


def long_bitfield(peer, talk):
    """Or a short one, or two, or all and none."""
    shake(peer, talk)
    for _ in range(3):
        talk.send(wire.message(wire.BITFIELD, b"\xff" * peer.choice.choice((0, 1, 1000, 120_000))))
    talk.send(wire.message(wire.HAVE_ALL), wire.message(15), wire.message(wire.UNCHOKE))
    listen(peer, talk)


def request_flood(peer, talk):
    """Asks for everything and too much of it, and takes it back."""
    shake(peer, talk)
    talk.send(wire.message(wire.INTERESTED))
    for _ in range(200):
        asked = [struct.pack(">III", peer.choice.choice((0, 1, 1 << 31)), peer.choice.choice((0, 7, 1 << 30)),
                             peer.choice.choice((BLOCK, 1 << 17, (1 << 32) - 1, 0))) for _ in range(50)]
        talk.send(*(wire.message(wire.REQUEST, each) for each in asked))
        talk.send(*(wire.message(wire.CANCEL, each) for each in asked))


def strange_offers(peer, talk):
    """Extended handshakes that are deep, long, or full of numbers that mean nothing."""
    shake(peer, talk)
    strange = (-1, 0, 255, 1 << 62, -(1 << 63), b"text", [], {})
    for _ in range(10):
        keys = ("metadata_size", "reqq", "p", "yourip", "v", "upload_only")
        some = {key: peer.choice.choice(strange) for key in keys}
        some["m"] = peer.choice.choice(({"ut_metadata": peer.choice.choice(strange), "ut_pex": 0}, {}, 7))
        talk.send(wire.extended(0, some))
    many = {f"{number:05}": number % 256 for number in range(3000)}
    talk.send(wire.message(wire.EXTENDED, b"\0" + b"l" * 30_000), wire.extended(0, {"m": many}))
    listen(peer, talk)


def wrong_metadata(peer, talk):
    """Lies of the info dictionary's size, and sends another one, whole, in part, or unasked."""
    shake(peer, talk)
    size = peer.choice.choice((1, len(peer.torrent.info), 40_000, 32 << 20))
    talk.send(wire.extended(0, {"m": {"ut_metadata": wire.METADATA_ID}, "metadata_size": size}))
    while True:
        kind, body = talk.read()
        if kind != wire.EXTENDED or body[0] != wire.METADATA_ID:
            continue
        number = bencode.decode(body[1:])[0].get(b"piece", 0)
        told = {"msg_type": peer.choice.choice((1, 1, 1, 2, 9)), "total_size": peer.choice.choice((size, size, 5, -1)),
                "piece": peer.choice.choice((number, number, -1, 1 << 40))}
        part = peer.choice.randbytes(min(BLOCK, size - number * BLOCK) if peer.choice.random() < 0.7 else 77)
        talk.send(wire.extended(talk.their_ids.get(b"ut_metadata", 1), told, part))


def pex_flood(peer, talk):
    """Names thousands of peers, among them one that is dialled only where local addresses may be."""
    greet(peer, talk)
    for _ in range(20):
        hosts = [bytes((127, 0, 0, peer.choice.randint(100, 250))) for _ in range(300)]
        hosts += [peer.choice.randbytes(4) for _ in range(500)]
        added = b"".join(host + peer.choice.randbytes(2) for host in hosts) + peer.trap
        talk.send(wire.extended(talk.their_ids.get(b"ut_pex", 2), {"added": added, "added.f": b"\xff" * 3,
                                                                   "dropped": added[:600]}))
    listen(peer, talk)


def reset_midway(peer, talk):
    """Serves for a while, and resets the connection."""
    greet(peer, talk)
    for _ in range(peer.choice.randint(0, 30)):
        peer.heed(talk, *talk.read())
    reset(talk.connection)


def unasked(peer, talk):
    """Blocks of pieces that are none, of no length, and past the ends of pieces."""
    greet(peer, talk)
    for _ in range(100):
        talk.send(wire.piece(peer.choice.choice((0, 1, 0xFFFFFFFF)), peer.choice.choice((0, 1, BLOCK, 1 << 31)),
                             bytes(peer.choice.choice((0, 1, BLOCK, 20_000)))))
    listen(peer, talk)


def mutated(peer, talk):
    """An honest conversation in which some bytes were changed, lost or doubled."""
    blocks = b"".join(wire.piece(index, 0, peer.torrent.block(index, 0, BLOCK)) for index in range(4))
    said = bytearray(peer.handshake() + peer.introduction() + blocks)
    for _ in range(peer.choice.randint(1, 20)):
        at = peer.choice.randrange(len(said) if peer.choice.random() < 0.3 else 400)
        end = at + peer.choice.randint(0, 40)
        said[at:end] = peer.choice.choice((peer.choice.randbytes(end - at), b"", said[at:end] * 2))
    talk.send(said)
    listen(peer, talk)


ALL = (garbage, wrong_hash, silent, drip, oversized, truncated, random_messages, corrupt, never_sends, storm,
       have_beyond, long_bitfield, request_flood, strange_offers, wrong_metadata, pex_flood, reset_midway, unasked, mutated)
