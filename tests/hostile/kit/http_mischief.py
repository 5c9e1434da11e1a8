"""Ways to answer an HTTP request that help nobody. Each gets the server, the connection, and a good answer's body."""

from kit.http import head, response
from kit.listening import reset

UGLY = "\x1b[31m\x9b0m\u202eexe\r\nInjected: yes".encode()
"""What must reach no terminal and no log as it is."""


def garbage(server, connection, _):
    """No HTTP at all."""
    connection.sendall(server.choice.randbytes(server.choice.randint(1, 3000)))
    connection.close()


def reset_at_once(_, connection, __):
    """No answer."""
    reset(connection)


def reset_midway(_, connection, body):
    """The body ends with a reset."""
    connection.sendall(response(200, body)[:-len(body) // 2 or -1])
    reset(connection)


def short(_, connection, body):
    """Less than was promised."""
    connection.sendall(head(200, {"Content-Length": len(body) + 1000}) + body)
    connection.close()


def drip(server, connection, body):
    """A byte now and then, and then no more."""
    for byte in response(200, body)[:100]:
        connection.sendall(bytes((byte,)))
        server.pause(0.02)
    connection.close()


def redirect_loop(_, connection, __):
    """To itself."""
    connection.sendall(response(302, Location="/again"))


def redirect_elsewhere(server, connection, _):
    """To what is no web server."""
    places = ("file:///etc/passwd", "ftp://127.0.0.1/x", "http://127.0.0.1:1/", "//", "\\\\x", "http://[::1")
    connection.sendall(response(302, Location=server.choice.choice(places)))


def long_head(_, connection, __):
    """Headers without end."""
    connection.sendall(b"HTTP/1.1 200 OK\r\n")
    for number in range(20_000):
        connection.sendall(b"X-%d: %s\r\n" % (number, b"y" * 1000))


def odd_chunks(server, connection, body):
    """Chunks whose sizes are none."""
    size = server.choice.choice((b"-5", b"FFFFFFFFFFFFFFFFF", b"zz", b"7fffffffffffffff", b""))
    connection.sendall(head(200, {"Transfer-Encoding": "chunked"}) + size + b"\r\n" + body[:100])
    connection.close()


def odd_status(server, connection, _):
    """An error, told in characters that must not reach a terminal."""
    status = server.choice.choice((400, 403, 404, 410, 418, 500, 599, 999, 204, 304))
    connection.sendall(b"HTTP/1.1 %d %s\r\nContent-Length: 5\r\n\r\noops!" % (status, UGLY[:12]))


def wrong_encoding(_, connection, body):
    """Said to be compressed."""
    connection.sendall(response(200, body, Content_Encoding="gzip"))


def endless(_, connection, __):
    """A body that is not believed for long."""
    connection.sendall(head(200, {"Transfer-Encoding": "chunked"}))
    for _ in range(2000):
        connection.sendall(b"8000\r\n" + b"d5:peers" * 4096 + b"\r\n")


def deep(_, connection, __):
    """Bencode without a bottom."""
    connection.sendall(response(200, b"l" * 500_000))


ALL = (garbage, reset_at_once, reset_midway, short, drip, redirect_loop, redirect_elsewhere, long_head, odd_chunks,
       odd_status, wrong_encoding, endless, deep)
