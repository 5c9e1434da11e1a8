"""Servers on loopback whose every connection or datagram is answered by a script."""

import socket
import threading
import traceback


def reset(connection):
    """Closes at once, with a reset instead of an end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\0\0\0\0\0\0\0")
    connection.close()


class Script:
    """Threads that talk; what the other side cuts short is no error, anything else is."""

    def __init__(self):
        self.errors = []
        self.connections = set()
        self.is_closed = threading.Event()
        self.count = 0

    def start(self, work, *arguments):
        """Runs `work` in a thread of its own."""
        threading.Thread(target=self.guarded, args=(work, *arguments), daemon=True).start()

    def guarded(self, work, *arguments):
        """Notes what the script did not expect."""
        try:
            work(*arguments)
        except (OSError, EOFError):
            pass
        except Exception:  # pylint: disable=broad-except
            if not self.is_closed.is_set():
                self.errors.append(traceback.format_exc(limit=-3))

    def hold(self, connection, talk):
        """Lets `talk(connection)` run, and closes the connection after it."""
        self.count += 1
        connection.settimeout(300)
        self.connections.add(connection)
        try:
            talk(connection)
        finally:
            self.connections.discard(connection)
            connection.close()

    def pause(self, seconds):
        """Sleeps, or raises an EOFError when the round ends meanwhile."""
        if self.is_closed.wait(seconds):
            raise EOFError

    def close(self):
        """Cuts every connection."""
        self.is_closed.set()
        for connection in list(self.connections):
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class TCPServer(Script):
    """Listens on a free port; `talk(connection)` runs for each connection."""

    def __init__(self, talk, host="127.0.0.1"):
        super().__init__()
        self.socket = socket.create_server((host, 0), backlog=64)
        self.host, self.port = self.socket.getsockname()
        self.address = f"{self.host}:{self.port}"
        self.start(self.accept, talk)

    def accept(self, talk):
        """Until it is closed."""
        while True:
            self.start(self.hold, self.socket.accept()[0], talk)

    def close(self):
        super().close()
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()


class UDPServer(Script):
    """Answers each datagram with those that `answer(datagram, remote)` returns."""

    def __init__(self, answer, host="127.0.0.1"):
        super().__init__()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((host, 0))
        self.socket.settimeout(0.2)
        self.host, self.port = self.socket.getsockname()
        self.address = f"{self.host}:{self.port}"
        self.start(self.receive, answer)

    def receive(self, answer):
        """Until it is closed."""
        while not self.is_closed.is_set():
            try:
                datagram, remote = self.socket.recvfrom(65536)
            except (TimeoutError, ConnectionError):
                continue
            self.count += 1
            for reply in answer(datagram, remote):
                self.send(reply, remote)
        self.socket.close()

    def send(self, datagram, remote):
        """What cannot be sent is lost, as datagrams are."""
        try:
            self.socket.sendto(datagram, remote)
        except OSError:
            pass
