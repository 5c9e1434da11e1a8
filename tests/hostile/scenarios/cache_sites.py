"""Sites that keep torrents and send anything else for a magnet link; the honest seeder has its info dictionary too."""

import random

from kit import bencode, http_mischief
from kit.download import Download
from kit.http import HTTPServer, response
from kit.metainfo import Torrent
from kit.peer import Peer

UNIT = "hostile answers"


def forged(server, connection, body):
    """A good torrent, of other files."""
    connection.sendall(response(200, Torrent(server.choice).document()))


def altered(server, connection, body):
    """The right one, but for a byte."""
    wrong = bytearray(body)
    wrong[server.choice.randrange(len(wrong))] ^= 1 << server.choice.randrange(8)
    connection.sendall(response(200, bytes(wrong)))


def shadowed(_, connection, body):
    """The right info dictionary, where it is none: in another key, and after a wrong one."""
    info = bencode.decode(body)[0][b"info"]
    hidden = {"a": {"info": info}, "info": {**info, b"name": "../../x"}}
    connection.sendall(response(200, bencode.encode(hidden)))


def huge(_, connection, __):
    """40 MiB."""
    connection.sendall(response(200, b"d1:a41943040:" + bytes(40 << 20)))


def page(_, connection, __):
    """A friendly one."""
    connection.sendall(response(200, b"<html>not found</html>" * 100, Content_Type="application/x-bittorrent"))


WAYS = (forged, altered, shadowed, huge, page, *http_mischief.ALL)


class HostileSite(HTTPServer):
    """Wrong in one way."""

    def __init__(self, torrent, seed):
        self.choice = random.Random(seed)
        self.way = self.choice.choice(WAYS)
        super().__init__(lambda connection, *_: self.way(self, connection, torrent.document()))


def attempt(place):
    """One magnet link."""
    choice = place.choice
    torrent = Torrent(choice)
    seeder = place.serve(Peer(torrent, "127.0.0.9"))
    sites = [place.serve(HostileSite(torrent, choice.random())) for _ in range(choice.randint(1, 5))]
    urls = [site.url("/{HASH}.torrent") for site in sites]
    if choice.random() < 0.3:
        honest = place.serve(HTTPServer(lambda connection, *_: connection.sendall(response(200, torrent.document()))))
        urls.insert(choice.randrange(len(urls) + 1), honest.url("/{HASH}"))
    options = [option for url in urls for option in ("--cache-site", url)]
    options += ["--peer", seeder.address, "--no-dht", "--no-trackers"]
    download = Download(place, torrent, options, is_magnet=True)
    download.finish(", ".join(site.way.__name__ for site in sites))
    return sum(site.count for site in sites)
