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


# ---- what the capture does not have ----------------------------------------------------------

@case
def lost_in_bodies(capture):
    """A lost segment within a body is stepped over by the body's length."""
    connection = capture.connect("10.0.0.5:40001")
    body = b"0123456789" * 60
    response = ok(body)
    start = len(response) - len(body)
    time = connection.client(head("GET /length HTTP/1.1", HOST))
    connection.server(response[:start + 100])
    connection.lose(SERVER, response[start + 100:start + 450])
    connection.server(response[start + 450:])
    after = connection.client(head("GET /after HTTP/1.1", HOST))
    connection.server(ok(b"in step"))
    connection.row(time, "GET www.example.test /length 200 text/html 250  1 1 1 1")
    connection.row(after, "GET www.example.test /after 200 text/html 7  1 1 1 1")
    connection.close()
    capture.wait(15)

    # Within one chunk.
    connection = capture.connect("10.0.0.5:40002")
    time = connection.client(head("GET /chunk HTTP/1.1", HOST))
    connection.server(head("HTTP/1.1 200 OK", HTML, "Transfer-Encoding: chunked") + b"40\r\n0123")
    connection.lose(SERVER, b"4" * 0x30)
    connection.server(b"x" * 12 + b"\r\n0\r\n\r\n")
    after = connection.client(head("GET /next HTTP/1.1", HOST))
    connection.server(ok(b"next"))
    connection.row(time, "GET www.example.test /chunk 200 text/html 16  1 1 1 1")
    connection.row(after, "GET www.example.test /next 200 text/html 4  1 1 1 1")
    connection.close()
    capture.wait(15)

    # The last segment before the end, and a request's body.
    connection = capture.connect("10.0.0.5:40003")
    time = connection.client(head("POST /form HTTP/1.1", HOST, "Content-Length: 20") + b"01234")
    connection.lose(CLIENT, b"x" * 15)
    connection.server(head("HTTP/1.1 200 OK", HTML, "Content-Length: 50") + b"0123456789")
    connection.lose(SERVER, b"y" * 40)
    connection.row(time, "POST www.example.test /form 200 text/html 10  1 1 1 1")
    connection.close()


@case
def lost_heads(capture):
    """A header block that misses a part is dropped; the connection is found again behind it."""
    connection = capture.connect("10.0.0.5:40001")
    first = connection.client(head("GET /broken HTTP/1.1", HOST))
    response = ok(b"whole")
    connection.server(response[:30])
    connection.lose(SERVER, response[30:])
    second = connection.client(head("GET /after HTTP/1.1", HOST))
    connection.server(ok(b"after"))
    connection.row(first, "GET www.example.test /broken - - 0  1 0 0 0")
    connection.row(second, "GET www.example.test /after 200 text/html 5  1 1 1 1")
    connection.close()
    capture.wait(15)

    # The same for a request; its answer is nobody's.
    connection = capture.connect("10.0.0.5:40002")
    request = head("GET /lost HTTP/1.1", HOST, "X-Long: " + "x" * 50)
    connection.client(request[:40])
    connection.lose(CLIENT, request[40:])
    connection.server(ok(b"lost"))
    second = connection.client(head("GET /seen HTTP/1.1", HOST))
    connection.server(ok(b"four"))
    connection.row(second, "GET www.example.test /seen 200 text/html 4  1 1 1 1")
    connection.close()


@case
def lost_messages(capture):
    """Answers and requests that are missing as a whole do not shift those that come later."""
    def exchange(connection, number):
        time = connection.client(head("GET /%d HTTP/1.1" % number, HOST))
        connection.server(ok(b"x" * number))
        return time

    connection = capture.connect("10.0.0.5:40001")
    times = [exchange(connection, 1), connection.client(head("GET /2 HTTP/1.1", HOST))]
    connection.row(times[0], "GET www.example.test /1 200 text/html 1  1 1 1 1")
    connection.lose(SERVER, ok(b"lost"))
    times += [exchange(connection, 3), exchange(connection, 4)]
    connection.row(times[1], "GET www.example.test /2 - - 0  1 0 0 0")
    connection.row(times[2], "GET www.example.test /3 200 text/html 3  1 1 1 1")
    connection.row(times[3], "GET www.example.test /4 200 text/html 4  1 1 1 1")
    connection.close()
    capture.wait(15)

    connection = capture.connect("10.0.0.5:40002")
    time = exchange(connection, 1)
    connection.row(time, "GET www.example.test /1 200 text/html 1  1 1 1 1")
    connection.lose(CLIENT, head("GET /2 HTTP/1.1", HOST))
    connection.server(ok(b"nobody's"))
    times = [exchange(connection, 3), exchange(connection, 4)]
    connection.row(times[0], "GET www.example.test /3 200 text/html 3  1 1 1 1")
    connection.row(times[1], "GET www.example.test /4 200 text/html 4  1 1 1 1")
    connection.close()


@case
def lost_in_pipelines(capture):
    """Where a client does not wait for answers, nobody knows which one is whose behind a loss."""
    def request(number):
        return head("GET /%d HTTP/1.1" % number, HOST)

    # The second of three requests; the answer to the third is sent after a fourth has come.
    connection = capture.connect("10.0.0.5:40001")
    times = [connection.client(request(1))]
    connection.lose(CLIENT, request(2), acknowledged=False)
    times.append(connection.client(request(3)))
    connection.server(ok(b"1"))
    connection.row(times[0], "GET www.example.test /1 200 text/html 1  1 1 1 1")
    connection.server(ok(b"22"))
    times.append(connection.client(request(4)))
    connection.server(ok(b"333"))
    connection.server(ok(b"4444"))
    connection.row(times[1], "GET www.example.test /3 - - 0  1 0 0 0")
    connection.row(times[2], "GET www.example.test /4 - - 0  1 0 0 0")
    connection.close()
    capture.wait(15)

    # Both sides keep one message on its way, and the first answer is lost.
    connection = capture.connect("10.0.0.5:40002")
    times = [connection.client(request(1)), connection.client(request(2))]
    connection.lose(SERVER, ok(b"1"))
    times.append(connection.client(request(3)))
    connection.server(ok(b"22"))
    times.append(connection.client(request(4)))
    connection.server(ok(b"333"))
    for number, time in enumerate(times, 1):
        connection.row(time, "GET www.example.test /%d - - 0  1 0 0 0" % number)
    connection.close()


@case
def lost_and_patient(capture):
    """A gap that stays open is stepped over while the connection lasts; one side may be all."""
    connection = capture.connect("10.0.0.5:40001")
    time = connection.client(head("GET /live HTTP/1.1", HOST))
    connection.server(head("HTTP/1.1 200 OK", HTML, "Content-Length: 30") + b"0123456789")
    connection.lose(SERVER, b"x" * 10)
    connection.server(b"0123456789")
    capture.wait(3)
    connection.row(time, "GET www.example.test /live 200 text/html 20  1 1 1 1")
    time = connection.client(head("GET /later HTTP/1.1", HOST))
    connection.server(ok(b"later"))
    connection.row(time, "GET www.example.test /later 200 text/html 5  1 1 1 1")

    # Nobody acknowledges what is missing: the other side is not in the capture.
    alone = capture.connect("10.0.0.5:40002", handshake=False)
    first = alone.client(head("GET /alone HTTP/1.1", HOST), acknowledged=False)
    alone.lose(CLIENT, head("GET /missing HTTP/1.1", HOST), acknowledged=False)
    second = alone.client(head("GET /behind HTTP/1.1", HOST), acknowledged=False)
    capture.wait(7)
    third = alone.client(head("GET /last HTTP/1.1", HOST), acknowledged=False)
    for row, name in ((first, "alone"), (second, "behind"), (third, "last")):
        alone.row(row, "GET www.example.test /%s - - 0  1 0 0 0" % name)


@case
def odd_orders(capture):
    """Order of capture that is not the order of sending, and strays."""
    # The SYN-ACK and the request before the SYN.
    connection = capture.connect("10.0.0.5:40001", handshake=False)
    connection._packet(SERVER, SYN | ACK, at=-1)
    time = connection.client(head("GET /early HTTP/1.1", HOST), acknowledged=False)
    connection._packet(CLIENT, SYN, at=-1)
    connection.server(ok(b"early"))
    connection.row(time, "GET www.example.test /early 200 text/html 5  1 1 1 1")
    connection.close()

    # The last bytes behind both ends.
    connection = capture.connect("10.0.0.5:40002")
    response = ok(b"0123456789")
    time = connection.client(head("GET /behind HTTP/1.1", HOST))
    connection.server(response[:-4])
    place = connection.next[SERVER]
    connection.lose(SERVER, response[-4:], acknowledged=False)
    connection.fin(SERVER)
    connection.fin(CLIENT)
    connection.send_at(SERVER, place, response[-4:])
    connection.row(time, "GET www.example.test /behind 200 text/html 10  1 1 1 1")

    # A stray segment far ahead, and a connection that goes on for long.
    connection = capture.connect("10.0.0.5:40003")
    for number in range(1, 4):
        connection.exchange(head("GET /%d HTTP/1.1" % number, HOST), ok(b"x" * number),
                            "GET www.example.test /%d 200 text/html %d  1 1 1 1" % (number, number))
        if number == 1:
            connection._packet(SERVER, ACK, b"stray", at=50_000_000)
            connection.next[SERVER] -= 50_000_005 - len(ok(b"x"))
        capture.wait(4)
    connection.close()

    # A tunnel, the last packet of which is captured twice.
    connection = capture.connect("10.0.0.5:40004")
    time = connection.client(head("CONNECT h:443 HTTP/1.1"))
    connection.server(head("HTTP/1.1 200 Yes"))
    connection.row(time, "CONNECT - h:443 200 - 0  1 0 1 0")
    inner = head("GET /inner HTTP/1.1", HOST)
    connection.client(inner)
    connection.fin(SERVER)
    connection.fin(CLIENT, inner)
    connection.send_at(CLIENT, connection.next[CLIENT] - 1 - len(inner), inner)


@case
def snapped(capture):
    """Packets that are cut at the snap length: what was seen of a body counts."""
    capture.snap_length = 54 + 120
    connection = capture.connect()
    short = head("HTTP/1.1 200 OK", HTML, "Content-Length: 300")
    for number in (1, 2):
        time = connection.client(head("GET /%d HTTP/1.1" % number, HOST))
        connection.server(short + b"x" * 200, b"y" * 100)
        connection.row(time, "GET www.example.test /%d 200 text/html %d  1 1 1 1"
                       % (number, 120 - len(short) + 100))
    connection.close()


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
