"""Clients of the daemon's API who send nonsense, too much, or nothing at all, while its owner keeps working."""

import json
import random
import socket

from kit.fault import require
from kit.listening import Script
from kit.program import ALONE

UNIT = "hostile requests"
CLIENTS = 12
OWNERS_REQUESTS = 40
PATHS = ("/api/v1/tasks", "/api/v1/status", "/api/v1/stop", "/api/v1/events", "/", "//", "/..%2f..%2fetc/passwd", "*",
         "/api/v1/tasks/\x00", "http://x/", "/" + "a" * 9000, "/api/v1/tasks/" + "f" * 40 + "/files", "/metrics",
         "/api/v1/tasks?token=x")
NAMES = ("Origin", "Authorization", "Content-Type", "Transfer-Encoding", "Content-Length", "Upgrade", "Connection",
         "Expect", "X" * 3000)
VALUES = ("http://evil.example", "Bearer x", "Bearer " + "0" * 64, "chunked", "-1", "99999999999999999999", "websocket",
          "upgrade", "100-continue", "application/json", "")
METHODS = ("GET", "POST", "PATCH", "DELETE", "PUT", "CONNECT", "gEt", "\x16\x03\x01", "")


def random_request(choice):
    """With headers that say anything."""
    headers = ["Host: " + choice.choice(("127.0.0.1", "evil.example", "", "127.0.0.1:1"))]
    for name in choice.sample(NAMES, choice.randint(0, 5)):
        headers.append(f"{name}: {choice.choice(VALUES)}")
    first = f"{choice.choice(METHODS)} {choice.choice(PATHS)} HTTP/{choice.choice(('1.1', '1.0', '9', ''))}"
    body = choice.choice((b"", b"{" * 5000, b"null", choice.randbytes(300), b"zz\r\n"))
    return "\r\n".join([first, *headers, "", ""]).encode("latin-1") + body


def guess(choice, connection, _):
    """Whatever comes to mind."""
    for _ in range(5):
        connection.sendall(random_request(choice))


def garble(choice, connection, _):
    """No HTTP."""
    connection.sendall(choice.randbytes(choice.randint(1, 20_000)))


def linger(choice, connection, script):
    """Half a request, and silence."""
    connection.sendall(random_request(choice)[:choice.randint(0, 60)])
    script.pause(5)


def overfill(choice, connection, _):
    """A body that is too large, or a head."""
    task = b"POST /api/v1/tasks HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 99999999\r\n\r\n"
    connection.sendall(choice.choice((task, b"GET / HTTP/1.1\r\nX: ")))
    for _ in range(200):
        connection.sendall(bytes(1 << 16))


WAYS = (guess, garble, linger, overfill)


def attack(script, seed, address):
    """One client, again and again."""
    choice = random.Random(seed)
    while True:
        connection = socket.create_connection(address, 30)
        script.guarded(script.hold, connection, lambda held: choice.choice(WAYS)(choice, held, script))
        script.pause(0.01)


def attempt(place):
    """One daemon under siege."""
    choice, script = place.choice, place.serve(Script())
    daemon = place.daemon("--dir", place.folder("files"), "--no-dht", "--no-trackers", "--no-cache-sites", *ALONE)
    host, port = daemon.url.split("//")[1].split(":")
    for _ in range(CLIENTS):
        script.start(attack, script, choice.random(), (host, int(port)))
    added = set()
    for number in range(OWNERS_REQUESTS):
        hash_text = f"{choice.getrandbits(160):040x}"
        answer = daemon.ask("POST", "/tasks", json.dumps({"source": f"magnet:?xt=urn:btih:{hash_text}"}).encode())
        require(answer["infoHash"] == hash_text, f"request {number} was answered with {answer}")
        added.add(hash_text)
        listed = {task["infoHash"] for task in daemon.timed("/tasks")}
        require(listed == added, f"{len(added)} tasks were added, and {len(listed)} are listed")
        daemon.measure()
        script.pause(0.02)
    return script.count
