# Runs the OpenWrt recipe's install sections with OpenWrt's commands:
#   make -f openwrt.mk RECIPE=... PKG_INSTALL_DIR=<cmake --install DESTDIR> OUT=<dir>
# puts each package's root in OUT/<package> and the staging area in OUT/dev;
#   make -f openwrt.mk RECIPE=... PKG_BUILD_DIR=<dir> ZQDIAG_SOURCE_DIR=<tree> prepare
# runs Build/Prepare; `make ... options` prints CMAKE_OPTIONS.
TOPDIR := $(dir $(lastword $(MAKEFILE_LIST)))openwrt
include $(RECIPE)

.PHONY: all libzqdiag zqdiag dev prepare options
all: libzqdiag zqdiag dev
libzqdiag zqdiag:
	$(call Package/$@/install,$(OUT)/$@)
dev:
	$(call Build/InstallDev,$(OUT)/dev)
prepare:
	$(Build/Prepare)
options:
	@echo $(CMAKE_OPTIONS)
