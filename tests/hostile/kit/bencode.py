"""Bencode, as BEP 3 describes it. Keys and strings are bytes; text is taken as UTF-8."""


def encode(value):
    """The bytes of an int, bytes, str, list or dict."""
    if isinstance(value, int):
        return b"i%de" % value
    if isinstance(value, str):
        value = value.encode()
    if isinstance(value, bytes):
        return b"%d:%s" % (len(value), value)
    if isinstance(value, list):
        return b"l" + b"".join(map(encode, value)) + b"e"
    keys = {key.encode() if isinstance(key, str) else key: each for key, each in value.items()}
    return b"d" + b"".join(encode(key) + encode(keys[key]) for key in sorted(keys)) + b"e"


def decode(text):
    """The value, and what follows it. Raises ValueError or IndexError for what is no bencode."""
    kind = text[:1]
    if kind == b"i":
        end = text.index(b"e")
        return int(text[1:end]), text[end + 1:]
    if kind.isdigit():
        start = text.index(b":") + 1
        end = start + int(text[:start - 1])
        return text[start:end], text[end:]
    if kind not in (b"l", b"d"):
        raise ValueError("no bencode")
    values, text = [], text[1:]
    while text[:1] != b"e":
        value, text = decode(text)
        values.append(value)
    return (values if kind == b"l" else dict(zip(values[::2], values[1::2]))), text[1:]
