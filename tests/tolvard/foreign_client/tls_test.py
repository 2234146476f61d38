"""Encrypted connections with the wrong papers."""

import os
import subprocess
import tempfile
import unittest

import grpc
from service import LIMIT, Client, ServiceTest


class Authority:
    """Issues certificates below a directory."""

    def __init__(self, directory, name):
        self._base = os.path.join(directory, name)
        self._openssl(
            "req", "-x509", *self._new_key(self._base), "-days", "2", "-subj", f"/CN={name}",
            "-out", self.ca_file, "-addext", "keyUsage=critical,keyCertSign,cRLSign",
        )  # fmt: skip

    @property
    def ca_file(self):
        return self._base + ".pem"

    def issue(self, label, days=2):
        """Files of a certificate for 127.0.0.1 and of its key."""
        path = f"{self._base}-{label}"
        with open(path + ".ext", "w", encoding="ascii") as extensions:
            extensions.write("subjectAltName=IP:127.0.0.1\n")
        self._openssl(
            "req", "-new", *self._new_key(path), "-subj", f"/CN={label}", "-out", path + ".csr"
        )
        self._openssl(
            "x509", "-req", "-days", str(days), "-in", path + ".csr", "-CA", self.ca_file,
            "-CAkey", self._base + ".key", "-CAcreateserial", "-extfile", path + ".ext",
            "-out", path + ".pem",
        )  # fmt: skip
        return path + ".pem", path + ".key"

    @staticmethod
    def _new_key(path):
        kind = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
        return [*kind, "-keyout", path + ".key"]

    @staticmethod
    def _openssl(*arguments):
        subprocess.run(["openssl", *arguments], check=True, capture_output=True, timeout=LIMIT)


def content(path):
    with open(path, "rb") as file:
        return file.read()


class EncryptedServiceTest(ServiceTest):
    """A service with a certificate that is good for DAYS, of an authority made for it."""

    ROWS = 10
    DAYS = 2

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="tolvar-foreign-")
        cls.addClassCleanup(cls.directory.cleanup)
        cls.authority = Authority(cls.directory.name, "authority")
        certificate, key = cls.authority.issue("server", days=cls.DAYS)
        cls.FLAGS = ("--tls-cert", certificate, "--tls-key", key, *cls.more_flags())
        super().setUpClass()

    @classmethod
    def more_flags(cls):
        return ()


class Tls(EncryptedServiceTest):
    @classmethod
    def more_flags(cls):
        return ("--tls-ca", cls.authority.ca_file)

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.stranger = Authority(cls.directory.name, "stranger")

    def outcome(self, ca, identity=None):
        """The status of a call by a client that trusts `ca` and shows `identity`."""
        certificate, key = (content(path) for path in identity) if identity else (None, None)
        credentials = grpc.ssl_channel_credentials(content(ca.ca_file), key, certificate)
        with Client(self.service.address, credentials) as client:
            try:
                client.method("GetConf", raw=True)(b"", timeout=LIMIT)
            except grpc.RpcError as error:
                return error.code()
        return grpc.StatusCode.OK

    def test_only_those_with_papers_of_the_authority_are_served(self):
        good = self.authority.issue("client")
        cases = {
            "expired": (self.authority, self.authority.issue("expired", days=-1)),
            "no certificate": (self.authority, None),
            "certificate of a stranger": (self.authority, self.stranger.issue("client")),
            "trusts a stranger only": (self.stranger, good),
        }
        for name, (ca, identity) in cases.items():
            with self.subTest(name):
                self.assertEqual(self.outcome(ca, identity), grpc.StatusCode.UNAVAILABLE)
                self.assertEqual(self.outcome(self.authority, good), grpc.StatusCode.OK)

    def test_who_speaks_in_the_clear_is_not_served(self):
        with Client(self.service.address) as client:
            with self.assertRaises(grpc.RpcError) as failed:
                client.method("GetConf", raw=True)(b"", timeout=LIMIT)
            self.assertEqual(failed.exception.code(), grpc.StatusCode.UNAVAILABLE)


class ExpiredService(EncryptedServiceTest):
    DAYS = -1

    def test_an_expired_service_is_not_believed(self):
        credentials = grpc.ssl_channel_credentials(content(self.authority.ca_file))
        with Client(self.service.address, credentials) as client:
            with self.assertRaises(grpc.RpcError) as failed:
                client.method("GetConf", raw=True)(b"", timeout=LIMIT)
            self.assertEqual(failed.exception.code(), grpc.StatusCode.UNAVAILABLE)


if __name__ == "__main__":
    unittest.main()
