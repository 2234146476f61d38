"""Connections that nobody should make."""

import os
import random
import socket
import struct
import unittest

import tolvar_pb2 as pb
from service import LIMIT, PAGE, Client, ServiceTest

PREFACE = b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"
SETTINGS, HEADERS, DATA, WINDOW_UPDATE = 4, 1, 0, 8
END_STREAM, END_HEADERS = 1, 4
MEGABYTE = 1 << 20


def frame(kind, flags, stream, payload):
    return struct.pack(">I", len(payload))[1:] + struct.pack(">BBI", kind, flags, stream) + payload


def header(name, value):
    """A header without compression, which needs no tables."""
    return b"\x00" + bytes([len(name)]) + name + bytes([len(value)]) + value


def opening(window):
    """What a client says first; `window` is how much it will take of any answer."""
    settings = struct.pack(">HIHI", 4, window, 3, 0)
    more = struct.pack(">I", window)
    return PREFACE + frame(SETTINGS, 0, 0, settings) + frame(WINDOW_UPDATE, 0, 0, more)


def page_call(stream, size):
    """A whole call for the first page, as it goes over the connection."""
    headers = b"".join(
        header(name, value)
        for name, value in (
            (b":method", b"POST"),
            (b":scheme", b"http"),
            (b":path", b"/tolvar.v1.TolvarObj/DownloadPage"),
            (b":authority", b"localhost"),
            (b"te", b"trailers"),
            (b"content-type", b"application/grpc"),
        )
    )
    message = pb.PageRequest(size=size).SerializeToString()
    body = b"\x00" + struct.pack(">I", len(message)) + message
    return frame(HEADERS, END_HEADERS, stream, headers) + frame(DATA, END_STREAM, stream, body)


class Connections(ServiceTest):
    def connect(self, receive_buffer=None):
        connection = socket.socket()
        self.addCleanup(connection.close)
        if receive_buffer is not None:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.settimeout(LIMIT)
        connection.connect(self.service.endpoint)
        return connection

    def test_garbage_costs_only_the_connection_it_came_on(self):
        any_bytes = random.Random(8)
        garbage = [
            b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
            b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\x00" * 100,
            PREFACE + b"\xff" * 1000,
            PREFACE + frame(SETTINGS, 0, 0, b"") + frame(DATA, 0, 1, b"x" * 100),
            PREFACE + frame(SETTINGS, 0, 0, b"") + frame(HEADERS, 5, 1, b"\xff" * 50),
            PREFACE + frame(SETTINGS, 0, 0, b"") + b"\xff\xff\xff" + b"\x00" * 6,
            b"\x00" * 100000,
        ]
        garbage += [any_bytes.randbytes(any_bytes.randrange(1, 5000)) for _ in range(60)]
        garbage += [
            opening(65535) + any_bytes.randbytes(any_bytes.randrange(1, 500)) for _ in range(60)
        ]
        for some in garbage:
            connection = self.connect()
            try:
                connection.sendall(some)
                connection.shutdown(socket.SHUT_WR)
                while connection.recv(65536):
                    pass
            except OSError:
                pass
            connection.close()
        self.assert_served()

    def test_connections_that_say_nothing_keep_nobody_out(self):
        silent = [self.connect() for _ in range(200)]
        for connection in silent[::2]:
            connection.sendall(PREFACE[:10])
        self.assert_served()

    def test_who_does_not_read_costs_bounded_memory(self):
        self.assert_served()
        before = self.service.memory()
        # 6,400 calls: 2.7 GB of answers, half of them of a size that no other call shares.
        for number in range(100):
            connection = self.connect(receive_buffer=4096)
            connection.sendall(opening(0x3FFFFFFF))
            size = PAGE if number % 2 == 0 else PAGE - 1 - number
            calls = b"".join(page_call(1 + 2 * call, size) for call in range(64))
            connection.sendall(calls)
            if number % 20 == 0:
                self.assert_served()
        self.assert_served()
        # Pages of single calls may take 64 MB, what the transport holds for connections as much.
        self.assertLess(self.service.memory("VmHWM") - before, 160 * MEGABYTE)

    def test_who_hangs_up_in_the_middle_of_pages_leaves_nothing_behind(self):
        files = f"/proc/{self.service.pid}/fd"
        before = len(os.listdir(files))
        for _ in range(100):
            connection = self.connect(receive_buffer=4096)
            connection.sendall(opening(0x3FFFFFFF) + page_call(1, PAGE - 7))
            connection.recv(1)
            connection.close()
        self.assert_served()
        # All have been noticed once new private pages find room again: none are refused.
        with Client(self.service.address) as client:
            for _ in range(10):
                self.assertEqual(client.page(size=PAGE - 7).records, PAGE - 7)
        self.assertLess(len(os.listdir(files)), before + 100)

    def test_two_thousand_connections_at_once(self):
        clients = [self.client() for _ in range(2000)]
        request = pb.CheckRequest(content_md5=b"0")
        for _ in range(2):
            calls = [
                client.method("CheckChange").future(
                    request, timeout=3 * LIMIT, wait_for_ready=True
                )
                for client in clients
            ]
            answers = [call.result() for call in calls]
            self.assertTrue(all(a.is_reset == 1 or a.is_net_flow == 1 for a in answers))
            # 256 of them may download, the others are told to ask again.
            self.assertLessEqual(sum(a.is_reset == 1 for a in answers), 256 + 8)
        self.assert_served()


if __name__ == "__main__":
    unittest.main()
