"""Downloads by a client that knows the contract only."""

import csv
import ipaddress
import itertools
import json
import unittest

import grpc
import service
from service import PAGE, Client, ServiceTest, Tolvard

OPERATOR = 6  # code types
COUNTRY = 1
ISO_NAMES = {"DE": "Germany"}  # the importer knows country codes


def column(values, records):
    """A column as the contract lays it out: left out when all its values are 0."""
    if len(values) not in (0, records):
        raise ValueError(f"{len(values)} values for {records} records")
    return list(values) or [0] * records


def sums(values, records):
    return list(itertools.accumulate(column(values, records)))


def records_of(page):
    n = page.records
    starts = sums(page.start_ip_delta, n)
    ends = [s + o for s, o in zip(starts, column(page.end_ip_offset, n))]
    cursors = [
        t << 32 | s
        for t, s in zip(sums(page.times_tamp_delta, n), sums(page.sequence_delta, n))
    ]
    return list(zip(cursors, starts, ends, column(page.place, n), column(page.oper, n)))


def download(client, method="DownloadPage", size=PAGE):
    """All records of the table, in the order of their cursors."""
    gathered = []
    cursor = 0
    while True:
        page = client.page(cursor, size, method)
        if page.is_download_reset == 1:
            gathered = []
        if page.records == 0:
            return gathered
        gathered += records_of(page)
        cursor = gathered[-1][0]
        if cursor >= page.high_max_index << 32 | page.low_max_index:
            return gathered


def names_of(codes, code_type):
    names = {}
    total = 0
    for run in codes.run:
        ids = list(itertools.accumulate(run.id_delta))
        total += len(ids)
        if run.code_type == code_type:
            names.update(zip(ids, (name.decode() for name in run.content)))
    if total != codes.entries:
        raise ValueError(f"{total} entries, {codes.entries} announced")
    return names


class Download(ServiceTest):
    def test_the_whole_table_is_the_file_that_was_imported(self):
        client = self.client()
        operators = names_of(client.call("DownloadCodes"), OPERATOR)
        for method in ("DownloadPage", "FirstDownloadPage"):
            records = download(client, method)
            self.assertEqual([(s, e, operators[o]) for _, s, e, _, o in records], self.rows)
            cursors = [record[0] for record in records]
            self.assertEqual(cursors, sorted(set(cursors)))

    def test_other_page_sizes_give_the_same_table(self):
        client = self.client()
        self.assertEqual(download(client, size=4294967295), download(client, size=33333))

    def test_a_check_compares_digests(self):
        client = self.client()
        versions = json.loads(self.service.run("versions", "--json"))
        digest = versions[-1]["digest"].encode()
        self.assertEqual(client.call("CheckChange", content_md5=b"0").is_reset, 1)
        self.assertEqual(client.call("CheckChange", content_md5=b"f" * 32).is_reset, 1)
        self.assertEqual(client.call("CheckChange", content_md5=digest).is_reset, 0)

    def test_foreign_cursors_get_the_first_page(self):
        client = self.client()
        first = client.page()
        self.assertEqual(first.is_download_reset, 1)
        end = first.high_max_index << 32 | first.low_max_index
        for cursor in (1, 77 << 32, end - (1 << 32), end + 1, (1 << 64) - 2):
            page = client.page(cursor)
            self.assertEqual(page.is_download_reset, 1, cursor)
            self.assertEqual(records_of(page), records_of(first), cursor)
            if cursor > end:
                self.assertGreater(page.high_max_index << 32 | page.low_max_index, cursor)
        self.assertEqual(client.page(end).records, 0)

    def test_sizes_from_nothing_to_four_billion(self):
        client = self.client()
        self.assertEqual(
            client.failure("DownloadPage", size=0), grpc.StatusCode.INVALID_ARGUMENT
        )
        for size, records in ((1, 1), (49999, 49999), (50001, PAGE), (4294967295, PAGE)):
            self.assertEqual(client.page(size=size).records, records)


class SampleDownload(unittest.TestCase):
    def test_the_sample_arrives_with_its_names(self):
        expected = []
        with open(service.SAMPLE, encoding="utf-8", newline="") as sample:
            rows = csv.DictReader(line for line in sample if not line.startswith("#"))
            for row in rows:
                network = ipaddress.ip_network(row["network"])
                first, last = int(network[0]), int(network[-1])
                country = ISO_NAMES.get(row["country"], row["country"])
                expected.append((first, last, country, row["oper"]))
        tolvard = Tolvard(service.SAMPLE)
        self.addCleanup(tolvard.close)
        with Client(tolvard.address) as client:
            codes = client.call("DownloadCodes")
            operators = {0: "", **names_of(codes, OPERATOR)}
            countries = {0: "", **names_of(codes, COUNTRY)}
            records = download(client)
        received = [
            (start, end, countries[place // 10**9], operators[oper])
            for _, start, end, place, oper in records
        ]
        self.assertEqual(sorted(received), sorted(expected))


if __name__ == "__main__":
    unittest.main()
