"""Kills `get` of a web file at random moments, and looks whether the same command ends with one whole file.

Sometimes a stranger's file has the name, which it keeps.
"""

import os
import signal
import time

from kit.fault import require
from kit.http import HTTPServer, head

UNIT = "kills"
MOST_KILLS = 4
VALIDATORS = ({"ETag": '"one"'}, {"Last-Modified": "Mon, 01 Jan 2024 00:00:00 GMT"}, {})
USUAL = 0.1
"""Seconds that a download takes."""
STRANGERS = b"a stranger's file"


def site_of(content, validator):
    """Serves the content, also from where a request wants it."""

    def answer(connection, _, headers):
        first = int(headers["range"].split("=")[1].rstrip("-").split("-")[0]) if "range" in headers else 0
        described = {**validator, "Content-Length": len(content) - first}
        if first:
            described["Content-Range"] = f"bytes {first}-{len(content) - 1}/{len(content)}"
        connection.sendall(head(206 if first else 200, described) + content[first:])

    return HTTPServer(answer)


def wait_for_moment(choice, victim, folder):
    """Returns at a random moment, or soon after something appears in the folder, where the narrow windows are."""
    awaited = choice.choice(("time", ".part", "b.bin"))
    deadline = time.monotonic() + (choice.uniform(0, 1.2 * USUAL) if awaited == "time" else 2)
    extra = choice.uniform(0, 0.004)
    while victim.is_running and time.monotonic() < deadline:
        if awaited != "time" and any(entry.name.endswith(awaited) for entry in os.scandir(folder)):
            break
    time.sleep(0 if awaited == "time" else extra)


def attempt(place):
    """One download with its kills."""
    choice, folder = place.choice, place.folder("files")
    content = choice.randbytes(choice.choice((1, 70_000, 3_000_000)))
    site = place.serve(site_of(content, choice.choice(VALIDATORS)))
    command = ["get", site.url("/b.bin"), "--dir", folder]
    foreign = choice.choice(("none", "none", "kept"))
    expected = {"b.bin": content}
    if foreign != "none":
        (folder / "b.bin").write_bytes(STRANGERS)
        expected = {"b.bin": STRANGERS, "b (1).bin": content}
    kills = 0
    for _ in range(choice.randint(1, MOST_KILLS)):
        victim = place.run(*command)
        wait_for_moment(choice, victim, folder)
        kills += victim.end() == -signal.SIGKILL
    status = place.run(*command).end_status()
    require(status == 0, f"the command ended with {status}")
    found = {entry.name: entry.read_bytes() for entry in folder.iterdir()}
    require(found == expected, f"{foreign}: the folder holds {({name: len(found[name]) for name in sorted(found)})}")
    left = [path.name for path in (place.root / "home").rglob("*.new")]
    require(not left, f"left behind: {left}")
    return kills
