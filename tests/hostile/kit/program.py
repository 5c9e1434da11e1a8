"""The program under attack, as a process: its home, its output, what it costs, and its end."""

import json
import os
import pathlib
import re
import signal
import subprocess
import time
import urllib.error
import urllib.request

from kit.fault import Fault, require

ALONE = ["--bind", "127.0.0.1", "--port", "0", "--no-lsd", "--no-history"]
MOST_MEMORY = 250 << 20
MOST_DESCRIPTORS = 250
PATIENCE = 120
"""Seconds: many times what a download takes on an idle machine."""
ANSWER_LIMIT = 1.0
"""Seconds within which the API answers. One late answer is the machine's doing, three in a row are the program's."""
UNFIT = re.compile("[\\x00-\\x08\\x0b-\\x1f\\x7f-\\x9f\\u202a-\\u202e\\u2066-\\u2069]")
"""What strangers must not bring to a terminal or a log."""
LOG_LINES = 15
LAST_WORDS = ("terminate called", "skein: fatal:", "Sanitizer", "runtime error:", "Assertion ", "stack smashing",
              "double free", "malloc(): ", "free(): ", "Segmentation fault")


class Program:
    """One run of the program. It is watched while somebody waits for it, and ends with the round."""

    def __init__(self, program, home, arguments, record):
        self.home = pathlib.Path(home)
        self.said, self.told = pathlib.Path(f"{record}.out"), pathlib.Path(f"{record}.err")
        with self.said.open("wb") as out, self.told.open("wb") as errors:
            command = [program, "--home", str(home), *map(str, arguments)]
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=errors)
        self.peak_memory = self.peak_descriptors = self.late_answers = 0

    @property
    def is_running(self):
        return self.process.poll() is None

    def events(self, name):
        """What `--json` has said so far of one kind."""
        lines = self.said.read_bytes().splitlines(keepends=True)
        events = [json.loads(line) for line in lines if line.endswith(b"\n")]
        return [event for event in events if event.get("event") == name]

    def port(self):
        """The one at which peers reach it (with `--json`)."""
        self.wait_for(lambda: self.events("listening"), "it does not listen")
        return self.events("listening")[0]["port"]

    def wait_for(self, condition, otherwise, seconds=PATIENCE):
        """What `condition` returns, as soon as that is true. Until then the program must live, and within bounds."""
        deadline = time.monotonic() + seconds
        while not (result := condition()):
            require(self.is_running, f"it ended with {self.process.returncode}: {self.last_words()}")
            require(time.monotonic() < deadline, f"{otherwise} after {seconds} s: {self.last_words()}")
            self.measure()
            time.sleep(0.02)
        return result

    def end_status(self, seconds=PATIENCE):
        """Waits for its end by itself."""
        deadline = time.monotonic() + seconds
        while self.is_running:
            require(time.monotonic() < deadline, f"it still runs after {seconds} s: {self.last_words()}")
            self.measure()
            time.sleep(0.02)
        return self.process.returncode

    def measure(self):
        """Looks at what it costs just now."""
        folder = pathlib.Path("/proc") / str(self.process.pid)
        try:
            memory = int((folder / "statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")
            descriptors = len(os.listdir(folder / "fd"))
        except (OSError, IndexError):
            return  # it ended, or this system tells no such thing
        self.peak_memory, self.peak_descriptors = max(self.peak_memory, memory), max(self.peak_descriptors, descriptors)
        require(memory <= MOST_MEMORY, f"it uses {memory >> 20} MiB of memory")
        require(descriptors <= MOST_DESCRIPTORS, f"it has {descriptors} descriptors open")

    def last_words(self):
        """The end of what it told."""
        return self.told.read_text(errors="replace")[-300:].strip()

    def show_log(self):
        """The end of its log, beside a fault."""
        for log in self.home.glob("logs/skein.log"):
            print("\n".join(log.read_text(errors="replace").splitlines()[-LOG_LINES:]))

    def end(self, how=signal.SIGKILL):
        """Makes it end, and returns its status."""
        if self.is_running:
            self.process.send_signal(how)
        return self.process.wait(PATIENCE)

    def check_words(self):
        """No crash is told of, and no crash ended it."""
        require(self.process.returncode in (None, 0, 1, 2, 130, 143, -signal.SIGKILL),
                f"it ended with {self.process.returncode}")
        for path in (self.told, self.said, *self.home.glob("logs/*")):
            text = path.read_text(errors="replace")
            for words in LAST_WORDS:
                require(words not in text, f"{path.name} tells of “{words}”: {text[text.find(words):][:200]}")
            ugly = UNFIT.search(text)
            require(not ugly, f"{path.name} holds an unfit character: {ugly and text[ugly.start() - 60:][:120]!r}")


class Daemon(Program):
    """A running daemon and its API."""

    def __init__(self, program, home, arguments, record):
        super().__init__(program, home, ["daemon", "--api", "127.0.0.1:0", *arguments], record)
        self.wait_for(lambda: b"listening on" in self.said.read_bytes(), "it does not serve")
        self.url = self.said.read_text().split("listening on ")[1].split()[0].rstrip("/")
        self.token = json.loads((self.home / "daemon.json").read_text())["token"]

    def ask(self, method, path, body=None, kind="application/json"):
        """The answer's object; an OSError when the daemon dies meanwhile."""
        headers = {"Authorization": f"Bearer {self.token}", "Content-Type": kind}
        request = urllib.request.Request(f"{self.url}/api/v1{path}", body, headers, method=method)
        with urllib.request.urlopen(request, timeout=30) as answer:
            return json.loads(answer.read())

    def timed(self, path):
        """What it answers, which it does in time."""
        began = time.monotonic()
        try:
            answer = self.ask("GET", path)
        except (OSError, urllib.error.URLError) as error:
            raise Fault(f"the API does not answer: {error}") from error
        self.late_answers = self.late_answers + 1 if time.monotonic() - began > ANSWER_LIMIT else 0
        require(self.late_answers < 3, f"three answers in a row took more than {ANSWER_LIMIT} s")
        return answer

    def port(self):
        """The one at which peers reach it, once it has a task."""
        words = "TCP listener started on port "
        log = self.home / "logs" / "skein.log"
        self.wait_for(lambda: log.exists() and words in log.read_text(errors="replace"), "it does not listen")
        return int(log.read_text(errors="replace").split(words)[1].split()[0])
