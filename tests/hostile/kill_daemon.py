"""Kills the daemon at random moments of adding and removing, and looks at what the next one makes of it.

An add that was answered is in the list; a removal that began is done to its end, or has not begun at all.
"""

import json
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

FILES = 40
QUIET = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


class Daemon:
    """A running daemon and its API."""

    def __init__(self, program, home, folder):
        command = [program, "--home", str(home), "daemon", "--api", "127.0.0.1:0", "--dir", str(folder),
                   "--bind", "127.0.0.1"]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.url = self.process.stdout.readline().split()[-1]
        self.token = json.loads((home / "daemon.json").read_text())["token"]

    def ask(self, method, path, body=None, kind="application/json"):
        """The answer's object; an OSError when the daemon dies meanwhile."""
        headers = {"Authorization": f"Bearer {self.token}", "Content-Type": kind}
        request = urllib.request.Request(f"{self.url.rstrip('/')}/api/v1{path}", body, headers, method=method)
        with urllib.request.urlopen(request, timeout=30) as answer:
            return json.loads(answer.read())

    def kill(self):
        """Ends it as the system does when memory is short."""
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.process.stdout.close()


def wait_until(condition):
    """Fails after half a minute."""
    deadline = time.monotonic() + 30
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError("what was waited for did not come")
        time.sleep(0.005)


def kill_within(daemon, seconds, work):
    """Runs `work`, kills the daemon after `seconds` from its start, and returns what `work` returned; None: killed."""
    results = []

    def attempt():
        try:
            results.append(work())
        except (OSError, urllib.error.URLError):
            pass

    thread = threading.Thread(target=attempt)
    thread.start()
    time.sleep(seconds)
    daemon.kill()
    thread.join()
    return results[0] if results else None


def make_torrent(program, root, choice):
    """A folder with files of the torrent, and the torrent."""
    folder = root / "files"
    for number in range(FILES):
        file = folder / "t" / f"{number % 4}" / f"{number}"
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(choice.randbytes(choice.randint(20_000, 40_000)))
    torrent = root / "t.torrent"
    subprocess.run([program, "--home", str(root / "maker"), "create", str(folder / "t"), "--output", str(torrent)],
                   check=True, **QUIET)
    return folder, torrent.read_bytes()


def fault_of_removal(program, root, choice):
    """One removal with files that is killed at some moment."""
    folder, torrent = make_torrent(program, root, choice)
    foreign = folder / "t" / "0" / "foreign"
    foreign.write_bytes(b"mine")
    daemon = Daemon(program, root / "home", folder)
    task = daemon.ask("POST", "/tasks", torrent, "application/x-bittorrent")["infoHash"]
    wait_until(lambda: daemon.ask("GET", f"/tasks/{task}")["progress"] == 1)
    kill_within(daemon, choice.uniform(0, 0.04), lambda: daemon.ask("DELETE", f"/tasks/{task}?deleteFiles=true"))
    daemon = Daemon(program, root / "home", folder)
    listed = len(daemon.ask("GET", "/tasks"))
    daemon.kill()
    left = [path for path in (folder / "t").rglob("*") if path.is_file() and path != foreign]
    if not foreign.exists():
        return "a foreign file is gone"
    if listed and len(left) == FILES:
        return ""  # killed before it began
    folders = [path.name for path in (folder / "t").iterdir()]
    return "" if not listed and not left and folders == ["0"] else f"{listed} listed, {len(left)} files, {folders} left"


def fault_of_add(program, root, choice):
    """Some tasks that are added until the daemon is killed."""
    (root / "files").mkdir()
    daemon = Daemon(program, root / "home", root / "files")
    answered = []

    def add_all():
        while True:
            hash_text = f"{choice.getrandbits(160):040x}"
            body = json.dumps({"source": f"magnet:?xt=urn:btih:{hash_text}"}).encode()
            answered.append(daemon.ask("POST", "/tasks", body)["infoHash"])

    kill_within(daemon, choice.uniform(0, 0.2), add_all)
    daemon = Daemon(program, root / "home", root / "files")
    listed = {task["infoHash"] for task in daemon.ask("GET", "/tasks")}
    daemon.kill()
    lost = [task for task in answered if task not in listed]
    return f"{len(lost)} of {len(answered)} answered adds are lost" if lost else ""


def run(seconds, seed, program="build/release/skein"):
    """Returns the number of kills and a list of faults. The same seed makes the same choices."""
    choice = random.Random(seed)
    kills, faults = 0, []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        trial = (fault_of_removal, fault_of_add)[kills % 2]
        kills += 1
        root = pathlib.Path(tempfile.mkdtemp(prefix="kill_daemon."))
        fault = trial(program, root, choice)
        fault = fault or ", ".join(str(path.name) for path in (root / "home").rglob(".*.new"))
        if fault:
            faults.append(f"seed {seed}, kill {kills}, {trial.__name__}: {fault}")
        shutil.rmtree(root)
    return kills, faults


if __name__ == "__main__":
    SECONDS, SEED = int(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32)
    KILLS, FAULTS = run(SECONDS, SEED, *sys.argv[3:])
    print(f"seed {SEED}: {KILLS} kills, {len(FAULTS)} faults")
    print("\n".join(FAULTS))
    sys.exit(bool(FAULTS))
