#!/usr/bin/python3
"""Sends one request to tavid and prints the reply as it came.

The daemon reads a request until 50 ms of silence, so the connection is kept open (never
half-closed) until the daemon has answered and closed it."""

import argparse
import socket
import sys


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("-H", "--host", default="127.0.0.1")
    parser.add_argument("-p", "--port", type=int, default=49999)
    parser.add_argument("request", help='the JSON request, e.g. {"action":"get","object":"device","args":{}}')
    args = parser.parse_args()
    try:
        with socket.create_connection((args.host, args.port), timeout=35) as sock:
            sock.sendall(args.request.encode())
            reply = b""
            while chunk := sock.recv(65536):
                reply += chunk
    except OSError as error:
        print(f"request.py: {error}", file=sys.stderr)
        return 3
    sys.stdout.write(reply.decode(errors="replace"))
    return 0


if __name__ == "__main__":
    sys.exit(main())
