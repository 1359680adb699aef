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

OpenWrt: the files each install section copies (parsed from the Makefile)
must be exactly libzqdiag = the library's runtime files, zqdiag = the
command's, Build/InstallDev = the development files and the library; every
copied pattern must match an installed file and land at the same path.

Buildroot: cmake-package installs everything into the staging and target
directories; target-finalize then removes headers, pkg-config and CMake
files and manual pages (the rules below copy Buildroot's), and the recipe's
hook removes ZQDIAG_CLI_TARGET_FILES when the command is not selected. The
staging area must hold the development files, the target the library, and
the target without the command none of the command's files.

Both are also run: with stand-ins for OpenWrt's and Buildroot's own files
(stubs/), GNU make runs the OpenWrt install sections with OpenWrt's copy
commands and its Build/Prepare (whose copy must configure with the recipe's
CMAKE_OPTIONS), and the Buildroot target install with the recipe's hook,
with and without the command; the trees they leave must hold the same
files. The run also finds the recipes' make syntax and the Buildroot
recipe's default source tree (the checkout it sits in).

Exits 0 when everything matches, 1 with the differences otherwise, and 77
(skipped) when the build installs its libraries elsewhere than the recipes
ask for (a Debian configure with the prefix /usr, for instance).
"""
import glob
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
# Make files
# ---------------------------------------------------------------------------
def logical_lines(text):
    """Lines with backslash continuations joined."""
    out, cur = [], ""
    for line in text.splitlines():
        if line.endswith("\\"):
            cur += line[:-1] + " "
            continue
        out.append(cur + line)
        cur = ""
    if cur:
        out.append(cur)
    return out


def make_parse(text):
    """Top-level variable assignments (name -> list of values, in order, with
    the conditional they sit in) and define blocks (name -> body lines)."""
    variables, defines = {}, {}
    conds = []
    lines = logical_lines(text)
    i = 0
    while i < len(lines):
        line = lines[i]
        s = line.strip()
        i += 1
        if not s or s.startswith("#"):
            continue
        m = re.match(r"define\s+(\S+)", s)
        if m:
            body = []
            while i < len(lines) and lines[i].strip() != "endef":
                body.append(lines[i])
                i += 1
            i += 1
            defines[m.group(1)] = body
            continue
        if re.match(r"if(n?eq|n?def)\b", s):
            conds.append(s)
            continue
        if s == "endif":
            if not conds:
                fail("an endif without its if")
                continue
            conds.pop()
            continue
        if s.startswith("else"):
            conds[-1] = "else of " + conds[-1]
            continue
        m = re.match(r"([A-Za-z0-9_./$()-]+)\s*(\+=|\?=|:=|=)\s*(.*)$", s)
        if m:
            variables.setdefault(m.group(1), []).append((m.group(2), m.group(3).strip(), tuple(conds)))
    return variables, defines


def value(variables, name):
    """The value of a simple variable (its last plain assignment, plus +=)."""
    v = ""
    for op, val, _ in variables.get(name, []):
        v = (v + " " + val).strip() if op == "+=" else val
    return v


def options_of(text):
    return dict(re.findall(r"-D([A-Za-z0-9_]+)(?::[A-Z]+)?=(\S+)", text))


def check_options(recipe, opts):
    for name, want in REQUIRED_OPTIONS.items():
        if opts.get(name) != want:
            fail(f"{recipe}: -D{name}={want} missing from the CMake options (found {opts.get(name)})")


# ---------------------------------------------------------------------------
# OpenWrt
# ---------------------------------------------------------------------------
COPY_COMMANDS = ("$(CP)", "$(INSTALL_BIN)", "$(INSTALL_DATA)", "$(INSTALL_CONF)")


def openwrt_section(name, body, root, installed):
    """The files an install section puts into its package root: each source
    pattern under $(PKG_INSTALL_DIR) globbed in the install tree."""
    dirs, files = set(), set()
    for raw in body:
        s = raw.strip()
        if not s or s.startswith("#"):
            continue
        words = s.split()
        if words[0] == "$(INSTALL_DIR)":
            for w in words[1:]:
                if not w.startswith("$(1)/"):
                    fail(f"openwrt {name}: directory outside the package root: {w}")
                dirs.add(w[len("$(1)/"):].strip("/"))
            continue
        if words[0] not in COPY_COMMANDS:
            fail(f"openwrt {name}: a command this check cannot follow: {s}")
            continue
        args = [w for w in words[1:] if not w.startswith("-")]
        if len(args) < 2:
            fail(f"openwrt {name}: a copy without source or destination: {s}")
            continue
        *sources, dest = args
        if not dest.startswith("$(1)/"):
            fail(f"openwrt {name}: destination outside the package root: {dest}")
            continue
        dest = dest[len("$(1)/"):]
        to_dir = dest.endswith("/") or dest.strip("/") in dirs
        dest = dest.strip("/")
        if to_dir and dest not in dirs:
            fail(f"openwrt {name}: copies into {dest}/, which the section does not create")
        for src in sources:
            if not src.startswith("$(PKG_INSTALL_DIR)/"):
                fail(f"openwrt {name}: source outside the install tree: {src}")
                continue
            pattern = src[len("$(PKG_INSTALL_DIR)/"):]
            matched = sorted(
                os.path.relpath(p, root) for p in glob.glob(os.path.join(root, pattern))
            )
            matched = [p for p in matched if p in installed]
            if not matched:
                fail(f"openwrt {name}: /{pattern} matches nothing cmake --install installs")
            for rel in matched:
                target = os.path.join(dest, os.path.basename(rel)) if to_dir else dest
                if target != rel:
                    fail(f"openwrt {name}: /{rel} lands at /{target}, not at its installed path")
                files.add(target)
    return files


def check_openwrt(src, root, installed, ref, project_version, soversion):
    path = os.path.join(src, "packaging/openwrt/Makefile")
    text = open(path, encoding="utf-8").read()
    variables, defines = make_parse(text)
    print("== OpenWrt: packaging/openwrt/Makefile")

    for needed in ("include $(TOPDIR)/rules.mk", "include $(INCLUDE_DIR)/package.mk",
                   "include $(INCLUDE_DIR)/cmake.mk"):
        if needed not in text:
            fail(f"openwrt: '{needed}' missing")
    if value(variables, "PKG_VERSION") != project_version:
        fail(f"openwrt: PKG_VERSION {value(variables, 'PKG_VERSION')} is not the project's {project_version}")
    check_options("openwrt CMAKE_OPTIONS", options_of(value(variables, "CMAKE_OPTIONS")))

    packages = re.findall(r"\$\(eval \$\(call BuildPackage,([^)]+)\)\)", text)
    if sorted(packages) != ["libzqdiag", "zqdiag"]:
        fail(f"openwrt: packages built are {packages}, not libzqdiag and zqdiag")
    abi = re.findall(r"ABI_VERSION:=(\S+)", "\n".join(defines.get("Package/libzqdiag", [])))
    if abi != [soversion]:
        fail(f"openwrt: libzqdiag's ABI_VERSION is {abi}, the library's SOVERSION {soversion}")
    deps = " ".join(re.findall(r"DEPENDS:=(.*)", "\n".join(defines.get("Package/zqdiag", []))))
    for d in ("+libzqdiag", "+libstdcpp"):
        if d not in deps.split():
            fail(f"openwrt: zqdiag does not depend on {d}")

    want = {
        "Package/libzqdiag/install": ref["library"],
        "Package/zqdiag/install": ref["command"],
        "Build/InstallDev": ref["development"] | ref["library"],
    }
    got = {}
    for section, expected in want.items():
        if section not in defines:
            fail(f"openwrt: no {section} section")
            continue
        got[section] = openwrt_section(section, defines[section], root, installed)
        show(f"openwrt {section}", got[section])
        compare(f"openwrt {section}", got[section], expected)
    if got.get("Package/libzqdiag/install", set()) & got.get("Package/zqdiag/install", set()):
        fail("openwrt: a file is in both libzqdiag and zqdiag")
    left = installed - set().union(*got.values()) if got else installed
    show("openwrt: installed by cmake, in no package (firmware has no manual pages)", left)


# ---------------------------------------------------------------------------
# Buildroot
# ---------------------------------------------------------------------------
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


def check_buildroot(src, installed, ref, project_version):
    mk_path = os.path.join(src, "packaging/buildroot/zqdiag.mk")
    cfg_path = os.path.join(src, "packaging/buildroot/Config.in")
    text = open(mk_path, encoding="utf-8").read()
    config = open(cfg_path, encoding="utf-8").read()
    variables, defines = make_parse(text)
    print("== Buildroot: packaging/buildroot/zqdiag.mk, Config.in")

    if "$(eval $(cmake-package))" not in text:
        fail("buildroot: zqdiag.mk does not use $(eval $(cmake-package))")
    if value(variables, "ZQDIAG_VERSION") != project_version:
        fail(f"buildroot: ZQDIAG_VERSION {value(variables, 'ZQDIAG_VERSION')} is not the project's {project_version}")
    check_options("buildroot ZQDIAG_CONF_OPTS", options_of(value(variables, "ZQDIAG_CONF_OPTS")))
    for symbol in ("BR2_PACKAGE_ZQDIAG", "BR2_PACKAGE_ZQDIAG_CLI"):
        if not re.search(rf"^config {symbol}$", config, re.M):
            fail(f"buildroot: Config.in defines no {symbol}")
    cli_block = re.search(r"^config BR2_PACKAGE_ZQDIAG_CLI$(.*?)(?=^\S)", config, re.M | re.S)
    if not cli_block or "depends on BR2_INSTALL_LIBSTDCPP" not in cli_block.group(1):
        fail("buildroot: BR2_PACKAGE_ZQDIAG_CLI does not depend on BR2_INSTALL_LIBSTDCPP")

    # Staging: everything cmake installs, when the package installs there.
    staging = installed if value(variables, "ZQDIAG_INSTALL_STAGING") == "YES" else set()
    if not ref["development"] <= staging:
        fail("buildroot: the staging directory lacks the development files (ZQDIAG_INSTALL_STAGING = YES)")
    show("buildroot staging", staging)

    # Target: everything, less target-finalize's removals.
    target = {f for f in installed if not finalize_removes(f)}
    show("buildroot target with BR2_PACKAGE_ZQDIAG_CLI", target)
    if not (ref["library"] | ref["command"]) <= target:
        fail("buildroot: the target lacks runtime files: "
             + ", ".join("/" + f for f in sorted((ref["library"] | ref["command"]) - target)))

    # The hook that takes the command away.
    hooks = [(val, conds) for op, val, conds in variables.get("ZQDIAG_POST_INSTALL_TARGET_HOOKS", [])]
    hook_names = [v for v, _ in hooks]
    if "ZQDIAG_REMOVE_CLI" not in hook_names:
        fail("buildroot: ZQDIAG_REMOVE_CLI is not a post-install target hook")
    elif not any("ifeq ($(BR2_PACKAGE_ZQDIAG_CLI),)" in c for v, conds in hooks for c in conds
                 if v == "ZQDIAG_REMOVE_CLI"):
        fail("buildroot: ZQDIAG_REMOVE_CLI is not registered under ifeq ($(BR2_PACKAGE_ZQDIAG_CLI),), i.e. only without the command")
    body = " ".join(defines.get("ZQDIAG_REMOVE_CLI", []))
    if "$(TARGET_DIR)" not in body or "$(ZQDIAG_CLI_TARGET_FILES)" not in body:
        fail("buildroot: ZQDIAG_REMOVE_CLI does not remove $(ZQDIAG_CLI_TARGET_FILES) from $(TARGET_DIR)")
    cli_files = set(value(variables, "ZQDIAG_CLI_TARGET_FILES").split())
    for f in sorted(cli_files - installed):
        fail(f"buildroot: ZQDIAG_CLI_TARGET_FILES names /{f}, which cmake --install does not install")
    compare("buildroot ZQDIAG_CLI_TARGET_FILES (on the target)",
            {f for f in cli_files if not finalize_removes(f)}, ref["command"])
    without = target - cli_files
    show("buildroot target without BR2_PACKAGE_ZQDIAG_CLI", without)
    if without & ref["command"]:
        fail("buildroot: without the command the target still holds "
             + ", ".join("/" + f for f in sorted(without & ref["command"])))
    if not ref["library"] <= without:
        fail("buildroot: without the command the target loses library files")


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
    sonames = [f for f in ref["library"] if re.fullmatch(r"usr/lib/libzqdiag\.so\.\d+", f)]
    if len(sonames) != 1:
        sys.exit(f"no single SONAME link among {sorted(ref['library'])}")
    soversion = sonames[0].rsplit(".", 1)[1]

    check_openwrt(src, root, installed, ref, project_version, soversion)
    check_buildroot(src, installed, ref, project_version)
    if shutil.which("make"):
        run_openwrt(src, root, work, ref)
        run_openwrt_prepare(src, work, cmake)
        run_buildroot(src, root, work, ref)
    else:
        print("make missing: the recipes' commands were not run")

    shutil.rmtree(work, ignore_errors=True)
    if failures:
        print(f"{len(failures)} difference(s) between the recipes and cmake --install")
        return 1
    print("the recipes install what cmake --install produces")
    return 0


if __name__ == "__main__":
    sys.exit(main())
