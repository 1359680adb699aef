# Runs the Buildroot recipe's target install with its hooks:
#   make -f buildroot.mk RECIPE=... INSTALLED=<cmake --install DESTDIR> TARGET_DIR=<dir> [BR2_PACKAGE_ZQDIAG_CLI=y]
# copies INSTALLED to TARGET_DIR (what cmake-package's install does) and runs
# ZQDIAG_POST_INSTALL_TARGET_HOOKS; `make ... site` prints the source tree.
pkgdir = $(dir $(lastword $(MAKEFILE_LIST)))
# Stand-in for pkg-cmake.mk: the package's directory, as the generic
# infrastructure sets it.
cmake-package = ZQDIAG_PKGDIR = $(pkgdir)
include $(RECIPE)

.PHONY: target site
target:
	rm -rf $(TARGET_DIR)
	cp -a $(INSTALLED) $(TARGET_DIR)
	$(foreach hook,$(ZQDIAG_POST_INSTALL_TARGET_HOOKS),$($(hook)))
site:
	@echo $(ZQDIAG_SITE)
