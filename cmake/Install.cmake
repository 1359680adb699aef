# Installation of the shipped library: the shared object with its SONAME
# links, the public header, a pkg-config file and a CMake package with the
# imported target zqdiag::zqdiag.
#
#   cmake --install <build> [--prefix <dir>]         (DESTDIR works too)
#   pkg-config --cflags --libs zqdiag
#   find_package(zqdiag 1 REQUIRED) + target_link_libraries(x zqdiag::zqdiag)
include(CMakePackageConfigHelpers)

set(ZQ_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zqdiag)

install(TARGETS zqdiag EXPORT zqdiagTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/zq_diag.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT Development)

install(EXPORT zqdiagTargets
  NAMESPACE zqdiag::
  DESTINATION ${ZQ_CMAKE_PACKAGE_DIR}
  COMPONENT Development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zqdiagConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zqdiagConfig.cmake
  INSTALL_DESTINATION ${ZQ_CMAKE_PACKAGE_DIR})
# The package is arch-specific: the version file also refuses a consumer
# whose pointer size differs.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zqdiagConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/zqdiagConfig.cmake
  ${PROJECT_BINARY_DIR}/zqdiagConfigVersion.cmake
  DESTINATION ${ZQ_CMAKE_PACKAGE_DIR}
  COMPONENT Development)

# zqdiag.pc is written at install time so that its prefix is the one of
# that install (cmake --install --prefix), not the one of the configure.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(ZQ_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(ZQ_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(ZQ_PC_VERSION ${PROJECT_VERSION})
set(ZQ_PC_PREFIX "@ZQ_PC_PREFIX@") # kept for the install-time pass
configure_file(${CMAKE_CURRENT_LIST_DIR}/zqdiag.pc.in ${PROJECT_BINARY_DIR}/zqdiag.pc.in @ONLY)
install(CODE "
  set(ZQ_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/zqdiag.pc.in\" \"${PROJECT_BINARY_DIR}/pkgconfig/zqdiag.pc\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\"
    TYPE FILE FILES \"${PROJECT_BINARY_DIR}/pkgconfig/zqdiag.pc\")
" COMPONENT Development)

# The manual pages: libzqdiag(3) with the development files, zqdiag(1) with
# the command.
install(FILES ${PROJECT_SOURCE_DIR}/man/libzqdiag.3
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
  COMPONENT Development)
if(TARGET zqdiag_cli)
  install(FILES ${PROJECT_SOURCE_DIR}/man/zqdiag.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT Runtime)
  # The schema of 'zqdiag records --json', for the tools that read it.
  install(FILES ${PROJECT_SOURCE_DIR}/cli/schema/zqdiag-records.schema.json
    DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT Runtime)
endif()
