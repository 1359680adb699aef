#!/usr/bin/env python3
"""check_recipes.py SOURCE_DIR BUILD_DIR CMAKE WORK_DIR

The firmware recipes (packaging/openwrt/Makefile, packaging/buildroot/
{Config.in,zqdiag.mk}) against what `cmake --install` of this build puts
under a scratch DESTDIR with the prefix /usr, the one both firmware build
systems use.

The build's install components are the reference: Runtime (the shared
object and the command, with zqdiag(1)), Development (header, development
link, pkg-config file, CMake package, libzqdiag(3)) and Inspect (the ISP's
host tool, which the recipes turn off). Of the Runtime files, those in
usr/lib are the library's, the others the command's. Firmware carries no
manual pages.

Each recipe's version must be the project's, and its CMake options must
turn off tests, benches, fuzz targets and the ISP's tool.

Both recipes are run: with stand-ins for OpenWrt's and Buildroot's own
files (stubs/), GNU make runs the OpenWrt install sections with OpenWrt's
copy commands (libzqdiag = the library's runtime files, zqdiag = the
command's, Build/InstallDev = the development files and the library) and
its Build/Prepare (whose copy must configure with the recipe's
CMAKE_OPTIONS), and the Buildroot target install with the recipe's hook,
with and without the command (target-finalize's removals applied as
Buildroot does); the trees they leave must hold the same files as cmake
--install. The run also finds the recipes' make syntax and the Buildroot
recipe's default source tree (the checkout it sits in).

Exits 0 when everything matches, 1 with the differences otherwise, and 77
(skipped) when the build installs its libraries elsewhere than the recipes
ask for (a Debian configure with the prefix /usr, for instance).
"""
import os
import re
import shutil
import subprocess
import sys

MAN = "usr/share/man/"
# Documentation (the JSON schema of the command's output) stays off the
# firmware too; Buildroot's finalize step removes it anyway.
DOC = "usr/share/doc/"
LIB = "usr/lib/"
# The recipes' CMake options: each must be there, with this value.
REQUIRED_OPTIONS = {
    "ZQ_BUILD_TESTS": "OFF",
    "ZQ_BUILD_BENCH": "OFF",
    "ZQ_BUILD_FUZZ": "OFF",
    "ZQ_BUILD_INSPECT": "OFF",
    "CMAKE_INSTALL_LIBDIR": "lib",
}
COMPONENTS = ("Runtime", "Development", "Inspect")

failures = []


def fail(msg):
    failures.append(msg)
    print("FAIL: " + msg)


def show(title, files):
    print(f"{title}:")
    for f in sorted(files):
        print("  /" + f)
    if not files:
        print("  (nothing)")


def compare(what, got, want):
    """got and want are sets of paths; a difference is a failure."""
    if got == want:
        return
    extra, missing = sorted(got - want), sorted(want - got)
    msg = what + " differs from cmake --install:"
    if missing:
        msg += " missing " + ", ".join("/" + f for f in missing) + ";"
    if extra:
        msg += " not expected " + ", ".join("/" + f for f in extra) + ";"
    fail(msg)


# ---------------------------------------------------------------------------
# cmake --install
# ---------------------------------------------------------------------------
def tree_files(root):
    """Files and symbolic links under root, relative to it."""
    out = set()
    for d, dirs, files in os.walk(root):
        for name in files + [x for x in dirs if os.path.islink(os.path.join(d, x))]:
            out.add(os.path.relpath(os.path.join(d, name), root))
    return out


def install(cmake, build, destdir, component=None, clean=True):
    if clean:
        shutil.rmtree(destdir, ignore_errors=True)
    cmd = [cmake, "--install", build, "--prefix", "/usr"]
    if component:
        cmd += ["--component", component]
    env = dict(os.environ, DESTDIR=destdir)
    r = subprocess.run(cmd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if r.returncode != 0:
        print(r.stdout)
        sys.exit(f"cmake --install {'--component ' + component if component else ''} failed")
    return tree_files(destdir)


def cache_value(build, name):
    with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as f:
        for line in f:
            m = re.match(rf"{name}:[A-Z]+=(.*)$", line.rstrip("\n"))
            if m:
                return m.group(1)
    return None


# ---------------------------------------------------------------------------
# What the recipes declare
# ---------------------------------------------------------------------------
def options_of(text):
    return dict(re.findall(r"-D([A-Za-z0-9_]+)(?::[A-Z]+)?=(\S+)", text))


def check_declarations(src, project_version):
    """Each recipe's version is the project's and its CMake options turn off
    what firmware does not ship."""
    for recipe, version_var in (("packaging/openwrt/Makefile", "PKG_VERSION"),
                                ("packaging/buildroot/zqdiag.mk", "ZQDIAG_VERSION")):
        with open(os.path.join(src, recipe), encoding="utf-8") as f:
            text = f.read()
        version = re.search(rf"^{version_var}\s*:?=\s*(\S+)", text, re.M)
        if not version or version.group(1) != project_version:
            fail(f"{recipe}: {version_var} is not the project's {project_version}")
        opts = options_of(text)
        for name, want in REQUIRED_OPTIONS.items():
            if opts.get(name) != want:
                fail(f"{recipe}: -D{name}={want} missing from the CMake options (found {opts.get(name)})")


def finalize_removes(path):
    """What Buildroot's target-finalize deletes from the target directory."""
    gone = ("usr/include/", "usr/share/aclocal/", "usr/lib/pkgconfig/", "usr/share/pkgconfig/",
            "usr/lib/cmake/", "usr/share/cmake/", "usr/lib/rpm/", "usr/doc/", "usr/man/",
            "usr/share/man/", "usr/info/", "usr/share/info/", "usr/share/doc/", "usr/share/gtk-doc/")
    if path.startswith(gone):
        return True
    if path.startswith(("usr/lib/", "usr/share/")) and path.endswith(".cmake"):
        return True
    return path.startswith(("lib/", "usr/lib/", "usr/libexec/")) and path.endswith((".a", ".la", ".prl"))


# ---------------------------------------------------------------------------
# The recipes' own commands, run by GNU make with stand-ins for the build
# systems' files (stubs/): the copies each section makes and the hook.
# ---------------------------------------------------------------------------
STUBS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "stubs")


def make(args):
    r = subprocess.run(["make", "--no-print-directory", "-s"] + args,
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if r.returncode != 0:
        fail("make " + " ".join(args) + " failed:\n" + r.stdout)
    return r.stdout


def run_openwrt(src, root, work, ref):
    print("== OpenWrt: the install sections run")
    out = os.path.join(work, "openwrt")
    make(["-f", os.path.join(STUBS, "openwrt.mk"),
          "RECIPE=" + os.path.join(src, "packaging/openwrt/Makefile"),
          "PKG_INSTALL_DIR=" + root, "OUT=" + out])
    want = {"libzqdiag": ref["library"], "zqdiag": ref["command"],
            "dev": ref["development"] | ref["library"]}
    for name, expected in want.items():
        compare(f"openwrt {name} (run)", tree_files(os.path.join(out, name)), expected)
    for name in ("libzqdiag", "dev"):
        for f in ref["library"]:
            if os.path.islink(os.path.join(root, f)) != os.path.islink(os.path.join(out, name, f)):
                fail(f"openwrt {name} (run): /{f} is not copied as it was installed (link or file)")


def run_openwrt_prepare(src, work, cmake):
    """Build/Prepare's copy of the tree configures with the recipe's options."""
    print("== OpenWrt: Build/Prepare and a configure with CMAKE_OPTIONS")
    harness = ["-f", os.path.join(STUBS, "openwrt.mk"),
               "RECIPE=" + os.path.join(src, "packaging/openwrt/Makefile")]
    tree = os.path.join(work, "openwrt-build-dir")
    make(harness + ["PKG_BUILD_DIR=" + tree, "ZQDIAG_SOURCE_DIR=" + os.path.abspath(src), "prepare"])
    for f in ("CMakeLists.txt", "include/zq_diag.h"):
        if not os.path.exists(os.path.join(tree, f)):
            fail(f"openwrt Build/Prepare: the copy lacks {f}")
    for d in ("build", ".git"):
        if os.path.exists(os.path.join(tree, d)):
            fail(f"openwrt Build/Prepare: the copy holds {d}/")
    options = make(harness + ["options"]).split()
    r = subprocess.run([cmake, "-S", tree, "-B", os.path.join(tree, "openwrt-build")] + options,
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if r.returncode != 0:
        fail("openwrt: the copied tree does not configure with " + " ".join(options) + ":\n" + r.stdout[-3000:])
    else:
        print("configured with " + " ".join(options))


def run_buildroot(src, root, work, ref):
    print("== Buildroot: the target install and its hook run")
    recipe = os.path.abspath(os.path.join(src, "packaging/buildroot/zqdiag.mk"))
    harness = ["-f", os.path.join(STUBS, "buildroot.mk"), "RECIPE=" + recipe, "INSTALLED=" + root]
    site = make(harness + ["site"]).strip()
    if site != os.path.realpath(src):
        fail(f"buildroot: ZQDIAG_SITE is '{site}', not the checkout the recipe sits in ({src})")
    # An external tree's package/zqdiag linked to packaging/buildroot finds
    # the checkout too; a copy of the recipe has no default.
    ext = os.path.join(work, "br2-external", "package")
    os.makedirs(ext)
    os.symlink(os.path.dirname(recipe), os.path.join(ext, "zqdiag-link"))
    os.makedirs(os.path.join(ext, "zqdiag-copy"))
    shutil.copy(recipe, os.path.join(ext, "zqdiag-copy"))
    for name, want in (("zqdiag-link", os.path.realpath(src)), ("zqdiag-copy", "")):
        other = harness[:2] + ["RECIPE=" + os.path.join(ext, name, "zqdiag.mk")] + harness[3:]
        site = make(other + ["site"]).strip()
        if site != want:
            fail(f"buildroot: ZQDIAG_SITE from package/{name} is '{site}', not '{want}'")
    for cli in ("y", ""):
        target = os.path.join(work, "buildroot-target" + cli)
        make(harness + ["TARGET_DIR=" + target, "BR2_PACKAGE_ZQDIAG_CLI=" + cli, "target"])
        got = {f for f in tree_files(target) if not finalize_removes(f)}
        runtime = ref["library"] | (ref["command"] if cli else set())
        what = "with" if cli else "without"
        show(f"buildroot target {what} BR2_PACKAGE_ZQDIAG_CLI (run)", got)
        if not runtime <= got:
            fail(f"buildroot target {what} the command (run) lacks "
                 + ", ".join("/" + f for f in sorted(runtime - got)))
        if not cli and got & ref["command"]:
            fail("buildroot target without the command (run) holds "
                 + ", ".join("/" + f for f in sorted(got & ref["command"])))
        stray = got - ref["library"] - ref["command"] - ref["development"]
        if stray:
            fail(f"buildroot target {what} the command (run) holds files cmake does not install: "
                 + ", ".join("/" + f for f in sorted(stray)))


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    src, build, cmake, work = sys.argv[1:]

    libdir = cache_value(build, "CMAKE_INSTALL_LIBDIR")
    if libdir != REQUIRED_OPTIONS["CMAKE_INSTALL_LIBDIR"]:
        print(f"skipped: this build installs libraries into {libdir}, the recipes into lib")
        return 77
    with open(os.path.join(src, "CMakeLists.txt"), encoding="utf-8") as f:
        project_version = re.search(r"project\(zqdiag VERSION (\S+)", f.read()).group(1)

    shutil.rmtree(work, ignore_errors=True)
    everything = install(cmake, build, os.path.join(work, "all"))
    parts = {c: install(cmake, build, os.path.join(work, c), c) for c in COMPONENTS}
    # What the recipes' builds install: everything but the Inspect component.
    root = os.path.join(work, "firmware")
    install(cmake, build, root, "Runtime")
    install(cmake, build, root, "Development", clean=False)
    stray = everything - set().union(*parts.values())
    if stray:
        fail("files of an install component the recipes do not know: "
             + ", ".join("/" + f for f in sorted(stray)))
    # The recipes build without the ISP's host tool.
    installed = everything - parts["Inspect"]
    compare("Runtime and Development installed together", tree_files(root), installed)
    show("cmake --install (less the Inspect component)", installed)

    runtime = parts["Runtime"] - parts["Inspect"]
    ref = {
        "library": {f for f in runtime if f.startswith(LIB)},
        "command": {f for f in runtime if not f.startswith((LIB, MAN, DOC))},
        "development": {f for f in parts["Development"] if not f.startswith((MAN, DOC))},
    }

    check_declarations(src, project_version)
    if not shutil.which("make"):
        sys.exit("GNU make is needed to run the recipes' commands")
    run_openwrt(src, root, work, ref)
    run_openwrt_prepare(src, work, cmake)
    run_buildroot(src, root, work, ref)

    shutil.rmtree(work, ignore_errors=True)
    if failures:
        print(f"{len(failures)} difference(s) between the recipes and cmake --install")
        return 1
    print("the recipes install what cmake --install produces")
    return 0


if __name__ == "__main__":
    sys.exit(main())
