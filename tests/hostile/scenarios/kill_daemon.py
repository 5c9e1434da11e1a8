"""Kills the daemon at random moments of adding, removing and downloading again, and looks at what the next one does.

An add that was answered is in the list; a removal that began is done to its end, or has not begun at all; what was to
be downloaded again is whole in the end.
"""

import json
import signal
import threading
import time
import urllib.error

from kit.fault import Fault, require
from kit.metainfo import Torrent
from kit.peer import Peer
from kit.program import ALONE

UNIT = "kills"
FILES = 40
WHOLE = ("seeding", "completed")
QUIET = ["--no-trackers", "--no-dht", "--no-cache-sites", *ALONE]


def kill_within(daemon, seconds, work):
    """Runs `work` and kills the daemon after so many seconds from its start."""

    def run():
        try:
            work()
        except (OSError, urllib.error.URLError):
            pass

    thread = threading.Thread(target=run)
    thread.start()
    time.sleep(seconds)
    daemon.end(signal.SIGKILL)
    thread.join()


def filled(place):
    """A torrent whose files are there, with a stranger's among them, and a daemon that has checked them."""
    choice, folder = place.choice, place.folder("files")
    torrent = Torrent(choice, [choice.randint(20_000, 40_000) for _ in range(FILES)], 1 << 15)
    (folder / torrent.name).mkdir()
    for name, content in torrent.files.items():
        (folder / torrent.name / name).write_bytes(content)
    foreign = folder / torrent.name / "foreign"
    foreign.write_bytes(b"mine")
    daemon = place.daemon("--dir", folder, *QUIET)
    task = daemon.ask("POST", "/tasks", torrent.document(), "application/x-bittorrent")["infoHash"]
    daemon.wait_for(lambda: daemon.ask("GET", f"/tasks/{task}")["progress"] == 1, "the files are not found good")
    return daemon, torrent, foreign, task


def removal(place):
    """With files."""
    daemon, _, foreign, task = filled(place)
    kill_within(daemon, place.choice.uniform(0, 0.04), lambda: daemon.ask("DELETE", f"/tasks/{task}?deleteFiles=true"))
    following = place.daemon("--dir", foreign.parent.parent, *QUIET)
    listed = len(following.ask("GET", "/tasks"))
    following.end(signal.SIGKILL)
    require(foreign.is_file() and foreign.read_bytes() == b"mine", "a foreign file is gone or changed")
    left = sum(path != foreign for path in foreign.parent.iterdir())
    require(left == (FILES if listed else 0), f"{listed} listed, {left} files left")


def redownload(place):
    """Deletes the files and fetches them."""
    daemon, torrent, foreign, task = filled(place)
    seeder = place.serve(Peer(torrent))
    kill_within(daemon, place.choice.uniform(0, 0.08), lambda: daemon.ask("POST", f"/tasks/{task}/redownload"))
    following = place.daemon("--dir", foreign.parent.parent, *QUIET, "--peer", seeder.address)
    following.ask("POST", f"/tasks/{task}/resume")
    following.wait_for(lambda: following.ask("GET", f"/tasks/{task}")["status"] in WHOLE, "it is not whole again")
    following.end(signal.SIGKILL)
    require(foreign.is_file() and foreign.read_bytes() == b"mine", "a foreign file is gone or changed")
    foreign.unlink()
    wrong = torrent.fault_in(foreign.parent.parent)
    require(not wrong, wrong)


def adds(place):
    """Until it is killed."""
    folder = place.folder("files")
    daemon = place.daemon("--dir", folder, *QUIET)
    answered = []

    def add_all():
        while True:
            hash_text = f"{place.choice.getrandbits(160):040x}"
            body = json.dumps({"source": f"magnet:?xt=urn:btih:{hash_text}"}).encode()
            answered.append(daemon.ask("POST", "/tasks", body)["infoHash"])

    kill_within(daemon, place.choice.uniform(0, 0.2), add_all)
    following = place.daemon("--dir", folder, *QUIET)
    listed = {task["infoHash"] for task in following.ask("GET", "/tasks")}
    following.end(signal.SIGKILL)
    lost = [task for task in answered if task not in listed]
    require(not lost, f"{len(lost)} of {len(answered)} answered adds are lost")


def attempt(place):
    """One kill."""
    trial = place.choice.choice((removal, adds, redownload))
    try:
        trial(place)
        left = [path.name for path in (place.root / "home").rglob(".*.new")]
        require(not left, f"left behind: {left}")
    except Fault as fault:
        raise Fault(f"{trial.__name__}: {fault}") from fault
    return 1
