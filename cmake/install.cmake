# SPDX-License-Identifier: MIT
# What `cmake --install` puts in place: headers, library, CMake package, pkg-config file and the command.
include(CMakePackageConfigHelpers)
install(TARGETS libvu EXPORT libvu-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(TARGETS vu RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT libvu-targets NAMESPACE libvu:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libvu)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libvuConfigVersion.cmake COMPATIBILITY SameMajorVersion)
file(WRITE ${PROJECT_BINARY_DIR}/libvuConfig.cmake "include(\"\${CMAKE_CURRENT_LIST_DIR}/libvu-targets.cmake\")\n")
install(FILES ${PROJECT_BINARY_DIR}/libvuConfig.cmake ${PROJECT_BINARY_DIR}/libvuConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libvu)
# The file finds its prefix from where it lies, so that an installation can be moved.
file(RELATIVE_PATH VU_PREFIX_FROM_PC "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/libvu.pc.in libvu.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libvu.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# The command finds its library beside itself, wherever both are put.
set_target_properties(vu PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
