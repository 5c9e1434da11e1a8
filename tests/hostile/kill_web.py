"""Kills `skein get` of a web file at random moments, and looks whether the same command ends with one whole file."""

import http.server
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

MOST_KILLS = 4
KNOWN_AGAIN_BY = ("tag", "date", "size")


class Site(http.server.ThreadingHTTPServer):
    """Serves one file, which the server describes as `described` says."""

    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), Answer)
        self.content = b""
        self.described = "tag"
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def handle_error(self, request, client_address):
        """A connection that a kill cuts is what this is about."""


class Answer(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        content = self.server.content
        first = 0
        if "Range" in self.headers:
            first = int(self.headers["Range"].split("=")[1].rstrip("-"))
        self.send_response(206 if first else 200)
        if first:
            self.send_header("Content-Range", f"bytes {first}-{len(content) - 1}/{len(content)}")
        if self.server.described == "tag":
            self.send_header("ETag", '"one"')
        if self.server.described == "date":
            self.send_header("Last-Modified", "Mon, 01 Jan 2024 00:00:00 GMT")
        self.send_header("Content-Length", str(len(content) - first))
        self.end_headers()
        for start in range(first, len(content), 65536):
            self.wfile.write(content[start:start + 65536])

    def log_message(self, *arguments):
        """Says nothing: thousands of requests come."""


def wait_for_moment(choice, process, folder, usual):
    """Returns at a random moment, or soon after something appears in the folder, where the narrow windows are."""
    awaited = choice.choice(("time", ".part", "b.bin"))
    deadline = time.monotonic() + (choice.uniform(0, 1.2 * usual) if awaited == "time" else 5)
    while process.poll() is None and time.monotonic() < deadline:
        if awaited != "time" and any(entry.name.endswith(awaited) for entry in os.scandir(folder)):
            break
    time.sleep(choice.uniform(0, 0.004) if awaited != "time" else 0)


def fault_in(folder, home, content):
    """What is wrong after a command that said that all is done; nothing when nothing is."""
    names = sorted(entry.name for entry in folder.iterdir())
    if names != ["b.bin"]:
        return f"the folder holds {names}"
    if (folder / "b.bin").read_bytes() != content:
        return "the file is another one"
    left = [str(path) for path in home.rglob("*.new")]
    return f"left behind: {left}" if left else ""


def try_once(program, site, choice, root, usual):
    """One download with its kills. Returns the number of kills, and what is wrong in the end."""
    home, folder = root / "home", root / "files"
    folder.mkdir()
    site.content = choice.randbytes(choice.choice((1, 70_000, 3_000_000)))
    site.described = choice.choice(KNOWN_AGAIN_BY)
    command = [program, "--home", str(home), "get", f"http://127.0.0.1:{site.server_port}/b.bin", "--dir", str(folder)]
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    kills = 0
    for _ in range(choice.randint(1, MOST_KILLS)):
        process = subprocess.Popen(command, **quiet)
        wait_for_moment(choice, process, folder, usual)
        process.send_signal(signal.SIGKILL)
        kills += process.wait() == -signal.SIGKILL
    status = subprocess.run(command, timeout=60, check=False, **quiet).returncode
    return kills, f"the command ended with {status}" if status else fault_in(folder, home, site.content)


def run(seconds, seed, program="build/release/skein"):
    """Returns the number of kills and a list of faults. The same seed makes the same choices."""
    choice = random.Random(seed)
    site = Site()
    kills, faults, usual = 0, [], 0.1
    end = time.monotonic() + seconds
    number = 0
    while time.monotonic() < end:
        number += 1
        root = pathlib.Path(tempfile.mkdtemp(prefix="kill_web."))
        count, fault = try_once(program, site, choice, root, usual)
        kills += count
        if fault:
            faults.append(f"seed {seed}, download {number}, known again by {site.described}: {fault}")
        shutil.rmtree(root)
    site.shutdown()
    site.server_close()
    return kills, faults


if __name__ == "__main__":
    SECONDS, SEED = int(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32)
    KILLS, FAULTS = run(SECONDS, SEED, *sys.argv[3:])
    print(f"seed {SEED}: {KILLS} kills, {len(FAULTS)} faults")
    print("\n".join(FAULTS))
    sys.exit(bool(FAULTS))
