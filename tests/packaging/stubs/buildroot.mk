# make -f buildroot.mk RECIPE=... INSTALLED=<cmake --install DESTDIR> TARGET_DIR=<dir> [BR2_PACKAGE_ZQDIAG_CLI=y]
# copies INSTALLED to TARGET_DIR, as cmake-package's install does, and runs ZQDIAG_POST_INSTALL_TARGET_HOOKS;
# `make ... site` prints the source tree. cmake-package stands in for pkg-cmake.mk: it sets the package's dir.
cmake-package = ZQDIAG_PKGDIR = $(dir $(lastword $(MAKEFILE_LIST)))
include $(RECIPE)

.PHONY: target site
target:
	rm -rf $(TARGET_DIR)
	cp -a $(INSTALLED) $(TARGET_DIR)
	$(foreach hook,$(ZQDIAG_POST_INSTALL_TARGET_HOOKS),$($(hook)))
site:
	@echo $(ZQDIAG_SITE)
