################################################################################
#
# zqdiag
#
################################################################################

ZQDIAG_VERSION = 1.0.0
# A local zqdiag tree (the project publishes no release archive): by default
# the checkout this file sits in, two levels above packaging/buildroot/
# (package/zqdiag may be a link to it); a copy of this file has no default
# and names the tree with ZQDIAG_SITE on the command line, or with
# ZQDIAG_OVERRIDE_SRCDIR in local.mk.
ZQDIAG_SITE ?= $(patsubst %/include/zq_diag.h,%,$(realpath $(ZQDIAG_PKGDIR)/../../include/zq_diag.h))
ZQDIAG_SITE_METHOD = local
# The copy leaves out the tree's own build directories and the lab's cache.
ZQDIAG_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = \
	--exclude /build --exclude '/build-*' --exclude /lab/.cache

# No licence has been chosen yet: all rights are reserved by the authors (as
# debian/copyright says), and the tree holds no licence file to save.
ZQDIAG_LICENSE = zqdiag-internal (no licence chosen, all rights reserved)
ZQDIAG_REDISTRIBUTE = NO

# The header, the pkg-config file and the CMake package (zqdiag::zqdiag)
# for the packages that link the library.
ZQDIAG_INSTALL_STAGING = YES
ZQDIAG_SUPPORTS_IN_SOURCE_BUILD = NO

# The gateway needs the library and the command only: no tests, benchmarks,
# fuzz targets or the ISP's host tool. The library goes to /usr/lib.
ZQDIAG_CONF_OPTS = \
	-DZQ_BUILD_TESTS=OFF \
	-DZQ_BUILD_BENCH=OFF \
	-DZQ_BUILD_FUZZ=OFF \
	-DZQ_BUILD_INSPECT=OFF \
	-DCMAKE_INSTALL_LIBDIR=lib

# CMake builds the command with the library (the project has no switch to
# leave it out); without BR2_PACKAGE_ZQDIAG_CLI its files leave the target
# again. Its manual page
# goes with the others in target-finalize.
ZQDIAG_CLI_TARGET_FILES = usr/bin/zqdiag

ifeq ($(BR2_PACKAGE_ZQDIAG_CLI),)
define ZQDIAG_REMOVE_CLI
	rm -f $(addprefix $(TARGET_DIR)/,$(ZQDIAG_CLI_TARGET_FILES))
endef
ZQDIAG_POST_INSTALL_TARGET_HOOKS += ZQDIAG_REMOVE_CLI
endif

$(eval $(cmake-package))
