# Stand-in for OpenWrt's rules.mk: just what the recipe's install sections
# use, with OpenWrt's values.
INCLUDE_DIR := $(TOPDIR)/include
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
INSTALL_CONF := install -m0600
CP := cp -fpR
