"""Requests that nobody should send."""

import random
import threading
import unittest

import grpc
import tolvar_pb2 as pb
from service import LIMIT, METHODS, ServiceTest

INVALID = grpc.StatusCode.INVALID_ARGUMENT
REFLECTION = "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo"
MEGABYTE = 1 << 20
HEALTH = "/grpc.health.v1.Health/Check"


class Requests(ServiceTest):
    def test_oversized_requests_are_refused_and_nothing_else(self):
        client = self.client()
        lines = pb.ReportLinesRequest(lines=[b"x" * 8000] * 1200).SerializeToString()
        for name in METHODS:
            self.assertEqual(
                client.raw_status(name, lines), grpc.StatusCode.RESOURCE_EXHAUSTED, name
            )
        self.assert_served()

    def test_bytes_that_are_no_message_are_refused(self):
        client = self.client()
        for name in METHODS:
            for garbage in (b"\xff", b"\xff" * 1000, b"\x0a\x7f", b"\x08", b"\x00" * 50):
                self.assertEqual(client.raw_status(name, garbage), INVALID, (name, garbage))
        self.assert_served()

    def test_any_bytes_get_an_answer(self):
        client = self.client()
        any_bytes = random.Random(4)
        calls = []
        for _ in range(600):
            name = any_bytes.choice(list(METHODS))
            garbage = any_bytes.randbytes(any_bytes.randrange(60))
            calls.append(client.method(name, raw=True).future(garbage, timeout=LIMIT))
        for call in calls:
            self.assertIn(call.code(), (grpc.StatusCode.OK, INVALID))
        self.assert_served()

    def test_messages_of_empty_elements_are_refused_before_they_are_parsed(self):
        client = self.client()
        self.assert_served()
        self.service.reset_peak()
        before = self.service.memory("VmHWM")
        unknown = b"\x7a\x00" * (4 << 20)
        entries = b"\x0a\x00" * (4 << 20)
        for name, request in (
            ("ReportLines", entries),
            ("ReportCounts", entries),
            ("ReportCounts", b"\x0a\xfa\xff\xff\x03" + unknown[:0x7FFFFA]),
            *((name, unknown) for name in METHODS),
        ):
            self.assertEqual(client.raw_status(name, request), INVALID, name)
        self.assert_served()
        # Requests, more than once on their way; parsed, each would take more than this.
        self.assertLess(self.service.memory("VmHWM") - before, 100 * MEGABYTE)

    def test_compressed_requests_are_refused_before_they_are_unpacked(self):
        client = self.client()
        self.assert_served()
        self.service.reset_peak()
        before = self.service.memory("VmHWM")
        zeros = bytes(200 * MEGABYTE)
        for compression in (grpc.Compression.Gzip, grpc.Compression.Deflate):
            with self.assertRaises(grpc.RpcError) as failed:
                client.method("GetConf", raw=True)(zeros, timeout=LIMIT, compression=compression)
            self.assertEqual(failed.exception.code(), grpc.StatusCode.UNIMPLEMENTED)
            self.assertIn("is disabled", failed.exception.details())
        self.assert_served()
        self.assertLess(self.service.memory("VmHWM") - before, 40 * MEGABYTE)

    def test_what_is_not_served_is_unimplemented(self):
        client = self.client()
        for method in ("/tolvar.v1.TolvarObj/Nothing", "/tolvar.v2.TolvarObj/GetConf", "/"):
            with self.assertRaises(grpc.RpcError) as failed:
                client.channel.unary_unary(method)(b"", timeout=LIMIT)
            self.assertEqual(failed.exception.code(), grpc.StatusCode.UNIMPLEMENTED)

    def test_reports_beyond_their_bounds_are_refused(self):
        client = self.client()
        for name, fields in (
            ("ReportCounts", {"counts": [pb.ReportCount(name=b"n" * 1025, count=1)]}),
            ("ReportCounts", {"counts": [pb.ReportCount(count=1)] * 131073}),
            ("ReportLines", {"lines": [b"l" * 8193]}),
            ("CheckChange", {"content_md5": b"f" * 65}),
        ):
            self.assertEqual(client.failure(name, **fields), INVALID, name)

    def test_the_health_service_knows_both_objects(self):
        check = self.client().channel.unary_unary(HEALTH)
        serving = b"\x08\x01"
        for name in (b"", b"tolvar.v1.TolvarObj", b"tolvar.v1.FTolvarObj"):
            request = b"\x0a" + bytes([len(name)]) + name
            self.assertEqual(check(request, timeout=LIMIT), serving, name)
        with self.assertRaises(grpc.RpcError) as failed:
            check(b"\x0a\x03abc", timeout=LIMIT)
        self.assertEqual(failed.exception.code(), grpc.StatusCode.NOT_FOUND)

    def test_reflection_tells_the_contract(self):
        ask = self.client().channel.stream_stream(REFLECTION)
        symbol = b"tolvar.v1.TolvarObj"
        requests = [b"\x3a\x01*", b"\x22" + bytes([len(symbol)]) + symbol]
        services, contract = ask(iter(requests), timeout=LIMIT)
        for name in (symbol, b"tolvar.v1.FTolvarObj", b"grpc.health.v1.Health"):
            self.assertIn(name, services)
        self.assertIn(pb.DESCRIPTOR.serialized_pb, contract)

    def test_idle_reflection_streams_leave_others_reflection(self):
        done = threading.Event()
        self.addCleanup(done.set)

        def one_question():
            yield b"\x3a\x01*"
            done.wait()

        ask = self.client().channel.stream_stream(REFLECTION)
        streams = [ask(one_question(), timeout=LIMIT) for _ in range(20)]
        for stream in streams:
            self.assertIn(b"tolvar.v1.TolvarObj", next(stream))
        other = self.client().channel.stream_stream(REFLECTION)
        (services,) = other(iter([b"\x3a\x01*"]), timeout=LIMIT)
        self.assertIn(b"tolvar.v1.TolvarObj", services)


if __name__ == "__main__":
    unittest.main()
