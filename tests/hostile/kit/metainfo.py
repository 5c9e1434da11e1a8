"""A torrent of random files. Source: BEP 3, BEP 9."""

import hashlib

from kit import bencode

BLOCK = 16384


class Torrent:
    """Some files in one folder, their content in memory."""

    def __init__(self, choice, sizes=None, piece_length=None):
        self.name = f"set{choice.randrange(1000)}"
        sizes = sizes or [choice.randint(1, 900_000) for _ in range(choice.randint(1, 4))]
        self.files = {f"{number}.bin": choice.randbytes(size) for number, size in enumerate(sizes)}
        self.content = b"".join(self.files.values())
        self.piece_length = piece_length or choice.choice((BLOCK, 2 * BLOCK, 8 * BLOCK))
        starts = range(0, len(self.content), self.piece_length)
        self.pieces = [self.content[start:start + self.piece_length] for start in starts]
        self.info = bencode.encode({
            "name": self.name,
            "piece length": self.piece_length,
            "pieces": b"".join(hashlib.sha1(piece).digest() for piece in self.pieces),
            "files": [{"length": len(content), "path": [name]} for name, content in self.files.items()],
        })
        self.info_hash = hashlib.sha1(self.info).digest()

    def document(self, info=None):
        """The `.torrent`."""
        return b"d4:info" + (self.info if info is None else info) + b"e"

    def magnet(self):
        """The link that says no more than the info-hash."""
        return f"magnet:?xt=urn:btih:{self.info_hash.hex()}"

    def bitfield(self):
        """That of a peer with all pieces."""
        bits = len(self.pieces)
        return (((1 << bits) - 1) << (-bits % 8)).to_bytes((bits + 7) // 8, "big")

    def block(self, piece, start, size):
        """The bytes that a request asks for; fewer when it asks for too many."""
        return self.pieces[piece][start:start + size] if piece < len(self.pieces) else b""

    def fault_in(self, folder):
        """What in `folder` is not this torrent's files and nothing else; empty when all is right."""
        found = sorted(path.name for path in (folder / self.name).glob("*"))
        if found != sorted(self.files):
            return f"{self.name} holds {found}"
        wrong = [name for name, content in self.files.items() if (folder / self.name / name).read_bytes() != content]
        return f"{', '.join(wrong)} is another file" if wrong else ""
