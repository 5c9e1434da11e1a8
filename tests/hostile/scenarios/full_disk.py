"""A disk that fills up during a download: the download waits, says so, and comes through once there is room again."""

import ctypes
import subprocess

from kit.download import Download
from kit.fault import Skipped, require
from kit.metainfo import Torrent
from kit.peer import Peer
from kit.sandbox import is_isolated

UNIT = "full disks"
TELLS_WITHIN = 20
"""Seconds from the beginning of the download, which takes one."""
MNT_DETACH = 2


class SmallDisk:
    """A file system of so many bytes, mounted until the round ends."""

    def __init__(self, folder, size):
        self.folder, self.errors = folder, []
        command = ["mount", "-t", "tmpfs", "-o", f"size={size}", "skein-hostile", str(folder)]
        mounted = subprocess.run(command, check=False, capture_output=True, text=True)
        if mounted.returncode:
            raise Skipped(f"no file system can be mounted: {mounted.stderr.strip()}")

    def close(self):
        """Also while files are open on it."""
        ctypes.CDLL(None).umount2(str(self.folder).encode(), MNT_DETACH)


def attempt(place):
    """One download."""
    if not is_isolated():
        raise Skipped("no namespace of its own for mounts is permitted here")
    choice, folder = place.choice, place.folder("files")
    torrent = Torrent(choice, [choice.randint(500_000, 1_500_000) for _ in range(3)])
    place.serve(SmallDisk(folder, len(torrent.content) + (2 << 20)))
    seeder = place.serve(Peer(torrent))
    foreign = folder / "in the way"
    foreign.write_bytes(bytes(choice.randint(len(torrent.content) // 4, len(torrent.content)) + (2 << 20)))
    download = Download(place, torrent, ["--peer", seeder.address, "--no-trackers", "--no-dht", "--no-cache-sites"])
    download.program.wait_for(download.tells_of_full_disk, "it does not tell of the full disk", TELLS_WITHIN)
    require(download.program.is_running, "it did not wait")
    require(not any(foreign.read_bytes()), "a foreign file was touched")
    foreign.unlink()
    download.finish("a full disk")
    return 1
