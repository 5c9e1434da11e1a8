"""Where one round of a scenario takes place: its folder, its choices, and all that it starts."""

import contextlib
import pathlib
import random
import shutil
import tempfile

from kit.fault import require
from kit.program import Daemon, Program


class Place:
    """A context; all that was started in it ends with it, and was right to the end."""

    def __init__(self, program, seed):
        self.program = program
        self.choice = random.Random(seed)
        self.running = []
        self.servers = []

    def __enter__(self):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="round."))
        return self

    def __exit__(self, kind, error, trace):
        with contextlib.ExitStack() as ends:
            ends.callback(shutil.rmtree, self.root, ignore_errors=True)
            ends.callback(self.check if kind is None else self.show)
            for each in self.servers:
                ends.callback(each.close)
            for each in self.running:
                ends.callback(each.end)

    def check(self):
        """What every round wants in its end."""
        for each in self.running:
            each.check_words()
        for each in self.servers:
            require(not each.errors, f"the script itself failed: {each.errors[:1]}")

    def show(self):
        """What helps to find the reason of a fault."""
        for each in self.servers:
            print("".join(each.errors[:1]), end="")
        if self.running:
            self.running[-1].show_log()

    def folder(self, name):
        """A folder of this round."""
        (self.root / name).mkdir(exist_ok=True)
        return self.root / name

    def run(self, *arguments, home="home"):
        """Starts the program."""
        record = self.root / f"run{len(self.running)}"
        self.running.append(Program(self.program, self.root / home, arguments, record))
        return self.running[-1]

    def daemon(self, *arguments, home="home"):
        """Starts a daemon, and returns when it serves."""
        record = self.root / f"run{len(self.running)}"
        self.running.append(Daemon(self.program, self.root / home, arguments, record))
        return self.running[-1]

    def serve(self, server):
        """Keeps a server until the round's end."""
        self.servers.append(server)
        return server
