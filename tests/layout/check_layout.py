#!/usr/bin/env python3
"""check_layout.py [ROOT]: the source tree's layout rules; prints each violation, exits 1 if any.

- folders import downwards only (LAYERS, then TOP): an #include "..." of a folder above the file's own fails;
- no source, script or text file is over 600 lines (data such as fuzz seeds and golden logs aside);
- the tests stay within their share of the code: non-blank lines under tests/ over those of CODE (at most
  MAX_TEST_RATIO, about a third)."""
import os
import re
import sys

LAYERS = ["include", "engine", "records", "upload", "capture", "methods"]
TOP = {"cli", "lab", "tests", "bench", "fuzz", "inspect", "examples"}
SOURCE = (".c", ".cpp", ".h", ".hpp")
TEXT = SOURCE + (".py", ".sh", ".md", ".cmake", ".txt", ".scn")
MAX_LINES = 600
LONG_ALLOWED = {"include/zq_diag.h"}  # every exported declaration with its contract stays in one header
CODE = {"include", "engine", "records", "methods", "capture", "upload", "cli", "lab"}
MAX_TEST_RATIO = 0.35
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def layer_of(path):
    top = path.split("/", 1)[0]
    return LAYERS.index(top) if top in LAYERS else len(LAYERS) if top in TOP else None


def target_of(including, name, root):
    """The repository path an #include "name" refers to, or None (a generated or system header)."""
    for cand in (os.path.join(os.path.dirname(including), name), name, os.path.join("include", name)):
        if os.path.isfile(os.path.join(root, os.path.normpath(cand))):
            return os.path.normpath(cand)
    return None


def tracked(root):
    for dirpath, dirnames, filenames in os.walk(root):
        dirnames[:] = [d for d in dirnames if not d.startswith((".", "build")) and d != "__pycache__"]
        for f in filenames:
            yield os.path.normpath(os.path.join(os.path.relpath(dirpath, root), f))


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "../.."))
    errors, code, tests = [], 0, 0
    for path in sorted(tracked(root)):
        with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
            lines = f.readlines()
        top = path.split("/", 1)[0]
        code += sum(1 for line in lines if line.strip()) if top in CODE else 0
        tests += sum(1 for line in lines if line.strip()) if top == "tests" else 0
        mine = layer_of(path)
        if mine is None:
            continue
        is_text = path.endswith(TEXT) or (lines and lines[0].startswith("#!"))
        if is_text and len(lines) > MAX_LINES and path not in LONG_ALLOWED:
            errors.append(f"{path}: {len(lines)} lines (at most {MAX_LINES})")
        for number, line in enumerate(lines if path.endswith(SOURCE) else [], 1):
            m = INCLUDE.match(line)
            target = m and target_of(path, m.group(1), root)
            if target and layer_of(target) is not None and layer_of(target) > mine:
                errors.append(f"{path}:{number}: includes {target}, a folder above its own")
    ratio = tests / code if code else 0.0
    print(f"tests/code: {tests}/{code} = {ratio:.3f}")
    if ratio > MAX_TEST_RATIO:
        errors.append(f"tests/ is {ratio:.3f} of the code (at most {MAX_TEST_RATIO})")
    print("\n".join(errors + [f"layout: {len(errors)} violation(s)"]))
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
