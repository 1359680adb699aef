#!/usr/bin/env python3
"""The README tells the truth: every path it names exists, every zqdiag
subcommand it names answers --help, and its lab commands run.

    check_readme.py SOURCE_DIR BUILD_DIR

The README's commands are written for a host build in build/host (the build
directory of `scripts/test host`) and with `zqdiag` standing for the built
tool: here build/host/ is BUILD_DIR and zqdiag BUILD_DIR/cli/zqdiag. Only
commands that change nothing outside the lab are run: the lab's (each in a
fresh simulated gateway); scripts, builds and installs are only checked to
exist. Prints one line per check and exits 1 when any failed.
"""
import os
import re
import shlex
import subprocess
import sys

SRC, BUILD = (os.path.abspath(a) for a in sys.argv[1:3])
ZQDIAG = os.path.join(BUILD, "cli", "zqdiag")
README = open(os.path.join(SRC, "README.md"), encoding="utf-8").read()
# The folders of the checkout that a README path may start with.
TOP = sorted(d for d in os.listdir(SRC) if os.path.isdir(os.path.join(SRC, d)) and not d.startswith(".") and d != "build")
failures = 0


def report(ok, what):
    global failures
    print(("ok      " if ok else "FAILED  ") + what)
    failures += not ok


def blocks(text):
    """The sh code blocks' lines, continuation of quoted text joined."""
    for block in re.findall(r"```sh\n(.*?)```", text, re.S):
        command = ""
        for line in block.splitlines():
            command = (command + "\n" + line) if command else line
            try:
                shlex.split(command, comments=True)
            except ValueError:  # an open quote: the command goes on
                continue
            yield command
            command = ""


def spans(text):
    """Inline code spans, a span broken over lines joined with a blank."""
    outside = re.sub(r"```.*?```", "", text, flags=re.S)
    return [re.sub(r"\s+", " ", s) for s in re.findall(r"`([^`]+)`", outside)]


def in_build(command):
    """The command as it runs here: build/host/ is BUILD, zqdiag the tool."""
    def replace(m):
        return ZQDIAG if m.group(0) in ("zqdiag", "build/host/cli/zqdiag") else BUILD + "/"
    return re.sub(r"(?<![\w/.-])(?:build/host/cli/zqdiag|build/host/|zqdiag(?= ))", replace, command)


# 1. Paths of the checkout and of the build.
seen = set()
for text in spans(README) + [w for c in blocks(README) for w in shlex.split(c, comments=True)]:
    for word in text.split():
        word = word.rstrip(".,;:)")
        top = word.split("/", 1)[0]
        if "/" not in word or word in seen or "*" in word or "<" in word:
            continue
        if top in TOP and not word.startswith("build/"):
            seen.add(word)
            report(os.path.exists(os.path.join(SRC, word)), "the checkout has " + word)
        elif word.startswith("build/host/"):
            seen.add(word)
            report(os.path.exists(os.path.join(BUILD, word[len("build/host/"):])), "the host build has " + word)

# 2. Every zqdiag subcommand named answers --help.
subcommands = set()
for span in spans(README):
    words = span.split()
    if len(words) >= 2 and words[0] == "zqdiag" and re.fullmatch(r"[a-z]+", words[1]):
        subcommands.add(words[1])
for sub in sorted(subcommands):
    r = subprocess.run([ZQDIAG, sub, "--help"], capture_output=True, text=True)
    report(r.returncode == 0 and r.stdout.strip() != "", "zqdiag %s --help" % sub)

# 3. The lab commands, in a fresh gateway each. A diagnosis exits 1 when it
# found something, which a faulty scenario is meant to show; anything above
# that (usage, busy, timeout, the lab not set up) is a failure.
lab_commands = [c for c in blocks(README) if c.startswith("lab/run ") and " -- " in c]
lab_commands += [s for s in spans(README) if s.startswith("lab/run ") and " -- " in s]
for command in lab_commands:
    r = subprocess.run(["bash", "-c", in_build(command)], cwd=SRC, capture_output=True, text=True,
                       stdin=subprocess.DEVNULL, timeout=300, env=dict(os.environ, ZQLAB_KEEP=BUILD))
    ok = r.returncode in (0, 1)
    report(ok, "runs: " + command.replace("\n", " "))
    if not ok:
        print(r.stdout[-2000:] + r.stderr[-2000:])
    if "ls -l /run/zqlab/isp/ftp/upload" in command:  # the upload example shows the archive on the server
        report(re.search(r"\.tar$", r.stdout, re.M) is not None, "the README's upload arrives on the FTP server")

print("%d failed" % failures)
sys.exit(1 if failures else 0)
