"""One conversation in the peer wire protocol. Source: BEP 3, BEP 6, BEP 9, BEP 10."""

import socket
import struct

from kit import bencode
from kit.http import read_exactly

CHOKE, UNCHOKE, INTERESTED, NOT_INTERESTED, HAVE, BITFIELD, REQUEST, PIECE, CANCEL = range(9)
HAVE_ALL, EXTENDED = 14, 20
EXTENSIONS = bytes((0, 0, 0, 0, 0, 0x10, 0, 0x04))
"""Extended messages and the fast extension."""
METADATA_ID, PEX_ID = 3, 4
"""Those that we want to be sent under."""


def handshake(info_hash, peer_id, reserved=EXTENSIONS):
    """The first 68 bytes of a side."""
    return b"\x13BitTorrent protocol" + reserved + info_hash + peer_id


def message(kind, body=b""):
    """With its length before it."""
    return struct.pack(">IB", 1 + len(body), kind) + body


def extended(number, values, after=b""):
    """An extended message: a dictionary, and what follows it."""
    return message(EXTENDED, bytes((number,)) + bencode.encode(values) + after)


def piece(index, begin, data):
    """A block."""
    return message(PIECE, struct.pack(">II", index, begin) + data)


def compact(host, port):
    """An IPv4 address in the 6 bytes that trackers, PEX and the DHT send."""
    return socket.inet_aton(host) + struct.pack(">H", port)


class Conversation:
    """A connection after, or before, its handshakes."""

    def __init__(self, connection):
        self.connection = connection
        self.their_ids = {}

    def send(self, *parts):
        """Raw bytes."""
        self.connection.sendall(b"".join(parts))

    def read_handshake(self):
        """Their info-hash. An EOFError when it is no handshake in plaintext."""
        text = read_exactly(self.connection, 68)
        if text[:20] != b"\x13BitTorrent protocol":
            raise EOFError
        return text[28:48]

    def read(self):
        """The next message's kind (-1: a keep-alive) and body. Remembers the extended handshake."""
        size = struct.unpack(">I", read_exactly(self.connection, 4))[0]
        if size == 0:
            return -1, b""
        body = read_exactly(self.connection, size)
        if body[0] == EXTENDED and body[1] == 0:
            self.their_ids = bencode.decode(body[2:])[0].get(b"m", {})
        return body[0], body[1:]
