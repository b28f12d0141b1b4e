#!/usr/bin/env python3
"""Runs kp-capture on a device of a network of its own.

usage: run.py --build DIR CASE        (the cases are the functions below with @case)

The network has a veth pair: the engine watches "near", and what is written to "far" arrives there. Exit status 77, which ctest
takes for "skipped", where the system gives no such network.
"""
import argparse
import contextlib
import os
import pathlib
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "captures"))
import kit  # noqa: E402

SKIPPED = 77
LIMIT = 60  # seconds that a test waits for what has to come
MAKE_PAIR = "ip link add near type veth peer name far && ip link set far up"
NETWORK = f"ip link set lo up && echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6 && {MAKE_PAIR} && ip link set near up"
_cases, case = kit.new_list_of_cases()


def skip(why):
    print(f"skipped: {why}")
    sys.exit(SKIPPED)


def shell(commands):
    subprocess.run(commands, shell=True, check=True)


def wait_until(what, condition):
    end = time.monotonic() + LIMIT
    while not (result := condition()):
        if time.monotonic() > end:
            sys.exit(f"waited in vain: {what()}")
        time.sleep(0.02)
    return result


class Engine:
    """A kp-capture that watches and prints."""

    def __init__(self, build, folder, *options, packet_filter=""):
        self.build, self.folder = build, folder
        self.lines, self.said = folder / "lines", folder / "said"
        (folder / "password").write_text("secret\n")
        if not (folder / "site").exists():
            subprocess.run([build / "programs/configure/kp-configure", "--dir", folder / "site", "--password-file",
                            folder / "password", "--device", "near", "--range", "10.0.0.0/8", "--filter", packet_filter],
                           check=True, capture_output=True)
        command = [build / "programs/capture/kp-capture", "--dir", folder / "site", "--print", "--all", *options]
        with open(self.lines, "wb") as lines, open(self.said, "wb") as said:
            self.process = subprocess.Popen(command, stdout=lines, stderr=said, stdin=subprocess.DEVNULL)

    def admin(self, *command):
        done = subprocess.run([self.build / "programs/admin/kp-admin", "--password-file", self.folder / "password", *command],
                              capture_output=True, text=True, check=False)
        return done.stdout + done.stderr

    def await_state(self, state):
        wait_until(lambda: f"state={state}\n{self.admin('status')}\n{self.said.read_text()}",
                   lambda: f"state={state}\n" in self.admin("status"))

    def await_text(self, text):
        wait_until(lambda: f"{text}\n{self.said.read_text()}", lambda: text in self.said.read_text())

    def rows(self):
        """Target and status of each line."""
        return [tuple(line.split("\t")[7:9]) for line in self.lines.read_text().splitlines()]

    def await_rows(self, expected):
        wait_until(lambda: f"rows {expected}\n{self.rows()}\n{self.said.read_text()}", lambda: sorted(self.rows()) == sorted(expected))

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(LIMIT)
        assert status in (0, 3), f"status {status}\n{self.said.read_text()}"  # 3: with losses
        return self.said.read_text()


@contextlib.contextmanager
def engine(build, *options, packet_filter=""):
    folder = pathlib.Path(tempfile.mkdtemp())
    running = Engine(build, folder, *options, packet_filter=packet_filter)
    try:
        yield running
    finally:
        running.process.kill()
        running.process.wait()
        shutil.rmtree(folder)


def send(frames):
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as far:
        far.bind(("far", 0))
        for frame in frames:
            far.send(frame)


def rx_dropped():
    line = next(line for line in pathlib.Path("/proc/self/net/dev").read_text().splitlines() if line.strip().startswith("near:"))
    return int(line.split(":")[1].split()[3])


def visit(target, client="10.0.0.5:40001", body=b"hello"):
    """The frames of one connection with one request."""
    capture = kit.Capture()
    connection = capture.connect(client)
    connection.client(kit.head(f"GET {target} HTTP/1.1", kit.HOST))
    connection.server(kit.ok(body))
    connection.close()
    return [frame for _, frame in capture.frames]


def in_fragments(frame):
    """The frame's packet in two fragments."""
    packet = frame[14:]
    half = 40  # bytes of it after the header: that of TCP, and some of the data
    pieces = ((packet[20:20 + half], 0x2000), (packet[20 + half:], half // 8))
    frames = []
    for data, offset in pieces:
        header = bytearray(packet[:20])
        header[2:4] = (20 + len(data)).to_bytes(2, "big")
        header[6:8] = offset.to_bytes(2, "big")
        header[10:12] = b"\0\0"
        header[10:12] = kit.checksum(bytes(header)).to_bytes(2, "big")
        frames.append(frame[:14] + bytes(header) + data)
    return frames


def tagged(frame, number):
    return frame[:12] + b"\x81\x00" + number.to_bytes(2, "big") + frame[12:]


@case
def makes_no_system_call_a_packet(build):
    """Neither under load nor with a packet now and then; what it makes goes by the time that passes."""
    if not shutil.which("strace"):
        skip("strace is not installed")
    for packets_at_once, pause, rounds in ((8000, 0, 3), (8, 0.02, 100)):
        with engine(build, "--serve", "--record") as running:
            running.await_state("watching")
            counts = running.folder / "counts"
            tracer = subprocess.Popen(["strace", "-f", "-c", "-o", counts, "-p", str(running.process.pid)], text=True,
                                      stderr=subprocess.PIPE)
            attached = tracer.stderr.readline()
            if "attached" not in attached:
                skip(f"strace cannot attach: {attached.strip()}")
            start = time.monotonic()
            expected, sent = [], 0
            for number in range(rounds):
                target = f"/{number}"
                frames = visit(target, f"10.0.0.5:{20000 + number}")
                frames[5:5] = [frames[4]] * (packets_at_once - len(frames))  # an acknowledgement, many times over
                send(frames)
                sent += len(frames)
                expected.append((target, "200"))
                time.sleep(pause)
            running.await_rows(expected)
            tracer.send_signal(signal.SIGINT)
            tracer.wait(LIMIT)
            seconds = time.monotonic() - start
            calls = int(re.search(r"^100\.00 +\S+ +(?:\S+ +)?(\d+) .*total$", counts.read_text(), re.MULTILINE)[1])
            allowed = 500 * seconds + 0.02 * sent
            print(f"{sent} packets in {seconds:.1f} s: {calls} system calls, {allowed:.0f} allowed")
            assert calls < allowed, counts.read_text()
            assert f"packets      {sent}" in running.end()


@case
def is_waited_for_when_it_goes_and_comes(build):
    """Down and up, deleted and made again; the state says so, and a filter that was set meanwhile holds."""
    with engine(build, "--serve") as running:
        expected = []

        def sees(target, *more):
            send(visit(target, *more))
            expected.append((target, "200"))
            running.await_rows(expected)

        running.await_state("watching")
        sees("/first")
        shell("ip link set near down")
        running.await_state("waiting for device")
        running.await_text("near is down; waiting for it")
        shell("ip link set near up")
        running.await_state("watching")
        sees("/up-again", "10.0.0.5:40002")
        send(visit("/last-words", "10.0.0.5:40003"))  # captured, perhaps not read yet
        shell("ip link delete near")
        expected.append(("/last-words", "200"))
        running.await_rows(expected)
        running.await_state("waiting for device")
        running.await_text("near has disappeared; waiting for it")
        running.admin("set", "filter=not tcp port 40005")
        shell(MAKE_PAIR)
        running.await_state("waiting for device")  # it is there, but not up
        shell("ip link set near up")
        running.await_state("watching")
        send(visit("/filtered-out", "10.0.0.5:40005"))
        sees("/made-again", "10.0.0.5:40006")
        for _ in range(3):  # faster than anybody looks
            shell(f"ip link delete near && {MAKE_PAIR} && ip link set near up")
        wait_until(lambda: "a device that was replaced is watched", lambda: (
            send(visit("/replaced", "10.0.0.5:40007")), time.sleep(0.2), ("/replaced", "200") in running.rows())[2])
        running.await_state("watching")
        log = (running.folder / "site/logs/kp-capture.log").read_text()
        assert log.count("near is down; waiting for it") == 1 and "near is watched after a wait of" in log, log
        said = running.end()
        assert running.process.returncode == 3 and "was not there, or down, for a while" in said, said


@case
def is_waited_for_at_the_start(build):
    """With --wait; without it the start ends with an error."""
    for absence, text in (("set near down", "is down"), ("delete near", "is not there")):
        shell(f"ip link {absence}")
        with engine(build) as running:
            assert running.process.wait(LIMIT) == 1 and "near: " in running.said.read_text(), running.said.read_text()
        with engine(build, "--wait", "--serve", "--readers", "2") as running:
            running.await_state("waiting for device")
            running.await_text(f"near {text}; waiting for it")
            shell("ip link set near up" if absence.startswith("set") else f"{MAKE_PAIR} && ip link set near up")
            running.await_state("watching")
            send(visit("/here-now"))
            running.await_rows([("/here-now", "200")])
            running.end()
        with engine(build, "--wait", "--serve") as running:
            running.await_state("watching")
            shell("ip link delete near")
            running.await_state("waiting for device")
            running.end()  # while it waits
        shell(f"{MAKE_PAIR} && ip link set near up")


@case
def is_shared_by_several_readers(build):
    """Both directions of a connection meet, in fragments and with tags, too."""
    with engine(build, "--serve", "--readers", "3", "--threads", "2") as running:
        running.await_state("watching")
        connections = [visit(f"/{number}", f"10.0.0.{number % 200 + 1}:{30000 + number}") for number in range(300)]
        for number, frames in enumerate(connections):
            if number % 3 == 1:
                frames[3:4] = in_fragments(frames[3])  # the request
            if number % 3 == 2:
                frames[:] = [tagged(frame, 5) for frame in frames]
        mixed = [frames[step] for step in range(max(map(len, connections))) for frames in connections if step < len(frames)]
        send(mixed)
        running.await_rows([(f"/{number}", "200") for number in range(300)])
        sockets = pathlib.Path(f"/proc/{running.process.pid}/net/packet").read_text().splitlines()
        assert len(sockets) == 1 + 3, sockets
        shell(f"ip link delete near && {MAKE_PAIR} && ip link set near up")
        running.await_text("near is watched after a wait of")
        running.await_state("watching")
        again = [frame for number in range(50) for frame in visit(f"/again-{number}", f"10.0.1.1:{30000 + number}")]
        send(again)
        running.await_rows([(f"/{number}", "200") for number in range(300)] + [(f"/again-{number}", "200") for number in range(50)])
        packets = int(re.search(r"^packets +(\d+)", running.end(), re.MULTILINE)[1])
        assert len(again) < packets <= len(mixed) + len(again), packets  # the system puts fragments together


@case
def is_read_to_its_end_at_a_signal(build):
    """What was captured before the signal is a row, though nobody has handed it over yet."""
    for number in range(5):
        with engine(build, "--serve", "--readers", str(1 + number % 2)) as running:
            running.await_state("watching")
            targets = [f"/{number}/{client}" for client in range(200)]
            send([frame for client, target in enumerate(targets) for frame in visit(target, f"10.0.0.5:{20000 + client}")])
            said = running.end()
            assert sorted(running.rows()) == sorted((target, "200") for target in targets), (len(running.rows()), said)
            assert running.process.returncode == 0, said


@case
def tells_what_its_interface_has_dropped(build):
    """By rx_dropped, in which the system also counts tagged frames of protocols that it does not know: not if we saw such."""
    unknown = [tagged(frame[:12] + b"\x88\xb5" + frame[14:], 5) for frame in visit("/")]
    with engine(build, "--serve") as running:
        running.await_state("watching")
        before = rx_dropped()
        send(unknown)
        wait_until(lambda: running.admin("status"),
                   lambda: int(re.search(r"not_ipv4=(\d+)", running.admin("status"))[1]) >= len(unknown))
        assert rx_dropped() > before, "the system does not count them"
        said = running.end()
        assert running.process.returncode == 0 and "losses" not in said, said
    with engine(build, "--serve", packet_filter="udp") as running:
        running.await_state("watching")
        wait_until(lambda: running.admin("status"), lambda: (
            send(unknown), time.sleep(0.1), "interface_dropped=0" not in running.admin("status"))[2])
        said = running.end()
        assert running.process.returncode == 3 and "dropped by the interface" in said, said
        log = (running.folder / "site/logs/kp-capture.log").read_text()
        assert log.count("dropped by the interface") >= 1 and "ended with losses" in log, log


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("case", choices=[name for name, _ in _cases])
    options = parser.parse_args()
    if not options.inside:
        isolate = ["unshare", "--net"] if os.getuid() == 0 else ["unshare", "--net", "--map-root-user"]
        made = subprocess.run([*isolate, "sh", "-c", NETWORK], capture_output=True, text=True, check=False)
        if made.returncode != 0:
            skip(f"the system gives no network of its own: {made.stderr.strip()}")
        again = shlex.join([sys.executable, *sys.argv, "--inside"])
        os.execvp("unshare", [*isolate, "sh", "-c", f"{NETWORK} && exec {again}"])
    dict(_cases)[options.case](options.build)


if __name__ == "__main__":
    main()
