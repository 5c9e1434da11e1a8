"""A download by a command or by a daemon, from a torrent or from its magnet link, and how it has to end."""

import json

from kit.fault import Fault, require
from kit.program import ALONE


class Download:
    """The victim of a round. The round's choice is which of the four kinds it is."""

    def __init__(self, place, torrent, options, is_magnet=None):
        choice = place.choice
        self.torrent, self.folder = torrent, place.folder("files")
        self.is_magnet = choice.random() < 0.5 if is_magnet is None else is_magnet
        self.is_daemon = choice.random() < 0.4
        self.late = 0
        options = ["--dir", self.folder, "--json", *ALONE, *options]
        if self.is_daemon:
            self.program = place.daemon(*options)
            self.task = self.add()["infoHash"]
            return
        document = place.root / "set.torrent"
        document.write_bytes(torrent.document())
        self.program = place.run("get", torrent.magnet() if self.is_magnet else document, *options)

    def add(self):
        """Hands it to the daemon."""
        if self.is_magnet:
            return self.program.ask("POST", "/tasks", json.dumps({"source": self.torrent.magnet()}).encode())
        return self.program.ask("POST", "/tasks", self.torrent.document(), "application/x-bittorrent")

    def port(self):
        """Where peers reach it."""
        return self.program.port()

    def is_whole(self):
        """What the daemon says of the task."""
        # The list, which needs no disk: the machine's may be busy with other things for seconds.
        task = self.program.timed("/tasks")[0]
        require(task["status"] != "error", f"the task failed: {task['errorMessage']}")
        return task["status"] in ("seeding", "completed")

    def tells_of_full_disk(self):
        """Where the user sees it."""
        if self.is_daemon:
            return self.program.ask("GET", f"/tasks/{self.task}")["stallCause"] == "diskFull"
        return b"The disk is full" in self.program.said.read_bytes()

    def finish(self, among):
        """Waits for its end, and looks at the files. `among`: what is told with a fault."""
        try:
            if self.is_daemon:
                self.program.wait_for(self.is_whole, "it is not complete")
            else:
                status = self.program.end_status()
                require(status == 0, f"it ended with {status}: {self.program.last_words()}")
            wrong = self.torrent.fault_in(self.folder)
            require(not wrong, wrong)
        except Fault as fault:
            kind = ("daemon" if self.is_daemon else "get") + (", magnet" if self.is_magnet else "")
            raise Fault(f"{kind}, among {among}: {fault}") from fault
