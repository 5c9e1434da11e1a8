"""How a round ends early."""


class Fault(Exception):
    """The program did not stand the attack; the text says what was seen."""


class Skipped(Exception):
    """The system does not let the round take place; the text says what is missing."""


def require(condition, text):
    """Raises the fault unless the condition holds."""
    if not condition:
        raise Fault(text)
