#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Removes the GToken policies of bundles: a client written from docs/wire-protocol.md, without the library.

    remove_policy.py SOCKET BUNDLE...

Prints the service's result and ends with 0 when that is 0, with 1 when it is another, with 2 when there is none.
"""
import socket
import struct
import sys

TOKEN = "varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf"
REMOVE_POLICY = 13
HEADER = struct.Struct("=4sHHIiI")  # magic, version, kind, code, status, length; "=": the machine's own byte order
MAGIC = struct.pack("=I", 0x4E524156)
REQUEST, REPLY = 1, 2


def text(value, encoding="utf-8", unit=1):
    """A string, or with unit 2 a string16: its length in units, its bytes, a zero unit, padding."""
    data = value.encode(encoding)
    padded = (len(data) + unit + 3) // 4 * 4
    return struct.pack("=i", len(data) // unit) + data.ljust(padded, b"\0")


def receive(connection, size):
    data = b""
    while len(data) < size:
        piece = connection.recv(size - len(data))
        if not piece:
            raise ConnectionError("the service closed the connection")
        data += piece
    return data


def call(path, code, arguments):
    """Sends one request. Returns the status and the body of its reply."""
    utf16 = "utf-16-le" if sys.byteorder == "little" else "utf-16-be"
    body = text(TOKEN, utf16, 2) + arguments
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.settimeout(8)
        connection.connect(path)
        connection.sendall(HEADER.pack(MAGIC, 1, REQUEST, code, 0, len(body)) + body)
        magic, version, kind, echo, status, length = HEADER.unpack(receive(connection, HEADER.size))
        if (magic, version, kind, echo) != (MAGIC, 1, REPLY, code):
            raise ConnectionError("that is not a reply to this request")
        return status, receive(connection, length)


def main():
    if len(sys.argv) < 3:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    path, bundles = sys.argv[1], sys.argv[2:]
    try:
        status, body = call(path, REMOVE_POLICY, struct.pack("=i", len(bundles)) + b"".join(map(text, bundles)))
    except OSError as error:
        print(f"{path}: {error}", file=sys.stderr)
        sys.exit(2)
    if status != 0:
        print(f"status {status}")
        sys.exit(1)
    (result,) = struct.unpack_from("=i", body)
    print(f"result {result}")
    sys.exit(0 if result == 0 else 1)


if __name__ == "__main__":
    main()
