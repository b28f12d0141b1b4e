"""Cases: how bytes arrive, and damage of all kinds."""

import struct

from kit import (ACK, CLIENT, FIN, HOST, HTML, PSH, RST, SERVER, SYN, head, ip_packet,
                 new_list_of_cases, ok, tcp_segment)

CASES, case = new_list_of_cases()


# ---- how bytes arrive --------------------------------------------------------------------

@case
def small_segments(capture):
    """Three bytes a packet, acknowledged once; the time is that of the very first byte."""
    connection = capture.connect()

    def crumbs(data):
        return [data[i:i + 3] for i in range(0, len(data), 3)]

    time = connection.client(*crumbs(head("GET /crumbs HTTP/1.1", HOST)), acknowledged=False)
    connection.server(*crumbs(ok(b"slowly")), acknowledged=False)
    connection.row(time, "GET www.example.test /crumbs 200 text/html 6  1 1 1 1")
    connection.close()


@case
def reordered(capture):
    """Late, repeated and overlapping packets, and sequence numbers that pass their end."""
    connection = capture.connect(starts=(0xffffffff, 0xffffffe0))
    request = head("GET /late HTTP/1.1", HOST)
    response = ok(b"0123456789" * 4)
    connection.send_at(CLIENT, 10, request[10:])
    time = connection.send_at(CLIENT, 0, request[:10])
    connection.send_at(CLIENT, 0, request)  # the client missed the acknowledgement
    connection.send_at(SERVER, 0, response[:30])
    connection.send_at(SERVER, 60, response[60:90])
    connection.send_at(SERVER, 90, response[90:])
    connection.send_at(SERVER, 60, response[60:90])
    connection.send_at(SERVER, 20, response[20:70])  # closes the gap and overlaps both ends
    connection.row(time, "GET www.example.test /late 200 text/html 40  1 1 1 1")
    connection.exchange(
        head("GET /after HTTP/1.1", HOST),
        ok(b"in step"),
        "GET www.example.test /after 200 text/html 7  1 1 1 1")
    connection.close()


@case
def already_open(capture):
    """The capture begins within a connection, in the middle of a body."""
    connection = capture.connect(handshake=False, starts=(70_000, 90_000))
    connection.server(b"the end of some page</p>")
    connection.exchange(
        head("GET /seen HTTP/1.1", HOST),
        ok(b"whole"),
        "GET www.example.test /seen 200 text/html 5  1 1 1 1")
    connection.exchange(
        head("GET /next HTTP/1.1", HOST),
        ok(b"also"),
        "GET www.example.test /next 200 text/html 4  1 1 1 1")
    connection.close()


@case
def unanswered(capture):
    """Requests without an answer: the connection ends, breaks, or the file ends."""
    connection = capture.connect("10.0.0.5:40001")
    time = connection.client(head("GET /closed HTTP/1.1", HOST))
    connection.close()
    connection.row(time, "GET www.example.test /closed - - 0  1 0 0 0")

    connection = capture.connect("10.0.0.5:40002")
    time = connection.client(head("GET /reset HTTP/1.1", HOST))
    connection.reset()
    connection.row(time, "GET www.example.test /reset - - 0  1 0 0 0")

    # Two of three are answered; only an interim answer comes to the last one.
    connection = capture.connect("10.0.0.5:40003")
    time = connection.client(head("GET /1 HTTP/1.1", HOST) + head("GET /2 HTTP/1.1", HOST)
                             + head("POST /3 HTTP/1.1", HOST, "Content-Length: 0"))
    connection.server(ok(b"one") + ok(b"two"))
    connection.server(head("HTTP/1.1 100 Continue"))
    connection.close()
    connection.row(time, "GET www.example.test /1 200 text/html 3  1 1 1 1")
    connection.row(time, "GET www.example.test /2 200 text/html 3  1 1 1 1")
    connection.row(time, "POST www.example.test /3 - - 0  1 0 0 0")

    connection = capture.connect("10.0.0.5:40004")
    time = connection.client(head("GET /waiting HTTP/1.1", HOST))
    connection.row(time, "GET www.example.test /waiting - - 0  1 0 0 0")


@case
def broken_off(capture):
    """Bodies that end too early count as far as they came."""
    connection = capture.connect("10.0.0.5:40001")
    time = connection.client(head("GET /length HTTP/1.1", HOST))
    connection.server(head("HTTP/1.1 200 OK", HTML, "Content-Length: 1000") + b"0123456789")
    connection.reset()
    connection.row(time, "GET www.example.test /length 200 text/html 10  1 1 1 1")

    # A whole chunk of 4 and 3 of 16 bytes.
    connection = capture.connect("10.0.0.5:40002")
    time = connection.client(head("GET /chunks HTTP/1.1", HOST))
    connection.server(head("HTTP/1.1 200 OK", HTML, "Transfer-Encoding: chunked")
                      + b"4\r\n0123\r\n10\r\n456")
    connection.close()
    connection.row(time, "GET www.example.test /chunks 200 text/html 7  1 1 1 1")

    connection = capture.connect("10.0.0.5:40003")
    time = connection.client(head("GET /file-ends HTTP/1.0", HOST))
    connection.server(head("HTTP/1.0 200 OK", HTML) + b"<p>and so")
    connection.row(time, "GET www.example.test /file-ends 200 text/html 9  1 1 1 1")


# ---- damage ------------------------------------------------------------------------------

@case
def hostile_packets(capture):
    """Broken and foreign packets between those of a connection; checksums are wrong on purpose."""
    connection = capture.connect()
    time = connection.client(head("GET /safe HTTP/1.1", HOST))
    liar, victim = ("10.0.0.9", 50000), ("203.0.113.80", 80)
    good = ip_packet(liar[0], victim[0], 6, tcp_segment(liar, victim, 1, 1, ACK, b"x"))

    def changed(*changes):
        packet = bytearray(good)
        for offset, value in changes:
            packet[offset] = value
        return bytes(packet)

    capture.add_frame(b"")
    capture.add_frame(b"\x02\0\0\0\0")
    for packet in (
            b"",
            good[:1],
            good[:19],
            good[:20],
            good[:28],  # a TCP header cut off
            good[:39],
            changed((0, 0x4f)),  # an IP header of 60 bytes
            changed((0, 0x40)),  # of none
            changed((0, 0x41)),
            changed((0, 0x65)),  # of version 6
            changed((2, 0xff), (3, 0xff)),  # a length beyond the packet
            changed((2, 0), (3, 10)),  # within the header
            changed((2, 0), (3, 0)),
            changed((32, 0xf0)),  # a TCP header of 60 bytes
            changed((32, 0x00)),  # of none
            changed((32, 0x40)),
            changed((6, 0x20), (7, 0xff)),  # a fragment from somewhere
            changed((9, 17)),  # UDP, with a length out of the sequence number
            changed((9, 1)),  # ICMP
            changed((9, 4)),  # IP in IP
            changed((9, 255))):
        capture.add_ip(packet)
    capture.add_ip(struct.pack("!HHBBH", 1, 0x0800, 6, 4, 1) + b"\0" * 20, kind=0x0806)  # ARP
    capture.add_ip(b"\x60" + b"\0" * 3 + b"\x00\x14\x06\x40" + b"\xfe\x80" * 16 + good[20:40],
                   kind=0x86dd)  # IPv6
    capture.add_ip(b"\xff\xff\x81\x00\x00", kind=0x8100)  # a VLAN tag cut off
    capture.add_ip(good, kind=0x0005)
    # TCP flags that make no sense together, on ports of their own.
    for port, flags in enumerate((0, SYN | FIN, SYN | RST, FIN | PSH | 0x20, 0xff), 50001):
        capture.add_segment((liar[0], port), victim, 1, 1, flags, b"y")
    connection.server(ok(b"sound"))
    connection.row(time, "GET www.example.test /safe 200 text/html 5  1 1 1 1")
    connection.close()


@case
def cut_record(capture):
    """The file ends within a packet; what was whole before it counts."""
    connection = capture.connect()
    connection.exchange(
        head("GET /whole HTTP/1.1", HOST),
        ok(b"whole"),
        "GET www.example.test /whole 200 text/html 5  1 1 1 1")
    connection.client(head("GET /cut HTTP/1.1", HOST), acknowledged=False)
