# Installation: library and headers, CMake package, pkg-config file.
include(CMakePackageConfigHelpers)

set(KP_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kp)

install(TARGETS kp EXPORT kpTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY include/kp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")

install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  USE_SOURCE_PERMISSIONS)

install(EXPORT kpTargets NAMESPACE kp:: DESTINATION ${KP_PACKAGE_DIR} COMPONENT development)
configure_package_config_file(cmake/kpConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/kpConfig.cmake
  INSTALL_DESTINATION ${KP_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kpConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)  # Until 1.0 a minor version may break.
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kpConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kpConfigVersion.cmake
  DESTINATION ${KP_PACKAGE_DIR} COMPONENT development)

# The way from the file's folder back to the prefix, so that the whole may be moved.
file(RELATIVE_PATH KP_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
set(KP_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KP_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
endif()
configure_file(cmake/kp.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kp.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
