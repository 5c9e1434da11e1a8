"""An honest seeder. A hostile one changes a step of it."""

import socket
import struct

from kit import bencode, wire
from kit.listening import TCPServer
from kit.metainfo import BLOCK


class Peer(TCPServer):
    """Serves all that is asked for, to who dials it and to whom it dials."""

    def __init__(self, torrent, host="127.0.0.1", peer_id=b"-HO0001-an-honest-on"):
        self.torrent, self.peer_id = torrent, peer_id
        super().__init__(self.answer, host)

    def dial(self, port):
        """Connects to the program from the peer's own address."""
        connection = socket.create_connection(("127.0.0.1", port), 30, (self.host, 0))
        self.hold(connection, self.begin)

    def begin(self, connection):
        """The side that dialled speaks first."""
        talk = wire.Conversation(connection)
        talk.send(self.handshake())
        talk.read_handshake()
        self.converse(talk)

    def answer(self, connection):
        """The side that was dialled."""
        talk = wire.Conversation(connection)
        talk.read_handshake()
        talk.send(self.handshake())
        self.converse(talk)

    def converse(self, talk):
        """From the handshakes to the end."""
        talk.send(self.introduction())
        while True:
            self.heed(talk, *talk.read())

    def handshake(self):
        """Its own."""
        return wire.handshake(self.torrent.info_hash, self.peer_id)

    def introduction(self):
        """What it says at first."""
        offer = {"m": {"ut_metadata": wire.METADATA_ID, "ut_pex": wire.PEX_ID}, "metadata_size": len(self.torrent.info),
                 "v": "honest"}
        bits = wire.message(wire.BITFIELD, self.torrent.bitfield())
        return wire.extended(0, offer) + bits + wire.message(wire.UNCHOKE)

    def heed(self, talk, kind, body):
        """Answers a message."""
        if kind == wire.REQUEST:
            index, begin, size = struct.unpack(">III", body)
            talk.send(wire.piece(index, begin, self.block(index, begin, size)))
        if kind == wire.EXTENDED and body[0] == wire.METADATA_ID:
            asked = bencode.decode(body[1:])[0]
            if asked.get(b"msg_type") == 0:
                talk.send(self.metadata(talk, asked[b"piece"]))

    def block(self, index, begin, size):
        """What a request is answered with."""
        return self.torrent.block(index, begin, size)

    def metadata(self, talk, number):
        """A piece of the info dictionary, BEP 9."""
        told = {"msg_type": 1, "piece": number, "total_size": len(self.torrent.info)}
        part = self.torrent.info[number * BLOCK:][:BLOCK]
        return wire.extended(talk.their_ids.get(b"ut_metadata", 1), told, part)
