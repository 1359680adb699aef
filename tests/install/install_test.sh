#!/bin/sh
# install_test.sh: installs the build tree into a scratch prefix and builds
# and runs a C consumer against it, once through pkg-config and once through
# find_package(zqdiag).
#
# Settings come from the environment (tests/install/CMakeLists.txt):
#   BUILD_DIR WORK_DIR SOURCE_DIR CMAKE CC CFLAGS GENERATOR
#   TOOLCHAIN_FILE, EMULATOR (cross builds; EMULATOR is a command line)
set -eu
: "${BUILD_DIR:?}" "${WORK_DIR:?}" "${SOURCE_DIR:?}" "${CMAKE:?}" "${CC:?}"
CFLAGS=${CFLAGS:-}
GENERATOR=${GENERATOR:-}
TOOLCHAIN_FILE=${TOOLCHAIN_FILE:-}
EMULATOR=${EMULATOR:-}

prefix=$WORK_DIR/prefix
rm -rf "$WORK_DIR"
mkdir -p "$WORK_DIR"

step() { echo "== $*"; }
run_target() { # program: runs it on the target (under the emulator when cross)
    # shellcheck disable=SC2086
    LD_LIBRARY_PATH=$libdir $EMULATOR "$@"
}

step "install into $prefix"
"$CMAKE" --install "$BUILD_DIR" --prefix "$prefix"

# The installed tree.
pc=$(find "$prefix" -name zqdiag.pc)
[ -n "$pc" ] || { echo "no zqdiag.pc installed"; exit 1; }
libdir=$(dirname "$(dirname "$pc")")
for f in "$prefix/include/zq_diag.h" "$libdir/libzqdiag.so" "$libdir/libzqdiag.so.1" \
    "$libdir/cmake/zqdiag/zqdiagConfig.cmake" "$libdir/cmake/zqdiag/zqdiagConfigVersion.cmake" \
    "$libdir/cmake/zqdiag/zqdiagTargets.cmake"; do
    [ -e "$f" ] || { echo "not installed: $f"; exit 1; }
done
[ -e "$prefix/share/man/man3/libzqdiag.3" ] || { echo "not installed: libzqdiag(3)"; exit 1; }
[ "$(readlink "$libdir/libzqdiag.so")" = libzqdiag.so.1 ] || { echo "libzqdiag.so does not point at libzqdiag.so.1"; exit 1; }

step "pkg-config"
export PKG_CONFIG_LIBDIR="$libdir/pkgconfig" # this prefix only, never the host's
unset PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR || true
pkg-config --print-errors --exists 'zqdiag >= 1.0'
flags="$(pkg-config --cflags zqdiag) $(pkg-config --libs zqdiag)"
echo "pkg-config --cflags --libs zqdiag: $flags"
# shellcheck disable=SC2086
"$CC" -std=c11 -pedantic -Wall -Wextra -Werror $CFLAGS -o "$WORK_DIR/consumer_pc" \
    "$SOURCE_DIR/consumer/consumer.c" $flags
run_target "$WORK_DIR/consumer_pc"

step "find_package(zqdiag)"
set -- -S "$SOURCE_DIR/consumer" -B "$WORK_DIR/consumer_build" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$CC" -DCMAKE_C_FLAGS="$CFLAGS"
[ -z "$GENERATOR" ] || set -- "$@" -G "$GENERATOR"
# A cross build looks for packages under the target root only; the scratch
# prefix joins it there, like a firmware staging directory would.
[ -z "$TOOLCHAIN_FILE" ] || set -- "$@" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN_FILE" \
    -DCMAKE_FIND_ROOT_PATH="$prefix"
"$CMAKE" "$@" >"$WORK_DIR/consumer_configure.log" 2>&1 ||
    { cat "$WORK_DIR/consumer_configure.log"; exit 1; }
"$CMAKE" --build "$WORK_DIR/consumer_build"
run_target "$WORK_DIR/consumer_build/consumer"

# The installed command, if any, finds the installed library on its own.
if [ -e "$prefix/bin/zqdiag" ]; then
    step "installed zqdiag command"
    [ -e "$prefix/share/man/man1/zqdiag.1" ] || { echo "not installed: zqdiag(1)"; exit 1; }
    # shellcheck disable=SC2086
    $EMULATOR "$prefix/bin/zqdiag" --help >"$WORK_DIR/zqdiag_help.txt" ||
        { echo "the installed zqdiag --help failed"; exit 1; }
    echo "zqdiag --help: ok"
fi

rm -rf "$WORK_DIR"
echo "install test passed"
