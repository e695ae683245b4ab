"""The command channel: one request per connection, read until 50 ms of silence, the reply
sent as it is, then the connection closed."""

import socket
import threading
import time

from conftest import (err, matches, request, request_half_closed, request_in_pieces, request_nothing,
                      send_and_close, wrn)

INVALID = b'{"errorCode":5002,"description":"JSON command is invalid (JSON object)"}'
NO_ARGS = b'{"errorCode":5002,"description":"JSON command requires valid arguments (JSON object)"}'


def test_a_client_that_sends_nothing_gets_the_invalid_object_error(box, tavid):
    daemon = tavid(box)
    started = time.monotonic()
    assert request_nothing(daemon.port) == INVALID
    assert time.monotonic() - started >= 0.05


def test_a_request_in_pieces_is_read_as_one(box, tavid):
    daemon = tavid(box)
    pieces = [b'{"action":', b'"get","obj', b'ect":"device"}']
    assert request_in_pieces(daemon.port, pieces, delay=0.02) == NO_ARGS


def test_a_pause_longer_than_the_timeout_ends_the_request(box, tavid):
    daemon = tavid(box)
    with socket.create_connection(("127.0.0.1", daemon.port), timeout=10) as sock:
        sock.sendall(b'{"action":"get","object":"device"')
        time.sleep(0.3)
        reply = sock.recv(4096)
    assert reply == INVALID


def test_a_half_closed_client_still_gets_its_reply(box, tavid):
    daemon = tavid(box)
    assert request_half_closed(daemon.port, b'{"action":"get","object":"device"}') == NO_ARGS


def test_a_client_that_closes_early_does_not_stop_the_daemon(box, tavid):
    daemon = tavid(box)
    for _ in range(5):
        send_and_close(daemon.port, b'{"action":"get","object":"device"}')
    assert request(daemon.port, b'{"action":"get","object":"device"}') == NO_ARGS
    assert daemon.running()


def test_a_one_mebibyte_request_is_answered(box, tavid):
    daemon = tavid(box)
    big = b'{"action":"get","object":"device","pad":"' + b"x" * (1 << 20) + b'"}'
    # The buffer grows by one chunk per read: under AddressSanitizer every growth is a fresh
    # copy, gigabytes in all, so a loaded machine needs time, not a different daemon.
    assert request(daemon.port, big, wait=180) == NO_ARGS
    assert request(daemon.port, b"y" * (1 << 20), wait=180) == INVALID


def test_the_reply_has_no_terminator_and_the_connection_is_closed(box, tavid):
    daemon = tavid(box)
    with socket.create_connection(("127.0.0.1", daemon.port), timeout=10) as sock:
        sock.sendall(b"[]")
        reply = b""
        while chunk := sock.recv(4096):
            reply += chunk
    assert reply == INVALID


def test_clients_at_the_same_time_are_each_served(box, tavid):
    daemon = tavid(box)
    replies = []

    def client():
        replies.append(request(daemon.port, b'{"action":"get","object":"device"}'))

    threads = [threading.Thread(target=client) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert replies == [NO_ARGS] * 8


def test_a_taken_port_ends_the_daemon_with_status_zero(box, tavid):
    with socket.socket() as taken:
        taken.bind(("0.0.0.0", 0))
        taken.listen(1)
        port = taken.getsockname()[1]
        daemon = tavid(box, port=port, listen=False)
        assert daemon.wait() == 0
    assert matches(daemon.stderr(),
                   wrn("inet_create_tcp_server_socket", "Could not bind socket"),
                   wrn("cmd_open", f"cmd-json - Could not open TCP command interface on port {port}"),
                   err("main", f"cmd-json - Could not open JSON command interface ({port})")), daemon.stderr()
