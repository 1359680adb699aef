# Stand-in for OpenWrt's package.mk: packages are built by the harness.
BuildPackage =
