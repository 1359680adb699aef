#!/usr/bin/env python3
"""The source tree's layout rules, over the tracked files of the checkout:

- folders import downwards only: include/ under engine/, under records/,
  under upload/, under capture/, under methods/; cli/, lab/, tests/, bench/,
  fuzz/, inspect/ and examples/ on top. An #include "..." of a folder above
  the including file's is an error;
- no source, script or text file there is over 600 lines (data such as
  fuzz seeds and golden logs aside);
- the tests do not grow past their share of the code they test:
  non-blank lines of every file under tests/ over those under include/
  engine/ records/ methods/ capture/ upload/ cli/ lab/ (a ratchet, lowered
  as the suite is cut towards a third).

Usage: check_layout.py [ROOT]. Prints each violation; exits 1 if any."""
import os
import re
import sys

LAYERS = ["include", "engine", "records", "upload", "capture", "methods"]
TOP = {"cli", "lab", "tests", "bench", "fuzz", "inspect", "examples"}
SOURCE = (".c", ".cpp", ".h", ".hpp")
TEXT = SOURCE + (".py", ".sh", ".md", ".cmake", ".txt", ".scn")
MAX_LINES = 600
# The one public header holds every exported declaration with its contract
# and its layout assertions: it stays one file, whatever its length.
LONG_ALLOWED = {"include/zq_diag.h"}

CODE = {"include", "engine", "records", "methods", "capture", "upload", "cli", "lab"}
MAX_TEST_RATIO = 0.55

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def layer_of(path):
    top = path.split("/", 1)[0]
    if top in LAYERS:
        return LAYERS.index(top)
    if top in TOP:
        return len(LAYERS)
    return None


def target_of(including, name, root):
    """The repository path an #include "name" refers to, or None."""
    here = os.path.dirname(including)
    for cand in (os.path.join(here, name), name, os.path.join("include", name)):
        cand = os.path.normpath(cand)
        if os.path.isfile(os.path.join(root, cand)):
            return cand
    return None


def non_blank(root, path):
    with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
        return sum(1 for line in f if line.strip())


def tracked(root):
    for dirpath, dirnames, filenames in os.walk(root):
        rel = os.path.relpath(dirpath, root)
        dirnames[:] = [d for d in dirnames if not d.startswith(".") and not d.startswith("build")
                       and d != "__pycache__"]
        for f in filenames:
            yield os.path.normpath(os.path.join(rel, f))


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "..")
    root = os.path.abspath(root)
    errors = []
    for path in sorted(tracked(root)):
        if layer_of(path) is None:
            continue
        with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
            lines = f.readlines()
        is_text = path.endswith(TEXT) or (lines and lines[0].startswith("#!"))
        if is_text and len(lines) > MAX_LINES and path not in LONG_ALLOWED:
            errors.append(f"{path}: {len(lines)} lines (at most {MAX_LINES})")
        if not path.endswith(SOURCE):
            continue
        mine = layer_of(path)
        for number, line in enumerate(lines, 1):
            m = INCLUDE.match(line)
            if not m:
                continue
            target = target_of(path, m.group(1), root)
            if target is None:
                continue  # a generated or system header
            theirs = layer_of(target)
            if theirs is not None and theirs > mine:
                errors.append(f"{path}:{number}: includes {target}, a folder above its own")
    code = sum(non_blank(root, p) for p in tracked(root) if p.split("/", 1)[0] in CODE)
    tests = sum(non_blank(root, p) for p in tracked(root) if p.startswith("tests/"))
    ratio = tests / code if code else 0.0
    print(f"tests/code: {tests}/{code} = {ratio:.3f}")
    if ratio > MAX_TEST_RATIO:
        errors.append(f"tests/ is {ratio:.3f} of the code (at most {MAX_TEST_RATIO})")
    for e in errors:
        print(e)
    print(f"layout: {len(errors)} violation(s)")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
