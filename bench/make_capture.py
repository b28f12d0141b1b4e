#!/usr/bin/env python3
"""Writes a large capture of invented but ordinary web traffic, for measuring.

    make_capture.py --mb 250 --connections 5000 --seed 1 OUT.pcap

Thousands of connections run at the same time, each with several requests; the sizes, headers and
statuses are a usual mix, every checksum is right, and no packet is lost or late. The same
arguments give the same bytes. At the end it tells on standard output what it wrote, so that the
counts of a program that reads the capture can be compared with it.
"""

import argparse
import collections
import gzip
import heapq
import json
import math
import random
import struct
import sys
import time

START_US = 1_700_000_000 * 10**6
SEGMENT = 1448  # 1500 less the IP header and a TCP header with timestamps
OVERHEAD = 66 + 16  # Ethernet, IP and TCP headers, and the record's own
CONNECTIONS_A_SECOND = 200
FIN, SYN, PSH, ACK = 1, 2, 8, 16

WORDS = ("harbour island ferry boat ticket summer winter storm north south captain crew weather "
         "price table offer notice letter street market garden window kitchen river bridge stone "
         "light water morning evening people children company service report account order").split()
AGENTS = (
    "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/119.0.0.0 Safari/537.36",
    "Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/119.0",
    "Mozilla/5.0 (iPhone; CPU iPhone OS 17_1 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like "
    "Gecko) Version/17.1 Mobile/15E148 Safari/604.1",
    "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) "
    "Version/17.0 Safari/605.1.15")
SERVERS = ("nginx/1.24.0", "Apache/2.4.58 (Debian)", "nginx", "cloud-front/3")
REASONS = {200: "OK", 201: "Created", 204: "No Content", 206: "Partial Content",
           301: "Moved Permanently", 304: "Not Modified", 404: "Not Found",
           500: "Internal Server Error"}

Asset = collections.namedtuple("Asset", "path content_type body packed etag accept")


# ---- what the sites hold ------------------------------------------------------------------------

def text_of(rng, size):
    words = []
    length = 0
    while length < size:
        word = rng.choice(WORDS)
        words.append(word)
        length += len(word) + 1
    return " ".join(words)[:size]


def html_body(rng, size):
    rows = ["<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>%s</title></head><body>"
            % text_of(rng, 30)]
    length = len(rows[0])
    while length < size:
        row = "<div class=\"%s\"><a href=\"/%s/%d\">%s</a><p>%s</p></div>" % (
            rng.choice(WORDS), rng.choice(WORDS), rng.randrange(10**6), text_of(rng, 24),
            text_of(rng, rng.randrange(60, 400)))
        rows.append(row)
        length += len(row) + 1
    return ("\n".join(rows) + "</body></html>").encode()


def script_body(rng, size):
    rows = []
    length = 0
    while length < size:
        row = "function %s_%d(%s){return this.%s(%d,\"%s\");}" % (
            rng.choice(WORDS), rng.randrange(10**4), rng.choice(WORDS), rng.choice(WORDS),
            rng.randrange(10**5), text_of(rng, 40))
        rows.append(row)
        length += len(row) + 1
    return "\n".join(rows).encode()


def style_body(rng, size):
    rows = []
    length = 0
    while length < size:
        row = ".%s-%d{margin:%dpx;color:#%06x;background:url(/img/%s.png)}" % (
            rng.choice(WORDS), rng.randrange(1000), rng.randrange(40), rng.randrange(2**24),
            rng.choice(WORDS))
        rows.append(row)
        length += len(row) + 1
    return "\n".join(rows).encode()


def json_body(rng, size):
    items = []
    length = 12
    while length < size:
        item = {"id": rng.randrange(10**6), "name": text_of(rng, 20),
                "price": rng.randrange(10**4) / 100, "tags": rng.sample(WORDS, 3)}
        items.append(item)
        length += len(json.dumps(item)) + 2
    return json.dumps({"items": items}).encode()


def picture_body(rng, size):
    """A JPEG file as far as its markers go; what it shows is noise."""
    def marker(kind, data):
        return b"\xff" + bytes([kind]) + struct.pack("!H", len(data) + 2) + data

    noise = rng.randbytes(max(size - 360, 100)).replace(b"\xff", b"\x7f")
    return (b"\xff\xd8" + marker(0xe0, b"JFIF\0\1\1\0\0\1\0\1\0\0")
            + marker(0xdb, b"\0" + bytes(range(1, 65)))
            + marker(0xc0, struct.pack("!BHHB", 8, 600, 800, 1) + b"\1\x11\0")
            + marker(0xc4, b"\0" + b"\0\1\5\1\1\1\1\1\1" + b"\0" * 7 + bytes(range(12)))
            + marker(0xda, b"\1\1\0\0\x3f\0") + noise + b"\xff\xd9")


# Kind: content type, Accept header, usual size, how many there are, weight, compressed, its maker.
PAGE_ACCEPT = ("text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,"
               "*/*;q=0.8")
PICTURE_ACCEPT = "image/avif,image/webp,image/apng,image/svg+xml,image/*,*/*;q=0.8"
KINDS = (
    ("html", "text/html; charset=utf-8", PAGE_ACCEPT, 20_000, 40, 14, 0.3, html_body),
    ("jpg", "image/jpeg", PICTURE_ACCEPT, 80_000, 40, 14, 0, picture_body),
    ("js", "application/javascript", "*/*", 40_000, 24, 12, 0.5, script_body),
    ("css", "text/css", "text/css,*/*;q=0.1", 12_000, 16, 10, 0.5, style_body),
    ("json", "application/json", "application/json, text/plain, */*", 2_000, 60, 40, 0, json_body),
    ("txt", "text/plain", "*/*", 900, 20, 10, 0, lambda rng, size: text_of(rng, size).encode()))


def make_assets(rng):
    """All files of the invented sites, by kind; sizes scatter widely around the usual one."""
    assets = {}
    for kind, content_type, accept, usual, count, _, compressed, make in KINDS:
        assets[kind] = []
        for number in range(count):
            size = int(min(max(usual * rng.lognormvariate(-0.18, 0.6), 200), usual * 5))
            body = make(rng, size)
            packed = gzip.compress(body, 6, mtime=0) if rng.random() < compressed else None
            path = "/%s/%s-%d.%s" % (rng.choice(WORDS), rng.choice(WORDS), number, kind)
            etag = '"%x-%x"' % (rng.randrange(2**32), len(body))
            assets[kind].append(Asset(path, content_type, body, packed, etag, accept))
    return assets


# ---- messages -----------------------------------------------------------------------------------

class Visitor:
    """The headers that all requests of one connection share."""

    def __init__(self, rng):
        self.host = "www.%s-%s.example" % (rng.choice(WORDS), rng.choice(WORDS))
        self.agent = rng.choice(AGENTS)
        self.language = rng.choice(("en-GB,en;q=0.9", "de-DE,de;q=0.8,en;q=0.5", "fr,en;q=0.7"))
        self.cookie = None
        if rng.random() < 0.7:
            self.cookie = "session=%032x; theme=%s; seen=%d" % (
                rng.getrandbits(128), rng.choice(WORDS), rng.randrange(10**9))
            if rng.random() < 0.4:
                self.cookie += "; track=" + rng.randbytes(rng.randrange(40, 180)).hex()
        self.server = rng.choice(SERVERS)
        self.page = None


def request_head(visitor, method, target, accept, more):
    lines = ["%s %s HTTP/1.1" % (method, target), "Host: " + visitor.host,
             "Connection: keep-alive", "User-Agent: " + visitor.agent, "Accept: " + accept,
             "Accept-Encoding: gzip, deflate", "Accept-Language: " + visitor.language]
    if visitor.page:
        lines.append("Referer: http://%s%s" % (visitor.host, visitor.page))
    if visitor.cookie:
        lines.append("Cookie: " + visitor.cookie)
    return ("\r\n".join(lines + more) + "\r\n\r\n").encode()


def response_head(visitor, now_us, status, more):
    date = time.strftime("%a, %d %b %Y %H:%M:%S GMT", time.gmtime(now_us // 10**6))
    lines = ["HTTP/1.1 %d %s" % (status, REASONS[status]), "Server: " + visitor.server,
             "Date: " + date]
    return ("\r\n".join(lines + more) + "\r\n\r\n").encode()


def chunked(rng, body):
    parts = []
    place = 0
    while place < len(body):
        size = rng.choice((1024, 4096, 8192, 8192, rng.randrange(1, 16384)))
        chunk = body[place:place + size]
        parts.append(b"%x\r\n%s\r\n" % (len(chunk), chunk))
        place += size
    return b"".join(parts) + b"0\r\n\r\n"


def transaction(rng, assets, visitor, now_us):
    """One request and its response: (request, response, status)."""
    kind = "html" if visitor.page is None else rng.choices(
        [kind[0] for kind in KINDS], [kind[5] for kind in KINDS])[0]
    asset = rng.choice(assets[kind])
    method, more, entity = "GET", [], b""
    fields = ["Content-Type: " + asset.content_type, "ETag: " + asset.etag,
              "Last-Modified: Mon, 06 Nov 2023 08:12:31 GMT", "Cache-Control: max-age=3600"]
    target = asset.path
    if kind in ("json", "js") and rng.random() < 0.5:
        target += "?v=%d&q=%s" % (rng.randrange(10**6), rng.choice(WORDS))
    body = asset.body
    luck = rng.random()
    status = 200
    if luck < 0.08:
        status = 304
        more = ["If-None-Match: " + asset.etag]
        fields, body = fields[1:], b""
    elif luck < 0.11:
        status, body = 404, b"<html><head><title>404 Not Found</title></head><body></body></html>\n"
        fields = ["Content-Type: text/html", "Content-Length: %d" % len(body)]
    elif luck < 0.14:
        status, body = 301, b"<html><body><a href=\"/\">Moved</a></body></html>\n"
        fields = ["Content-Type: text/html", "Location: http://%s/" % visitor.host,
                  "Content-Length: %d" % len(body)]
    elif luck < 0.16:
        first = rng.randrange(len(body))
        last = rng.randrange(first, len(body))
        status = 206
        more = ["Range: bytes=%d-%d" % (first, last)]
        fields += ["Accept-Ranges: bytes", "Content-Length: %d" % (last - first + 1),
                   "Content-Range: bytes %d-%d/%d" % (first, last, len(body))]
        body = body[first:last + 1]
    elif luck < 0.20:
        method, target = "POST", "/api/" + rng.choice(WORDS)
        entity = json_body(rng, rng.randrange(40, 800))
        more = ["Content-Type: application/json", "Content-Length: %d" % len(entity)]
        status, body = rng.choice((
            (201, b'{"done":true}'), (200, b'{"done":true}'), (204, b""), (500, b'{"done":false}')))
        fields = [] if status == 204 else ["Content-Type: application/json",
                                           "Content-Length: %d" % len(body)]
    elif luck < 0.22:
        method = "HEAD"
        fields += ["Content-Length: %d" % len(body)]
        body = b""
    elif asset.packed:
        body = chunked(rng, asset.packed)
        fields += ["Vary: Accept-Encoding", "Content-Encoding: gzip", "Transfer-Encoding: chunked"]
    elif kind == "html" and rng.random() < 0.5:
        body = chunked(rng, body)
        fields += ["Transfer-Encoding: chunked"]
    else:
        fields += ["Accept-Ranges: bytes", "Content-Length: %d" % len(body)]
    request = request_head(visitor, method, target, asset.accept, more) + entity
    response = response_head(visitor, now_us, status, fields + ["Connection: keep-alive"]) + body
    if kind == "html" and method == "GET" and status == 200:
        visitor.page = target
    return request, response, status


# ---- packets ------------------------------------------------------------------------------------

class End:
    """One end of a connection: makes its packets.

    A sum of 16-bit words in one's complement is the number modulo 65535 that the bytes are
    together; Python finds that faster than it adds up words.
    """

    def __init__(self, rng, address, port, peer_address, peer_port, from_client):
        near, far = b"\x02\0\0\0\0\x11", b"\x02\0\0\0\0\x22"
        self.ethernet = (far + near if from_client else near + far) + b"\x08\0"
        self.addresses = address + peer_address
        self.ports = struct.pack("!HH", port, peer_port)
        self.ttl = rng.choice((63, 127)) if from_client else rng.randrange(48, 60)
        self.identification = rng.randrange(65536)
        self.seq = rng.getrandbits(32)
        self.window = rng.choice((501, 502, 1026, 2058))
        self.clock = rng.getrandbits(31)
        self.heard_clock = 0

    def packet(self, peer, now_us, flags, data=b""):
        """The next packet, and the sequence number moves on."""
        stamp = (self.clock + now_us // 1000) & 0xffffffff
        options = struct.pack("!BBBBII", 1, 1, 8, 10, stamp, self.heard_clock)
        window = self.window
        if flags & SYN:
            window = 64240
            options = b"\x02\x04\x05\xb4\x01\x03\x03\x07\x04\x02" + options[2:]
        length = 20 + len(options) + len(data)
        ack = peer.seq if flags & ACK else 0
        tcp = b"".join((self.ports, struct.pack("!IIBBHI", self.seq, ack, (20 + len(options)) << 2,
                                                flags, window, 0), options, data))
        number = int.from_bytes(self.addresses + tcp, "big")
        if length & 1:
            number <<= 8
        total = -(number + 6 + length) % 0xffff
        tcp = b"".join((tcp[:16], total.to_bytes(2, "big"), tcp[18:]))
        self.identification = (self.identification + 1) & 0xffff
        ip = struct.pack("!HHHHBB", 0x4500, 20 + length, self.identification, 0x4000, self.ttl, 6)
        total = -int.from_bytes(ip + self.addresses, "big") % 0xffff
        self.seq = (self.seq + len(data) + bool(flags & (SYN | FIN))) & 0xffffffff
        peer.heard_clock = stamp
        return b"".join((self.ethernet, ip, total.to_bytes(2, "big"), self.addresses, tcp))


class Connection:
    """One connection; packets() yields (time in microseconds, packet)."""

    def __init__(self, rng, assets, requests, tally):
        self.rng = rng
        self.assets = assets
        self.requests = requests
        self.tally = tally
        client = bytes((10, 0)) + rng.getrandbits(16).to_bytes(2, "big")
        net = rng.choice((bytes((192, 0, 2)), bytes((198, 51, 100))))
        server = net + bytes([rng.randrange(1, 255)])
        client_port, server_port = rng.randrange(32768, 61000), rng.choices((80, 8080), (9, 1))[0]
        self.client = End(rng, client, client_port, server, server_port, True)
        self.server = End(rng, server, server_port, client, client_port, False)
        self.key = (client, server, client_port, server_port)
        self.round_trip = rng.randrange(4_000, 60_000)
        self.now = 0

    def wait(self, microseconds):
        self.now += max(1, int(microseconds))

    def packet(self, sender, receiver, flags, data=b""):
        return self.now, sender.packet(receiver, self.now, flags, data)

    def message(self, sender, receiver, data):
        """A message in full segments and growing bursts; every second one is acknowledged."""
        window, burst, unacknowledged = 10, 0, 0
        for place in range(0, len(data), SEGMENT):
            last = place + SEGMENT >= len(data)
            if burst == window:
                self.wait(self.round_trip)
                window, burst = min(2 * window, 80), 0
            burst += 1
            self.wait(self.rng.randrange(11, 30))
            yield self.packet(sender, receiver, PSH | ACK if last else ACK,
                              data[place:place + SEGMENT])
            unacknowledged += 1
            if unacknowledged == 2 or last:
                unacknowledged = 0
                self.wait(self.rng.randrange(3, 12))
                yield self.packet(receiver, sender, ACK)

    def packets(self, start):
        rng, client, server = self.rng, self.client, self.server
        self.now = start
        yield self.packet(client, server, SYN)
        self.wait(self.round_trip / 2)
        yield self.packet(server, client, SYN | ACK)
        self.wait(self.round_trip / 2)
        yield self.packet(client, server, ACK)
        visitor = Visitor(rng)
        for number in range(self.requests):
            # A browser asks for the parts of a page at once; its user reads between pages.
            if number and rng.random() < 0.25:
                self.wait(rng.expovariate(1 / 2_000_000))
            else:
                self.wait(rng.randrange(4_000))
            request, response, status = transaction(rng, self.assets, visitor, self.now)
            self.tally[status] += 1
            yield from self.message(client, server, request)
            self.wait(self.round_trip + rng.expovariate(1 / 20_000))
            yield from self.message(server, client, response)
        first, second = (client, server) if rng.random() < 0.5 else (server, client)
        self.wait(rng.expovariate(1 / 5_000_000))
        yield self.packet(first, second, FIN | ACK)
        self.wait(self.round_trip / 2)
        yield self.packet(second, first, FIN | ACK)
        self.wait(self.round_trip / 2)
        yield self.packet(first, second, ACK)


# ---- the file -----------------------------------------------------------------------------------

def usual_bytes(seed, assets):
    """What a transaction takes in the file, on average."""
    rng = random.Random(seed)
    total = 0
    rounds = 3000
    for number in range(rounds):
        if number % 3 == 0:
            visitor = Visitor(rng)
        for message in transaction(rng, assets, visitor, START_US)[:2]:
            segments = -(-len(message) // SEGMENT)
            total += len(message) + OVERHEAD * (segments + -(-segments // 2))
    return total / rounds


def requests_of_connection(rng, mean):
    """At least one; most connections have few, some have many."""
    if mean <= 1.01:
        return 1
    return 1 + int(rng.expovariate(math.log(1 + 1 / (mean - 1))))


def write_capture(path, megabytes, connections, seed):
    rng = random.Random(seed)
    assets = make_assets(rng)
    target = megabytes * 10**6
    usual = usual_bytes(seed, assets)
    if target < connections * (usual + 6 * OVERHEAD):
        sys.exit("make_capture.py: %d connections do not fit into %g MB" % (connections, megabytes))
    starts = sorted((START_US + rng.randrange(connections * 10**6 // CONNECTIONS_A_SECOND + 1)
                     for _ in range(connections)), reverse=True)
    tally = collections.Counter()
    keys = set()
    queue = []  # (time, number of the connection, packet, the connection's further packets)
    requests = packets = size = most_open = 0
    with open(path, "wb", buffering=1 << 20) as file:
        size += file.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 262144, 1))
        while starts or queue:
            if starts and (not queue or starts[-1] <= queue[0][0]):
                # What is open already will take its part of the size; the rest is shared.
                open_bytes = (requests - sum(tally.values())) * usual
                count = requests_of_connection(
                    rng, (target - size - open_bytes) / len(starts) / usual)
                requests += count
                connection = Connection(rng, assets, count, tally)
                while connection.key in keys:
                    connection = Connection(rng, assets, count, tally)
                keys.add(connection.key)
                further = connection.packets(starts.pop())
                now, packet = next(further)
                heapq.heappush(queue, (now, len(starts), packet, further))
                most_open = max(most_open, len(queue))
                continue
            now, number, packet, further = queue[0]
            size += file.write(b"".join((struct.pack(
                "<IIII", *divmod(now, 10**6), len(packet), len(packet)), packet)))
            packets += 1
            following = next(further, None)
            if following:
                now, packet = following
                heapq.heapreplace(queue, (now, number, packet, further))
            else:
                heapq.heappop(queue)
    print("%s: %d packets, %d bytes, %d connections (%d at a time), %d transactions" % (
        path, packets, size, connections, most_open, sum(tally.values())))
    print("by status: " + ", ".join("%d x %d" % (tally[key], key) for key in sorted(tally)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--mb", type=float, default=250,
                        help="size in 10^6 bytes, about: small files may miss it by a fifth")
    parser.add_argument("--connections", type=int, default=5000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("output", metavar="OUT.pcap")
    arguments = parser.parse_args()
    if arguments.connections < 1 or arguments.mb <= 0:
        parser.error("there must be a connection and a size")
    write_capture(arguments.output, arguments.mb, arguments.connections, arguments.seed)


if __name__ == "__main__":
    main()
