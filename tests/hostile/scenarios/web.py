"""A web server that misbehaves for some requests and then serves the file: the file is whole, or there is none."""

from kit import http_mischief
from kit.fault import require
from kit.http import HTTPServer, head, response
from kit.listening import reset

UNIT = "wrong answers"
MOST_WRONG = 2
"""In a row; the program waits twice as long after each."""
NAMES = ("../../x", "/etc/x", "..", "a/b\\c", "x\x1b[2J\x07y", "%2e%2e%2fx", "\u202ecod.exe", "n" * 400, ".", "con", "",
         "..\\..\\x", "a\x00b", "x\"; filename=\"../y", "b.bin")


def partly(site, connection, _):
    """Breaks off, so that the next request asks for the rest."""
    connection.sendall(head(200, site.described(len(site.content))) + site.content[:len(site.content) * 2 // 3])
    reset(connection)


def other_range(site, connection, _):
    """Another part than the wanted one, or one of nothing."""
    ranges = ("bytes 5-9/10", "bytes 0-0/1", "bytes 9-5/3", "bytes */*", "pieces 1-2/3", "bytes 0-99/*")
    connection.sendall(response(206, site.content[:100], Content_Range=site.choice.choice(ranges)))


def changed(site, connection, _):
    """Begins with one file, which is another one from then on."""
    partly(site, connection, _)
    site.content = site.choice.randbytes(len(site.content))
    site.version += 1


def busy(site, connection, _):
    """For a moment, or for as long as nobody can say."""
    when = site.choice.choice(("0", "1", "-5", "soon", "Thu, 01 Jan 1970 00:00:00 GMT"))
    connection.sendall(response(site.choice.choice((429, 503)), b"", Retry_After=when))


PASSING = (partly, changed, busy, http_mischief.short, http_mischief.reset_at_once)
"""After these the download goes on, whatever happens; after others it may also give up."""
FINAL = (other_range, *http_mischief.ALL[:-2])


class Site(HTTPServer):
    """One file, and some answers that are not it."""

    def __init__(self, choice, wrong):
        self.choice, self.wrong, self.version = choice, list(wrong), 0
        self.content = choice.randbytes(choice.choice((10, 200_000, 2_500_000)))
        self.name, self.has_tag = choice.choice((None, *NAMES)), choice.random() < 0.6
        super().__init__(self.reply)

    def described(self, size):
        """The headers of an honest answer."""
        headers = {"Content-Length": size}
        if self.has_tag:
            headers["ETag"] = f'"{self.version}"'
        if self.name is not None:
            headers["Content-Disposition"] = f'attachment; filename="{self.name}"'.replace("\x00", "")
        return headers

    def reply(self, connection, _, headers):
        """Wrong as long as there is something left to do wrong."""
        if self.wrong:
            return self.wrong.pop(0)(self, connection, self.content)
        first = int(headers["range"][6:].split("-")[0]) if "range" in headers else 0
        if headers.get("if-range", f'"{self.version}"') != f'"{self.version}"' or first >= len(self.content):
            first = 0
        described = self.described(len(self.content) - first)
        if first:
            described["Content-Range"] = f"bytes {first}-{len(self.content) - 1}/{len(self.content)}"
        connection.sendall(head(206 if first else 200, described) + self.content[first:])
        return None


def attempt(place):
    """One file."""
    choice, folder = place.choice, place.folder("files")
    wrong = choice.sample(PASSING, choice.randint(0, MOST_WRONG))
    is_final = choice.random() < 0.5
    wrong += [choice.choice(FINAL)] * is_final
    site = place.serve(Site(choice, wrong))
    told = f"{[each.__name__ for each in wrong]}, named {site.name!r}"
    around = {path.name for path in place.root.iterdir()} | {"home"}
    victim = place.run("get", site.url("/b.bin"), "--dir", folder)
    status = victim.end_status()
    require(status in ((0, 1) if is_final else (0,)), f"{told}: it ended with {status}: {victim.last_words()}")
    found = [path for path in folder.iterdir() if not path.name.endswith(".part")]
    strange = {path.name for path in place.root.iterdir()} - around - {"run0.out", "run0.err"}
    require(not strange, f"{told}: it wrote {strange} beside its folder")
    names = [path.name for path in found]
    require(len(found) == (status == 0), f"{told}: it ended with {status}, and there is {names}")
    for path in found:
        require(path.is_file() and not path.is_symlink() and path.read_bytes() == site.content, f"{told}: another file")
        require(path.name.isprintable() and not path.name.startswith("."), f"{told}: it is called {path.name!r}")
    return len(wrong)
