#!/usr/bin/env python3
"""check_readme.py SOURCE_DIR BUILD_DIR: every path the README names exists, every zqdiag subcommand it
names answers --help, and its lab commands run, each in a fresh gateway (nothing else is run). Its commands
are written for build/host (of `scripts/test host`): here that is BUILD_DIR, and zqdiag BUILD_DIR/cli/zqdiag.
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
TOP = {d for d in os.listdir(SRC) if os.path.isdir(os.path.join(SRC, d)) and d[0] != "." and d != "build"}
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
words = {w.rstrip(".,;:)") for t in spans(README) + [w for c in blocks(README) for w in shlex.split(c, comments=True)]
         for w in t.split()}
for word in sorted(w for w in words if "/" in w and "*" not in w and "<" not in w):
    if word.split("/", 1)[0] in TOP and not word.startswith("build/"):
        report(os.path.exists(os.path.join(SRC, word)), "the checkout has " + word)
    elif word.startswith("build/host/"):
        report(os.path.exists(os.path.join(BUILD, word[len("build/host/"):])), "the host build has " + word)

# 2. Every zqdiag subcommand named answers --help.
for sub in sorted({w[1] for w in map(str.split, spans(README))
                   if len(w) >= 2 and w[0] == "zqdiag" and re.fullmatch(r"[a-z]+", w[1])}):
    r = subprocess.run([ZQDIAG, sub, "--help"], capture_output=True, text=True)
    report(r.returncode == 0 and r.stdout.strip() != "", "zqdiag %s --help" % sub)

# 3. The lab commands, each in a fresh gateway. A diagnosis exits 1 when it found something (as a faulty
# scenario is meant to); anything above (usage, busy, timeout, the lab not set up) is a failure.
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
