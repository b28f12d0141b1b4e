# Debian packages of what is installed: `cpack --config build/package/CPackConfig.cmake`, after the preset
# "package". script/package-test makes, checks and tries them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kp)
set(CPACK_PACKAGE_VENDOR "libkp authors")
set(CPACK_PACKAGE_CONTACT "libkp authors <libkp@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development documentation programs)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(library libkp${KP_SOVERSION})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
file(WRITE ${PROJECT_BINARY_DIR}/shlibs "libkp ${KP_SOVERSION} ${library} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/triggers ${PROJECT_BINARY_DIR}/shlibs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "class library of a network monitor's programs
Objects with fixed class identities, strings and self-locking lists, locks,
threads and a pool, the configuration of an engine and its exchange with a
front end, byte streams and wire primitives.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS libkp-doc)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "class library of a network monitor's programs (development)
For those who write host programs: the public headers, each one the manual of
its class, the CMake package kp, a pkg-config file, and examples.")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME libkp-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DOCUMENTATION_DESCRIPTION "class library of a network monitor's programs (documentation)
A guide to library and programs, the formats of files and wire, and the manual
of every class. It begins with html/index.html.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME kp-programs)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION net)
# systemd-sysusers makes the user of the service.
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS
    "${library} (= ${PROJECT_VERSION}), systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/prerm)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION "network monitor that records web traffic
kp-configure makes an installation, kp-capture watches a device and records
the web traffic of chosen addresses, kp-admin administers it while it runs,
kp-query queries the records. With a systemd unit, manual pages and
completions.")

# What Debian wants of every package.
string(TIMESTAMP KP_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in ${PROJECT_BINARY_DIR}/changelog @ONLY)
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/changelog)
foreach(component library development documentation programs)
  string(TOUPPER ${component} upper)
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component})
endforeach()
add_custom_target(kp-docs ALL COMMAND ${PROJECT_SOURCE_DIR}/script/docs ${PROJECT_BINARY_DIR}/docs VERBATIM
                  COMMENT "Making the site of headers and docs")
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libkp-doc COMPONENT documentation)
install(FILES packaging/kp-capture.service DESTINATION lib/systemd/system COMPONENT programs)
install(FILES packaging/kp.sysusers DESTINATION lib/sysusers.d RENAME kp.conf COMPONENT programs)
include(CPack)
