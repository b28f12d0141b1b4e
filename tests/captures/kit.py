"""What the cases are made of: messages, packets, connections, owed rows and capture files."""

import struct

SYN, FIN, RST, PSH, ACK = 0x02, 0x01, 0x04, 0x08, 0x10
CLIENT, SERVER = 0, 1
START_NS = 1_700_000_000 * 10**9
STEP_NS = 1_000_789  # not a whole microsecond: times are cut to microseconds, never rounded
HOST = "Host: www.example.test"
HTML = "Content-Type: text/html"


def new_list_of_cases():
    """A list, and the decorator that puts a case into it; a case's name, with "-" for "_", names
    its files."""
    cases = []

    def case(function):
        cases.append((function.__name__.replace("_", "-"), function))
        return function
    return cases, case


def head(*lines):
    """The bytes of a message's head; a line is a text (Latin-1) or bytes."""
    parts = [line if isinstance(line, bytes) else line.encode("latin-1") for line in lines]
    return b"\r\n".join(parts) + b"\r\n\r\n"


def ok(body, *more, content_type="text/html"):
    """An ordinary response with a Content-Length; short bodies keep the cases readable."""
    return head("HTTP/1.1 200 OK", "Content-Type: " + content_type,
                "Content-Length: %d" % len(body), *more) + body


# ---- packets ------------------------------------------------------------------------------------

def checksum(data):
    """The Internet checksum of data."""
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total > 0xffff:
        total = (total & 0xffff) + (total >> 16)
    return 0xffff - total


def address_bytes(address):
    return bytes(int(part) for part in address.split("."))


def ip_packet(source, destination, protocol, payload, identification=0):
    fields = (0x45, 0, 20 + len(payload), identification, 0x4000, 64, protocol, 0,
              address_bytes(source), address_bytes(destination))
    header = struct.pack("!BBHHHBBH4s4s", *fields)
    return header[:10] + struct.pack("!H", checksum(header)) + header[12:] + payload


def tcp_segment(source, destination, seq, ack, flags, data=b""):
    """A TCP segment; source and destination are pairs of address and port."""
    options = b"\x02\x04\x05\xb4" if flags & SYN else b""  # largest segment 1460
    header = struct.pack("!HHIIBBHHH", source[1], destination[1], seq & 0xffffffff,
                         ack & 0xffffffff, (20 + len(options)) << 2, flags, 64240, 0, 0)
    segment = header + options + data
    pseudo = (address_bytes(source[0]) + address_bytes(destination[0])
              + struct.pack("!BBH", 0, 6, len(segment)))
    return segment[:16] + struct.pack("!H", checksum(pseudo + segment)) + segment[18:]


class Capture:
    """Packets with rising times, and the rows that are owed for them."""

    def __init__(self):
        self.now = START_NS
        self.frames = []  # (time in nanoseconds, Ethernet frame)
        self.rows = []  # lists of 15 fields
        self.identification = 0
        self.snap_length = 262144

    def wait(self, seconds):
        self.now += seconds * 10**9

    def add_frame(self, frame):
        """Adds a frame one step later than the last one and returns its time."""
        self.now += STEP_NS
        self.frames.append((self.now, frame))
        return self.now

    def add_ip(self, packet, kind=0x0800):
        macs = b"\x02\x00\x00\x00\x00\x02" + b"\x02\x00\x00\x00\x00\x01"
        return self.add_frame(macs + struct.pack("!H", kind) + packet)

    def add_segment(self, source, destination, seq, ack, flags, data=b""):
        assert len(data) <= 1460
        self.identification += 1
        segment = tcp_segment(source, destination, seq, ack, flags, data)
        return self.add_ip(ip_packet(source[0], destination[0], 6, segment, self.identification))

    def connect(self, client="10.0.0.5:40001", server="203.0.113.80:80", **options):
        return Connection(self, client, server, **options)

    def expected(self, watched_only=False):
        rows = [row for row in self.rows if row[11] == "1" or not watched_only]
        return "".join("\t".join(row) + "\n" for row in rows).encode("ascii")


class Connection:
    """One TCP connection; what one end sends is acknowledged by the other at once."""

    def __init__(self, capture, client, server, handshake=True, starts=(1000, 5000)):
        self.capture = capture
        self.ends = []
        for text in (client, server):
            address, port = text.split(":")
            self.ends.append((address, int(port)))
        self.starts = list(starts)  # sequence number of each end's first byte
        self.next = [0, 0]  # bytes that each end has sent
        if handshake:
            self._packet(CLIENT, SYN, at=-1)
            self._packet(SERVER, SYN | ACK, at=-1)
            self._packet(CLIENT, ACK)

    def _packet(self, side, flags, data=b"", at=None):
        """Sends one packet; at is the place of its data in what the side sends."""
        offset = self.next[side] if at is None else at
        ack = self.starts[1 - side] + self.next[1 - side] if flags & ACK else 0
        time = self.capture.add_segment(self.ends[side], self.ends[1 - side],
                                        self.starts[side] + offset, ack, flags, data)
        self.next[side] = max(self.next[side], offset + len(data))
        return time

    def send(self, side, *segments, acknowledged=True):
        """Sends bytes, a packet for each argument; returns the time of the first packet."""
        times = []
        for data in segments:
            times.append(self._packet(side, PSH | ACK, data))
            if acknowledged:
                self._packet(1 - side, ACK)
        return times[0]

    def client(self, *segments, **options):
        return self.send(CLIENT, *segments, **options)

    def server(self, *segments, **options):
        return self.send(SERVER, *segments, **options)

    def lose(self, side, data, acknowledged=True):
        """The side sends bytes that the capture does not have; the other end has them."""
        self.next[side] += len(data)
        if acknowledged:
            self._packet(1 - side, ACK)

    def send_at(self, side, offset, data):
        """Sends bytes out of turn: lost and late packets, repetitions."""
        return self._packet(side, PSH | ACK, data, at=offset)

    def fin(self, side, data=b""):
        """Ends what one side sends, in one packet with its last bytes."""
        self._packet(side, FIN | ACK, data)
        self.next[side] += 1
        self._packet(1 - side, ACK)

    def close(self, first=SERVER):
        self.fin(first)
        self.fin(1 - first)

    def reset(self, side=SERVER):
        self._packet(side, RST | ACK)

    def row(self, time, text):
        """Owes a row, now; text begins with the method."""
        fields = text.split()
        assert len(fields) == 10, text
        (client, client_port), (server, server_port) = self.ends
        stamp = "%d.%06d" % divmod(time // 1000, 10**6)
        self.capture.rows.append(
            [stamp, client, str(client_port), server, str(server_port)] + fields)

    def exchange(self, request, response, row):
        """A request and its response, each in one packet, and the row that is owed for them."""
        time = self.client(request)
        self.server(response)
        self.row(time, row)


# ---- files --------------------------------------------------------------------------------------

def pcap_file(frames, order="<", nanoseconds=False, link=1, snap_length=262144):
    magic = 0xa1b23c4d if nanoseconds else 0xa1b2c3d4
    parts = [struct.pack(order + "IHHiIII", magic, 2, 4, 0, 0, 262144, link)]
    for time, whole in frames:
        frame = whole[:snap_length]
        seconds, rest = divmod(time, 10**9)
        rest = rest if nanoseconds else rest // 1000
        parts.append(struct.pack(order + "IIII", seconds, rest, len(frame), len(whole)) + frame)
    return b"".join(parts)


def pcapng_file(frames, interfaces=1):
    """The packets come from the interfaces in turn; the second one has IP packets alone, another snap
    length, and counts in nanoseconds; the last packet is in a section of the other byte order."""
    def block(kind, body):
        body += b"\0" * (-len(body) % 4)
        size = struct.pack("<I", len(body) + 12)
        return struct.pack("<I", kind) + size + body + size

    parts = [block(0x0a0d0d0a, struct.pack("<IHHq", 0x1a2b3c4d, 1, 0, -1)),
             block(1, struct.pack("<HHI", 1, 0, 262144)),
             block(0x0bad, b"a kind of block that nobody knows, to be skipped")]
    if interfaces > 1:
        resolution = struct.pack("<HHB3xHH", 9, 1, 9, 0, 0)
        parts.append(block(1, struct.pack("<HHI", 101, 0, 65535) + resolution))
    for number, (time, frame) in enumerate(frames):
        interface = number % interfaces
        if interfaces > 1 and number + 1 == len(frames):
            parts.append(other_section(time, frame))
            break
        if interface:
            frame = frame[14:]
        high, low = divmod(time if interface else time // 1000, 2**32)
        parts.append(block(6, struct.pack("<IIIII", interface, high, low, len(frame), len(frame))
                           + frame))
    return b"".join(parts)


def other_section(time, frame):
    """A section of big-endian numbers with one interface and one packet."""
    def block(kind, body):
        body += b"\0" * (-len(body) % 4)
        size = struct.pack(">I", len(body) + 12)
        return struct.pack(">I", kind) + size + body + size

    high, low = divmod(time // 1000, 2**32)
    return (block(0x0a0d0d0a, struct.pack(">IHHq", 0x1a2b3c4d, 1, 0, -1))
            + block(1, struct.pack(">HHI", 1, 0, 0))
            + block(6, struct.pack(">IIIII", 0, high, low, len(frame), len(frame)) + frame))


def tagged(frames, *tags):
    """Each frame with VLAN tags, (type, number) from the outer to the inner."""
    inserted = b"".join(struct.pack("!HH", kind, number) for kind, number in tags)
    return [(time, frame[:12] + inserted + frame[12:]) for time, frame in frames]


def doubled(frames):
    """Each packet captured twice, as on a mirror port."""
    return [pair for time, frame in frames for pair in ((time, frame), (time, frame))]


def fragmented(frames, size=24):
    """Each IP packet in fragments, the last one first; all have the time of the packet."""
    result = []
    for time, frame in frames:
        ethernet, packet = frame[:14], frame[14:]
        payload = packet[20:]
        pieces = [payload[at:at + size] for at in range(0, len(payload), size)]
        for number, piece in reversed(list(enumerate(pieces))):
            offset = number * size // 8 | (0x2000 if number + 1 < len(pieces) else 0)
            header = packet[:2] + struct.pack("!H", 20 + len(piece)) + packet[4:6]
            header += struct.pack("!H", offset) + packet[8:10] + b"\0\0" + packet[12:20]
            header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
            result.append((time, ethernet + header + piece))
    return result


def loopback(frames):
    """As BSD captures its loopback device (link type 0)."""
    return [(time, b"\2\0\0\0" + frame[14:]) for time, frame in frames]


def cooked2(frames):
    """As newer Linux captures the device "any" (link type 276)."""
    return [(time, struct.pack("!HHIHBB8s", 0x0800, 0, 1, 1, 0, 6, frame[6:12]) + frame[14:])
            for time, frame in frames]


def without_ethernet(frames):
    """The IP packets alone (link type 101)."""
    return [(time, frame[14:]) for time, frame in frames]


def cooked(frames):
    """As Linux captures the device "any" (link type 113)."""
    return [(time, struct.pack("!HHH8s", 0, 1, 6, frame[6:12]) + frame[12:])
            for time, frame in frames]
