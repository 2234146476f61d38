"""A `tolvard` of the test's own, and a client of it made from the contract alone."""

import os
import resource
import shutil
import subprocess
import tempfile
import threading
import unittest

import grpc
import tolvar_pb2 as pb

TOLVARD = os.environ["TOLVARD"]
SAMPLE = os.environ["TOLVAR_SAMPLE"]
LIMIT = 20  # seconds of any call
PAGE = 50000

# One connection a client, whatever other clients there are.
OWN_CONNECTION = [("grpc.use_local_subchannel_pool", 1), ("grpc.enable_http_proxy", 0)]

METHODS = {
    "GetConf": ("TolvarObj", pb.GetConfRequest, pb.ClientConf),
    "CheckChange": ("TolvarObj", pb.CheckRequest, pb.CheckAnswer),
    "DownloadPage": ("TolvarObj", pb.PageRequest, pb.Page),
    "DownloadCodes": ("TolvarObj", pb.DownloadCodesRequest, pb.Codes),
    "ReportCounts": ("TolvarObj", pb.ReportCountsRequest, pb.ReportAnswer),
    "ReportLines": ("TolvarObj", pb.ReportLinesRequest, pb.ReportAnswer),
    "FirstDownloadPage": ("FTolvarObj", pb.PageRequest, pb.Page),
}


def raise_file_limit():
    """A connection is a file."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Tolvard:
    """`tolvard serve` on any free port of the loopback, with a table."""

    def __init__(self, table, flags=()):
        self.directory = tempfile.mkdtemp(prefix="tolvar-foreign-")
        self._database = os.path.join(self.directory, "t.db")
        self._process = None
        try:
            self.run("import", "--force", table)
            self._serve(flags)
        except BaseException:
            self.close()
            raise

    def run(self, *arguments):
        """Runs another command of the program on the same database; answers its output."""
        command = [TOLVARD, arguments[0], "--db", self._database, *arguments[1:]]
        result = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT * 2)
        if result.returncode != 0:
            raise RuntimeError(f"{command}: {result.stderr}")
        return result.stdout

    def _serve(self, flags):
        command = [TOLVARD, "serve", "--db", self._database, "--listen", "127.0.0.1:0", *flags]
        self._process = subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
        )
        self.address = ""
        for line in self._process.stdout:
            if "event=listening" in line:
                words = dict(w.split("=", 1) for w in line.split() if "=" in w)
                self.address = words["address"]
                break
        if not self.address:
            raise RuntimeError("tolvard did not start")
        # Read on, so that it never waits for a full pipe.
        self._reader = threading.Thread(target=self._process.stdout.read, daemon=True)
        self._reader.start()

    @property
    def endpoint(self):
        host, port = self.address.rsplit(":", 1)
        return host, int(port)

    def memory(self, field="VmRSS"):
        """A figure of the process's memory, in bytes."""
        with open(f"/proc/{self._process.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith(field + ":"):
                    return int(line.split()[1]) * 1024
        raise RuntimeError(f"there is no {field}")

    def reset_peak(self):
        """From now on, VmHWM tells the most memory since now."""
        with open(f"/proc/{self._process.pid}/clear_refs", "w", encoding="ascii") as peak:
            peak.write("5")

    @property
    def pid(self):
        return self._process.pid

    def runs(self):
        return self._process.poll() is None

    def close(self):
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            if self.address:
                self._reader.join()
            self._process.stdout.close()
        shutil.rmtree(self.directory, ignore_errors=True)


class Client:
    """Calls by the names of the contract, over generic calls of the channel."""

    def __init__(self, address, credentials=None, options=()):
        everything = [*OWN_CONNECTION, ("grpc.max_receive_message_length", 20971520), *options]
        if credentials is None:
            self.channel = grpc.insecure_channel(address, everything)
        else:
            self.channel = grpc.secure_channel(address, credentials, everything)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.channel.close()

    def method(self, name, raw=False):
        """The call; with `raw`, request and answer are bytes."""
        service, request, answer = METHODS[name]
        return self.channel.unary_unary(
            f"/tolvar.v1.{service}/{name}",
            request_serializer=None if raw else request.SerializeToString,
            response_deserializer=None if raw else answer.FromString,
        )

    def call(self, name, **fields):
        return self.method(name)(METHODS[name][1](**fields), timeout=LIMIT, wait_for_ready=True)

    def failure(self, name, **fields):
        """The status of a call that must fail."""
        try:
            self.call(name, **fields)
        except grpc.RpcError as error:
            return error.code()
        return grpc.StatusCode.OK

    def raw_status(self, name, request):
        try:
            self.method(name, raw=True)(request, timeout=LIMIT, wait_for_ready=True)
        except grpc.RpcError as error:
            return error.code()
        return grpc.StatusCode.OK

    def page(self, cursor=0, size=PAGE, method="DownloadPage"):
        return self.call(method, high=cursor >> 32, low=cursor & 0xFFFFFFFF, size=size)


def write_table(path, count):
    """A table of `count` ranges that takes several pages; answers its rows."""
    rows = []
    for i in range(count):
        start = (1 << 24) + i * 64
        rows.append((start, start + 1 + i % 60, f"Operator {i * i % 97}"))
    with open(path, "w", encoding="utf-8") as table:
        table.write("start,end,oper\n")
        table.writelines(f"{start},{end},{oper}\n" for start, end, oper in rows)
    return rows


class ServiceTest(unittest.TestCase):
    """Tests that share one service with a table of three pages."""

    ROWS = 2 * PAGE + 321
    FLAGS = ()

    @classmethod
    def setUpClass(cls):
        raise_file_limit()
        with tempfile.TemporaryDirectory(prefix="tolvar-foreign-") as directory:
            path = os.path.join(directory, "table.csv")
            cls.rows = write_table(path, cls.ROWS)
            cls.service = Tolvard(path, cls.FLAGS)
        cls.addClassCleanup(cls.service.close)

    def client(self, **arguments):
        client = Client(self.service.address, **arguments)
        self.addCleanup(client.channel.close)
        return client

    def assert_served(self):
        """Another client, on a connection of its own, gets a page."""
        self.assertTrue(self.service.runs())
        with Client(self.service.address) as client:
            self.assertEqual(client.page().records, PAGE)
