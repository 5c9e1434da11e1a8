"""A world of its own for a run: nothing leaves the loopback device, and no process outlives the run."""

import fcntl
import os
import socket
import struct
import subprocess
import sys

ISOLATED = "SKEIN_HOSTILE_ISOLATED"
NAMESPACES = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1


def is_isolated():
    """Whether this process lives in namespaces that `enter` made."""
    return os.environ.get(ISOLATED) == "yes"


def enter():
    """Starts this program again in new namespaces, where the system permits that, and otherwise returns."""
    if is_isolated():
        raise_loopback()
        return
    for command in (NAMESPACES, [*NAMESPACES, "--map-root-user"]):
        try:
            permitted = subprocess.run([*command, "true"], check=False, capture_output=True).returncode == 0
        except OSError:
            return
        if permitted:
            os.execvpe(command[0], [*command, sys.executable, *sys.argv], {**os.environ, ISOLATED: "yes"})


def raise_loopback():
    """A new network namespace begins with its loopback device down."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sh14x", b"lo", 0)
        flags = struct.unpack("16sh14x", fcntl.ioctl(any_socket, SIOCGIFFLAGS, request))[1]
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", flags | IFF_UP))
