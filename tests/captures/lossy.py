#!/usr/bin/env python3
"""Checks that kp-capture makes no wrong row of a capture from which packets were removed.

    lossy.py --check KP-CAPTURE FOLDER [SEEDS]     FOLDER is an installation; scratch files go there

Plays conversations over keep-alive connections, some of them pipelined in different ways, as a tap at
either end would capture them; removes packets at random, and compares every row with what was asked and
answered. An answer, or a request, may be missing. An answer that is another request's is a fault.
"""

import os
import random
import subprocess
import sys

from kit import ACK, CLIENT, FIN, HOST, PSH, SERVER, SYN, head, ip_packet, pcap_file, tcp_segment

RATES = (0, 0.005, 0.02, 0.05, 0.10)
STYLES = ("turns", "burst", "packed-burst", "window", "at-will")
TYPES = ("text/html", "text/plain", "image/png", "application/json")


class Conversation:
    """One connection; what was sent is on its way for a while, in order."""

    def __init__(self, order, number, exchanges):
        self.order = order
        self.ends = (("10.0.%d.%d" % divmod(number, 250), 20000 + number), ("203.0.113.80", 80))
        self.tap = order.choice((CLIENT, SERVER))
        self.style = order.choice(STYLES)
        self.depth = order.randint(2, 4)
        self.sent = [order.randrange(1 << 32), order.randrange(1 << 32)]  # next numbers
        self.got = [self.sent[SERVER], self.sent[CLIENT]]  # what each end has received
        self.on_the_way = [[], []]
        self.outbox = [[], []]  # (payload, what is complete with it)
        self.asked = self.arrived = self.answered = self.done = 0
        self.exchanges = [self.exchange(number, i) for i in range(exchanges)]
        self.ended = [False, False]
        self.packets = []  # (source side, packet)

    def exchange(self, number, index):
        order = self.order
        method = order.choice(("GET", "GET", "GET", "HEAD", "POST"))
        target = "/%d/%d" % (number, index)
        status = order.choice((200, 200, 200, 404, 500, 304, 204))
        kind = order.choice(TYPES)
        body = b"x" * order.choice((0, 1, 20, 300, 2000, 7000))
        fields = ["HTTP/1.1 %d X" % status, "Content-Type: " + kind]
        if order.random() < 0.3:
            fields.append("Transfer-Encoding: chunked")
            content = b"".join(b"%x\r\n" % len(body[at:at + 900]) + body[at:at + 900] + b"\r\n"
                               for at in range(0, len(body), 900)) + b"0\r\n\r\n"
        else:
            fields.append("Content-Length: %d" % len(body))
            content = body
        if method == "HEAD" or status in (204, 304):
            body = content = b""
        request = head("%s %s HTTP/1.1" % (method, target), HOST, "X: " + "y" * order.choice((0, 40, 400)))
        if method == "POST":
            form = b"z" * order.choice((3, 50, 2500))
            request = head("POST %s HTTP/1.1" % target, HOST, "Content-Length: %d" % len(form)) + form
        interim = head("HTTP/1.1 103 Early Hints") if order.random() < 0.05 else b""
        return target, request, interim + head(*fields) + content, (str(status), kind, len(body))

    def packet(self, side, flags, data=b""):
        segment = tcp_segment(self.ends[side], self.ends[1 - side], self.sent[side],
                              self.got[side] if flags & ACK else 0, flags, data)
        self.sent[side] += len(data) + (1 if flags & (SYN | FIN) else 0)
        packet = (side, ip_packet(self.ends[side][0], self.ends[1 - side][0], 6, segment))
        self.on_the_way[side].append((self.sent[side], packet))
        if self.tap == side:
            self.packets.append(packet)

    def receive(self, side):
        """The other end gets the next packet of this side."""
        number, packet = self.on_the_way[side].pop(0)
        self.got[1 - side] = number
        if self.tap != side:
            self.packets.append(packet)

    def put(self, side, messages):
        """Messages to be sent, in packets of their own unless they are put together."""
        for data, count in messages:
            size = self.order.choice((1400, 1400, 1400, 200))
            pieces = [data[at:at + size] for at in range(0, len(data), size)]
            self.outbox[side] += [(piece, 0) for piece in pieces[:-1]] + [(pieces[-1], count)]

    def ask(self):
        """The client puts its next requests, if it sends any now."""
        outstanding = self.asked - self.done
        count = {"turns": 1 - outstanding, "window": self.depth - outstanding,
                 "at-will": 1 if outstanding < self.depth and self.order.random() < 0.3 else 0,
                 }.get(self.style, 0 if outstanding else self.order.randint(1, self.depth))
        new = self.exchanges[self.asked:self.asked + max(count, 0)]
        self.asked += len(new)
        messages = [(request, 1) for _, request, _, _ in new]
        if new and self.style == "packed-burst":
            messages = [(b"".join(data for data, _ in messages), len(messages))]
        self.put(CLIENT, messages)

    def play(self):
        self.packet(CLIENT, SYN)
        self.receive(CLIENT)
        self.packet(SERVER, SYN | ACK)
        self.receive(SERVER)
        self.packet(CLIENT, ACK)
        waiting = [[], []]  # behind which number how many messages are complete
        while not all(self.ended) or self.on_the_way[CLIENT] or self.on_the_way[SERVER]:
            side = self.order.choice((CLIENT, SERVER))
            if self.order.random() < 0.5 and self.on_the_way[1 - side]:
                self.receive(1 - side)
                if self.order.random() < 0.4:
                    self.packet(side, ACK)
            while waiting[1 - side] and waiting[1 - side][0][0] <= self.got[side]:
                count = waiting[1 - side].pop(0)[1]
                if side == SERVER:
                    self.arrived += count
                else:
                    self.done += count
            if side == CLIENT and not self.outbox[CLIENT]:
                self.ask()
            # A server may take its time, and then answer what has come meanwhile.
            if side == SERVER and self.answered < self.arrived and self.order.random() < 0.4:
                self.put(SERVER, [(self.exchanges[self.answered][2], 1)])
                self.answered += 1
            if self.outbox[side]:
                data, count = self.outbox[side].pop(0)
                self.packet(side, PSH | ACK, data)
                if count:
                    waiting[side].append((self.sent[side], count))
            elif self.done == len(self.exchanges) and not self.ended[side]:
                self.packet(side, FIN | ACK)
                self.ended[side] = True
        return self.packets


def frames_of(conversations, order):
    """The packets of all, mixed, with times."""
    macs = b"\x02\x00\x00\x00\x00\x02" + b"\x02\x00\x00\x00\x00\x01\x08\x00"
    queues = [conversation.packets[::-1] for conversation in conversations]
    now, frames, active = 1_700_000_000 * 10**9, [], []
    while queues or active:
        while queues and len(active) < 20:
            active.append(queues.pop())
        queue = order.choice(active)
        now += order.randrange(1, 2 * 10**6)
        frames.append((now, macs + queue.pop()[1]))
        if not queue:
            active.remove(queue)
    return frames


def check(program, folder, frames, truth):
    """Rows that are wrong, rows with an answer, rows."""
    scratch = os.path.join(folder, "lossy.pcap")
    with open(scratch, "wb") as file:
        file.write(pcap_file(frames))
    run = subprocess.run([program, "--dir", folder, "--print", "--all", "--replay", scratch],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    seen, wrong, answered = set(), [], 0
    for line in run.stdout.decode().splitlines():
        fields = line.split("\t")
        target, status, kind, size = fields[7], fields[8], fields[9], int(fields[10])
        expected = truth.get(target)
        is_right = expected is not None and target not in seen and (
            (status, kind, size) == ("-", "-", 0)
            or (status, kind) == expected[:2] and size <= expected[2])
        seen.add(target)
        answered += status != "-"
        if not is_right:
            wrong.append("%s: expected %s" % (line, expected))
    return wrong, answered, len(seen)


def main():
    if len(sys.argv) not in (4, 5) or sys.argv[1] != "--check":
        sys.exit(__doc__)
    program, folder = sys.argv[2:4]
    seeds = int(sys.argv[4]) if len(sys.argv) > 4 else 2
    faults = 0
    for rate in RATES:
        wrong, answered, rows, asked = [], 0, 0, 0
        for seed in range(seeds):
            order = random.Random("%d %s" % (seed, rate))
            conversations = [Conversation(order, number, order.randint(1, 12))
                             for number in range(200)]
            for conversation in conversations:
                conversation.play()
            truth = {target: expected for conversation in conversations
                     for target, _, _, expected in conversation.exchanges}
            frames = [frame for frame in frames_of(conversations, order) if order.random() >= rate]
            found = check(program, folder, frames, truth)
            wrong += found[0]
            answered, rows, asked = answered + found[1], rows + found[2], asked + len(truth)
        print("%4.1f %% removed: %d requests, %d rows, %d with an answer, %d wrong"
              % (rate * 100, asked, rows, answered, len(wrong)))
        print("".join("  %s\n" % line for line in wrong[:5]), end="")
        faults += len(wrong) + (answered != asked if rate == 0 else answered < rows / 4)
    sys.exit(faults != 0)


if __name__ == "__main__":
    main()
