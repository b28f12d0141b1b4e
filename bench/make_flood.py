#!/usr/bin/env python3
"""Writes a capture of connections that begin and never end, for measuring what they cost.

    make_flood.py --connections 1000000 --kind syn|header|gap OUT.pcap

Each connection has a SYN and its answer; with "header" the client also sends a request's header block
without its end, with "gap" bytes behind some that never come. All begin within ten minutes.
"""

import argparse
import struct

SYN, ACK = 2, 16
START = 1_700_000_000


def packet(source, destination, sequence, flags, data=b""):
    """An Ethernet frame; checksums are left out, nobody looks at them."""
    ip = struct.pack("!BBHHHBBHII", 0x45, 0, 40 + len(data), 0, 0x4000, 64, 6, 0,
                     source[0], destination[0])
    tcp = struct.pack("!HHIIBBHHH", source[1], destination[1], sequence, 1001, 0x50, flags, 65535,
                      0, 0)
    return b"\2\0\0\0\0\2\2\0\0\0\0\1\x08\0" + ip + tcp + data


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--connections", type=int, default=1_000_000)
    parser.add_argument("--kind", choices=("syn", "header", "gap"), default="syn")
    parser.add_argument("output")
    options = parser.parse_args()
    server = (0xCB007150, 80)
    header = b"GET / HTTP/1.1\r\nHost: www.example.test\r\nX-Long: " + b"x" * 1000
    with open(options.output, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 262144, 1))
        for number in range(options.connections):
            client = (0x0A000000 + number // 50000, 10000 + number % 50000)
            frames = [packet(client, server, 1000, SYN), packet(server, client, 1000, SYN | ACK)]
            if options.kind == "header":
                frames.append(packet(client, server, 1001, ACK, header))
            elif options.kind == "gap":
                frames.append(packet(client, server, 2001, ACK, header))
            micros = number * 590_000_000 // options.connections
            record = (START + micros // 10**6, micros % 10**6)
            for frame in frames:
                file.write(struct.pack("<IIII", *record, len(frame), len(frame)) + frame)


if __name__ == "__main__":
    main()
