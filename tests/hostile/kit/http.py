"""Just enough of HTTP/1.1 to serve it wrongly."""

from kit.listening import TCPServer

REASONS = {200: "OK", 206: "Partial Content", 302: "Found"}


def read_exactly(connection, count):
    """So many bytes; an EOFError when the other side ends before."""
    parts = bytearray()
    while len(parts) < count:
        part = connection.recv(min(count - len(parts), 65536))
        if not part:
            raise EOFError
        parts += part
    return bytes(parts)


def read_head(connection):
    """A request's path and its headers, names in lower case. An EOFError when there is none any more."""
    head = bytearray()
    while not head.endswith(b"\r\n\r\n"):
        head += read_exactly(connection, 1)
    lines = head.decode("latin-1").split("\r\n")
    return lines[0].split()[1], {name.lower(): value.strip() for name, _, value in
                                 (line.partition(":") for line in lines[1:] if line)}


def head(status, headers):
    """The head of a response; a header with several values has a list of them."""
    lines = [f"HTTP/1.1 {status} {REASONS.get(status, 'So')}"]
    lines += [f"{name}: {value}" for name, value in headers.items()]
    return "\r\n".join([*lines, "", ""]).encode("latin-1", "replace")


def response(status, body=b"", **headers):
    """A whole response; `Content_Type=…` and the like name headers."""
    named = {name.replace("_", "-"): value for name, value in headers.items()}
    return head(status, {"Content-Length": len(body), **named}) + body


class HTTPServer(TCPServer):
    """`answer(connection, path, headers)` sends the response to each request, on lasting connections."""

    def __init__(self, answer, host="127.0.0.1"):
        self.answer = answer
        super().__init__(self.converse, host)

    def converse(self, connection):
        """Request after request."""
        while True:
            path, headers = read_head(connection)
            self.answer(connection, path, headers)

    def url(self, path):
        """Of a path here."""
        return f"http://{self.address}{path}"
