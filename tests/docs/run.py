#!/usr/bin/env python3
"""Runs the commands and compiles the programs of README.md and docs/, as a reader would.

usage: run.py --work DIR (--build DIR | --prefix DIR) [--place PLACE] [--long] PAGE...

Each page is one session of a shell, in a folder of its own, with the programs and the library of the prefix, or those of the
build, as if they were installed. What it does is told by the language of a block:

    sh, console   commands; those of console begin with "$ ", and what they say is compared: "..." stands for any text
    cpp, cmake,   is written to the file that its first line names as a comment, and a later command has to use it; a cpp
    sql           block without a name is a program, which is compiled and linked
    session       bytes of a front-end connection, which are sent to the engine that listens on $PORT, and compared
    text          is shown only

and by comments in front of it, which readers of the page do not see:

    <!-- run: COMMANDS -->                what has to be done before
    <!-- next: window until COMMAND -->   the next block goes on in the background; the page goes on when COMMAND succeeds
    <!-- next: PLACE -->                  the next block is run by the script PLACE, by run.py --place PLACE and the name of the
                                          page, or word for word
    <!-- next: long -->                   it is run with --long only: it takes minutes, or fetches from the network
    <!-- next: device -->                 it needs a device eth0 of its own

The commands run in a network of their own where the system allows that, with a device eth0; where it does not, on
the machine's, and blocks that need the device are not run.

Beside that, files, links, options of our programs and messages in tables that a page names have to exist.
"""
import argparse
import os
import re
import shlex
import shutil
import socket
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SHOWN = {"text"}
RUN = {"sh", "console", "cpp", "cmake", "sql", "session"}
OWN_NETWORK = ("ip link set lo up && { ip link add eth0 type veth peer name peer0 || ip link add eth0 type dummy; } && "
               "ip address add 192.168.1.5/24 dev eth0 && ip link set eth0 up")
PRELUDE = """
set -euo pipefail
windows=()
end_windows() {
    for window in "${windows[@]}"; do
        kill -TERM -- "-$window" 2>/dev/null || true
        wait "$window" || [ $? -eq 143 ]
    done
    windows=()
}
trap end_windows EXIT
window() { # window OUTPUT COMMANDS CONDITION: until the condition holds, at most two minutes
    setsid bash -euo pipefail -c "$2" >"$1" 2>&1 &
    windows+=($!)
    for ((tries = 0; tries < 1200; ++tries)); do
        if eval "$3" >/dev/null 2>&1; then return; fi
        kill -0 $! 2>/dev/null || break
        sleep 0.1
    done
    echo "it has not come so far that this succeeds: $3" >>"$1"
    return 1
}
"""


class Block:
    def __init__(self, page, line, language, text, attributes):
        self.page, self.line, self.language, self.text = page, line, language, text
        self.place = self.until = None
        self.long = self.device = False
        for attribute in attributes:
            if attribute.startswith("window until "):
                self.until = attribute[len("window until "):]
            elif attribute in ("long", "device"):
                setattr(self, attribute, True)
            else:
                self.place = attribute

    def where(self):
        return f"{os.path.relpath(self.page, ROOT)}:{self.line}"


def fail(text):
    sys.exit(f"docs: {text}")


def blocks_of(page):
    """The blocks of a page and the hidden commands between them, in order."""
    lines = open(page, encoding="utf-8").read().split("\n")
    blocks, attributes, number = [], [], 0
    while number < len(lines):
        line, start = lines[number], number + 1
        number += 1
        if line.startswith("<!-- "):
            while not line.endswith("-->"):
                line += "\n" + lines[number]
                number += 1
            kind, _, text = line[5:-3].strip().partition(":")
            if kind == "run":
                blocks.append(Block(page, start, "sh", text.strip(), attributes))
                attributes = []
            elif kind == "next":
                attributes.append(text.strip())
            else:
                fail(f"{page}:{start}: unknown comment")
        elif line.startswith("```"):
            text = []
            while lines[number] != "```":
                text.append(lines[number])
                number += 1
            number += 1
            if line[3:] not in RUN | SHOWN:
                fail(f"{page}:{start}: a block of the language '{line[3:]}'")
            blocks.append(Block(page, start, line[3:], "\n".join(text), attributes))
            attributes = []
        elif line.startswith("    ") and not lines[start - 2].strip():
            fail(f"{page}:{start}: an indented block; say in which language it is")
    return blocks


def commands_of(console):
    """Pairs of a command and what it is to say."""
    pairs = []
    for line in console.split("\n"):
        if line.startswith("$ "):
            pairs.append([line[2:], []])
        elif pairs and pairs[-1][0].endswith("\\") and not pairs[-1][1]:
            pairs[-1][0] += "\n" + line
        else:
            pairs[-1][1].append(line)
    return pairs


def matches(expected, said):
    """Whether what was said is what was expected, in which "..." stands for any text."""
    clean = ["\n".join(line.rstrip() for line in text).strip("\n") for text in (expected, said)]
    return re.fullmatch(re.escape(clean[0]).replace(r"\.\.\.", ".*"), clean[1], re.DOTALL)


def play(session, port):
    """Sends the client's bytes of a session and compares the engine's."""
    connection = socket.create_connection(("127.0.0.1", port), timeout=30)  # an engine drops clients after 60
    speaker, drains = None, False
    for number, line in enumerate(open(session, encoding="utf-8").read().split("\n"), 1):
        match = re.fullmatch(r"(client|engine|      )  ((?:[0-9A-F]{2} ?)+|closes|\.\.\.)(?:  .*)?", line)
        if not match:
            fail(f"line {number} of the session cannot be read: {line}")
        speaker = match[1].strip() or speaker
        if match[2] == "...":  # What comes until the engine closes is not looked at.
            drains = True
            continue
        if match[2] == "closes":
            while drains and connection.recv(4096):
                pass
            expected, size = b"", 1
        else:
            expected = bytes.fromhex(match[2])
            size = len(expected)
        if speaker == "client":
            connection.sendall(expected)
            continue
        said = b""
        while len(said) < size and (piece := connection.recv(size - len(said))):
            said += piece
        if said != expected:
            fail(f"line {number} of the session: the engine sent '{said.hex(' ').upper()}', not '{match[2]}'")


def script_of(blocks, work):
    """The shell's script of a page, and what its commands are to say."""
    script, expected = [PRELUDE], []
    quote = shlex.quote

    def step(block, said):
        script.append(f"printf '%s\\n' {quote(block.where())} {quote(said)} >{quote(os.path.join(work, 'step'))}")

    for index, block in enumerate(blocks):
        said = os.path.join(work, f"said.{index}")
        step(block, said)
        if block.language == "console":
            for number, (command, lines) in enumerate(commands_of(block.text)):
                step(block, f"{said}.{number}")
                script.append(f"{{ {command}\n}} >{quote(f'{said}.{number}')} 2>&1")
                expected.append((block, command, lines, f"{said}.{number}"))
        elif block.language == "sh" and block.until:
            script.append(f"window {quote(said)} {quote(block.text)} {quote(block.until)}")
        elif block.language == "sh":
            script.append(f"{{ {block.text}\n}} >{quote(said)} 2>&1")
        elif block.language == "session":
            copy = os.path.join(work, f"session.{index}")
            open(copy, "w", encoding="utf-8").write(block.text)
            player = f"{quote(sys.executable)} {quote(os.path.abspath(__file__))}"
            script.append(f'{player} --play {quote(copy)} "$PORT" >{quote(said)} 2>&1')
        elif block.language in ("cpp", "cmake", "sql"):
            copy = os.path.join(work, f"block.{index}.cpp")
            open(copy, "w", encoding="utf-8").write(block.text + "\n")
            name = re.match(r"(?://|#|--) (\S*[\w/]+\.(?:h|cpp|txt|sql))\n", block.text)
            if not name and block.language != "cpp":
                fail(f"{block.where()}: nobody uses it; give it the name of a file in its first line")
            if name:
                use = r"\bc\+\+ |\bcmake |" + re.escape(os.path.basename(name[1]))
                if not any(later.language in ("sh", "console") and re.search(use, later.text) for later in blocks[index:]):
                    fail(f"{block.where()}: no command uses {name[1]}")
                script.append(f"mkdir -p $(dirname {name[1]}) && cp {quote(copy)} {name[1]}")
            else:
                script.append(f"c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror {quote(copy)} "
                              f"$(pkg-config --cflags --libs kp) -o {quote(copy[:-4])} >{quote(said)} 2>&1")
    script.append("end_windows\n")
    return "\n".join(script), expected


def run(page, place, long, work, prefix, own_network):
    name = os.path.relpath(page, ROOT).replace("/", "-")
    work = os.path.join(work, name)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(os.path.join(work, "home"))
    todo, left = [], []
    for block in blocks_of(page):
        if block.language in SHOWN:
            continue
        if block.place != place:
            if block.place and not place:
                script = open(os.path.join(ROOT, block.place), encoding="utf-8").read()
                calls = [line for line in script.split("\n") if f"--place {block.place}" in line]
                if block.text not in script and not any(os.path.relpath(page, ROOT) in call for call in calls):
                    fail(f"{block.where()}: {block.place} does not run it")
        elif (block.long and not long) or (block.device and not own_network):
            left.append(block.where())
        else:
            todo.append(block)
    script, expected = script_of(todo, work)
    tools = os.path.join(work, "tools")
    os.makedirs(tools)
    stage = os.path.join(work, "stage")
    if not place:
        # What is to be installed for everybody goes to a folder; nothing here needs more rights.
        for tool, text in (("sudo", f'export DESTDIR={shlex.quote(stage)}\nexec "$@"'),
                           ("ldconfig", f"exec /sbin/ldconfig -N -n {shlex.quote(stage)}/usr/local/lib")):
            with open(os.path.join(tools, tool), "w", encoding="utf-8") as file:
                file.write(f"#!/bin/sh\n{text}\n")
            os.chmod(os.path.join(tools, tool), 0o755)
    environment = dict(os.environ, SOURCES=ROOT, LC_ALL="C.UTF-8")
    environment.pop("KP_INSTALLDIR", None)
    if not place:
        pkg_config = subprocess.run(["find", prefix, "-name", "pkgconfig"], capture_output=True, text=True,
                                    check=True).stdout.strip()
        environment.update(HOME=os.path.join(work, "home"), PATH=f"{tools}:{prefix}/bin:{os.environ['PATH']}",
                           CMAKE_PREFIX_PATH=prefix, PKG_CONFIG_PATH=pkg_config,
                           LD_LIBRARY_PATH=os.path.dirname(pkg_config))
    status = subprocess.run(["bash", "-c", script], cwd=os.path.join(work, "home"), env=environment,
                            stdin=subprocess.DEVNULL).returncode
    if status:
        where, said = open(os.path.join(work, "step"), encoding="utf-8").read().splitlines()
        text = open(said, encoding="utf-8").read() if os.path.exists(said) else ""
        fail(f"{where}: status {status}\n{text}")
    for block, command, lines, said in expected:
        got = open(said, encoding="utf-8").read().split("\n")
        if not matches(lines, got):
            fail(f"{block.where()}: {command}\nsaid\n" + "\n".join(got) + "not\n" + "\n".join(lines))
    print(f"{os.path.relpath(page, ROOT)}: {len(todo)} blocks" + "".join(f"; not run: {where}" for where in left))


def sources():
    """All text that the library and the programs can say, with the pieces of a literal put together, and patterns of
    the literals with something to be filled in."""
    text = ""
    for below in ("src", "include", "programs"):
        for folder, _, files in os.walk(os.path.join(ROOT, below)):
            text += "".join(open(os.path.join(folder, file), encoding="utf-8").read() + "\n" for file in files)
    text = re.sub(r'(?<!\\)"\s*"', "", text)
    formats = [literal for literal in re.findall(r'"((?:[^"\\\n]|\\.)*)"', text) if "%" in literal and len(literal) > 20]
    patterns = [".*".join(map(re.escape, re.split(r"%[\w.*]*?[a-z]", literal))) for literal in formats]
    return text.replace('\\"', '"'), patterns


def check_names(page, prefix, corpus, patterns):
    """Files, links, options and messages that a page names exist."""
    text = open(page, encoding="utf-8").read()
    folder = os.path.dirname(page)
    for target in re.findall(r"\]\((?!https?:)([^)#]+)", text):
        if not os.path.exists(os.path.join(folder, target)):
            fail(f"{page}: a link to {target}")
    inline = re.findall(r"`([^`]+)`", re.sub(r"```.*?\n```", "", text, flags=re.DOTALL))
    for path in inline:
        if (re.fullmatch(r"(?:\.ci|bench|cmake|demo|docs|examples|include|packaging|programs|script|src|tests|core|text|"
                         r"threads|config|engine|wire|tools|kp)/[\w./-]*[\w/]|[A-Z]+\.md|CMake\w+\.\w+", path) and
                not any(os.path.exists(os.path.join(ROOT, below, path)) for below in ("", "include", "include/kp"))):
            fail(f"{page}: names {path}, which does not exist")
    commands = re.findall(r"^(?:\$ )?(?:sudo )?(kp-\w+) (.*(?:\\\n.*)*)", text, re.MULTILINE)
    commands += [match.groups() for match in (re.match(r"(kp-\w+) (-.*)", code) for code in inline) if match]
    for program, rest in commands:
        subcommand = re.search(r"\b(show|set|status|watch|list|top|totals)\b", rest)
        said = "".join(subprocess.run([os.path.join(prefix, "bin", program), *words, "--help"], capture_output=True,
                                      text=True, check=True).stdout
                       for words in ([], [subcommand[1]] if subcommand and program != "kp-capture" else []))
        for option in re.findall(r"(?<= )--[a-z-]+", " " + rest.split("#")[0]):
            if option not in said:
                fail(f"{page}: {program} has no {option}")
    for table in re.findall(r"^\| (?:message[^|]*|line) \|.*\n((?:\|.*\n)+)", text, re.MULTILINE):
        for message in re.findall(r"`([^`]+ [^`]+)`", "\n".join(row.split(" | ")[0] for row in table.split("\n"))):
            # TEXT, PATH, N, numbers and what stands in quotation marks are filled in.
            pieces = re.split(r'\b[A-Z]{1,}\b|\b\d+\b|"[^"]*"', message)
            # Some have the name of an operation, or what failed, in front.
            pieces = [re.sub(r"^[\w -]+: ", "", piece.strip(" :")) for piece in pieces]
            if not (all(piece in corpus for piece in pieces if len(piece) > 3) or
                    any(re.search(pattern, message) for pattern in patterns)):
                fail(f"{page}: no program says '{message}'")


def main():
    if sys.argv[1:2] == ["--play"]:
        return play(sys.argv[2], int(sys.argv[3]))
    parser = argparse.ArgumentParser()
    parser.add_argument("--work", required=True)
    source = parser.add_mutually_exclusive_group(required=True)
    source.add_argument("--build")
    source.add_argument("--prefix")
    parser.add_argument("--place")
    parser.add_argument("--long", action="store_true")
    parser.add_argument("--own-network", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("pages", nargs="+")
    options = parser.parse_args()
    if not (options.place or options.long or options.own_network):
        isolate = ["unshare", "--net"] if os.getuid() == 0 else ["unshare", "--net", "--map-root-user"]
        if subprocess.run([*isolate, "sh", "-c", OWN_NETWORK], capture_output=True).returncode == 0:
            again = shlex.join([sys.executable, *sys.argv, "--own-network"])
            os.execvp("unshare", [*isolate, "sh", "-c", f"{OWN_NETWORK} && exec {again}"])
        print("docs: the system gives no network of its own; the commands use the machine's")
    work, prefix = os.path.abspath(options.work), options.prefix
    if options.build:
        prefix = os.path.join(work, "prefix")
        shutil.rmtree(prefix, ignore_errors=True)
        subprocess.run(["cmake", "--install", options.build, "--prefix", prefix], stdout=subprocess.DEVNULL, check=True)
    corpus, patterns = ("", []) if options.place else sources()
    for page in map(os.path.abspath, options.pages):
        if not options.place:
            check_names(page, prefix, corpus, patterns)
        run(page, options.place, options.long, work, os.path.abspath(prefix), options.own_network)


if __name__ == "__main__":
    main()
