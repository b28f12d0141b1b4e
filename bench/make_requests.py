#!/usr/bin/env python3
"""Writes a capture of very many small requests with their answers, for measuring what rows cost.

    make_requests.py --requests 1000000 --hours 20 --seed 1 OUT.pcap

5,000 clients ask 200 servers for 1,000 hosts, some far more often than others, over connections that
stay open; every target is another one. Each request and each answer is one packet; the answers take
from half a millisecond to two seconds. The same arguments give the same bytes.
"""

import argparse
import random
import struct

SYN, ACK, PSH = 2, 16, 8
START = 1_700_000_000 // 86400 * 86400 + 3600
CLIENTS, SERVERS, HOSTS, CONNECTIONS = 5000, 200, 1000, 8000
TYPES = ("text/html", "text/html; charset=utf-8", "text/css", "application/javascript", "image/png",
         "image/jpeg", "application/json")
STATUSES = (("200 OK", 88), ("304 Not Modified", 6), ("404 Not Found", 4), ("301 Moved", 1),
            ("500 Internal Server Error", 1))


def frame(source, destination, sequence, acknowledged, flags, data=b""):
    """An Ethernet frame; checksums are left out, nobody looks at them."""
    ip = struct.pack("!BBHHHBBHII", 0x45, 0, 40 + len(data), 0, 0x4000, 64, 6, 0,
                     source[0], destination[0])
    tcp = struct.pack("!HHIIBBHHH", source[1], destination[1], sequence & 0xFFFFFFFF,
                      acknowledged & 0xFFFFFFFF, 0x50, flags, 65535, 0, 0)
    return b"\2\0\0\0\0\2\2\0\0\0\0\1\x08\0" + ip + tcp + data


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--requests", type=int, default=1_000_000)
    parser.add_argument("--hours", type=float, default=20)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("output", metavar="OUT.pcap")
    options = parser.parse_args()
    chance = random.Random(options.seed)
    statuses = [text for text, weight in STATUSES for _ in range(weight)]
    connections = [{"client": (0x0A000000 + chance.randrange(CLIENTS), 20000 + i),
                    "server": (0xC0A80000 + chance.randrange(SERVERS), 80), "sent": 0, "got": 0}
                   for i in range(CONNECTIONS)]
    step = options.hours * 3.6e9 / options.requests
    with open(options.output, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))

        def write(time, data):
            time = int(time)
            out.write(struct.pack("<IIII", START + time // 1000000, time % 1000000, len(data),
                                  len(data)) + data)

        for number in range(options.requests):
            # One connection has its answer before it asks again, and the packets stand in order.
            connection = connections[number % CONNECTIONS]
            client, server = connection["client"], connection["server"]
            host = int(HOSTS ** chance.random()) - 1
            request = (f"GET /articles/{number % 37}/{chance.getrandbits(48):012x}.html?page="
                       f"{number} HTTP/1.1\r\nHost: www{host}.example.test\r\n"
                       "User-Agent: Mozilla/5.0 (X11; Linux x86_64)\r\nAccept: */*\r\n\r\n").encode()
            body = b"x" * chance.randrange(400)
            answer = (f"HTTP/1.1 {chance.choice(statuses)}\r\nContent-Length: {len(body)}\r\n"
                      f"Content-Type: {chance.choice(TYPES)}\r\n\r\n").encode()
            if b" 304 " not in answer[:14]:
                answer += body
            time = number * step
            sent, got = connection["sent"], connection["got"]
            write(time, frame(client, server, 1 + sent, 1 + got, ACK | PSH, request))
            sent += len(request)
            write(time + min(chance.expovariate(1 / 40e3) + 500, step * 0.9),
                  frame(server, client, 1 + got, 1 + sent, ACK | PSH, answer))
            connection["sent"], connection["got"] = sent, got + len(answer)
    print(f"{options.output}: {options.requests} requests")


if __name__ == "__main__":
    main()
