"""Kills `get` of a torrent at random moments: what was verified stays, and a stranger's file is never touched."""

import json
import signal
import time

from kit.fault import require
from kit.metainfo import BLOCK, Torrent
from kit.peer import Peer
from kit.program import ALONE

UNIT = "kills"
MOST_KILLS = 6
DIARY = b"not part of it"


def good_pieces(place, torrent, folder):
    """How many pieces `verify` finds good."""
    checker = place.run("verify", torrent, "--dir", folder, "--json", home="checker")
    checker.end_status()
    return json.loads(checker.said.read_text().splitlines()[-1])["good"]


def attempt(place):
    """One download with its kills."""
    choice, folder = place.choice, place.folder("files")
    torrent = Torrent(choice, [choice.randint(1, 1_500_000) for _ in range(3)], 4 * BLOCK)
    document = place.root / "set.torrent"
    document.write_bytes(torrent.document())
    seeder = place.serve(Peer(torrent))
    strangers = {"diary.txt": DIARY}
    command = ["get", document, "--dir", folder, "--peer", seeder.address, "--download-limit", "2M", "--no-trackers",
               "--no-dht", "--no-cache-sites", *ALONE]
    (folder / torrent.name).mkdir()
    (folder / torrent.name / "diary.txt").write_bytes(DIARY)
    if choice.random() < 0.5:
        (folder / torrent.name / "1.bin").write_bytes(DIARY)
        command.append("--overwrite")
        strangers["1.bin.before"] = DIARY
    kills, good = 0, 0
    for _ in range(choice.randint(1, MOST_KILLS)):
        victim = place.run(*command)
        time.sleep(choice.uniform(0, 0.8))
        kills += victim.end() == -signal.SIGKILL
        now = good_pieces(place, document, folder)
        require(now >= good, f"{good} pieces were good, and {now} are after a kill")
        good = now
    last = place.run(*command)
    require(last.end_status() == 0, f"the command failed: {last.last_words()}")
    expected = {**torrent.files, **strangers}
    found = {path.name: path.read_bytes() for path in (folder / torrent.name).iterdir()}
    require(found == expected, f"it holds {({name: len(found[name]) for name in sorted(found)})}")
    return kills
