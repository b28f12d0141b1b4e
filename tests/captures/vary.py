#!/usr/bin/env python3
"""Makes impolite captures from a polite one, and checks that kp-capture prints the same lines for them.

    vary.py IN.pcap VARIATION OUT.pcap     VARIATION: one of those below
    vary.py --check KP-CAPTURE FOLDER      all variations of the polite captures of this folder; FOLDER
                                           is an installation, scratch files go there

The capture is Ethernet, IPv4 and TCP without options but on a SYN. Times stay those of the packets, so
that the lines are the same down to the last digit wherever the information is complete. Where packets
of several connections are put in another order, the lines may be, too. Where a whole direction is late
and its packets have the times at which they were captured, the requests have them, too.
"""

import os
import random
import struct
import subprocess
import sys

from kit import (ACK, CLIENT, SERVER, SYN, cooked, cooked2, doubled, fragmented, loopback, pcap_file, tagged,
                 tcp_segment, ip_packet, without_ethernet)

POLITE = ("chunked", "entry-points", "escapes", "header-forms", "interim-answers", "interleaved", "methods",
          "no-body", "pipelining", "until-close", "visit")


def read_pcap(path):
    with open(path, "rb") as file:
        data = file.read()
    frames, at = [], 24
    while at + 16 <= len(data):
        seconds, micros, length, _ = struct.unpack("<IIII", data[at:at + 16])
        frames.append((seconds * 10**9 + micros * 1000, data[at + 16:at + 16 + length]))
        at += 16 + length
    return frames


class Segment:
    """The parts of a frame, and the frame made of them again."""

    def __init__(self, frame):
        self.ethernet, ip, tcp = frame[:14], frame[14:34], frame[34:]
        ports = struct.unpack("!HH", tcp[:4])
        self.source = (".".join(map(str, ip[12:16])), ports[0])
        self.destination = (".".join(map(str, ip[16:20])), ports[1])
        self.seq, self.ack = struct.unpack("!II", tcp[4:12])
        self.flags = tcp[13]
        self.data = tcp[(tcp[12] >> 4) * 4:]

    def frame(self, seq=None, ack=None, data=None, flags=None):
        segment = tcp_segment(self.source, self.destination,
                              self.seq if seq is None else seq, self.ack if ack is None else ack,
                              self.flags if flags is None else flags,
                              self.data if data is None else data)
        return self.ethernet + ip_packet(self.source[0], self.destination[0], 6, segment)


def cut(frames, size):
    """Each segment in segments of so many bytes; a FIN stays with the last one."""
    result = []
    for time, frame in frames:
        segment = Segment(frame)
        pieces = range(0, len(segment.data), size) or [0]
        for at in pieces:
            is_last = at + size >= len(segment.data)
            flags = segment.flags if is_last else segment.flags & ~1
            result.append((time, segment.frame(seq=segment.seq + at, flags=flags,
                                               data=segment.data[at:at + size])))
    return result


def shuffled(frames, seed=1):
    """Cut, and the pieces of each segment in any order."""
    order = random.Random(seed)
    result = []
    for time, frame in frames:
        pieces = cut([(time, frame)], 7)
        order.shuffle(pieces)
        result += pieces
    return result


def wrapped(frames):
    """Sequence numbers that pass their end within each direction."""
    offsets = {}
    for _, frame in frames:
        segment = Segment(frame)
        if segment.flags & SYN:
            offsets[segment.source, segment.destination] = (1 << 32) - 20 - segment.seq
    result = []
    for time, frame in frames:
        segment = Segment(frame)
        ours = offsets.get((segment.source, segment.destination), 0)
        theirs = offsets.get((segment.destination, segment.source), 0)
        ack = segment.ack + theirs if segment.flags & ACK else 0
        result.append((time, segment.frame(seq=segment.seq + ours, ack=ack)))
    return result


def without_start(frames):
    """The captures begins when the connections are open."""
    return [(time, frame) for time, frame in frames
            if not Segment(frame).flags & SYN]


def retransmitted(frames):
    """Every segment again, after the one that follows it."""
    result, last = [], None
    for item in frames:
        result.append(item)
        if last is not None:
            result.append((item[0], last[1]))
        last = item
    return result + [last]


def clients(frames):
    """The directions, (source, destination), that a client sends in."""
    starts = (Segment(frame) for _, frame in frames)
    return {(start.source, start.destination) for start in starts if start.flags & (SYN | ACK) == SYN}


def is_from(side, frame, client_directions):
    segment = Segment(frame)
    return side == BOTH or ((segment.source, segment.destination) in client_directions) == (side == CLIENT)


def delayed(frames, side, packets=0, seed=1):
    """Each segment with data of one side behind the next packets, as many as said, or one to three."""
    order = random.Random(seed)
    client_directions = clients(frames)
    places = []
    for place, (time, frame) in enumerate(frames):
        if Segment(frame).data and is_from(side, frame, client_directions):
            place += (packets or order.randint(1, 3)) + 0.5
        places.append((place, time, frame))
    return [(time, frame) for _, time, frame in sorted(places, key=lambda item: item[0])]


def late(frames, side, milliseconds, shifted=False):
    """All packets of one side so much later; shifted: with the times to match."""
    client_directions = clients(frames)
    moved = []
    for time, frame in frames:
        lag = milliseconds * 10**6 if is_from(side, frame, client_directions) else 0
        moved.append((time + lag, time + lag if shifted else time, frame))
    return [(time, frame) for _, time, frame in sorted(moved, key=lambda item: item[0])]


def with_later_requests(lines, milliseconds):
    result = []
    for line in lines:
        seconds, micros = line.split(b"\t")[0].split(b".")
        moved = int(seconds) * 10**6 + int(micros) + milliseconds * 1000
        result.append(b"%d.%06d" % divmod(moved, 10**6) + line[line.index(b"\t"):])
    return result


BOTH = None
VARIATIONS = {
    "cut-1": (lambda frames: cut(frames, 1), 1),
    "cut-13": (lambda frames: cut(frames, 13), 1),
    "shuffled": (shuffled, 1),
    "wrapped": (wrapped, 1),
    "wrapped-and-shuffled": (lambda frames: shuffled(wrapped(frames)), 1),
    "without-start": (without_start, 1),
    "doubled": (doubled, 1),
    "retransmitted": (retransmitted, 1),
    "fragmented": (fragmented, 1),
    "tagged": (lambda frames: tagged(frames, (0x8100, 5)), 1),
    "tagged-twice": (lambda frames: tagged(frames, (0x88a8, 5), (0x8100, 6)), 1),
    "cooked": (cooked, 113),
    "cooked2": (cooked2, 276),
    "raw-ip": (without_ethernet, 101),
    "loopback": (loopback, 0),
}
# In another order: what is changed, and how much later the requests are.
REORDERINGS = {}
for _side, _name in ((CLIENT, "client"), (SERVER, "server"), (BOTH, "both")):
    for _packets in (1, 2, 3, 0):
        REORDERINGS["%s-delayed-%s" % (_name, _packets or "randomly")] = (
            lambda frames, side=_side, packets=_packets: delayed(frames, side, packets), 0)
for _side, _name in ((CLIENT, "client"), (SERVER, "server")):
    for _lag in (3, 45, 200, 500):
        REORDERINGS["%s-late-%d" % (_name, _lag)] = (
            lambda frames, side=_side, lag=_lag: late(frames, side, lag), 0)
        REORDERINGS["%s-late-%d-shifted" % (_name, _lag)] = (
            lambda frames, side=_side, lag=_lag: late(frames, side, lag, shifted=True),
            _lag if _side == CLIENT else 0)


def printed(program, folder, frames, link=1):
    """The status and the lines of kp-capture for these packets."""
    scratch = os.path.join(folder, "varied.pcap")
    with open(scratch, "wb") as file:
        file.write(pcap_file(frames, link=link))
    run = subprocess.run([program, "--dir", folder, "--print", "--all", "--replay", scratch],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    return run.returncode, run.stdout.splitlines()


def check(program, folder):
    here = os.path.dirname(os.path.abspath(__file__))
    differences = wrong = 0

    def compare(name, variation, got, expected):
        nonlocal differences, wrong
        status, lines = got
        if status == 0 and lines == expected:
            return
        differences += 1
        unexpected = [line for line in lines if line not in expected]
        wrong += len(unexpected)
        print("%s, %s: status %d, %d lines of %d; not expected:" % (name, variation, status, len(lines),
                                                                    len(expected)))
        print(b"\n".join(unexpected).decode())

    for name in POLITE:
        frames = read_pcap(os.path.join(here, name + ".pcap"))
        with open(os.path.join(here, name + ".expected"), "rb") as file:
            expected = file.read().splitlines()
        for variation, (change, link) in VARIATIONS.items():
            compare(name, variation, printed(program, folder, change(frames), link), expected)
        for variation, (change, lag) in REORDERINGS.items():
            status, lines = printed(program, folder, change(frames))
            compare(name, variation, (status, sorted(lines)), sorted(with_later_requests(expected, lag)))
    print("%d captures, %d variations, %d differences, %d wrong rows"
          % (len(POLITE), len(VARIATIONS) + len(REORDERINGS), differences, wrong))
    return differences != 0


def main():
    if len(sys.argv) == 4 and sys.argv[1] == "--check":
        sys.exit(check(sys.argv[2], sys.argv[3]))
    known = {**VARIATIONS, **{name: (change, 1) for name, (change, _) in REORDERINGS.items()}}
    if len(sys.argv) != 4 or sys.argv[2] not in known:
        sys.exit(__doc__ + "\nVariations: " + ", ".join(known))
    change, link = known[sys.argv[2]]
    with open(sys.argv[3], "wb") as file:
        file.write(pcap_file(change(read_pcap(sys.argv[1])), link=link))


if __name__ == "__main__":
    main()
