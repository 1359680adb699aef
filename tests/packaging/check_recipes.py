#!/usr/bin/env python3
"""check_recipes.py SOURCE_DIR BUILD_DIR CMAKE WORK_DIR

Runs the firmware recipes (packaging/) with stand-ins for OpenWrt's and Buildroot's own files (stubs/) and
compares what they install with `cmake --install --prefix /usr` of this build, less the Inspect component, man
pages and documentation; checks each recipe's version and CMake options, that OpenWrt's Build/Prepare copy
configures, and Buildroot's source tree. Exits 1 on differences, 77 when the build's libdir is not lib.
"""
import os
import re
import shutil
import subprocess
import sys

LIB, NOT_FIRMWARE = "usr/lib/", ("usr/share/man/", "usr/share/doc/")
REQUIRED_OPTIONS = {"ZQ_BUILD_TESTS": "OFF", "ZQ_BUILD_BENCH": "OFF", "ZQ_BUILD_FUZZ": "OFF",
                    "ZQ_BUILD_INSPECT": "OFF", "CMAKE_INSTALL_LIBDIR": "lib"}
RECIPES = {"packaging/openwrt/Makefile": "PKG_VERSION", "packaging/buildroot/zqdiag.mk": "ZQDIAG_VERSION"}
STUBS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "stubs")
failures = []


def fail(msg):
    failures.append(msg)
    print("FAIL: " + msg)


def compare(what, got, want):
    if got != want:
        fail(f"{what} differs from cmake --install: missing {sorted(want - got)}, not expected {sorted(got - want)}")


def tree_files(root):
    """Files and symbolic links under root, relative to it."""
    return {os.path.relpath(os.path.join(d, name), root) for d, dirs, files in os.walk(root)
            for name in files + [x for x in dirs if os.path.islink(os.path.join(d, x))]}


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def install(cmake, build, destdir, component=None, clean=True):
    if clean:
        shutil.rmtree(destdir, ignore_errors=True)
    cmd = [cmake, "--install", build, "--prefix", "/usr"] + (["--component", component] if component else [])
    r = run(cmd, env=dict(os.environ, DESTDIR=destdir))
    if r.returncode != 0:
        sys.exit(r.stdout + f"\ncmake --install {component or ''} failed")
    return tree_files(destdir)


def make(args):
    r = run(["make", "--no-print-directory", "-s"] + args)
    if r.returncode != 0:
        fail("make " + " ".join(args) + " failed:\n" + r.stdout)
    return r.stdout


def check_declarations(src, version):
    for recipe, var in RECIPES.items():
        text = read(os.path.join(src, recipe))
        found = re.search(rf"^{var}\s*:?=\s*(\S+)", text, re.M)
        if not found or found.group(1) != version:
            fail(f"{recipe}: {var} is not the project's {version}")
        opts = dict(re.findall(r"-D([A-Za-z0-9_]+)(?::[A-Z]+)?=(\S+)", text))
        for name, want in REQUIRED_OPTIONS.items():
            if opts.get(name) != want:
                fail(f"{recipe}: -D{name}={want} missing from the CMake options (found {opts.get(name)})")


def finalize_removes(path):
    """What Buildroot's target-finalize deletes from the target directory."""
    gone = ("usr/include/", "usr/share/aclocal/", "usr/lib/pkgconfig/", "usr/share/pkgconfig/", "usr/lib/cmake/",
            "usr/share/cmake/", "usr/doc/", "usr/man/", "usr/share/man/", "usr/share/doc/")
    return (path.startswith(gone) or (path.startswith(("usr/lib/", "usr/share/")) and path.endswith(".cmake"))
            or (path.startswith(("lib/", "usr/lib/")) and path.endswith((".a", ".la"))))


def run_openwrt(src, root, work, ref, cmake):
    harness = ["-f", os.path.join(STUBS, "openwrt.mk"), "RECIPE=" + os.path.join(src, "packaging/openwrt/Makefile")]
    out = os.path.join(work, "openwrt")
    make(harness + ["PKG_INSTALL_DIR=" + root, "OUT=" + out])
    for name, want in (("libzqdiag", ref["library"]), ("zqdiag", ref["command"]),
                       ("dev", ref["development"] | ref["library"])):
        compare(f"openwrt {name}", tree_files(os.path.join(out, name)), want)
        for f in want & ref["library"]:
            if os.path.islink(os.path.join(root, f)) != os.path.islink(os.path.join(out, name, f)):
                fail(f"openwrt {name}: /{f} is not copied as it was installed (link or file)")
    # Build/Prepare's copy of the tree configures with the recipe's options.
    tree = os.path.join(work, "openwrt-build-dir")
    make(harness + ["PKG_BUILD_DIR=" + tree, "ZQDIAG_SOURCE_DIR=" + os.path.abspath(src), "prepare"])
    if not os.path.exists(os.path.join(tree, "include/zq_diag.h")) or os.path.exists(os.path.join(tree, ".git")):
        fail("openwrt Build/Prepare: the copy lacks the sources or holds .git/")
    options = make(harness + ["options"]).split()
    r = run([cmake, "-S", tree, "-B", os.path.join(tree, "openwrt-build")] + options)
    if r.returncode != 0:
        fail("openwrt: the copied tree does not configure with " + " ".join(options) + ":\n" + r.stdout[-3000:])


def run_buildroot(src, root, work, ref):
    harness = ["-f", os.path.join(STUBS, "buildroot.mk"),
               "RECIPE=" + os.path.abspath(os.path.join(src, "packaging/buildroot/zqdiag.mk")), "INSTALLED=" + root]
    site = make(harness + ["site"]).strip()
    if site != os.path.realpath(src):
        fail(f"buildroot: ZQDIAG_SITE is '{site}', not the checkout the recipe sits in ({src})")
    for cli in ("y", ""):
        target = os.path.join(work, "buildroot-target" + cli)
        make(harness + ["TARGET_DIR=" + target, "BR2_PACKAGE_ZQDIAG_CLI=" + cli, "target"])
        # Buildroot keeps the development link the finalize step does not match.
        got = {f for f in tree_files(target) if not finalize_removes(f)} - ref["development"]
        compare(f"buildroot target {'with' if cli else 'without'} the command", got,
                ref["library"] | (ref["command"] if cli else set()))


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    src, build, cmake, work = sys.argv[1:]
    libdir = re.search(r"^CMAKE_INSTALL_LIBDIR:[A-Z]+=(.*)$", read(os.path.join(build, "CMakeCache.txt")), re.M)
    if not libdir or libdir.group(1) != "lib":
        print("skipped: this build installs its libraries elsewhere than the recipes' lib")
        return 77
    version = re.search(r"project\(zqdiag VERSION (\S+)", read(os.path.join(src, "CMakeLists.txt"))).group(1)

    shutil.rmtree(work, ignore_errors=True)
    everything = install(cmake, build, os.path.join(work, "all"))
    parts = {c: install(cmake, build, os.path.join(work, c), c) for c in ("Runtime", "Development", "Inspect")}
    unknown = everything - set().union(*parts.values())
    if unknown:
        fail(f"files of an install component the recipes do not know: {sorted(unknown)}")
    root = os.path.join(work, "firmware")
    install(cmake, build, root, "Runtime")
    install(cmake, build, root, "Development", clean=False)
    compare("Runtime and Development installed together", tree_files(root), everything - parts["Inspect"])
    runtime = parts["Runtime"] - parts["Inspect"]
    ref = {"library": {f for f in runtime if f.startswith(LIB)},
           "command": {f for f in runtime if not f.startswith((LIB,) + NOT_FIRMWARE)},
           "development": {f for f in parts["Development"] if not f.startswith(NOT_FIRMWARE)}}

    check_declarations(src, version)
    run_openwrt(src, root, work, ref, cmake)
    run_buildroot(src, root, work, ref)
    shutil.rmtree(work, ignore_errors=True)
    print(f"{len(failures)} difference(s) between the recipes and cmake --install" if failures
          else "the recipes install what cmake --install produces")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
