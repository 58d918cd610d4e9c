"""A network of one's own for every test, so that fixed ports are free and tests run side by side."""

import ctypes
import fcntl
import os
import socket
import struct

_CLONE_NEWNET = 0x40000000
_SIOCGIFFLAGS, _SIOCSIFFLAGS, _IFF_UP = 0x8913, 0x8914, 0x1

_libc = ctypes.CDLL(None, use_errno=True)


def enter_new():
    """Moves this thread, and every process that it starts from now on, into a new network with nothing but loopback.

    Needs to be root, or root of a user namespace (`unshare --user --map-root-user`). The network ends with its last
    process and socket.
    """
    if _libc.unshare(_CLONE_NEWNET) != 0:
        error = ctypes.get_errno()
        raise PermissionError(error, f"cannot make a network namespace ({os.strerror(error)}): "
                                     "run the tests as root, or under `unshare --user --map-root-user`")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as handle:
        request = struct.pack("16sH22x", b"lo", 0)
        flags = struct.unpack("16sH22x", fcntl.ioctl(handle, _SIOCGIFFLAGS, request))[1]
        fcntl.ioctl(handle, _SIOCSIFFLAGS, struct.pack("16sH22x", b"lo", flags | _IFF_UP))
