#!/usr/bin/env python3
"""Writes the small captures of this folder and the lines that kp-capture must print for them.

    make_captures.py            writes NAME.pcap and NAME.expected beside this script
    make_captures.py --check    compares what lies here with what it would write; status 1 if unlike

A case is a function in one of the files cases_*.py; kit.py holds what they are made of. It plays
packets into a capture and says, beside each request and response, the row that
`kp-capture --print --all --replay NAME.pcap` owes for them:

    @case
    def not_found(capture):
        connection = capture.connect()
        connection.exchange(
            head("GET /no HTTP/1.1", HOST),
            head("HTTP/1.1 404 Not Found", "Content-Type: text/html", "Content-Length: 2") + b"no",
            "GET www.example.test /no 404 text/html 2  1 1 0 1")
        connection.close()

A row is written with blanks between its fields, beginning with the method; the four digits at its
end are: inside the ranges (10.0.0.0 to 10.0.0.255), content, valid page, entry point. The time and
the addresses come from the packets: the time is that of the packet with the request's first byte.
Rows are said in the order in which their responses end. No line here comes from running a program.

Every run writes the same bytes. All addresses belong to documentation or to private networks.
"""

import os
import struct
import sys

import cases_arrival
import cases_judgements
import cases_messages
from kit import (HOST, Capture, cooked, cooked2, doubled, fragmented, head, loopback, pcap_file,
                 pcapng_file, tagged, without_ethernet)

MOST_BYTES = 10_000


def all_files():
    """All files of this folder: name and bytes."""
    files = {}
    for name, function in cases_messages.CASES + cases_arrival.CASES + cases_judgements.CASES:
        capture = Capture()
        function(capture)
        times = [time for time, _ in capture.frames]
        assert times == sorted(times) and len(set(times)) == len(times)
        files[name + ".pcap"] = pcap_file(capture.frames, snap_length=capture.snap_length)
        files[name + ".expected"] = capture.expected()
        if name == "ranges":
            files[name + ".watched.expected"] = capture.expected(watched_only=True)
        if name == "visit":
            frames = capture.frames
            for format_name, data in (
                    ("visit-nanoseconds.pcap", pcap_file(frames, nanoseconds=True)),
                    ("visit-big-endian.pcap", pcap_file(frames, order=">")),
                    ("visit-pcapng.pcapng", pcapng_file(frames)),
                    ("visit-raw-ip.pcap", pcap_file(without_ethernet(frames), link=101)),
                    ("visit-cooked.pcap", pcap_file(cooked(frames), link=113)),
                    ("visit-cooked2.pcap", pcap_file(cooked2(frames), link=276)),
                    ("visit-loopback.pcap", pcap_file(loopback(frames), link=0)),
                    ("visit-two-interfaces.pcapng", pcapng_file(frames, interfaces=2)),
                    ("visit-doubled.pcap", pcap_file(doubled(frames))),
                    ("visit-fragments.pcap", pcap_file(fragmented(frames))),
                    ("visit-tagged.pcap",
                     pcap_file(tagged(frames, (0x88a8, 7), (0x8100, 9))))):
                files[format_name] = data
                files[format_name.split(".")[0] + ".expected"] = capture.expected()

    # The last packet loses its last 20 bytes.
    whole = files["cut-record.pcap"]
    files["cut-record.pcap"] = whole[:-20]
    # The same place with a record that claims two thousand million bytes.
    last = len(whole) - len(head("GET /cut HTTP/1.1", HOST)) - 54 - 16
    huge = struct.pack("<IIII", 1_700_000_001, 0, 0x7fffffff, 0x7fffffff)
    files["huge-record.pcap"] = whole[:last] + huge + whole[last + 16:]
    files["huge-record.expected"] = files["cut-record.expected"]

    # No captures at all; these are refused and have no expected lines.
    files["cut.pcap"] = whole[:15]
    files["empty.pcap"] = b""
    files["garbage.pcap"] = b"This is a letter to the harbour master and no capture at all.\n"
    files["cut-pcapng.pcapng"] = files["visit-pcapng.pcapng"][:20]
    for name, data in files.items():
        assert len(data) < MOST_BYTES, "%s has %d bytes" % (name, len(data))
    return files


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    if sys.argv[1:] not in ([], ["--check"]):
        sys.exit(__doc__)
    unlike = []
    for name, data in sorted(all_files().items()):
        path = os.path.join(folder, name)
        if sys.argv[1:]:
            try:
                with open(path, "rb") as file:
                    same = file.read() == data
            except FileNotFoundError:
                same = False
            if not same:
                unlike.append(name)
        else:
            with open(path, "wb") as file:
                file.write(data)
    if unlike:
        sys.exit("make_captures.py: not as this script writes it: " + ", ".join(unlike))


if __name__ == "__main__":
    main()
