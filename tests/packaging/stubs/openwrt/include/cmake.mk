# Stand-in for OpenWrt's cmake.mk: the options only.
CMAKE_OPTIONS :=
